// Tests of the saveset table: file and zero-source streams, end-of-file
// rules, the bounds checks that end the process, and lookup by name.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "plugin/db_hooks.h"
#include "support/test_util.h"
#include "vfs/tq_vfs_saveset.h"

namespace {

using tvutest::TempDir;

int32_t AppendFile(const std::string& path) {
  SAVESET s;
  memset(&s, 0, sizeof s);
  s.uiMediaType = smFILE;
  s.szName = strdup(path.c_str());
  s.iDedupHandle = -1;
  return saveset_append(s);
}

int32_t AppendZero(int64_t size) {
  SAVESET s;
  memset(&s, 0, sizeof s);
  s.uiMediaType = smZERO;
  s.szName = strdup("zero");
  s.llSize = size;
  return saveset_append(s);
}

class SavesetTest : public ::testing::Test {
 protected:
  void TearDown() override {
    saveset_set_readahead(0);
    for (int32_t i = 0; i < g_iSavesetCount; ++i) saveset_close(i);
    saveset_table_free();
  }
  TempDir dir_;
};

TEST_F(SavesetTest, FileStreamReadsSeeksAndReportsEndOfFile) {
  tvutest::WriteFile(dir_ / "SF20261101020000.cpio", "0123456789");
  // Saveset names use backslashes; the platform layer turns them back.
  std::string name = dir_ / "SF20261101020000.cpio";
  for (char& c : name)
    if (c == '/') c = '\\';
  int32_t idx = AppendFile(name);
  ASSERT_EQ(0, saveset_init(idx));
  ASSERT_EQ(0, saveset_open(idx));

  uint64_t size = 0;
  ASSERT_EQ(0, saveset_size(idx, &size));
  EXPECT_EQ(10u, size);

  char buf[16];
  uint64_t got = 0;
  uint8_t eof = 0;
  ASSERT_EQ(0, saveset_seek(idx, 3));
  saveset_read(idx, buf, 4, &got, &eof);
  EXPECT_EQ(4u, got);
  EXPECT_EQ("3456", std::string(buf, 4));
  EXPECT_EQ(0, eof);

  // The size query must not move the stream.
  ASSERT_EQ(0, saveset_size(idx, &size));
  uint64_t pos = 0;
  ASSERT_EQ(0, saveset_ftello(idx, &pos));
  EXPECT_EQ(7u, pos);

  // A read that runs into the end returns what is there without flagging;
  // the next read returns nothing and flags the end.
  saveset_read(idx, buf, 8, &got, &eof);
  EXPECT_EQ(3u, got);
  EXPECT_EQ(0, saveset_feof(idx));
  saveset_read(idx, buf, 8, &got, &eof);
  EXPECT_EQ(0u, got);
  EXPECT_EQ(1, eof & 1);
  EXPECT_EQ(1, saveset_feof(idx));

  // Seeking clears the end-of-file state.
  ASSERT_EQ(0, saveset_seek(idx, 0));
  EXPECT_EQ(0, saveset_feof(idx));
  saveset_read(idx, buf, 10, &got, &eof);
  EXPECT_EQ("0123456789", std::string(buf, got));

  EXPECT_EQ(0, saveset_close(idx));
  EXPECT_EQ(0, saveset_close(idx));  // closing twice is a traced no-op
}

// With read-ahead, every read gives exactly what a direct positional read
// gives: runs alternating between savesets at rising offsets, reads across
// the buffer's end, backward seeks, the saveset's end, a saveset cut short
// after it was buffered (what was read stands; beyond the cut, nothing).
TEST_F(SavesetTest, ReadAheadGivesTheSameBytesAsDirectReads) {
  std::string a, b;
  for (int i = 0; i < 5000; ++i) a += static_cast<char>('a' + i % 26), b += static_cast<char>('A' + i % 23);
  tvutest::WriteFile(dir_ / "a.cpio", a);
  tvutest::WriteFile(dir_ / "b.cpio", b);
  const int32_t ia = AppendFile(dir_ / "a.cpio"), ib = AppendFile(dir_ / "b.cpio");
  for (int32_t i : {ia, ib}) {
    ASSERT_EQ(0, saveset_init(i));
    ASSERT_EQ(0, saveset_open(i));
  }
  saveset_set_readahead(1000);
  auto read = [](int32_t idx, int64_t at, uint64_t n, uint8_t* eof) {
    EXPECT_EQ(0, saveset_seek(idx, at));
    std::string buf(n, '?');
    uint64_t got = 0;
    *eof = 0;
    EXPECT_EQ(0, saveset_read(idx, &buf[0], n, &got, eof));
    buf.resize(got);
    return buf;
  };
  uint8_t eof = 0;
  uint64_t pos = 0;
  for (uint64_t n : {7u, 300u, 999u, 1u, 998u, 450u, 0u, 20u}) {  // rising, alternating, across the buffer's end
    EXPECT_EQ(a.substr(pos, n), read(ia, static_cast<int64_t>(pos), n, &eof)) << pos;
    EXPECT_EQ(b.substr(pos + 3, n), read(ib, static_cast<int64_t>(pos + 3), n, &eof)) << pos;
    pos += n + 11;
  }
  EXPECT_EQ(a.substr(10, 500), read(ia, 10, 500, &eof));     // backward
  EXPECT_EQ(a.substr(4990), read(ia, 4990, 500, &eof));      // the end: short
  EXPECT_EQ("", read(ia, 5000, 10, &eof));
  EXPECT_TRUE(eof & SAVESET_FLAG_EOF);
  EXPECT_EQ(a.substr(100, 2000), read(ia, 100, 2000, &eof)); // longer than the buffer: direct

  EXPECT_EQ(b.substr(4000, 100), read(ib, 4000, 100, &eof));  // buffers [4000, 5000)
  ASSERT_EQ(0, truncate((dir_ / "b.cpio").c_str(), 4500));
  EXPECT_EQ(b.substr(4100, 800), read(ib, 4100, 800, &eof));  // buffered before the cut
  EXPECT_EQ("", read(ib, 4000 + 1000, 10, &eof));             // past the buffer and the cut
  EXPECT_EQ(b.substr(10, 20), read(ib, 10, 20, &eof));
}

TEST_F(SavesetTest, ZeroSourceSeeksRelativelyAndNeverEnds) {
  int32_t idx = AppendZero(100);
  ASSERT_EQ(0, saveset_open(idx));
  char buf[8];
  memset(buf, 'x', sizeof buf);
  uint64_t got = 0, pos = 0;
  uint8_t eof = 0;
  saveset_read(idx, buf, sizeof buf, &got, &eof);
  EXPECT_EQ(8u, got);
  EXPECT_EQ(std::string(8, '\0'), std::string(buf, 8));
  ASSERT_EQ(0, saveset_seek(idx, 10));  // relative: 8 + 10
  ASSERT_EQ(0, saveset_ftello(idx, &pos));
  EXPECT_EQ(18u, pos);
  ASSERT_EQ(0, saveset_seek(idx, 1000));  // clamped to the size
  ASSERT_EQ(0, saveset_ftello(idx, &pos));
  EXPECT_EQ(118u, pos);
  EXPECT_EQ(0, saveset_feof(idx));
  uint64_t size = 0;
  ASSERT_EQ(0, saveset_size(idx, &size));
  EXPECT_EQ(100u, size);
}

TEST_F(SavesetTest, UnknownMediaTypeFailsWithoutOpening) {
  SAVESET s;
  memset(&s, 0, sizeof s);
  s.uiMediaType = 9;
  s.szName = strdup("odd");
  int32_t idx = saveset_append(s);
  EXPECT_EQ(1, saveset_open(idx));
  EXPECT_EQ(0u, g_psSavesets[idx].uiOpen);
  EXPECT_EQ(1, saveset_seek(idx, 0));
  EXPECT_EQ(1, saveset_feof(idx));
  uint64_t size = 0;
  EXPECT_EQ(1, saveset_size(idx, &size));
}

TEST_F(SavesetTest, LookupMatchesBaseNameWithAnySuffix) {
  AppendFile("C:\\chain\\SF20261101020000.cpio");
  AppendFile("/chain/SI20261102020000.cpio");
  AppendFile("D:\\other\\SI20261102020000");  // no ".": never matches "<name>.*"
  EXPECT_EQ(0, saveset_find_by_name("SF20261101020000"));
  EXPECT_EQ(1, saveset_find_by_name("SI20261102020000"));
  EXPECT_EQ(-1, saveset_find_by_name("SI20261103020000"));
  EXPECT_EQ(-1, saveset_find_by_name("chain"));
}

TEST_F(SavesetTest, MissingSavesetFileIsFatalWithItsName) {
  TempDir meta;
  tvu_set_meta_dir((meta.path() + "/").c_str());
  int32_t idx = AppendFile(dir_ / "missing.cpio");
  saveset_init(idx);
  EXPECT_EXIT(saveset_open(idx), ::testing::ExitedWithCode(1), "");
  std::string status = tvutest::ReadFile(meta / "tvu_con.status");
  EXPECT_NE(std::string::npos, status.find(" ERROR INFO=Cannot open saveset [" + (dir_ / "missing.cpio") + "] error = 2"))
      << status;
}

// Every operation checks the index against the table and ends the process
// with its own message.
TEST_F(SavesetTest, IndexOutOfBoundsEndsTheProcessWithTheOperationsMessage) {
  TempDir meta;
  tvu_set_meta_dir((meta.path() + "/").c_str());
  AppendZero(10);
  char buf[4];
  uint64_t got = 0, size = 0;
  uint8_t eof = 0;
  struct Case {
    const char* message;
    void (*call)(char*, uint64_t*, uint8_t*);
  };
  const Case cases[] = {
      {"Internal error: saveset index out of bounds", [](char*, uint64_t*, uint8_t*) { saveset_open(1); }},
      {"saveset_close - Saveset index out of bounds", [](char*, uint64_t*, uint8_t*) { saveset_close(5); }},
      {"saveset_read - Saveset index out of bounds",
       [](char* b, uint64_t* g, uint8_t* e) { saveset_read(1, b, 4, g, e); }},
      {"saveset_seek - Saveset index out of bounds", [](char*, uint64_t*, uint8_t*) { saveset_seek(-1, 0); }},
      {"saveset_feof Saveset index out of bounds", [](char*, uint64_t*, uint8_t*) { saveset_feof(2); }},
      {"saveset_size Saveset index out of bounds", [](char*, uint64_t* s, uint8_t*) { saveset_size(1, s); }},
      {"saveset_ftello - Saveset index out of bounds", [](char*, uint64_t* s, uint8_t*) { saveset_ftello(1, s); }},
      {"Internal error: saveset index out of bounds",
       [](char*, uint64_t*, uint8_t*) { saveset_operation_mutex_lock(3); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    EXPECT_EXIT(c.call(buf, &got, &eof), ::testing::ExitedWithCode(1), "");
    std::string status = tvutest::ReadFile(meta / "tvu_con.status");
    EXPECT_NE(std::string::npos, status.find(std::string(" ERROR INFO=") + c.message + "\n")) << status;
  }
  (void)size;
}

TEST_F(SavesetTest, UnlockByAThreadThatDoesNotHoldTheMutexIsFatal) {
  TempDir meta;
  tvu_set_meta_dir((meta.path() + "/").c_str());
  int32_t idx = AppendZero(1);
  EXPECT_EXIT(saveset_operation_mutex_unlock(idx), ::testing::ExitedWithCode(1), "");
  EXPECT_NE(std::string::npos, tvutest::ReadFile(meta / "tvu_con.status").find("INFO=Internal error: mutex release"));
}

}  // namespace
