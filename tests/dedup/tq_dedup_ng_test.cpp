// tq_dedup_ng_test.cpp - the next-generation dedup library (libtq_dedup.so),
// loaded with dlopen as the module loads it, against a running tqdedupd.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/dedup_server.h"
#include "support/test_util.h"
#include "tq_dedup.h"

namespace {

using tvutest::TempDir;

// The exported functions, resolved from the loaded library.
struct Api {
  PFN_dedup_init_v2 init = nullptr;
  PFN_dedup_start_restore start = nullptr;
  PFN_dedup_get_object_size size = nullptr;
  PFN_dedup_read_restore read = nullptr;
  PFN_dedup_skip_restore skip = nullptr;
  PFN_dedup_rewind_restore rewind = nullptr;
  PFN_dedup_finish_restore finish = nullptr;
  PFN_dedup_get_last_message lastMessage = nullptr;
};

std::mutex g_logMutex;
std::vector<std::string> g_log;

int32_t CaptureLog(const char* line) {
  std::lock_guard<std::mutex> lock(g_logMutex);
  g_log.emplace_back(line);
  return 0;
}

std::vector<std::string> TakeLog() {
  std::lock_guard<std::mutex> lock(g_logMutex);
  return std::move(g_log);
}

// Object contents: a byte pattern with a period of 251 that changes every
// 64 KiB, so that bytes from a wrong offset are noticed.
std::string Pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i % 251) ^ (i >> 16));
  return s;
}

// A TCP port on which nothing listens (bound, then released).
int UnusedPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

// A tqdedupd over the folder with the given extra arguments; start()
// throws when it does not come up, which fails the test.
std::unique_ptr<tvutest::DedupServer> StartServer(const std::string& dir, std::vector<std::string> args = {}) {
  auto server = std::make_unique<tvutest::DedupServer>();
  tvutest::DedupServer::Options options;
  options.dir = dir;
  options.args = std::move(args);
  server->start(options);
  return server;
}

constexpr size_t kSmall = 1000;
constexpr size_t kLarge = 12 * 1024 * 1024 + 123;

class TqDedupNgTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new TempDir();
    tvutest::WriteFile(*dir_ / "store/small", Pattern(kSmall));
    tvutest::WriteFile(*dir_ / "store/large", Pattern(kLarge));
    server_ = StartServer(*dir_ / "store").release();
    lib_ = dlopen(TVU_BINARY_DIR "/libtq_dedup.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib_, nullptr) << dlerror();
#define TQ_RESOLVE(field, name)                                       \
  api_.field = reinterpret_cast<PFN_##name>(dlsym(lib_, #name)); \
  ASSERT_NE(api_.field, nullptr) << #name
    TQ_RESOLVE(init, dedup_init_v2);
    TQ_RESOLVE(start, dedup_start_restore);
    TQ_RESOLVE(size, dedup_get_object_size);
    TQ_RESOLVE(read, dedup_read_restore);
    TQ_RESOLVE(skip, dedup_skip_restore);
    TQ_RESOLVE(rewind, dedup_rewind_restore);
    TQ_RESOLVE(finish, dedup_finish_restore);
    TQ_RESOLVE(lastMessage, dedup_get_last_message);
#undef TQ_RESOLVE
  }

  static void TearDownTestSuite() {
    delete server_;
    if (lib_) dlclose(lib_);
    delete dir_;
  }

  void SetUp() override {
    ASSERT_NE(server_, nullptr);
    TakeLog();
  }

  // Connects and starts a restore of name; fails the test otherwise.
  int32_t Open(const char* name, int port = 0) {
    int32_t h = api_.init("127.0.0.1", port ? port : server_->port(), "hyper", CaptureLog);
    EXPECT_GE(h, 0) << api_.lastMessage();
    EXPECT_EQ(api_.start(h, name), 0) << api_.lastMessage();
    return h;
  }

  std::string Read(int32_t h, int64_t n) {
    std::string buf(static_cast<size_t>(n), '\0');
    int64_t got = api_.read(h, buf.data(), n);
    buf.resize(static_cast<size_t>(got > 0 ? got : 0));
    return buf;
  }

  static std::string Message() { return api_.lastMessage(); }

  inline static TempDir* dir_ = nullptr;
  inline static tvutest::DedupServer* server_ = nullptr;
  inline static void* lib_ = nullptr;
  inline static Api api_;
};

TEST_F(TqDedupNgTest, ReadsInPiecesAndStopsAtTheEnd) {
  const std::string want = Pattern(kSmall);
  int32_t h = Open("small");
  EXPECT_EQ(api_.size(h, "small"), static_cast<int64_t>(kSmall));
  EXPECT_EQ(Read(h, 1), want.substr(0, 1));
  EXPECT_EQ(Read(h, 99), want.substr(1, 99));
  // A read across the end returns what is left; one at the end returns 0,
  // which the caller treats as a failure, with a message that says why.
  EXPECT_EQ(Read(h, 4096), want.substr(100));
  char c;
  EXPECT_EQ(api_.read(h, &c, 1), 0);
  EXPECT_NE(Message().find("end of object"), std::string::npos);
  EXPECT_EQ(api_.finish(h), 0);
}

TEST_F(TqDedupNgTest, LargeReadsSpanManyReplies) {
  const std::string want = Pattern(kLarge);
  int32_t h = Open("large");
  EXPECT_EQ(api_.size(h, "large"), static_cast<int64_t>(kLarge));
  const int64_t tenMiB = 10 * 1024 * 1024;
  std::string first = Read(h, tenMiB);
  ASSERT_EQ(first.size(), static_cast<size_t>(tenMiB));
  EXPECT_TRUE(first == want.substr(0, tenMiB));
  std::string rest = Read(h, tenMiB);
  EXPECT_EQ(rest.size(), kLarge - tenMiB);
  EXPECT_TRUE(rest == want.substr(tenMiB));
  EXPECT_EQ(api_.finish(h), 0);
}

TEST_F(TqDedupNgTest, SkipAndRewindMoveTheStream) {
  const std::string want = Pattern(kLarge);
  int32_t h = Open("large");
  EXPECT_EQ(api_.skip(h, 5000000), 0) << api_.lastMessage();
  EXPECT_EQ(Read(h, 10), want.substr(5000000, 10));
  EXPECT_EQ(api_.skip(h, 0), 0);
  EXPECT_EQ(Read(h, 10), want.substr(5000010, 10));
  EXPECT_EQ(api_.rewind(h), 0) << api_.lastMessage();
  EXPECT_EQ(Read(h, 10), want.substr(0, 10));
  EXPECT_LT(api_.skip(h, -1), 0);
  EXPECT_NE(Message().find("negative"), std::string::npos);
  EXPECT_EQ(Read(h, 10), want.substr(10, 10)) << "a refused skip must not move the stream";
  EXPECT_EQ(api_.finish(h), 0);
}

TEST_F(TqDedupNgTest, HandlesAreReusedSmallestFirst) {
  int32_t a = Open("small"), b = Open("small"), c = Open("large");
  EXPECT_EQ(std::set<int32_t>({a, b, c}), std::set<int32_t>({0, 1, 2}));
  EXPECT_EQ(api_.finish(b), 0);
  char byte;
  EXPECT_EQ(api_.read(b, &byte, 1), 0);  // the freed handle is unknown now
  EXPECT_NE(Message().find("unknown handle"), std::string::npos);
  int32_t d = api_.init("127.0.0.1", server_->port(), "hyper", CaptureLog);
  EXPECT_EQ(d, b);
  // A second connection reads its own stream, independent of the others.
  EXPECT_EQ(api_.start(d, "large"), 0);
  EXPECT_EQ(Read(d, 5), Pattern(5));
  EXPECT_EQ(Read(a, 5), Pattern(5));
  for (int32_t h : {a, c, d}) EXPECT_EQ(api_.finish(h), 0);
  EXPECT_NE(api_.finish(a), 0);
  EXPECT_LT(api_.start(-1, "small"), 0);
}

TEST_F(TqDedupNgTest, RefusedConnectionIsReported) {
  int port = UnusedPort();
  EXPECT_LT(api_.init("127.0.0.1", port, "hyper", CaptureLog), 0);
  std::string msg = Message();
  EXPECT_NE(msg.find("dedup_init_v2"), std::string::npos) << msg;
  EXPECT_NE(msg.find("127.0.0.1:" + std::to_string(port)), std::string::npos) << msg;
  EXPECT_NE(msg.find("TTransportException"), std::string::npos) << msg;
  EXPECT_NE(msg.find("Connection refused"), std::string::npos) << msg;
  auto log = TakeLog();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0], "%l0 " + msg);
  // The last message belongs to the thread that failed.
  std::string other = "unset";
  std::thread([&] { other = api_.lastMessage(); }).join();
  EXPECT_EQ(other, "");
}

TEST_F(TqDedupNgTest, UnknownObjectFailsButKeepsTheConnection) {
  int32_t h = api_.init("127.0.0.1", server_->port(), "hyper", CaptureLog);
  ASSERT_GE(h, 0);
  EXPECT_LT(api_.size(h, "no-such-object"), 0);
  EXPECT_LT(api_.start(h, "no-such-object"), 0);
  std::string msg = Message();
  for (const char* part : {"dedup_start_restore", "startRecover", "no-such-object", "ObjectNotFound", "code"}) {
    EXPECT_NE(msg.find(part), std::string::npos) << part << " missing in: " << msg;
  }
  char c;
  EXPECT_EQ(api_.read(h, &c, 1), 0) << "no restore was started";
  EXPECT_EQ(api_.start(h, "small"), 0) << api_.lastMessage();
  EXPECT_EQ(Read(h, 3), Pattern(3));
  EXPECT_EQ(api_.finish(h), 0);
}

TEST_F(TqDedupNgTest, LogLinesCarryLevelMarkers) {
  int32_t h = Open("small");
  Read(h, 10);
  api_.skip(h, 5);
  api_.start(h, "small");  // refused: already running
  api_.finish(h);
  auto log = TakeLog();
  std::string levels;
  for (const auto& line : log) {
    ASSERT_GE(line.size(), 4u);
    EXPECT_EQ(line.compare(0, 2, "%l"), 0) << line;
    EXPECT_EQ(line[3], ' ') << line;
    EXPECT_EQ(line.find('\n'), std::string::npos) << line;
    levels += line[2];
  }
  // connect, start, read, skip, refused start, finish
  EXPECT_EQ(levels, "223302");
  EXPECT_NE(log[2].find("asked 10 read 10"), std::string::npos) << log[2];
  EXPECT_NE(log[3].find("skipped 5"), std::string::npos) << log[3];
}

TEST_F(TqDedupNgTest, ExportsOnlyTheEightFunctions) {
  std::string cmd = "nm -D --defined-only -C " TVU_BINARY_DIR "/libtq_dedup.so";
  FILE* p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::set<std::string> functions;
  char line[4096];
  while (fgets(line, sizeof line, p)) {
    std::string s(line);
    if (s.size() < 20) continue;
    std::string kind = s.substr(17, 1), name = s.substr(19, s.size() - 20);
    if (kind == "T") functions.insert(name);
    // Instantiations of standard templates may show up; nothing of the library's own code may.
    for (const char* ours : {"tqng", "n7dedup", "apache::thrift"}) {
      EXPECT_EQ(name.find(ours), std::string::npos) << name;
    }
  }
  EXPECT_EQ(pclose(p), 0);
  EXPECT_EQ(functions, std::set<std::string>({"dedup_init_v2", "dedup_start_restore", "dedup_get_object_size",
                                              "dedup_read_restore", "dedup_skip_restore", "dedup_rewind_restore",
                                              "dedup_finish_restore", "dedup_get_last_message"}));
}

// Faults injected by the server.  A service exception leaves the connection
// usable; a transport failure closes it, so that later calls fail at once
// instead of reading a reply meant for an earlier request.
TEST_F(TqDedupNgTest, ServiceFailureKeepsTheConnection) {
  auto faulty = StartServer(*dir_ / "store", {"--fail-recover", "2"});
  int32_t h = Open("small", faulty->port());
  EXPECT_EQ(Read(h, 10), Pattern(10));
  char buf[10];
  EXPECT_EQ(api_.read(h, buf, 10), 0);
  EXPECT_NE(Message().find("DataCorruptionException (code"), std::string::npos) << Message();
  EXPECT_EQ(Read(h, 10).size(), 10u) << Message();
  EXPECT_EQ(api_.finish(h), 0);
}

TEST_F(TqDedupNgTest, DroppedConnectionFailsLaterCallsAtOnce) {
  auto faulty = StartServer(*dir_ / "store", {"--close-after-bytes", "100"});
  int32_t h = Open("small", faulty->port());
  EXPECT_EQ(Read(h, 100), Pattern(100));
  char buf[10];
  EXPECT_EQ(api_.read(h, buf, 10), 0);
  EXPECT_NE(Message().find("TTransportException"), std::string::npos) << Message();
  EXPECT_LT(api_.skip(h, 1), 0);
  EXPECT_NE(Message().find("closed after an earlier failure"), std::string::npos) << Message();
  // The session went with the connection: finishing only frees the handle.
  EXPECT_EQ(api_.finish(h), 0);
}

TEST_F(TqDedupNgTest, OverlongReplyIsCutToTheBuffer) {
  auto faulty = StartServer(*dir_ / "store", {"--extra-bytes", "7"});
  int32_t h = Open("small", faulty->port());
  std::string guard(20, 'x');
  EXPECT_EQ(api_.read(h, guard.data(), 10), 10);
  EXPECT_EQ(guard, Pattern(10) + std::string(10, 'x'));
  bool warned = false;
  for (const auto& line : TakeLog()) warned |= line.rfind("%l1 ", 0) == 0;
  EXPECT_TRUE(warned);
  EXPECT_EQ(api_.finish(h), 0);
}

}  // namespace
