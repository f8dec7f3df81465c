// Tests of the consolidation operation through the exported entry points, on
// small hand-made chains whose expected stream is known byte by byte.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "plugin/db_hooks.h"
#include "support/test_util.h"
#include "tvu_con.h"
#include "vfs/tq_vfs_saveset.h"
#include "platform/platform.h"

namespace {

using tvutest::TempDir;
using tvutest::WriteFile;

const char* const kFull = "SF20261101020000";
const char* const kIncr = "SI20261102020000";

std::string Bytes(char first, size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s += static_cast<char>(first + i % 26);
  return s;
}

// One LSLv2 line: offset, relative offset, span, data size, inode, 0, saveset.
std::string Line(const std::string& path, char type, uint64_t off, uint64_t span, const char* saveset) {
  return "\"" + path + "\" " + type + " 2026-11-01 01:00:00 2026-11-01 01:00:00 " + std::to_string(off) + " 0 " +
         std::to_string(span) + " 0 1 0 " + saveset + " 0\n";
}

class OperationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    full_ = Bytes('a', 40);
    incr_ = Bytes('A', 20);
    WriteFile(dir_ / "savesets/SF20261101020000.cpio", full_);
    WriteFile(dir_ / "savesets/SI20261102020000.cpio", incr_);
    WriteFile(dir_ / "tq.ini", "[pathes]\ngv_rw_tqslis=" + dir_.path() + "/tqslis/\n");
    pf::SetEnv("TQ_INI", (dir_ / "tq.ini").c_str());
    WriteFile(meta("consolidate.arg"), "-f\n" + meta("list.txt") + "\n-l\ngv_rw_tqslis:SC1_mnt/SC1.lsl\n-t\ncpio\n");
    WriteFile(meta("list.txt"), dir_ / "savesets/SF20261101020000.cpio\n" + dir_ / "savesets/SI20261102020000.cpio\n");
  }
  void TearDown() override {
    DB_CloseOperation();
    pf::UnsetEnv("TQ_INI");
  }
  std::string meta(const std::string& name) { return dir_.path() + "/tqslis/SC1_mnt/" + name; }

  uint32_t Init(const char* var = "DATABASE=CON:SC1") {
    std::string v(var);
    std::vector<char*> vars = {&v[0], nullptr};
    DB_OPERATION op{"SC1"};
    return DB_InitOperation(DB_TYPE_BCK, 0, vars.data(), &op);
  }

  // Reads the whole stream with blocks of `block` bytes; returns the length of
  // every block delivered.
  std::vector<uint32_t> ReadAll(uint32_t block, std::string* stream) {
    std::vector<uint32_t> lengths;
    std::vector<char> buf(block);
    for (int guard = 0; guard < 100000; ++guard) {
      uint32_t len = block;
      uint32_t rc = DB_ReadBlock(buf.data(), &len, nullptr, nullptr);
      if (rc == DB_NUM_I_END) {
        EXPECT_EQ(0u, len);
        return lengths;
      }
      EXPECT_EQ(DB_NUM_I_OK, rc);
      if (rc != DB_NUM_I_OK) return lengths;
      stream->append(buf.data(), len);
      lengths.push_back(len);
    }
    ADD_FAILURE() << "stream did not end";
    return lengths;
  }

  // The first read must fail; returns the error record's message.
  std::string FailedReadMessage() {
    std::vector<char> buf(1024);
    uint32_t len = 1024;
    EXPECT_EQ(DB_NUM_E_FAILED, DB_ReadBlock(buf.data(), &len, nullptr, nullptr));
    EXPECT_EQ(0u, len);
    DB_ERROR e;
    DB_GetError(&e);
    return e.szMessage;
  }

  TempDir dir_;
  std::string full_, incr_;
};

// Consecutive lines of one saveset become one run from the first offset to
// the last end, whatever lies between; a saveset change starts a new run.
TEST_F(OperationTest, StreamsRunsOfConsecutiveLinesOfOneSaveset) {
  WriteFile(meta("SC1.lsl"), "Tape ID: CON Tape Label: CON Format: CPIO LIS: 2.0\n# comment\n" +
                                 Line("d", 'd', 0, 4, kFull) + Line("d/a", 'f', 4, 4, kFull) +
                                 Line("d/b", 'f', 2, 3, kIncr) + Line("d/c", 'f', 10, 2, kFull) +
                                 Line("d/e", 'f', 20, 5, kFull) + Line("d/g", 'x', 0, 40, kFull) +
                                 Line("d/h", 'f', 15, 5, kIncr) +
                                 "Total: 1 Last File Offset: 1 Last Dir Offset: 1 Number of directories: 1 "
                                 "Number of files: 4\n");
  ASSERT_EQ(DB_NUM_I_OK, Init());
  std::string stream;
  std::vector<uint32_t> lengths = ReadAll(1 << 20, &stream);
  // The line of type x is not admitted and does not interrupt the run.
  EXPECT_EQ((std::vector<uint32_t>{8, 3, 15, 5}), lengths);
  EXPECT_EQ(full_.substr(0, 8) + incr_.substr(2, 3) + full_.substr(10, 15) + incr_.substr(15, 5), stream);

  // Small blocks deliver the same bytes, never crossing a run.
  DB_CloseOperation();
  ASSERT_EQ(DB_NUM_I_OK, Init());
  std::string again;
  lengths = ReadAll(4, &again);
  EXPECT_EQ(stream, again);
  EXPECT_EQ((std::vector<uint32_t>{4, 4, 3, 4, 4, 4, 3, 4, 1}), lengths);

  // After the end every call keeps answering the end.
  char c;
  uint32_t len = 1;
  EXPECT_EQ(DB_NUM_I_END, DB_ReadBlock(&c, &len, nullptr, nullptr));
  EXPECT_EQ(0u, len);
}

// A line of size 0 of another saveset between two lines of one saveset makes
// a run without bytes: that call delivers nothing, and the stream goes on to
// the catalog's end.
TEST_F(OperationTest, EmptyRunBetweenLinesOfOneSavesetDoesNotEndTheStream) {
  WriteFile(meta("SC1.lsl"), Line("a", 'f', 0, 8, kFull) + Line("z", 'd', 3, 0, kIncr) + Line("b", 'f', 8, 8, kFull) +
                                 Line("c", 'f', 4, 6, kIncr));
  ASSERT_EQ(DB_NUM_I_OK, Init());
  std::string stream;
  EXPECT_EQ((std::vector<uint32_t>{8, 0, 8, 6}), ReadAll(1 << 20, &stream));
  EXPECT_EQ(full_.substr(0, 16) + incr_.substr(4, 6), stream);
}

// The saveset names of a catalog are looked up in the table of the operation
// that reads it: a second operation whose list names the same savesets in
// another order streams from its own table.
TEST_F(OperationTest, SecondOperationWithSavesetsInAnotherOrderStreamsItsOwnBytes) {
  WriteFile(meta("SC1.lsl"), Line("a", 'f', 2, 6, kFull) + Line("b", 'f', 1, 4, kIncr));
  const std::string expected = full_.substr(2, 6) + incr_.substr(1, 4);
  ASSERT_EQ(DB_NUM_I_OK, Init());
  std::string first;
  ReadAll(1 << 20, &first);
  EXPECT_EQ(expected, first);
  DB_CloseOperation();

  WriteFile(meta("list.txt"), dir_ / "savesets/SI20261102020000.cpio\n" + dir_ / "savesets/SF20261101020000.cpio\n");
  ASSERT_EQ(DB_NUM_I_OK, Init());
  std::string second;
  ReadAll(1 << 20, &second);
  EXPECT_EQ(expected, second);
}

// A line longer than the line buffer fails the stream with the catalog's
// name and the line's number; its tail is never read as an item of its own.
TEST_F(OperationTest, OverlongCatalogLineFailsTheStream) {
  const std::string tail = Line("t", 'f', 20, 10, kFull);
  WriteFile(meta("SC1.lsl"), Line("a", 'f', 0, 8, kFull) + "\"" + std::string(40000, 'x') + "\" " + tail);
  ASSERT_EQ(DB_NUM_I_OK, Init());
  EXPECT_EQ("Catalog [" + meta("SC1.lsl") + "] line 2 is longer than 34498 bytes: the consolidated catalog cannot be read",
            FailedReadMessage());

  // A line that fills the buffer exactly up to its line end is whole.
  DB_CloseOperation();
  std::string exact = Line("b", 'f', 8, 8, kFull);
  exact.insert(0, 34498 - (exact.size() - 1), ' ');
  WriteFile(meta("SC1.lsl"), Line("a", 'f', 0, 8, kFull) + exact + Line("c", 'f', 16, 4, kFull));
  ASSERT_EQ(DB_NUM_I_OK, Init());
  std::string stream;
  ReadAll(1 << 20, &stream);
  EXPECT_EQ(full_.substr(0, 20), stream);
}

// A catalog path far longer than a file name is used whole.
TEST_F(OperationTest, LongCatalogPathIsUsedWhole) {
  std::string dir = meta("");
  for (int i = 0; i < 5; ++i) dir += std::string(250, static_cast<char>('a' + i)) + "/";
  WriteFile(dir + "SC1.lsl", Line("a", 'f', 2, 6, kFull));
  WriteFile(meta("consolidate.arg"), "-f\n" + meta("list.txt") + "\n-l\n" + dir + "SC1.lsl\n-t\ncpio\n");
  ASSERT_EQ(DB_NUM_I_OK, Init());
  std::string stream;
  ReadAll(1 << 20, &stream);
  EXPECT_EQ(full_.substr(2, 6), stream);
}

TEST_F(OperationTest, EmptyCatalogEndsAtOnce) {
  WriteFile(meta("SC1.lsl"), "Tape ID: CON Tape Label: CON Format: CPIO LIS: 2.0\n");
  ASSERT_EQ(DB_NUM_I_OK, Init());
  char buf[16];
  uint32_t len = sizeof buf;
  EXPECT_EQ(DB_NUM_I_END, DB_ReadBlock(buf, &len, nullptr, nullptr));
  EXPECT_EQ(0u, len);
}

TEST_F(OperationTest, SavesetShorterThanItsCatalogFailsInsteadOfDeliveringAShortStream) {
  WriteFile(meta("SC1.lsl"), Line("d", 'd', 0, 8, kFull) + Line("f", 'f', 30, 15, kFull));
  ASSERT_EQ(DB_NUM_I_OK, Init());
  const std::string message = FailedReadMessage();
  EXPECT_NE(std::string::npos, message.find("SF20261101020000.cpio] ends before its catalog says")) << message;
}

TEST_F(OperationTest, LineBeforeItsRunsStartFailsTheStream) {
  WriteFile(meta("SC1.lsl"), Line("b", 'f', 20, 8, kFull) + Line("a", 'f', 0, 8, kFull));
  ASSERT_EQ(DB_NUM_I_OK, Init());
  const std::string message = FailedReadMessage();
  EXPECT_NE(std::string::npos, message.find("Catalog line [a] of saveset 0 ends at 8, before its run starts at 20"))
      << message;
}

TEST_F(OperationTest, ControlVariables) {
  WriteFile(meta("SC1.lsl"), Line("d", 'd', 0, 4, kFull));
  EXPECT_EQ(2u, Init("DATABASE=CON"));
  DB_ERROR e;
  DB_GetError(&e);
  EXPECT_STREQ("Saveset to consolidate could not be parsed ", e.szMessage);
  {
    std::vector<char*> none = {nullptr};
    DB_OPERATION op{"SC1"};
    EXPECT_EQ(2u, DB_InitOperation(DB_TYPE_BCK, 0, none.data(), &op));
  }
  // The name may follow a prefix: the search is for the substring anywhere.
  EXPECT_EQ(DB_NUM_I_OK, Init("X_DATABASE=CON:SC1"));
}

TEST_F(OperationTest, MissingArgumentFileOrSavesetListFails) {
  WriteFile(meta("SC1.lsl"), Line("d", 'd', 0, 4, kFull));
  EXPECT_EQ(DB_NUM_E_FAILED, Init("DATABASE=CON:OTHER"));
  DB_ERROR e;
  DB_GetError(&e);
  EXPECT_EQ("Cannot read from [" + dir_.path() + "/tqslis/OTHER_mnt\\consolidate.arg]", std::string(e.szMessage));

  WriteFile(meta("consolidate.arg"), "-f\n" + meta("nolist.txt") + "\n-l\n" + meta("SC1.lsl") + "\n");
  EXPECT_EQ(DB_NUM_E_FAILED, Init());
  DB_GetError(&e);
  EXPECT_EQ("Cannot read from [" + meta("nolist.txt") + "]", std::string(e.szMessage));
  EXPECT_EQ(0, g_iSavesetCount);  // the failed operation was closed
}

TEST_F(OperationTest, MissingProductConfigurationFails) {
  pf::SetEnv("TQ_INI", (dir_ / "none.ini").c_str());
  EXPECT_EQ(DB_NUM_E_FAILED, Init());
  DB_ERROR e;
  DB_GetError(&e);
  EXPECT_NE(std::string::npos, std::string(e.szMessage).find("Korvo TQSLIS directory could not be read: [TQ_INI]"));
}

}  // namespace
