// The module's dedup store client and the dedup media of the saveset table,
// against a real tqdedupd on 127.0.0.1.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "plugin/db_hooks.h"
#include "runtime/trace.h"
#include "support/dedup_server.h"
#include "support/test_util.h"
#include "tqs/tq_dedup/n7dedup_client2.h"
#include "tqs/tq_dedup/n7dedup_errors.h"
#include "tvu_con.h"
#include "vfs/tq_vfs_saveset.h"

namespace {

using tvutest::DedupServer;
using tvutest::TempDir;

std::string Pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>('a' + (i * 7 + i / 13) % 26);
  return s;
}

size_t Count(const std::string& haystack, const std::string& needle) {
  size_t n = 0;
  for (size_t at = haystack.find(needle); at != std::string::npos; at = haystack.find(needle, at + 1)) ++n;
  return n;
}

std::string g_logged;
void CollectLog(const char* text) { g_logged += std::string(text) + "\n"; }

class DedupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    object_ = Pattern(100000);
    tvutest::WriteFile(dir_ / "SF20261101020000.cpio", object_);
  }
  void Start(std::vector<std::string> args = {}) { server_.start({dir_.path(), args}); }
  void TearDown() override {
    for (int32_t i = 0; i < g_iSavesetCount; ++i) saveset_close(i);
    saveset_table_free();
    tvu_hooks_reset_for_test();
    korvo::trace_configure(0, nullptr);
  }

  int32_t AppendDedup(uint32_t media, const char* name) {
    SAVESET s;
    memset(&s, 0, sizeof s);
    s.uiMediaType = media;
    s.szName = strdup(name);
    s.szDedupHost = strdup("127.0.0.1");
    s.uiDedupPort = static_cast<uint32_t>(server_.port());
    snprintf(s.szHttpType, sizeof s.szHttpType, "hyper");
    s.iDedupHandle = -1;
    int32_t idx = saveset_append(s);
    saveset_init(idx);
    return idx;
  }

  TempDir dir_;
  DedupServer server_;
  std::string object_;
};

TEST_F(DedupTest, HandlesAreReusedSmallestFirst) {
  Start();
  int32_t a = -1, b = -1, c = -1;
  ASSERT_EQ(0, dedup_connect(&a, "127.0.0.1", server_.port()));
  ASSERT_EQ(0, dedup_connect(&b, "127.0.0.1", server_.port()));
  EXPECT_EQ(0, a);
  EXPECT_EQ(1, b);
  EXPECT_EQ(0, dedup_close(a));
  ASSERT_EQ(0, dedup_connect(&c, "127.0.0.1", server_.port()));
  EXPECT_EQ(0, c);
  EXPECT_EQ(0, dedup_close(b));
  EXPECT_EQ(0, dedup_close(c));
  EXPECT_EQ(0u, dedup_connection_count());
}

TEST_F(DedupTest, ReadsMetadataAndCutsOverlongReplies) {
  Start({"--extra-bytes", "100"});
  int32_t h = -1;
  ASSERT_EQ(0, dedup_connect(&h, "127.0.0.1", server_.port()));
  DedupClientStruct* c = dedup_client(h);
  ASSERT_NE(nullptr, c);
  ASSERT_GT(c->startRecv_h("SF20261101020000.cpio"), 0);

  DEDUP_OBJECT_INFO info;
  ASSERT_EQ(0, dedup_get_object_info(h, &info, "SF20261101020000.cpio"));
  EXPECT_EQ(100000, info.llDedupBytes + info.llNewBytes);
  EXPECT_STREQ("-unknown-", info.szSoftwareId);

  char buf[64];
  memset(buf, '#', sizeof buf);
  int32_t got = 0;
  ASSERT_EQ(0, c->fread_h(c->conid(), buf, 10, &got));
  EXPECT_EQ(10, got);
  EXPECT_EQ(110, c->lastReplyBytes());  // what the store sent, for the caller to report
  EXPECT_EQ(object_.substr(0, 10), std::string(buf, 10));
  EXPECT_EQ('#', buf[10]);  // nothing beyond the request is written
  dedup_close(h);
}

TEST_F(DedupTest, FailuresBecomeTheThreadsLastError) {
  Start();
  int32_t h = -1;
  ASSERT_EQ(0, dedup_connect(&h, "127.0.0.1", server_.port()));
  DedupClientStruct* c = dedup_client(h);
  EXPECT_EQ(-1, c->startRecv_h("no-such-object"));
  EXPECT_NE(nullptr, strstr(g_dedupLastError, "[ObjectNotFound - ")) << g_dedupLastError;
  EXPECT_NE(nullptr, strstr(g_dedupLastError, "error while starting receive")) << g_dedupLastError;
  int32_t got = 0;
  char buf[4];
  EXPECT_EQ(-1, c->fread_h(4242, buf, 4, &got));
  EXPECT_NE(nullptr, strstr(g_dedupLastError, "[SessionNotFound - ")) << g_dedupLastError;
  dedup_close(h);

  // Refused: nothing listens on the port any more.
  int port = server_.port();
  server_.stop();
  EXPECT_EQ(-1, dedup_connect(&h, "127.0.0.1", port));
  EXPECT_NE(nullptr, strstr(g_dedupLastError, "Connection refused")) << g_dedupLastError;
  EXPECT_NE(nullptr, strstr(g_dedupLastError, "error while connecting with upstream")) << g_dedupLastError;
  dedup_close(h);

  EXPECT_STREQ("ARROR", DedupLevelWord(2));
  EXPECT_STREQ("INFO ", DedupLevelWord(0));
  EXPECT_STREQ("LEVELERR", DedupLevelWord(7));
}

TEST_F(DedupTest, ServerThatAcceptsTheProbeButNotThriftFailsTheConnect) {
  Start({"--probe-only"});
  int32_t h = -1;
  EXPECT_EQ(-1, dedup_connect(&h, "127.0.0.1", server_.port()));
  EXPECT_NE(nullptr, strstr(g_dedupLastError, "error while connecting with upstream")) << g_dedupLastError;
  EXPECT_NE(nullptr, strstr(g_dedupLastError, "TTransportException")) << g_dedupLastError;
  dedup_close(h);
}

// Seeks on store media: forward seeks skip (also by 0 bytes), backward seeks
// rewind and skip the whole offset, a Vk4 seek past the end is ignored.
TEST_F(DedupTest, Vk4StreamSeeksByRewindAndSkip) {
  Start();
  int32_t idx = AppendDedup(smVK4, "SF20261101020000.cpio");
  ASSERT_EQ(0, saveset_open(idx));
  uint64_t size = 0, pos = 0, got = 0;
  ASSERT_EQ(0, saveset_size(idx, &size));
  EXPECT_EQ(100000u, size);

  char buf[16];
  uint8_t eof = 0;
  ASSERT_EQ(0, saveset_seek(idx, 500));
  saveset_read(idx, buf, 8, &got, &eof);
  EXPECT_EQ(object_.substr(500, 8), std::string(buf, got));
  ASSERT_EQ(0, saveset_seek(idx, 508));  // where the stream stands: a skip of 0
  ASSERT_EQ(0, saveset_seek(idx, 100));  // backwards: rewind, skip 100
  saveset_read(idx, buf, 8, &got, &eof);
  EXPECT_EQ(object_.substr(100, 8), std::string(buf, got));
  ASSERT_EQ(0, saveset_seek(idx, 100001));  // past the end: ignored
  ASSERT_EQ(0, saveset_ftello(idx, &pos));
  EXPECT_EQ(108u, pos);

  // A short read flags the caller's eof, but feof waits for the position.
  ASSERT_EQ(0, saveset_seek(idx, 99996));
  EXPECT_EQ(0, saveset_feof(idx));
  saveset_read(idx, buf, 8, &got, &eof);
  EXPECT_EQ(4u, got);
  EXPECT_EQ(1, eof & 1);
  EXPECT_EQ(1, saveset_feof(idx));
  EXPECT_EQ(0, saveset_close(idx));

  const std::string log = server_.log();
  EXPECT_EQ(1u, Count(log, "rewind"));
  EXPECT_EQ(1u, Count(log, "bytes=0 "));
}

// A read larger than one store call may carry (64 MiB, four times Thrift's
// default frame limit) is served by several calls within one saveset_read.
// It used to stop after the first call, and the caller took the short count
// for the end of the saveset.  A short reply does not end the loop, only an
// empty one does.
TEST_F(DedupTest, Vk4ReadsBeyondOneStoreCallLoopUntilTheCountOrAnEmptyReply) {
  const size_t size = static_cast<size_t>(kDedupMaxRead) + 65536;
  const std::string big = Pattern(size);
  tvutest::WriteFile(dir_ / "big.cpio", big);
  Start();
  int32_t idx = AppendDedup(smVK4, "big.cpio");
  ASSERT_EQ(0, saveset_open(idx));
  std::string buf(size + 1, '\0');
  uint64_t got = 0;
  uint8_t eof = 0;
  ASSERT_EQ(0, saveset_seek(idx, 0));
  saveset_read(idx, &buf[0], size, &got, &eof);
  EXPECT_EQ(size, got);
  EXPECT_TRUE(buf.compare(0, size, big) == 0);
  EXPECT_EQ(0, eof);
  EXPECT_EQ(1u, Count(server_.log(), "bytes=67108864 -> 67108864 bytes"));
  EXPECT_EQ(1u, Count(server_.log(), "bytes=65536 -> 65536 bytes"));

  // Near the end: the first reply is short (the rest of the object), the
  // next one is empty and ends the read.
  ASSERT_EQ(0, saveset_seek(idx, static_cast<int64_t>(size) - 100));
  saveset_read(idx, &buf[0], buf.size(), &got, &eof);
  EXPECT_EQ(100u, got);
  EXPECT_EQ(big.substr(size - 100), buf.substr(0, 100));
  EXPECT_EQ(1, eof & 1);
  EXPECT_EQ(1u, Count(server_.log(), "-> 0 bytes"));
}

// A reply longer than asked is cut to the request as before, and the cut is
// reported: a store that sends more than asked has moved past the dropped
// bytes, so everything read after it is shifted.
TEST_F(DedupTest, Vk4OverlongRepliesAreCutAndReported) {
  Start({"--extra-bytes", "100"});
  tvutest::TempDir traceDir;
  const std::string traceFile = traceDir / "trace.txt";
  korvo::trace_configure(1, traceFile.c_str());
  g_logged.clear();
  DB_SetLog(CollectLog);
  int32_t idx = AppendDedup(smVK4, "SF20261101020000.cpio");
  ASSERT_EQ(0, saveset_open(idx));
  ASSERT_EQ(0, saveset_seek(idx, 500));
  char buf[64];
  memset(buf, '#', sizeof buf);
  uint64_t got = 0;
  uint8_t eof = 0;
  saveset_read(idx, buf, 10, &got, &eof);
  EXPECT_EQ(10u, got);
  EXPECT_EQ(object_.substr(500, 10), std::string(buf, 10));
  EXPECT_EQ('#', buf[10]);
  EXPECT_EQ(0, eof);

  const std::string message =
      "Vk4 saveset [SF20261101020000.cpio] at position 500: the store returned 110 bytes for 10 asked; the 100 "
      "bytes beyond the request are dropped and the data after them may be shifted";
  EXPECT_EQ(1u, Count(g_logged, message + "\n")) << g_logged;
  EXPECT_EQ(1u, Count(tvutest::ReadFile(traceFile), message)) << tvutest::ReadFile(traceFile);
}

// Closing a saveset ends its session on the store, whatever id the store
// handed out: the session with id 0 used to be left open.
TEST_F(DedupTest, Vk4CloseEndsTheSessionAlsoWhenItsIdIsZero) {
  Start({"--first-conid", "0"});
  int32_t first = AppendDedup(smVK4, "SF20261101020000.cpio");
  int32_t second = AppendDedup(smVK4, "SF20261101020000.cpio");
  ASSERT_EQ(0, saveset_open(first));
  ASSERT_EQ(0, saveset_open(second));
  EXPECT_EQ(0, saveset_close(first));
  EXPECT_EQ(0, saveset_close(second));
  const std::string log = server_.log();
  EXPECT_EQ(1u, Count(log, "close conid=0 -> ok")) << log;
  EXPECT_EQ(1u, Count(log, "close conid=1 -> ok")) << log;
  EXPECT_EQ(0u, dedup_connection_count());
}

TEST_F(DedupTest, Vk4ngStreamThroughTheLibraryPassesSeeksPastTheEnd) {
  Start();
  setenv("TQ_DEDUP_LIB", (std::string(TVU_BINARY_DIR) + "/libtq_dedup.so").c_str(), 1);
  int32_t idx = AppendDedup(smVK4NG, "SF20261101020000.cpio");
  ASSERT_EQ(0, saveset_open(idx));
  uint64_t size = 0, got = 0, pos = 0;
  ASSERT_EQ(0, saveset_size(idx, &size));
  EXPECT_EQ(100000u, size);
  char buf[4096];
  uint8_t eof = 0;
  ASSERT_EQ(0, saveset_seek(idx, 4000));
  saveset_read(idx, buf, sizeof buf, &got, &eof);
  EXPECT_EQ(object_.substr(4000, sizeof buf), std::string(buf, got));
  ASSERT_EQ(0, saveset_seek(idx, 10));
  saveset_read(idx, buf, 10, &got, &eof);
  EXPECT_EQ(object_.substr(10, 10), std::string(buf, got));
  ASSERT_EQ(0, saveset_seek(idx, 100001));  // no past-the-end check: a skip
  ASSERT_EQ(0, saveset_ftello(idx, &pos));
  EXPECT_EQ(100001u, pos);
  EXPECT_EQ(1, saveset_feof(idx));
  EXPECT_EQ(0, saveset_close(idx));
  EXPECT_EQ(1u, Count(server_.log(), "bytes=99981"));
}

}  // namespace
