// Tests of locating an item's data in a saveset's CPIO item stream: every
// header kind, padding, records that straddle a buffer's end, the 64 KiB
// window, damaged and truncated streams, compressed and encrypted records
// ending the process, a cross-check with archives of GNU cpio and a fuzz loop.
//
// Expected offsets come from where the builder put each item's data (each
// item's data is unique in its stream), not from the format's arithmetic.
#include "archive/cpio_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <iostream>
#include <filesystem>
#include <map>
#include <vector>

#include "archive/archive_test_util.h"
#include "archive/cpio_format.h"
#include "plugin/db_hooks.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "support/test_util.h"
#include "vfs/tq_vfs_saveset.h"

namespace {

using archive_test::Quote;
using cpio::Format;
using tvutest::ReadFile;
using tvutest::TempDir;

// One record: header, name, fill, data, fill.  magic 0: the format's own.
std::string Record(Format f, const std::string& name, const std::string& data, uint32_t magic = 0,
                   uint64_t flags = 0) {
  cpio::Header h;
  h.magic = magic;
  h.mode = data.empty() ? 040755 : 0100644;
  h.nlink = 1;
  h.mtime = 1790000000;
  h.filesize = data.size();
  h.flags = flags;
  h.name = name;
  std::string out, why;
  EXPECT_TRUE(cpio::EncodeRecordHeader(f, h, &out, &why)) << why;
  return out + data + std::string(cpio::DataPadding(f, data.size()), '\0');
}

// An extended-attribute / ACL record for the item of the given name.
std::string EaAclRecord(const std::string& name, const std::string& ea, const std::string& acl) {
  cpio::Header h;
  h.easize = ea.size();
  h.aclsize = acl.size();
  h.name = name;
  std::string out, why;
  EXPECT_TRUE(cpio::EncodeRecordHeader(Format::kEaAcl, h, &out, &why)) << why;
  return out + ea + acl + std::string(cpio::DataPadding(Format::kEaAcl, ea.size() + acl.size()), '\0');
}

struct Located {
  int rc;
  int64_t rel;
  uint64_t size;
};

std::string g_logged;
void CollectLog(const char* text) { g_logged += std::string(text) + "\n"; }

class CpioStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tvu_hooks_reset_for_test();
    DB_SetLog(CollectLog);
    g_logged.clear();
    tvu_set_meta_dir((dir_.path() + "\\").c_str());
    korvo::trace_configure(3, (dir_ / "trace.trc").c_str());
  }
  void TearDown() override {
    for (int32_t i = 0; i < g_iSavesetCount; ++i) saveset_close(i);
    saveset_table_free();
    korvo::trace_configure(0, nullptr);
    tvu_hooks_reset_for_test();
  }

  // A file saveset holding bytes, opened in the table.
  int32_t Saveset(const std::string& bytes, const std::string& file = "SF20261101020000.cpio") {
    tvutest::WriteFile(dir_ / file, bytes);
    std::string name = dir_ / file;
    for (char& c : name)
      if (c == '/') c = '\\';
    SAVESET s;
    memset(&s, 0, sizeof s);
    s.uiMediaType = smFILE;
    s.szName = strdup(name.c_str());
    s.iDedupHandle = -1;
    const int32_t idx = saveset_append(s);
    EXPECT_EQ(0, saveset_init(idx));
    EXPECT_EQ(0, saveset_open(idx));
    return idx;
  }

  static Located Locate(int32_t idx, uint64_t offset, const std::string& name) {
    CPIO_ENTRY_UPDATE e;
    e.iSavesetIdx = idx;
    e.ullSavesetOffset = offset;
    e.sName = name;
    korvo::mbstowcsl(name.data(), name.size(), ".UTF-8,ISO-8859", &e.wsName);
    e.llRelOffset = -7;
    e.ullSize = 777;
    const int rc = UpdateFSEntryFromCPIOSaveset(&e);
    return {rc, e.llRelOffset, e.ullSize};
  }

  // Locates name from offset and expects to find data there.
  void ExpectData(int32_t idx, const std::string& stream, uint64_t offset, const std::string& name,
                  const std::string& data) {
    SCOPED_TRACE(name + " from " + std::to_string(offset));
    const Located l = Locate(idx, offset, name);
    ASSERT_EQ(0, l.rc);
    EXPECT_EQ(static_cast<int64_t>(stream.find(data) - offset), l.rel);
    EXPECT_EQ(data.size(), l.size);
  }

  void ExpectNotFound(int32_t idx, uint64_t offset, const std::string& name) {
    const Located l = Locate(idx, offset, name);
    EXPECT_EQ(0, l.rc);
    EXPECT_EQ(0u, l.size);
    EXPECT_NE(std::string::npos, Trace().find("Cannot locate [" + name + "] in saveset")) << name;
  }

  std::string Trace() const { return tvutest::FileExists(dir_ / "trace.trc") ? ReadFile(dir_ / "trace.trc") : ""; }
  bool Traced(const std::string& text) const { return Trace().find(text) != std::string::npos; }

  TempDir dir_;
};

TEST_F(CpioStreamTest, LocatesItemsInEveryHeaderKind) {
  struct Kind {
    Format format;
    uint32_t magic;
  } kinds[] = {{Format::kOdc, 070707}, {Format::kNewc, 070701}, {Format::kExt, 070706},
               {Format::kExt, 070206},  {Format::kExt, 070306},  {Format::kExt, 071206},
               {Format::kExt, 071306},  {Format::kExtUnpadded, 070726}};
  for (const Kind& k : kinds) {
    char magic[8];
    snprintf(magic, sizeof magic, "%06o", k.magic);
    SCOPED_TRACE(magic);
    const std::string first = Record(k.format, "dir/first", "first data", k.magic);
    const std::string stream = first + Record(k.format, "dir", "", k.magic) +
                               Record(k.format, "dir/target", "<target data>", k.magic) +
                               cpio::TrailerRecord(k.format);
    const int32_t idx = Saveset(stream, std::string(magic) + ".cpio");
    ExpectData(idx, stream, 0, "dir/first", "first data");
    // The walker passes the records before the item's.
    ExpectData(idx, stream, 0, "dir/target", "<target data>");
    // The entry's offset need not be the stream's start.
    ExpectData(idx, stream, first.size(), "dir/target", "<target data>");
    EXPECT_TRUE(Traced(std::string("szHeader(header type): ") + magic));
  }
  EXPECT_TRUE(Traced("File located; relative offset = "));
  EXPECT_NE(std::string::npos, g_logged.find("InitArchive:  PACKDATA.DLL module - Released: "));
  EXPECT_NE(std::string::npos, g_logged.find("InitArchive: Start."));
  EXPECT_NE(std::string::npos, g_logged.find("bytes read "));
}

// 070706 fills header+name and data to 4 counted from the record's start;
// 070726 never fills.  Mixed in one stream, records start anywhere.
TEST_F(CpioStreamTest, PaddedAndUnpaddedRecordsMixed) {
  std::string stream;
  std::vector<std::pair<std::string, std::string>> items;
  for (int i = 0; i < 16; ++i) {
    const Format f = (i % 3 == 1) ? Format::kExtUnpadded : Format::kExt;
    const std::string name = std::string(1 + i % 4, static_cast<char>('a' + i));
    const std::string data = std::string(1 + (i / 4) % 4, static_cast<char>('A' + i)) + "#" + std::to_string(i);
    stream += Record(f, name, data);
    items.emplace_back(name, data);
  }
  stream += cpio::TrailerRecord(Format::kExt);
  // The layout itself: "a" (070706) is 126 + 2 bytes filled to 128.
  EXPECT_EQ(std::string("A#0"), stream.substr(128, 3));
  const int32_t idx = Saveset(stream);
  for (const auto& item : items) ExpectData(idx, stream, 0, item.first, item.second);
}

// The item's record begins k bytes before the end of the first read (512
// bytes; the reads after it are of 64 KiB).
TEST_F(CpioStreamTest, RecordsThatStraddleTheFirstReadAreReRead) {
  struct Case {
    size_t k;
    Format format;
    const char* backward;  // trace of the backward seek, null: none
  } cases[] = {
      {3, Format::kExt, "next CPIOMAGIC does not fit in this buffer. Bytes to seek backwards 3"},
      {5, Format::kOdc, "next CPIOMAGIC does not fit"},
      {6, Format::kNewc, "next header does not fit in this buffer. Bytes to seek 6 buffer size 512"},
      {60, Format::kExtUnpadded, "next header does not fit"},
      {126 + 5, Format::kExt, "next filename does not fit in this buffer. Bytes to seek 131"},
      {126 + 11, Format::kExt, nullptr},  // header and name fit exactly; data and fill do not
      {300, Format::kNewc, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.k);
    const size_t start = 512 - c.k;
    // An unpadded filler record (126 + 7 bytes before its data) puts the item anywhere.
    std::string stream = Record(Format::kExtUnpadded, "filler", std::string(start - 133, 'f'));
    ASSERT_EQ(start, stream.size());
    stream += Record(c.format, "dir/target", "<target data>") + cpio::TrailerRecord(c.format);
    const int32_t idx = Saveset(stream, "straddle" + std::to_string(c.k));
    ExpectData(idx, stream, 0, "dir/target", "<target data>");
    if (c.backward) {
      EXPECT_TRUE(Traced(std::string("Seek backward - ") + c.backward));
      EXPECT_TRUE(Traced("******** SEEK BACKWARD bytes=" + std::to_string(c.k) + " savesetIdx="));
    }
  }
}

// The first read is small; a record at the entry's offset whose name does not
// fit in it is read again from its start, with room for its header and name
// only, and found.  At the end of the saveset a short read is the end, not a
// reason to read more.
TEST_F(CpioStreamTest, FirstReadGrowsOnlyForLongNamesAndStopsAtTheEnd) {
  for (const size_t length : {380, 385, 1000, 4000}) {
    SCOPED_TRACE(length);
    const std::string name = "dir/" + std::string(length - 4, 'n');
    const std::string stream = Record(Format::kNewc, name, "<long data>") + Record(Format::kNewc, "next", "<next>") +
                               cpio::TrailerRecord(Format::kNewc);
    const int32_t idx = Saveset(stream, "long" + std::to_string(length));
    tvutest::WriteFile(dir_ / "trace.trc", "");
    g_logged.clear();
    ExpectData(idx, stream, 0, name, "<long data>");
    const size_t needed = 110 + length + 1;  // newc header, name, NUL
    if (needed <= 512) {
      EXPECT_FALSE(Traced("reading again from its start"));
      EXPECT_NE(std::string::npos, g_logged.find("bytes read 512\n"));
    } else {
      EXPECT_TRUE(Traced("Record of " + std::to_string(needed) + " bytes of header and name; reading again"));
      const size_t grown = std::min((needed + 511) / 512 * 512, stream.size());
      EXPECT_NE(std::string::npos, g_logged.find("bytes read " + std::to_string(512 + grown) + "\n")) << g_logged;
    }
    ExpectData(idx, stream, 0, "next", "<next>");  // the record after a long name
  }
  // The item is the saveset's last record, without a trailer, its data
  // ending at the last byte; the saveset is shorter than the first read or
  // ends right after it.
  for (const size_t data : {10, 512 - 110 - 8 - 2, 1000}) {
    SCOPED_TRACE(data);
    const std::string stream = Record(Format::kNewc, "a", "1") + Record(Format::kNewc, "last", std::string(data, 'L'));
    const int32_t idx = Saveset(stream, "end" + std::to_string(data));
    ExpectData(idx, stream, 0, "last", std::string(data, 'L'));
    ExpectData(idx, stream, stream.find("070701", 1), "last", std::string(data, 'L'));
  }
  // A saveset that ends inside a long name: read again, and the shorter
  // second read says it is the end.
  const std::string full = Record(Format::kNewc, std::string(900, 'q'), "data");
  const int32_t idx = Saveset(full.substr(0, 700), "cut name");
  ExpectNotFound(idx, 0, std::string(900, 'q'));
  EXPECT_TRUE(Traced("CPIO stream ends inside a record header at saveset offset 0 (700 bytes left)"));
  // A saveset that ends inside the header of the record at the offset.
  const int32_t idx2 = Saveset(full.substr(0, 50), "cut header");
  ExpectNotFound(idx2, 0, std::string(900, 'q'));
  EXPECT_TRUE(Traced("(50 bytes left)"));
}

TEST_F(CpioStreamTest, OnlyTheFirst64KiBAreExamined) {
  for (size_t filler : {65536 - 133, 200000}) {
    SCOPED_TRACE(filler);
    const std::string stream = Record(Format::kExtUnpadded, "filler", std::string(filler, 'f')) +
                               Record(Format::kNewc, "late", "late data") + cpio::TrailerRecord(Format::kNewc);
    const int32_t idx = Saveset(stream, "late" + std::to_string(filler));
    ExpectNotFound(idx, 0, "late");
    // From an offset nearer to it, the same item is found.
    ExpectData(idx, stream, filler + 133, "late", "late data");
  }
  // A record that straddles the first read is re-read with what follows it;
  // of that, records beyond the first 64 KiB are still not examined.
  const std::string stream = Record(Format::kExtUnpadded, "filler", std::string(65536 - 3 - 133, 'f')) +
                             Record(Format::kNewc, "straddles", "<s data>") +
                             Record(Format::kNewc, "beyond", "<b data>") +
                             cpio::TrailerRecord(Format::kNewc);
  const int32_t idx = Saveset(stream, "window");
  ExpectData(idx, stream, 0, "straddles", "<s data>");
  ExpectNotFound(idx, 0, "beyond");
  // The first read and one of 64 KiB after it.
  EXPECT_TRUE(Traced("---UpdateFSEntryFromCPIOSaveset iTotalBytesRead = 66048 iRet = 0"));
  EXPECT_NE(std::string::npos, g_logged.find("bytes read 66048"));
  EXPECT_NE(std::string::npos, ReadFile(dir_ / "tvu_con.notes").find("Cannot locate [late] in saveset"));
}

TEST_F(CpioStreamTest, EmptyFilesTrailerAndMissingItems) {
  const std::string stream = Record(Format::kNewc, "empty", "") + Record(Format::kNewc, "full", "data") +
                             cpio::TrailerRecord(Format::kNewc) +
                             Record(Format::kNewc, "after trailer", "hidden");
  const int32_t idx = Saveset(stream);
  const Located empty = Locate(idx, 0, "empty");
  EXPECT_EQ(0, empty.rc);
  EXPECT_EQ(0, empty.rel);
  EXPECT_EQ(0u, empty.size);
  EXPECT_TRUE(Traced("Empty file located; stop processing"));
  EXPECT_TRUE(Traced("Empty file located; relative offset = 116 stream size = 0"));
  ExpectData(idx, stream, 0, "full", "data");
  // The trailer ends the search, quietly.
  ExpectNotFound(idx, 0, "after trailer");
  EXPECT_FALSE(Traced("ERROR unpacking"));
  ExpectNotFound(idx, 0, "absent");
}

// Damage before the item: the search ends without it, is traced with the
// position, and the stream is not walked further.  Nothing here is fatal.
TEST_F(CpioStreamTest, DamagedAndTruncatedStreams) {
  const std::string good = Record(Format::kNewc, "first", "1234567") + Record(Format::kNewc, "target", "T");
  const size_t second = good.find("070701", 1);
  struct Case {
    const char* what;
    std::string stream;
    const char* trace;
  } cases[] = {
      {"cut in the magic", good.substr(0, second + 3), "CPIO stream ends inside a record header at saveset offset 124"},
      {"cut in the header", good.substr(0, second + 50), "(50 bytes left)"},
      {"cut in the name", good.substr(0, second + 112), "Seek backward - next filename does not fit"},
      {"unknown magic", std::string(good).replace(second, 6, "070708"), "unknown header type 070708"},
      {"bad hex digit in gid", std::string(good).replace(second + 33, 1, "x"),
       "sscanf():invalid number of header fields:[4][14]"},
      {"bad odc digit", Record(Format::kOdc, "first", "1").replace(20, 1, "9"),
       "sscanf():invalid number of header fields:[3][11]"},
      {"bad ext digit in flags", Record(Format::kExt, "first", "1").replace(112, 1, "-"),
       "sscanf():invalid number of header fields:[14][16]"},
      {"name size over the cap", std::string(good).replace(second + 94, 8, "00010000"),
       "CPIO header at saveset offset 124: byte 94: name size 65536 exceeds the limit of 4096"},
      {"name without NUL", std::string(good).replace(second + 110 + 6, 1, "!"),
       "CPIO record at saveset offset 124: byte 116: name not NUL-terminated"},
      {"damaged ea_acl", EaAclRecord("target", "ea", "acl").replace(40, 1, "z"),
       "sscanf(): invalid number of header fields:[5][13]"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const int32_t idx = Saveset(c.stream, c.what);
    ExpectNotFound(idx, 0, "target");
    EXPECT_TRUE(Traced(c.trace));
    EXPECT_TRUE(Traced("---UpdateFSEntryFromCPIOSaveset: ERROR unpacking CPIO block ("));
    if (::testing::Test::HasFailure()) std::cerr << Trace();
    tvutest::WriteFile(dir_ / "trace.trc", "");
  }
}

TEST_F(CpioStreamTest, AttributeRecordsArePassedOver) {
  // The attribute record names the item too; its bytes are not the item's data.
  const std::string stream = EaAclRecord("dir/item", "user.x=1", "A:ACL") + Record(Format::kExt, "dir/item", "item bytes") +
                             EaAclRecord("odd", "e", "ac") + Record(Format::kExtUnpadded, "odd", "odd bytes") +
                             cpio::TrailerRecord(Format::kExt);
  const int32_t idx = Saveset(stream);
  ExpectData(idx, stream, 0, "dir/item", "item bytes");
  ExpectData(idx, stream, 0, "odd", "odd bytes");
  EXPECT_TRUE(Traced("szHeader(header type): 070716"));
}

TEST_F(CpioStreamTest, FailedSeekReturnsOneAndReleasesTheSaveset) {
  const std::string stream = Record(Format::kNewc, "a", "data") + cpio::TrailerRecord(Format::kNewc);
  const int32_t idx = Saveset(stream);
  const Located l = Locate(idx, 1ull << 63, "a");  // a negative offset to the OS
  EXPECT_EQ(1, l.rc);
  EXPECT_EQ(777u, l.size);  // untouched
  EXPECT_TRUE(Traced("---UpdateFSEntryFromCPIOSaveset: saveset_seek failed with error = 1"));
  // The operation mutex was released: the next search on the saveset runs.
  ExpectData(idx, stream, 0, "a", "data");
}

TEST_F(CpioStreamTest, CallbackSeeksBySigned32BitDistances) {
  const int32_t idx = Saveset(std::string(1000, 'x'));
  uint64_t pos = 0;
  ASSERT_EQ(0, saveset_seek(idx, 500));
  // 2^32 + 16 moves forward by 16; 0xFFFFFFF0 is -16, so "forward" moves back.
  EXPECT_EQ(0, PDS_CallingtModule(48, nullptr, (1ll << 32) + 16, idx));
  EXPECT_EQ(0, PDS_CallingtModule(48, nullptr, 0xFFFFFFF0ll, idx));
  EXPECT_EQ(0, PDS_CallingtModule(49, nullptr, 100, idx));
  ASSERT_EQ(0, saveset_ftello(idx, &pos));
  EXPECT_EQ(400u, pos);
  EXPECT_EQ(1, PDS_CallingtModule(49, nullptr, 401, idx));  // before the start
  EXPECT_TRUE(Traced("saveset_seek error 1"));
  EXPECT_EQ(2, PDS_CallingtModule(47, nullptr, 1, idx));
}

// Compressed and encrypted records end the process: the saveset's message on
// standard output, one status-file line, exit status 1.
TEST_F(CpioStreamTest, CompressedAndEncryptedSavesetsEndTheProcess) {
  const std::string target = Record(Format::kExt, "target", "data");
  struct Case {
    const char* what;
    std::string record;
    const char* printed;
  } cases[] = {
      {"compressed", Record(Format::kExt, "packed", "zz", cpio::kMagicExtCompressed),
       "is compressed. Compressed savesets are not supported"},
      {"encrypted 64", Record(Format::kExt, "secret", "zz", 0, 64), "is encrypted. Encrypted savesets are not supported"},
      {"encrypted 576", Record(Format::kExtUnpadded, "secret", "zz", 0, 576), "is encrypted. Encrypted savesets are not supported"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const int32_t idx = Saveset(c.record + target, c.what);
    const std::string out = dir_ / "stdout.txt";
    std::filesystem::remove(dir_ / "tvu_con.status");
    EXPECT_EXIT(
        {
          if (!freopen(out.c_str(), "wb", stdout)) _exit(3);
          Locate(idx, 0, "target");
          _exit(0);
        },
        ::testing::ExitedWithCode(1), "");
    const std::string printed = ReadFile(out);
    EXPECT_EQ(0u, printed.find("Saveset [" + std::string(g_psSavesets[idx].szName) + "] " + c.printed + "\n"))
        << printed;
    // Not fatal: where a death test runs the test again in a new process, that
    // process passes here without the status the earlier case's process wrote.
    const std::string status = ReadFile(dir_ / "tvu_con.status");
    EXPECT_GT(status.size(), 20u);
    EXPECT_EQ("ERROR INFO=Saveset is compressed. Compressed savesets are not supported\n",
              status.substr(std::min<size_t>(20, status.size())));
  }
  // The same records after the item are never reached.
  const std::string stream = target + Record(Format::kExt, "packed", "zz", cpio::kMagicExtCompressed);
  ExpectData(Saveset(stream, "late-compressed"), stream, 0, "target", "data");
}

TEST_F(CpioStreamTest, LocatesEveryFileOfGnuCpioArchives) {
  if (!archive_test::HaveTool("cpio")) GTEST_SKIP() << "GNU cpio not installed";
  std::map<std::string, std::string> files = {
      {"t/one", "1"}, {"t/sub dir/Grüße b.bin", std::string(1000, 'g') + "end"}, {"t/sub dir/empty", ""},
      {"t/two", "22"}, {"t/three", "333"}, {"t/sub dir/four", "4444"}, {"t/z", "zzzzz"}};
  std::filesystem::create_directories(dir_ / "t/sub dir");
  for (const auto& f : files) tvutest::WriteFile(dir_ / f.first, f.second);
  for (const char* fmt : {"newc", "odc"}) {
    SCOPED_TRACE(fmt);
    const std::string archive = dir_ / (std::string(fmt) + ".cpio");
    ASSERT_EQ(0, tvutest::Shell("cd " + Quote(dir_.path()) + " && find t | LC_ALL=C sort | cpio -o --quiet -H " +
                                fmt + " >" + Quote(archive)));
    const std::string bytes = ReadFile(archive);
    const int32_t idx = Saveset(bytes, std::string(fmt) + ".saveset");
    for (const auto& f : files) {
      SCOPED_TRACE(f.first);
      const Located l = Locate(idx, 0, f.first);
      ASSERT_EQ(0, l.rc);
      ASSERT_EQ(f.second.size(), l.size);
      EXPECT_EQ(f.second, bytes.substr(static_cast<size_t>(l.rel), l.size));
    }
    const Located d = Locate(idx, 0, "t/sub dir");  // a folder has no data
    EXPECT_EQ(0, d.rc);
    EXPECT_EQ(0u, d.size);
  }
}

// Random damage to small streams of the kinds that are not fatal: the search
// always ends, never reads outside its buffer (ASan) and returns 0.
TEST_F(CpioStreamTest, FuzzedStreamsNeverCrash) {
  korvo::trace_configure(0, nullptr);
  uint64_t seed = 0x9E3779B97F4A7C15ull;
  for (Format f : {Format::kNewc, Format::kOdc, Format::kExtUnpadded}) {
    std::string fixture = EaAclRecord("b", "ea", "acl");
    for (const char* name : {"a", "b", "dir/c", "empty"})
      fixture += Record(f, name, std::string(name).size() == 5 ? "" : std::string(9, name[0]));
    fixture += cpio::TrailerRecord(f);
    const int32_t idx = Saveset(fixture, std::string("fuzz-") + cpio::FormatName(f));
    for (int i = 0; i < 300; ++i) {
      std::string bytes = fixture;
      for (int k = 0; k < 3; ++k) {
        seed ^= seed << 13, seed ^= seed >> 7, seed ^= seed << 17;
        bytes[seed % bytes.size()] = static_cast<char>(seed >> 40);
      }
      if (i % 7 == 0) bytes.resize(seed % bytes.size());
      // Skip the rare damage that makes a record compressed or encrypted.
      if (bytes.find("070106") != std::string::npos || bytes.find("00000040") != std::string::npos ||
          bytes.find("00000240") != std::string::npos)
        continue;
      tvutest::WriteFile(dir_ / (std::string("fuzz-") + cpio::FormatName(f)), bytes);
      for (const char* name : {"dir/c", "zz"}) {
        const Located l = Locate(idx, 0, name);
        ASSERT_EQ(0, l.rc) << i;
        if (l.size > 0) {
          EXPECT_LE(static_cast<uint64_t>(l.rel), bytes.size() + 3) << i;
        }
      }
    }
  }
}

}  // namespace
