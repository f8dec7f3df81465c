// Tests of the control daemon access: the port rules, the program form and
// the control client call, the error-file path of high exit states.
#include "hal_test_util.h"

namespace {

using haltest::HalTest;
using Strings = std::vector<std::string>;

Strings Words(const std::string& text) {
  Strings words;
  size_t at = 0;
  while ((at = text.find_first_not_of(' ', at)) != std::string::npos) {
    size_t end = text.find(' ', at);
    words.push_back(text.substr(at, end - at));
    at = end;
  }
  return words;
}

TEST_F(HalTest, CtrldPortRules) {
  struct Case {
    const char* ini;      // CTRLD_Port line, "" for none
    const char* options;  // access options
    const char* port;     // port given to tq_ctrlc
    const char* rest;     // options given besides the port
    const char* traced;   // one line the trace must hold
  } cases[] = {
      {"", "", "11301", "", "Standard CTRL port not given in tq.ini [CTRLD_Server] CTRLD_Port "},
      {"CTRLD_Port=0", "-v", "11301", "-v", "Standard CTRL port not given in tq.ini [CTRLD_Server] CTRLD_Port 0"},
      {"CTRLD_Port=12x", "", "11301", "", "Standard CTRL port not given in tq.ini [CTRLD_Server] CTRLD_Port 12x"},
      {"CTRLD_Port=12000", "-d -p 4711 -v", "4711", "-d -v", "Ctrl port set to: 4711"},
      {"CTRLD_Port=12000", "-o -p 4711", "4711", "-o", "Standard ctrl port overwritten by clients.access_options: [-o -p 4711]"},
      {"CTRLD_Port=12000", "-p abc -d", "12000", "-d",
       "WARNING: clients.access_options: [-p abc -d] specifices invalid [-p] option"},
      {"CTRLD_Port=12000", "-v -p  -x", "12000", "-v -x", "Use standard port [12000] for CTRLC_LIB_CALL, and [12000] for TQ_CTRLC"},
      // Options that do not begin with -d, -o, -p, -s or -v are not checked.
      {"CTRLD_Port=12000", "-x -p 99", "12000", "-x -p 99", "CtrldPortOpt [12000], PortOpt [-x -p 99]"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.options);
    Ini(std::string("[pathes]\ngv_ctrlc_old=1\n[CTRLD_Server]\n") + c.ini + "\n");
    TVU_RCMD rec = Rec("df -h", "Linux", c.options);
    rec.iTimeout = 5;
    EXPECT_EQ(iCtrldAccess(&rec, trace_), 0);
    Strings traced = Traced();
    EXPECT_TRUE(Has(traced, c.traced));
    EXPECT_TRUE(Has(traced, std::string("CtrldPortOpt [") + c.port + "], PortOpt [" + c.rest + "]"));
    Strings expected = {"-S", "node1", "-p", c.port};
    for (const std::string& w : Words(c.rest)) expected.push_back(w);
    for (const char* w : {"-t", "5", "-l", "bob", "node1", "df", "-h"}) expected.push_back(w);
    EXPECT_EQ(Args("tq_ctrlc"), expected);
  }
}

TEST_F(HalTest, CtrldFormsAndErrorStream) {
  Env("HAL_STANDIN_OUT", "out line");
  Env("HAL_STANDIN_ERR", "err line");
  Ini("[pathes]\ngv_ctrlc_old=1\n");
  TVU_RCMD rec = Rec("df -h", "Linux", "-d");
  rec.iTimeout = 5;
  rec.iSeparateErr = 1;
  SetFile(rec.szOutFile, "out.txt");
  SetFile(rec.szErrFile, "err.txt");
  std::string out = dir_ / "out.txt", err = dir_ / "err.txt";

  // Separate error file and "-d": the form without time-out and "2>&1".
  EXPECT_EQ(iCtrldAccess(&rec, trace_), 0);
  EXPECT_TRUE(Has(Traced(), "cmd: [tq_ctrlc -S node1 -p 11301 -d -l bob node1 df -h], szOutFile: [" + out + "]"));
  EXPECT_EQ(Args("tq_ctrlc"), (Strings{"-S", "node1", "-p", "11301", "-d", "-l", "bob", "node1", "df", "-h"}));
  EXPECT_EQ(tvutest::ReadFile(out), "out line\n");
  EXPECT_EQ(tvutest::ReadFile(err), "err line\n");

  // Without "-d" the client cannot separate them: both go to the output file.
  remove(err.c_str());
  std::snprintf(rec.szAccessOptions, sizeof rec.szAccessOptions, "-v");
  EXPECT_EQ(iCtrldAccess(&rec, trace_), 0);
  Strings traced = Traced();
  EXPECT_TRUE(Has(traced, "ATTENTION: Due to PortOpt [-v] the stderr will be sent to stdout file [" + out + "]"));
  EXPECT_TRUE(Has(traced, "           CTRLC requires PortOpt [-d] to write to stderr file [" + err + "]"));
  EXPECT_TRUE(Has(traced, "cmd: [tq_ctrlc -S node1 -p 11301 -v -t 5 -l bob node1 df -h 2>&1], szOutFile: [" + out + "]"));
  EXPECT_EQ(tvutest::ReadFile(out), "out line\nerr line\n");
  EXPECT_FALSE(tvutest::FileExists(err));

  // gv_ctrlc_old absent or not "1": the control client call, which starts
  // tq_ctrlc itself, the command one argument, the port as "-p".
  for (const char* ini : {"", "[pathes]\ngv_ctrlc_old=0\n"}) {
    Ini(ini);
    std::snprintf(rec.szAccessOptions, sizeof rec.szAccessOptions, "-d -p 4711");
    EXPECT_EQ(iCtrldAccess(&rec, trace_), 0);
    EXPECT_TRUE(Has(Traced(), "CTRLC_LIB_CALL: -S node1 -t 5 -l bob -p 4711 -d node1 df -h >" + out + " 2>" + err));
    EXPECT_EQ(Args("tq_ctrlc"), (Strings{"-S", "node1", "-t", "5", "-l", "bob", "-p", "4711", "-d", "node1", "df -h"}));
    EXPECT_EQ(tvutest::ReadFile(err), "err line\n");
  }
}

TEST_F(HalTest, CtrldHighExitStateTakesTheErrorFile) {
  Env("HAL_STANDIN_ERR", "no such user on node1");
  Env("HAL_STANDIN_EXIT", "241");
  TVU_RCMD rec = Rec("id", "Linux", "-d");
  rec.iSeparateErr = 1;
  SetFile(rec.szOutFile, "out.txt");
  SetFile(rec.szErrFile, "err.txt");
  EXPECT_EQ(iCtrldAccess(&rec, trace_), 241);
  EXPECT_STREQ(rec.szMsg, "no such user on node1");
  Strings traced = Traced();
  EXPECT_TRUE(Has(traced, "got high exit state >= 240 try to get error message"));
  EXPECT_TRUE(Has(traced, "szMsg [no such user on node1]"));
  EXPECT_TRUE(Has(traced, "--- CtrldAccess: return exit state: 241. Message: no such user on node1"));

  // At most 255 bytes of it.
  Env("HAL_STANDIN_ERR", std::string(300, 'e'));
  EXPECT_EQ(iCtrldAccess(&rec, trace_), 241);
  EXPECT_EQ(std::string(rec.szMsg), std::string(255, 'e'));

  // Without "-d" the errors went to the output file: the error file is missing.
  std::string err = dir_ / "err.txt";
  remove(err.c_str());
  std::snprintf(rec.szAccessOptions, sizeof rec.szAccessOptions, "-v");
  EXPECT_EQ(iCtrldAccess(&rec, trace_), 241);
  std::string failed = "CtrldAccess: Failed to read from " + err + ": errno 2: No such file or directory";
  EXPECT_EQ(std::string(rec.szMsg), failed);
  EXPECT_TRUE(Has(Traced(), "ERROR: " + failed));

  // Below 240 the runner's message stands.
  Env("HAL_STANDIN_EXIT", "239");
  EXPECT_EQ(iCtrldAccess(&rec, trace_), 239);
  EXPECT_STREQ(rec.szMsg, "exit status 239");
}

}  // namespace
