// Tests of the rsh, ssh and product-ssh command lines and of the runs they
// make: streams, exit states, the time-out, and lines that do not fit.
#include <chrono>

#include "hal_test_util.h"

namespace {

using haltest::HalTest;
using Strings = std::vector<std::string>;

const std::string kRshEnv =
    ". /etc/korvo2000.ini;set -f;LD_LIBRARY_PATH=$TQ_BIN_KORVO PATH=$PATH:$TQ_BIN_KORVO:$TQ_BIN_TQS ";
const std::string kSshEnv =
    ". /etc/korvo2000.ini;set -f;LD_LIBRARY_PATH=$TQ_BIN_KORVO PATH=$PATH:$TQ_BIN_KORVO:$TQ_VAR_BIN:$TQ_BIN_TQS ";

TEST_F(HalTest, RshAndSshLinesByPlatform) {
  // Only exactly "WNT" and "Windows" name Windows clients.
  struct Case {
    const char* platform;
    bool windows;
  } cases[] = {{"WNT", true}, {"Windows", true}, {"Windows NT", false}, {"", false}};
  const std::string cmd = "echo \"a b\" x";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.platform);
    TVU_RCMD rec = Rec(cmd, c.platform, "-x");
    SetFile(rec.szOutFile, "out.txt");
    std::string out = dir_ / "out.txt";

    EXPECT_EQ(iRshAccess(&rec, trace_), 0);
    std::string line = c.windows ? "rsh -l bob -x node1 '" + cmd + "'" : "rsh -l bob -x node1 '" + kRshEnv + cmd + "'";
    Strings traced = Traced();
    EXPECT_TRUE(Has(traced, "+++ RshAccess: node1 " + cmd + "  " + out));
    EXPECT_TRUE(Has(traced, "PortOpt= -x"));
    EXPECT_TRUE(Has(traced, "cmd: [" + line + "], szOutFile: [" + out + "]"));
    EXPECT_TRUE(Has(traced, "--- RshAccess: return 0 exit status 0"));
    EXPECT_EQ(Lines(dir_ / "prot.txt"), Strings{"I003-BASICS  RemoteCmd " + line});
    EXPECT_EQ(Args("rsh"), (Strings{"-l", "bob", "-x", "node1", c.windows ? cmd : kRshEnv + cmd}));

    // ssh: the command's double quotes get a backslash, as it stands in double quotes.
    const std::string escaped = "echo \\\"a b\\\" x";
    EXPECT_EQ(iSshAccess(&rec, trace_), 0);
    line = c.windows ? "ssh -l bob -x node1 \"" + escaped + "\"" : "ssh -l bob -x node1 \"" + kSshEnv + escaped + "\"";
    traced = Traced();
    EXPECT_TRUE(Has(traced, "cmd: [" + line + "], szOutFile: [" + out + "]"));
    EXPECT_TRUE(Has(traced, "--- SshAccess: return 0 exit status 0"));
    EXPECT_EQ(Lines(dir_ / "prot.txt"), Strings{"I003-BASICS  RemoteCmd " + line});
    auto args = Args("ssh");
    ASSERT_TRUE(args);
    ASSERT_EQ(args->size(), 5u);
    // The local shell removes the backslashes again (and, in the
    // environment-loading form, expands the variables: the template's doing).
    if (c.windows) EXPECT_EQ(args->back(), cmd);
    else EXPECT_EQ(args->back().rfind(". /etc/korvo2000.ini;set -f;LD_LIBRARY_PATH=", 0), 0u) << args->back();
    EXPECT_EQ(args->back().substr(args->back().size() - cmd.size()), cmd);
  }
}

TEST_F(HalTest, ProductSshForms) {
  TVU_RCMD rec = Rec("ls -l", "WNT", "-v");
  EXPECT_EQ(iTqSshAccess(&rec, trace_), 0);
  Strings traced = Traced();
  EXPECT_TRUE(Has(traced, "Access options=-v"));
  EXPECT_TRUE(Has(traced, "cmd: [tq_ssh -l bob -v node1 ls -l], szOutFile: []"));
  EXPECT_EQ(Args("tq_ssh"), (Strings{"-l", "bob", "-v", "node1", "ls", "-l"}));

  // "use_ssh": the product's ssh server, its key below gv_rw_ini (one slash),
  // and exactly the text after the first 7 characters, leading blank included.
  Ini("[pathes]\ngv_rw_ini=/etc/prod/\n");
  std::snprintf(rec.szAccessOptions, sizeof rec.szAccessOptions, "use_ssh -o Batch=yes");
  EXPECT_EQ(iTqSshAccess(&rec, trace_), 0);
  EXPECT_TRUE(Has(Traced(),
                  "cmd: [ssh -p 11322 -i \"/etc/prod/tq_ssh/ssh_server_rsa.key\" -l bob  -o Batch=yes node1 ls -l], "
                  "szOutFile: []"));
  EXPECT_EQ(Args("ssh"), (Strings{"-p", "11322", "-i", "/etc/prod/tq_ssh/ssh_server_rsa.key", "-l", "bob", "-o",
                                  "Batch=yes", "node1", "ls", "-l"}));
  EXPECT_FALSE(Args("tq_ssh"));
}

TEST_F(HalTest, StreamsExitStateAndMessage) {
  tvutest::WriteFile(dir_ / "in.txt", "input line\n");
  Env("HAL_STANDIN_CAT", "1");
  Env("HAL_STANDIN_OUT", "to out");
  Env("HAL_STANDIN_ERR", "to err");
  Env("HAL_STANDIN_EXIT", "3");
  TVU_RCMD rec = Rec("x");
  SetFile(rec.szInFile, "in.txt");
  SetFile(rec.szOutFile, "out.txt");
  SetFile(rec.szErrFile, "err.txt");
  EXPECT_EQ(iRshAccess(&rec, trace_), 3);
  EXPECT_STREQ(rec.szMsg, "exit status 3");
  EXPECT_EQ(tvutest::ReadFile(dir_ / "out.txt"), "input line\nto out\nto err\n");
  EXPECT_FALSE(tvutest::FileExists(dir_ / "err.txt"));

  rec.iSeparateErr = 1;
  EXPECT_EQ(iRshAccess(&rec, trace_), 3);
  EXPECT_EQ(tvutest::ReadFile(dir_ / "out.txt"), "input line\nto out\n");
  EXPECT_EQ(tvutest::ReadFile(dir_ / "err.txt"), "to err\n");
  EXPECT_TRUE(Args("rsh"));

  // An input file that is not there: nothing runs, the message names it.
  SetFile(rec.szInFile, "missing.txt");
  EXPECT_EQ(iRshAccess(&rec, trace_), -1);
  EXPECT_EQ(std::string(rec.szMsg), "cannot open input file " + (dir_ / "missing.txt") + ": No such file or directory");
  EXPECT_FALSE(Args("rsh"));
}

TEST_F(HalTest, TimeOutEndsTheCommandAndWhatItStarted) {
  Env("HAL_STANDIN_SLEEP", "30");
  TVU_RCMD rec = Rec("hang");
  rec.iTimeout = 1;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(iSshAccess(&rec, trace_), TVU_RCMD_TIMED_OUT);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
  EXPECT_STREQ(rec.szMsg, "timed out after 1 s");
  EXPECT_TRUE(Has(Traced(), "--- SshAccess: return 124 timed out after 1 s"));
  // The stand-in's background sleep was in the command's group: it is gone too.
  int sleepPid = std::stoi(tvutest::ReadFile(dir_ / "sleep.pid"));
  for (int i = 0; i < 100 && pid_exist(sleepPid); ++i) usleep(20000);
  EXPECT_EQ(pid_exist(sleepPid), 0);
}

TEST_F(HalTest, LineLongerThanTheBufferIsNotRun) {
  // "rsh -l bob  node1 '" and "'" take 20 characters: 8171 fill the buffer.
  TVU_RCMD rec = Rec(std::string(8171, 'a'));
  EXPECT_EQ(iRshAccess(&rec, trace_), 0);
  EXPECT_TRUE(Args("rsh"));
  rec = Rec(std::string(8172, 'a'));
  EXPECT_EQ(iRshAccess(&rec, trace_), -1);
  EXPECT_STREQ(rec.szMsg, "command line longer than 8191 characters: not run");
  EXPECT_FALSE(Args("rsh"));
  // Escaping can push an ssh command over the limit by itself.
  rec = Rec(std::string(5000, '"'));
  EXPECT_EQ(iSshAccess(&rec, trace_), -1);
  EXPECT_FALSE(Args("ssh"));
}

}  // namespace
