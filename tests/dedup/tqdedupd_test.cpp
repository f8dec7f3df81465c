// tqdedupd_test.cpp - the dedup store server tqdedupd, driven over Thrift by
// the generated DedupService client: objects and metadata, sessions, limits,
// fault switches and stopping.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thrift/TApplicationException.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>
#include <unistd.h>
#include <utime.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>

#include "n7dedup/DedupService.h"
#include "support/dedup_server.h"
#include "support/test_util.h"

namespace {

using apache::thrift::TApplicationException;
using apache::thrift::TConfiguration;
using apache::thrift::transport::TTransportException;
using tvutest::DedupServer;
using tvutest::TempDir;
using Clock = std::chrono::steady_clock;

constexpr int kMiB = 1024 * 1024;

// Deterministic content, different at every offset of a period of 251.
std::string Pattern(size_t size) {
  std::string s(size, '\0');
  for (size_t i = 0; i < size; ++i) s[i] = static_cast<char>((i * 131 + i / 251) & 0xff);
  return s;
}

// One connection as the module makes it: socket, framed transport that
// accepts the largest replies, binary protocol.
class Client {
 public:
  explicit Client(int port) {
    const int maxMessage = TConfiguration::DEFAULT_MAX_MESSAGE_SIZE;  // a copy: the constant has no definition
    auto config = std::make_shared<TConfiguration>(maxMessage, 64 * kMiB + kMiB);
    auto socket = std::make_shared<apache::thrift::transport::TSocket>("127.0.0.1", port, config);
    socket->setConnTimeout(5000);
    socket->setRecvTimeout(10000);
    transport_ = std::make_shared<apache::thrift::transport::TFramedTransport>(socket, config);
    client_ = std::make_unique<n7dedup::DedupServiceClient>(
        std::make_shared<apache::thrift::protocol::TBinaryProtocol>(transport_));
    transport_->open();
  }
  n7dedup::DedupServiceClient* operator->() { return client_.get(); }
  void Disconnect() { transport_->close(); }

  std::string Recover(int32_t conid, int32_t n) {
    std::string data;
    client_->recover(data, conid, n);
    return data;
  }

 private:
  std::shared_ptr<apache::thrift::transport::TTransport> transport_;
  std::unique_ptr<n7dedup::DedupServiceClient> client_;
};

// Runs f and returns the exception of type E it throws; a test failure if it
// throws nothing (other exceptions propagate to the test).
template <class E>
E Thrown(const std::function<void()>& f) {
  try {
    f();
  } catch (const E& e) {
    return e;
  }
  ADD_FAILURE() << "expected an exception";
  return E();
}

// A folder of objects ("objs" inside a temporary folder, so that "../name"
// can name a real file outside it) and a server over it.
class TqdedupdTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(mkdir(dir_.c_str(), 0700), 0); }
  void Start(const std::vector<std::string>& args = {}) {
    server_.start(DedupServer::Options{dir_, args});
  }
  void Put(const std::string& name, const std::string& content) { tvutest::WriteFile(dir_ + "/" + name, content); }
  // Stops the server and checks that it ends cleanly within a second.
  void StopCleanly(int signal = SIGTERM) {
    int ms = 0;
    tvutest::ProcessResult r = server_.stop(signal, 3000, &ms);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_LT(ms, 1000);
  }
  void TearDown() override {
    if (server_.running()) StopCleanly();
  }

  TempDir tmp_;
  std::string dir_ = tmp_ / "objs";
  DedupServer server_;
};

TEST_F(TqdedupdTest, MetadataDescribesTheFileAndUnknownNamesAreNotFound) {
  Put("obj", Pattern(200000));
  Put("empty", "");
  Put("sub/inner", "x");
  tvutest::WriteFile(tmp_ / "outside", "not an object");
  struct utimbuf times = {1600000000, 1600000000};
  ASSERT_EQ(utime((dir_ + "/obj").c_str(), &times), 0);
  Start();
  Client c(server_.port());

  n7dedup::ObjectMetadata m;
  c->getObjectMetadata(m, "obj");
  EXPECT_EQ(m.version, 1);
  EXPECT_EQ(m.totalBytes, 200000);
  EXPECT_EQ(m.newBytes, 200000 - 66666);
  EXPECT_EQ(m.totalChunks, 4);  // 3.05 chunks of 64 KiB
  EXPECT_EQ(m.newChunks, 3);    // 2.03 chunks
  EXPECT_EQ(m.runtime, 0);
  EXPECT_EQ(m.ctime, 1600000000);
  EXPECT_TRUE(m.__isset.softwareVersion);
  EXPECT_EQ(m.softwareVersion, "tqdedupd 1.0");
  EXPECT_FALSE(m.__isset.softwareGitId);
  EXPECT_FALSE(m.__isset.replicationRequest);
  EXPECT_EQ(m.treeHash, std::string(20, '\0'));
  EXPECT_EQ(m.treePageId, 0);
  EXPECT_TRUE(m.history.empty());

  c->getObjectMetadata(m, "empty");
  EXPECT_EQ(m.totalBytes, 0);
  EXPECT_EQ(m.newBytes, 0);
  EXPECT_EQ(m.totalChunks, 0);
  EXPECT_EQ(m.newChunks, 0);

  for (std::string name : {"missing", "../outside", "sub/inner", "sub", "..", ".", ""}) {
    SCOPED_TRACE(name);
    auto e = Thrown<n7dedup::ObjectNotFound>([&] { c->getObjectMetadata(m, name); });
    EXPECT_NE(e.code, 0);
    EXPECT_NE(e.message.find("\"" + name + "\""), std::string::npos) << e.message;
    auto s = Thrown<n7dedup::ObjectNotFound>([&] { c->startRecover(name); });
    EXPECT_NE(s.message.find("\"" + name + "\""), std::string::npos) << s.message;
  }
}

TEST_F(TqdedupdTest, SessionsReadSkipRewindAndCloseLikeAStream) {
  const std::string data = Pattern(1000);
  Put("obj", data);
  Start();
  Client c(server_.port());

  int32_t a = c->startRecover("obj");
  int32_t b = c->startRecover("obj");
  EXPECT_EQ(a, 1);
  EXPECT_EQ(b, 2);
  EXPECT_EQ(c.Recover(a, 100), data.substr(0, 100));
  c->skip(a, 50);
  EXPECT_EQ(c.Recover(a, 100), data.substr(150, 100));
  EXPECT_EQ(c.Recover(b, 10), data.substr(0, 10)) << "each session has its own position";
  c->rewind(a);
  EXPECT_EQ(c.Recover(a, 10), data.substr(0, 10));
  EXPECT_EQ(c.Recover(a, 5000), data.substr(10)) << "a read at the end is short";
  EXPECT_EQ(c.Recover(a, 10), "");
  EXPECT_EQ(c.Recover(a, 0), "");

  // Skips may pass the end, even by the largest count, and reads then find nothing.
  c->rewind(a);
  c->skip(a, int64_t{1} << 40);
  EXPECT_EQ(c.Recover(a, 10), "");
  c->skip(a, std::numeric_limits<int64_t>::max());
  EXPECT_EQ(c.Recover(a, 10), "");
  c->rewind(a);
  c->skip(a, 999);
  EXPECT_EQ(c.Recover(a, 10), data.substr(999));

  auto neg = Thrown<n7dedup::DataCorruptionException>([&] { c.Recover(a, -1); });
  EXPECT_NE(neg.message.find("conid 1"), std::string::npos) << neg.message;
  Thrown<TApplicationException>([&] { c->skip(a, -5); });

  c->close(a);
  auto gone = Thrown<n7dedup::SessionNotFound>([&] { c.Recover(a, 1); });
  EXPECT_NE(gone.code, 0);
  EXPECT_NE(gone.message.find("conid 1"), std::string::npos) << gone.message;
  Thrown<n7dedup::SessionNotFound>([&] { c->skip(a, 1); });
  Thrown<n7dedup::SessionNotFound>([&] { c->rewind(a); });
  Thrown<n7dedup::SessionNotFound>([&] { c->close(a); });
  Thrown<n7dedup::SessionNotFound>([&] { c.Recover(999, 1); });

  EXPECT_EQ(c.Recover(b, 10), data.substr(10, 10)) << "closing one session leaves the other";
  EXPECT_EQ(c->startRecover("obj"), 3) << "session ids are not reused";
}

TEST_F(TqdedupdTest, ReturnsSixtyFourMebibytesInOneCall) {
  const std::string data = Pattern(64 * kMiB + 10);
  Put("big", data);
  Start();
  Client c(server_.port());
  int32_t s = c->startRecover("big");
  std::string got = c.Recover(s, 64 * kMiB);
  ASSERT_EQ(got.size(), static_cast<size_t>(64 * kMiB));
  EXPECT_TRUE(got == data.substr(0, got.size()));
  EXPECT_EQ(c.Recover(s, 100), data.substr(64 * kMiB));
}

TEST_F(TqdedupdTest, LimitsOpenSessionsAndFreesThoseOfADroppedConnection) {
  Put("obj", Pattern(100));
  Start({"--max-sessions", "2"});
  Client a(server_.port()), b(server_.port());
  int32_t a1 = a->startRecover("obj");
  int32_t a2 = a->startRecover("obj");
  auto e = Thrown<n7dedup::TooManySessionsException>([&] { b->startRecover("obj"); });
  EXPECT_NE(e.code, 0);
  EXPECT_NE(e.message.find("\"obj\""), std::string::npos) << e.message;
  a->close(a1);
  int32_t b1 = b->startRecover("obj");
  Thrown<n7dedup::TooManySessionsException>([&] { b->startRecover("obj"); });

  // Dropping a's connection releases a2 soon after.
  a.Disconnect();
  auto deadline = Clock::now() + std::chrono::seconds(3);
  int32_t b2 = -1;
  while (b2 < 0 && Clock::now() < deadline) {
    try {
      b2 = b->startRecover("obj");
    } catch (const n7dedup::TooManySessionsException&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  ASSERT_GT(b2, 0) << "the dropped connection's session was not released";
  Thrown<n7dedup::SessionNotFound>([&] { b.Recover(a2, 1); });
  EXPECT_EQ(b.Recover(b1, 3), Pattern(3)) << "the other connection's sessions stay";
  EXPECT_NE(server_.log().find("ended, 1 open session(s) closed"), std::string::npos) << server_.log();
}

TEST_F(TqdedupdTest, FailRecoverFailsOnlyTheNthCallOfAllConnections) {
  const std::string data = Pattern(100);
  Put("obj", data);
  Start({"--fail-recover", "3"});
  Client a(server_.port()), b(server_.port());
  int32_t s = a->startRecover("obj");
  int32_t t = b->startRecover("obj");
  EXPECT_EQ(a.Recover(s, 10), data.substr(0, 10));
  EXPECT_EQ(b.Recover(t, 10), data.substr(0, 10));
  auto e = Thrown<n7dedup::DataCorruptionException>([&] { a.Recover(s, 10); });
  EXPECT_NE(e.message.find("injected failure of recover #3"), std::string::npos) << e.message;
  EXPECT_NE(e.code, 0);
  EXPECT_EQ(a.Recover(s, 10), data.substr(10, 10)) << "the failed call does not move the position";
  EXPECT_EQ(a.Recover(s, 10), data.substr(20, 10));
}

TEST_F(TqdedupdTest, FailSkipFailsOnlyTheNthSkip) {
  const std::string data = Pattern(100);
  Put("obj", data);
  Start({"--fail-skip", "2"});
  Client c(server_.port());
  int32_t s = c->startRecover("obj");
  c->skip(s, 5);
  auto e = Thrown<n7dedup::SessionNotFound>([&] { c->skip(s, 7); });
  EXPECT_NE(e.message.find("injected failure of skip #2"), std::string::npos) << e.message;
  c->skip(s, 11);
  EXPECT_EQ(c.Recover(s, 4), data.substr(16, 4));
}

TEST_F(TqdedupdTest, CloseAfterBytesDropsTheConnectionInsteadOfReplying) {
  const std::string data = Pattern(1000);
  Put("obj", data);
  Start({"--close-after-bytes", "150", "--max-sessions", "1"});
  {
    Client c(server_.port());
    int32_t s = c->startRecover("obj");
    EXPECT_EQ(c.Recover(s, 100), data.substr(0, 100));
    EXPECT_EQ(c.Recover(s, 100), data.substr(100, 100));  // 100 sent so far, below the limit
    EXPECT_THROW(c.Recover(s, 100), TTransportException);
  }
  // The server goes on; the dropped connection's session is released and a
  // new connection counts its bytes afresh.
  Client d(server_.port());
  auto deadline = Clock::now() + std::chrono::seconds(3);
  int32_t s = -1;
  while (s < 0 && Clock::now() < deadline) {
    try {
      s = d->startRecover("obj");
    } catch (const n7dedup::TooManySessionsException&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  ASSERT_GT(s, 0);
  EXPECT_EQ(d.Recover(s, 100), data.substr(0, 100));
}

TEST_F(TqdedupdTest, ExtraBytesLengthenRepliesWithinTheObject) {
  const std::string data = Pattern(100);
  Put("obj", data);
  Start({"--extra-bytes", "7"});
  Client c(server_.port());
  int32_t s = c->startRecover("obj");
  EXPECT_EQ(c.Recover(s, 10), data.substr(0, 17));
  EXPECT_EQ(c.Recover(s, 10), data.substr(17, 17));
  c->skip(s, 61);
  EXPECT_EQ(c.Recover(s, 10), data.substr(95)) << "never more than the object has";
}

TEST_F(TqdedupdTest, DelayHoldsRepliesButNotTheStop) {
  Put("obj", Pattern(10));
  Start({"--delay-ms", "200"});
  {
    Client c(server_.port());
    n7dedup::ObjectMetadata m;
    auto t0 = Clock::now();
    c->getObjectMetadata(m, "obj");
    EXPECT_GE(Clock::now() - t0, std::chrono::milliseconds(200));
  }
  StopCleanly();

  // A stop while a reply waits out a long delay still ends the server at once.
  Start({"--delay-ms", "20000"});
  std::thread caller([port = server_.port()] {
    try {
      Client c(port);
      n7dedup::ObjectMetadata m;
      c->getObjectMetadata(m, "obj");
    } catch (const std::exception&) {
      // the connection ends with the server
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  StopCleanly();
  caller.join();
}

TEST_F(TqdedupdTest, ProbeOnlyAcceptsOneConnectionThenRefusesTheService) {
  Start({"--probe-only"});
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(server_.port()));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  close(fd);
  // Opened at once after the probe, as the module's client does.
  EXPECT_THROW(Client c(server_.port()), TTransportException);
  EXPECT_TRUE(server_.running());
  StopCleanly();
}

TEST_F(TqdedupdTest, StopsOnSigintAndLogsEveryRequestToTheLogFile) {
  Put("obj", Pattern(1000));
  std::string logFile = tmp_ / "requests.log";
  Start({"--log", logFile});
  {
    Client c(server_.port());
    n7dedup::ObjectMetadata m;
    c->getObjectMetadata(m, "obj");
    Thrown<n7dedup::ObjectNotFound>([&] { c->startRecover("nope"); });
    int32_t s = c->startRecover("obj");
    c.Recover(s, 300);
  }
  StopCleanly(SIGINT);
  std::string log = tvutest::ReadFile(logFile);
  for (const char* line : {"getObjectMetadata \"obj\" -> 1000 bytes", "startRecover \"nope\" -> ",
                           "ObjectNotFound", "recover conid=1 bytes=300 -> 300 bytes", "stopping on signal 2"})
    EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
}

TEST(TqdedupdCommandLine, RefusesBadArguments) {
  TempDir dir;
  std::string prog = tvutest::BuiltProgram("tqdedupd");
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{prog}, {prog, "--dir", dir / "none"}, {prog, "--dir", dir.path(), "--port", "70000"},
        {prog, "--dir", dir.path(), "--fail-recover", "0"}, {prog, "--dir", dir.path(), "--bogus", "1"},
        {prog, "--dir", dir.path(), "--first-conid", "2147483647"}}) {
    tvutest::ProcessResult r = tvutest::RunProcess(args, {}, 10);
    EXPECT_EQ(r.exitCode, 2) << args.back() << ": " << r.err;
    EXPECT_NE(r.err.find("usage: tqdedupd"), std::string::npos);
  }
}

}  // namespace
