// The same chain consolidated from files, from the Vk4 store and from the
// next-generation store (tqdedupd on 127.0.0.1, the reference library), and
// the store's failures, each in a tvucon process of its own.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/dedup_server.h"
#include "support/test_util.h"

namespace {

using tvutest::Contains;
using tvutest::BuiltProgram;
using tvutest::DedupServer;
using tvutest::ProcessResult;
using tvutest::ReadFile;
using tvutest::RunProcess;
using tvutest::TempDir;

// The first line of text that starts with prefix, without its line end; ""
// when there is none.
std::string LineStartingWith(const std::string& text, const std::string& prefix) {
  size_t at = text.rfind(prefix, 0) == 0 ? 0 : text.find("\n" + prefix);
  if (at == std::string::npos) return "";
  if (at != 0) ++at;
  size_t end = text.find('\n', at);
  return text.substr(at, end == std::string::npos ? std::string::npos : end - at);
}

// Number of recover requests in a server log.
size_t Count(const std::string& log) {
  size_t n = 0;
  for (size_t at = log.find("recover"); at != std::string::npos; at = log.find("recover", at + 1)) ++n;
  return n;
}

class DedupConsolidate : public ::testing::Test {
 protected:
  void SetUp() override {
    chain_ = tmp_ / "chain";
    ProcessResult r = RunProcess({BuiltProgram("mkchain"), "--out", chain_, "--files", "150", "--total-bytes",
                                  "3000000", "--incrementals", "3", "--seed", "11", "--no-final"});
    ASSERT_EQ(0, r.exitCode) << r.err;
    std::ifstream f(chain_ + "/chain.txt");
    std::string line;
    while (std::getline(f, line))
      if (line.rfind("consolidate=", 0) == 0) con_ = line.substr(12);
    meta_ = chain_ + "/tqslis/" + con_ + "_mnt/";
  }

  void StartServer(std::vector<std::string> args = {}) { server_.start({chain_ + "/savesets", args}); }

  void Relist(const std::string& media, int port) {
    ProcessResult r = RunProcess({BuiltProgram("mkchain"), "relist", "--out", chain_, "--media", media,
                                  "--dedup-host", "127.0.0.1", "--dedup-port", std::to_string(port)});
    ASSERT_EQ(0, r.exitCode) << r.err;
  }

  ProcessResult Consolidate(const std::string& out, const std::string& library = "",
                            std::vector<std::string> extra = {}) {
    std::vector<std::string> argv = {BuiltProgram("tvucon"), "consolidate", "--saveset", con_,
                                     "--ini", chain_ + "/tq.ini", "--output", out, "--quiet", "--raw"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return RunProcess(argv, {{"TQ_DEDUP_LIB", library.empty() ? BuiltProgram("libtq_dedup.so") : library}});
  }

  std::string Status() { return ReadFile(meta_ + "tvu_con.status"); }

  TempDir tmp_;
  std::string chain_, con_, meta_;
  DedupServer server_;
};

TEST_F(DedupConsolidate, FilesVk4AndVk4ngGiveTheSameStream) {
  const std::string expected = ReadFile(chain_ + "/expected.cpio");
  ProcessResult r = Consolidate(tmp_ / "file.cpio");
  ASSERT_EQ(0, r.exitCode) << r.err;
  ASSERT_TRUE(ReadFile(tmp_ / "file.cpio") == expected);

  StartServer();
  for (const char* media : {"vk4", "vk4ng"}) {
    SCOPED_TRACE(media);
    Relist(media, server_.port());
    for (const char* block : {"1048576", "1000"}) {
      r = Consolidate(tmp_ / "store.cpio", "", {"--block-size", block});
      ASSERT_EQ(0, r.exitCode) << r.err;
      EXPECT_TRUE(ReadFile(tmp_ / "store.cpio") == expected) << "block size " << block;
    }
  }
  // The transfer type comes from the store's INI file for the port.
  EXPECT_TRUE(tvutest::FileExists(chain_ + "/ini/xfpd_conf/xfpd_" + std::to_string(server_.port() - 11701) + ".ini"));
}

// A store reply longer than the request is cut to the request and reported
// to the client's log at level 1500 with the saveset, the position and both
// counts.  The test server moves past the bytes it adds, so the stream goes
// wrong; the log line is what tells the operator why.
TEST_F(DedupConsolidate, OverlongStoreRepliesAreCutAndLoggedAsErrors) {
  StartServer({"--extra-bytes", "5"});
  Relist("vk4", server_.port());
  ProcessResult r = Consolidate(tmp_ / "out.cpio");
  const std::string line = LineStartingWith(r.err, "[1500] Vk4 saveset [");
  ASSERT_FALSE(line.empty()) << r.err;
  long long position = -1, received = -1, asked = -1;
  int end = 0;
  sscanf(line.c_str(),
         "[1500] Vk4 saveset [%*[^]]] at position %lld: the store returned %lld bytes for %lld asked; the 5 bytes "
         "beyond the request are dropped and the data after them may be shifted%n",
         &position, &received, &asked, &end);
  ASSERT_EQ(line.size(), static_cast<size_t>(end)) << r.err;
  EXPECT_EQ(asked + 5, received);
  EXPECT_FALSE(ReadFile(tmp_ / "out.cpio") == ReadFile(chain_ + "/expected.cpio"));
}

// The same for a library that claims more bytes than asked (but wrote only
// the request): the count is cut, so the stream stays whole.
TEST_F(DedupConsolidate, OverlongLibraryCountsAreCutAndLoggedAsErrors) {
  StartServer();
  Relist("vk4ng", server_.port());
  ProcessResult r = Consolidate(tmp_ / "out.cpio", BuiltProgram("libtq_dedup_overlong.so"));
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(ReadFile(tmp_ / "out.cpio") == ReadFile(chain_ + "/expected.cpio"));
  const std::string line = LineStartingWith(r.err, "[1500] Vk4NG saveset [");
  ASSERT_FALSE(line.empty()) << r.err;
  long long position = -1, received = -1, asked = -1;
  int end = 0;
  sscanf(line.c_str(),
         "[1500] Vk4NG saveset [%*[^]]] at position %lld: the library returned %lld bytes for %lld asked; the count "
         "is cut to the request and the data after it may be shifted%n",
         &position, &received, &asked, &end);
  ASSERT_EQ(line.size(), static_cast<size_t>(end)) << r.err;
  EXPECT_EQ(asked + 7, received);
}

// Without the stores' INI folder the module says so on standard output; the
// stream written there must still be exactly the expected bytes.
TEST_F(DedupConsolidate, ModuleNotesStayOutOfAStreamOnStandardOutput) {
  StartServer();
  Relist("vk4", server_.port());
  std::filesystem::remove_all(chain_ + "/ini/xfpd_conf");
  ProcessResult r = Consolidate("-");
  ASSERT_EQ(0, r.exitCode) << r.err;
  EXPECT_TRUE(r.out == ReadFile(chain_ + "/expected.cpio")) << "the stream differs: " << r.out.substr(0, 80);
  EXPECT_TRUE(Contains(r.err, "ERROR path not found: " + chain_ + "/ini/xfpd_conf/\n")) << r.err;
}

TEST_F(DedupConsolidate, RefusedConnectionEndsTheProcess) {
  StartServer();
  const int port = server_.port();
  server_.stop();
  Relist("vk4", port);
  ProcessResult r = Consolidate(tmp_ / "out.cpio");
  EXPECT_EQ(1, r.exitCode);
  const std::string status = Status();
  EXPECT_TRUE(Contains(status, "ERROR INFO=Cannot establish connection to Vk4 server [127.0.0.1:" +
                                   std::to_string(port) + "] for [SF20261101020000.cpio] error = -1 vk4 = "))
      << status;
  EXPECT_TRUE(Contains(status, "Connection refused")) << status;
}

TEST_F(DedupConsolidate, UnknownObjectEndsTheProcess) {
  StartServer();
  Relist("vk4", server_.port());
  ASSERT_EQ(0, rename((chain_ + "/savesets/SI20261102020000.cpio").c_str(), (chain_ + "/savesets/gone").c_str()));
  ProcessResult r = Consolidate(tmp_ / "out.cpio");
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(Status(), "ERROR INFO=Cannot access vk4 saveset [SI20261102020000.cpio] error = -1 vk4 = "
                                 "[ObjectNotFound - "))
      << Status();
}

TEST_F(DedupConsolidate, FailedRecoverEndsTheProcess) {
  StartServer({"--fail-recover", "3"});
  Relist("vk4", server_.port());
  ProcessResult r = Consolidate(tmp_ / "out.cpio");
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "FATAL dedup_fread_rpc_h r = -1 saveset index = ")) << r.err;
  EXPECT_TRUE(Contains(Status(), "ERROR INFO=dedup_fread_rpc_h r = -1 saveset index = ")) << Status();
  EXPECT_TRUE(Contains(Status(), "[DataCorruptionException - ")) << Status();
}

TEST_F(DedupConsolidate, FailedSkipEndsTheProcess) {
  StartServer({"--fail-skip", "2"});
  Relist("vk4", server_.port());
  ProcessResult r = Consolidate(tmp_ / "out.cpio");
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "FATAL dedup_skip_h r = -1 saveset index = ")) << r.err;
  EXPECT_TRUE(Contains(Status(), "ERROR INFO=FATAL dedup_skip_h r = -1 saveset index = ")) << Status();
}

TEST_F(DedupConsolidate, FailedLibraryReadEndsTheProcess) {
  StartServer({"--fail-recover", "2"});
  Relist("vk4ng", server_.port());
  ProcessResult r = Consolidate(tmp_ / "out.cpio");
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "FATAL dedup_read_restore r = 1 saveset index = ")) << r.err;
  EXPECT_TRUE(Contains(Status(), "ERROR INFO=dedup_read_restore r = 1 saveset index = ")) << Status();
}

TEST_F(DedupConsolidate, MissingLibraryEndsTheProcess) {
  StartServer();
  Relist("vk4ng", server_.port());
  ProcessResult r = Consolidate(tmp_ / "out.cpio", "/nonexistent/libtq_dedup.so");
  EXPECT_EQ(1, r.exitCode);
  EXPECT_TRUE(Contains(r.err, "ERROR: Cannot load next-generation dedup library [/nonexistent/libtq_dedup.so]: "))
      << r.err;
  EXPECT_TRUE(Contains(Status(), "Cannot load next-generation dedup library [/nonexistent/libtq_dedup.so]"));
}

// The server dies while the stream is being read: the consolidation ends
// with an error, never with a short stream taken for a whole one.
TEST_F(DedupConsolidate, ServerKilledMidStreamEndsTheProcess) {
  StartServer({"--delay-ms", "5"});
  Relist("vk4", server_.port());
  ProcessResult r;
  std::thread client([&] { r = Consolidate(tmp_ / "out.cpio", "", {"--block-size", "16384"}); });
  // Wait (bounded) until the stream is under way, then kill the server.
  for (int i = 0; i < 500 && Count(server_.log()) < 20; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  server_.kill();
  client.join();
  EXPECT_EQ(1, r.exitCode) << r.err;
  EXPECT_TRUE(Contains(Status(), "TTransportException")) << Status();
  EXPECT_LT(ReadFile(tmp_ / "out.cpio").size(), ReadFile(chain_ + "/expected.cpio").size());
}

}  // namespace
