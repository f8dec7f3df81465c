// Tests of the CPIO record header formats: round trips, padding, trailers,
// corrupt input, and cross-checks with GNU cpio and bsdtar.
#include "archive/cpio_format.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <vector>

#include "archive/archive_test_util.h"

namespace {

using archive_test::Quote;
using tvutest::ReadFile;
using tvutest::Shell;
using tvutest::TempDir;
using cpio::DecodeHeader;
using cpio::DecodeResult;
using cpio::Format;

const Format kAllFormats[] = {Format::kOdc, Format::kNewc, Format::kExt, Format::kExtUnpadded};

cpio::Header SampleHeader(const std::string& name) {
  cpio::Header h;
  h.ino = 4711;
  h.mode = 0100644;
  h.uid = 1000;
  h.gid = 100;
  h.nlink = 1;
  h.mtime = 1790000000;
  h.filesize = 123457;
  h.dev = 0x0801;
  h.devmajor = 8;
  h.devminor = 1;
  h.name = name;
  return h;
}

// The fields every format carries, plus flags (0 where a format has none).
std::vector<uint64_t> Values(const cpio::Header& h) {
  return {h.ino, h.mode, h.uid, h.gid, h.nlink, h.mtime, h.filesize, h.devmajor, h.devminor,
          h.namesize, h.flags};
}

std::string Encode(Format f, const cpio::Header& h) {
  std::string out, why;
  EXPECT_TRUE(cpio::EncodeRecordHeader(f, h, &out, &why)) << why;
  return out;
}

// Names of 1 to 8 bytes give every remainder of header+name modulo 4.
TEST(CpioFormat, RoundTripEveryFormatAndNameLength) {
  for (Format f : kAllFormats) {
    for (const std::string name : {"a", "ab", "abc", "abcd", "dir/x", "Grüße", "日本語 b"}) {
      SCOPED_TRACE(std::string(cpio::FormatName(f)) + " " + name);
      cpio::Header in = SampleHeader(name);
      in.flags = (f == Format::kExt || f == Format::kExtUnpadded) ? 3 : 0;
      const std::string bytes = Encode(f, in);
      ASSERT_EQ(bytes.size(), cpio::DataOffset(f, name.size() + 1));
      if (cpio::IsPadded(f)) {
        EXPECT_EQ(bytes.size() % 4, 0u);
      } else {
        EXPECT_EQ(bytes.size(), cpio::HeaderSize(f) + name.size() + 1);
      }
      EXPECT_EQ(bytes.substr(cpio::HeaderSize(f) + name.size()),
                std::string(bytes.size() - cpio::HeaderSize(f) - name.size(), '\0'));

      cpio::Header out;
      size_t len = 0;
      std::string why;
      ASSERT_EQ(DecodeHeader(bytes.data(), bytes.size(), &out, &len, &why), DecodeResult::kOk) << why;
      EXPECT_EQ(len, bytes.size());
      EXPECT_EQ(out.format, f);
      EXPECT_EQ(out.magic, cpio::DefaultMagic(f));
      EXPECT_EQ(out.name, name);
      in.namesize = name.size() + 1;
      EXPECT_EQ(Values(out), Values(in));
    }
  }
}

TEST(CpioFormat, PaddingRules) {
  // 070706 fills header+name and data to 4; 070726, the same layout, never.
  const cpio::Header h = SampleHeader("abc");  // 126 + 4 = 130 bytes
  EXPECT_EQ(Encode(Format::kExt, h).size(), 132u);
  EXPECT_EQ(Encode(Format::kExtUnpadded, h).size(), 130u);
  EXPECT_EQ(cpio::DataPadding(Format::kExt, 5), 3u);
  EXPECT_EQ(cpio::DataPadding(Format::kExtUnpadded, 5), 0u);
  EXPECT_EQ(cpio::DataPadding(Format::kNewc, 8), 0u);
  EXPECT_EQ(cpio::DataPadding(Format::kNewc, 9), 3u);
  EXPECT_EQ(cpio::DataPadding(Format::kOdc, 9), 0u);
  EXPECT_EQ(cpio::RecordSpan(Format::kExt, 4, 5), 132u + 5 + 3);
  EXPECT_EQ(cpio::RecordSpan(Format::kExtUnpadded, 4, 5), 130u + 5);
  EXPECT_EQ(cpio::RecordSpan(Format::kOdc, 4, 5), 76u + 4 + 5);

  // The whole extended family pads, except 070726.
  Format f;
  for (const char* magic : {"070706", "070106", "070206", "070306", "071206", "071306"}) {
    ASSERT_TRUE(cpio::FormatFromMagic(magic, &f)) << magic;
    EXPECT_EQ(f, Format::kExt) << magic;
  }
  ASSERT_TRUE(cpio::FormatFromMagic("070726", &f));
  EXPECT_EQ(f, Format::kExtUnpadded);
  EXPECT_FALSE(cpio::FormatFromMagic("070716", &f));
  EXPECT_FALSE(cpio::FormatFromMagic("07070x", &f));
}

TEST(CpioFormat, EncoderRejectsValuesThatDoNotFit) {
  struct Case {
    Format format;
    uint64_t cpio::Header::*field;
    uint64_t value;
    bool ok;
  } cases[] = {
      {Format::kOdc, &cpio::Header::mtime, 077777777777, true},
      {Format::kOdc, &cpio::Header::mtime, 0100000000000, false},
      {Format::kOdc, &cpio::Header::ino, 0777777, true},
      {Format::kOdc, &cpio::Header::ino, 01000000, false},
      {Format::kOdc, &cpio::Header::filesize, 8ull << 30, false},
      {Format::kNewc, &cpio::Header::filesize, 0xFFFFFFFF, true},
      {Format::kNewc, &cpio::Header::filesize, 1ull << 32, false},
      {Format::kNewc, &cpio::Header::flags, 1ull << 40, true},  // newc has no flags field
      {Format::kExtUnpadded, &cpio::Header::flags, 1ull << 32, false},
  };
  for (const Case& c : cases) {
    cpio::Header h = SampleHeader("x");
    h.*c.field = c.value;
    std::string out = "keep", why;
    EXPECT_EQ(cpio::EncodeRecordHeader(c.format, h, &out, &why), c.ok) << c.value;
    if (!c.ok) {
      EXPECT_EQ(out, "keep");
      EXPECT_NE(why.find("does not fit"), std::string::npos) << why;
    }
  }
  std::string out, why;
  for (const std::string& bad : {std::string(), std::string("a\0b", 3), std::string(4096, 'n')})
    EXPECT_FALSE(cpio::EncodeRecordHeader(Format::kNewc, SampleHeader(bad), &out, &why));
  EXPECT_TRUE(cpio::EncodeRecordHeader(Format::kNewc, SampleHeader(std::string(4095, 'n')), &out,
                                       &why));
  cpio::Header wrongMagic = SampleHeader("x");
  wrongMagic.magic = cpio::kMagicOdc;
  EXPECT_FALSE(cpio::EncodeRecordHeader(Format::kNewc, wrongMagic, &out, &why));
}

TEST(CpioFormat, TrailerRecordsMatchGnuCpio) {
  const std::map<Format, size_t> sizes = {
      {Format::kOdc, 87}, {Format::kNewc, 124}, {Format::kExt, 140}, {Format::kExtUnpadded, 137}};
  for (Format f : kAllFormats) {
    const std::string t = cpio::TrailerRecord(f);
    EXPECT_EQ(t.size(), sizes.at(f));
    cpio::Header h;
    size_t len = 0;
    ASSERT_EQ(DecodeHeader(t.data(), t.size(), &h, &len, nullptr), DecodeResult::kOk);
    EXPECT_EQ(h.name, "TRAILER!!!");
    EXPECT_EQ(h.nlink, 1u);
    EXPECT_EQ(h.ino + h.mode + h.uid + h.gid + h.mtime + h.filesize + h.flags, 0u);
  }
  if (!archive_test::HaveTool("cpio")) GTEST_SKIP() << "GNU cpio not installed";
  TempDir dir;
  for (const char* fmt : {"newc", "odc"}) {
    ASSERT_EQ(Shell("cpio -o --quiet -H " + std::string(fmt) + " </dev/null >" + Quote(dir / fmt)), 0);
    const std::string gnu = ReadFile(dir / fmt);
    const std::string ours = cpio::TrailerRecord(fmt[0] == 'n' ? Format::kNewc : Format::kOdc);
    EXPECT_EQ(gnu.substr(0, ours.size()), ours) << fmt;
  }
}

// Each case damages one valid newc or odc record (with its 3-byte name "abc"
// and ample room after it) and names the expected result and message part.
TEST(CpioFormat, DecoderReportsDamage) {
  struct Case {
    const char* what;
    Format format;
    size_t at;            // byte to overwrite
    std::string bytes;    // replacement
    size_t avail;         // bytes offered, 0: all
    DecodeResult result;
    const char* message;  // part of *why
  } cases[] = {
      {"unknown magic", Format::kNewc, 0, "070708", 0, DecodeResult::kCorrupt, "byte 0: unknown magic"},
      {"binary magic", Format::kNewc, 0, "\xc7q", 0, DecodeResult::kCorrupt, "\\xc7"},
      {"non-hex digit", Format::kNewc, 9, "g", 0, DecodeResult::kCorrupt, "byte 9: field ino"},
      {"blank in field", Format::kNewc, 54, " ", 0, DecodeResult::kCorrupt, "byte 54: field filesize"},
      {"non-octal digit", Format::kOdc, 20, "8", 0, DecodeResult::kCorrupt, "byte 20: field mode"},
      {"zero name size", Format::kNewc, 94, "00000000", 0, DecodeResult::kCorrupt, "name size 0"},
      {"name size over cap", Format::kNewc, 94, "00001001", 0, DecodeResult::kCorrupt, "exceeds"},
      {"name past buffer", Format::kNewc, 94, "00000100", 0, DecodeResult::kTruncated, "name of 256"},
      {"name without NUL", Format::kNewc, 113, "x", 0, DecodeResult::kCorrupt, "not NUL-terminated"},
      {"NUL inside name", Format::kOdc, 77, std::string(1, '\0'), 0, DecodeResult::kCorrupt, "byte 77: NUL inside"},
      {"short header", Format::kNewc, 0, "", 100, DecodeResult::kTruncated, "needs 110 bytes"},
      {"short magic", Format::kOdc, 0, "", 5, DecodeResult::kTruncated, "magic needs 6"},
      {"compressed", Format::kExt, 0, "070106", 0, DecodeResult::kCompressed, "compressed"},
      {"encrypted 64", Format::kExt, 110, "00000040", 0, DecodeResult::kEncrypted, "encrypted"},
      {"encrypted 576", Format::kExtUnpadded, 110, "00000240", 0, DecodeResult::kEncrypted, "576"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string rec = Encode(c.format, SampleHeader("abc")) + std::string(200, 'D');
    rec.replace(c.at, c.bytes.size(), c.bytes);
    cpio::Header h;
    size_t len = 0;
    std::string why;
    EXPECT_EQ(DecodeHeader(rec.data(), c.avail ? c.avail : rec.size(), &h, &len, &why), c.result);
    EXPECT_NE(why.find(c.message), std::string::npos) << why;
    if (c.result == DecodeResult::kTruncated) {
      EXPECT_GT(len, c.avail ? c.avail : rec.size());
    }
  }
}

// Every prefix of a record is either too short (asking for more than it has)
// or the whole header; random damage never reads past the buffer (run under
// ASan to see that).
TEST(CpioFormat, DecoderPrefixesAndRandomDamage) {
  for (Format f : kAllFormats) {
    const std::string rec = Encode(f, SampleHeader("dir/file name"));
    const size_t full = cpio::HeaderSize(f) + 14;  // header and name, fill excluded
    for (size_t avail = 0; avail <= rec.size(); ++avail) {
      std::vector<char> exact(rec.begin(), rec.begin() + avail);  // ASan sees overreads
      cpio::Header h;
      size_t len = 0;
      DecodeResult r = DecodeHeader(exact.data(), avail, &h, &len, nullptr);
      if (avail < full) {
        ASSERT_EQ(r, DecodeResult::kTruncated) << avail;
        EXPECT_GT(len, avail);
      } else {
        ASSERT_EQ(r, DecodeResult::kOk) << avail;
      }
    }
    uint64_t seed = 88172645463325252ull;
    for (int i = 0; i < 3000; ++i) {
      std::vector<char> bytes(rec.begin(), rec.end());
      for (int k = 0; k < 3; ++k) {
        seed ^= seed << 13, seed ^= seed >> 7, seed ^= seed << 17;
        bytes[seed % bytes.size()] = static_cast<char>(seed >> 40);
      }
      cpio::Header h;
      size_t len = 0;
      if (DecodeHeader(bytes.data(), bytes.size(), &h, &len, nullptr) == DecodeResult::kOk) {
        EXPECT_LE(cpio::HeaderSize(h.format) + h.namesize, bytes.size());
      }
    }
  }
}

struct Item {
  std::string name;
  bool dir;
  std::string data;
};

const std::vector<Item> kItems = {
    {"top", true, ""},         {"top/a.txt", false, "hello\n"},
    {"top/empty", false, ""},  {"top/Grüße b.bin", false, "x"},
    {"top/sub", true, ""},     {"top/sub/two", false, "ab"},
    {"top/sub/three", false, "abc"},
};

std::string BuildArchive(Format f) {
  std::string out;
  uint64_t ino = 100;
  for (const Item& it : kItems) {
    cpio::Header h = SampleHeader(it.name);
    h.ino = ++ino;
    h.dev = h.devmajor = h.devminor = 0;
    h.mode = it.dir ? 040755 : 0100644;
    h.nlink = it.dir ? 2 : 1;
    h.filesize = it.data.size();
    out += Encode(f, h) + it.data + std::string(cpio::DataPadding(f, it.data.size()), '\0');
  }
  return out + cpio::TrailerRecord(f);
}

TEST(CpioFormat, GnuCpioAndBsdtarExtractOurArchives) {
  if (!archive_test::HaveTool("cpio") || !archive_test::HaveTool("bsdtar"))
    GTEST_SKIP() << "GNU cpio or bsdtar not installed";
  for (const char* tool : {"cpio", "bsdtar"}) {
    for (Format f : {Format::kNewc, Format::kOdc}) {
      SCOPED_TRACE(std::string(tool) + " " + cpio::FormatName(f));
      TempDir dir;
      tvutest::WriteFile(dir / "a.cpio", BuildArchive(f));
      const std::string cmd = tool[0] == 'c' ? "cpio -idm --quiet <" : "bsdtar -xf ";
      ASSERT_EQ(Shell("cd " + Quote(dir / ".") + " && " + cmd + Quote(dir / "a.cpio")), 0);
      for (const Item& it : kItems) {
        const std::string path = dir / it.name;
        if (it.dir) {
          EXPECT_TRUE(std::filesystem::is_directory(path)) << it.name;
        } else {
          EXPECT_EQ(ReadFile(path), it.data) << it.name;
          struct stat st;
          ASSERT_EQ(stat(path.c_str(), &st), 0);
          EXPECT_EQ(static_cast<uint64_t>(st.st_mtime), SampleHeader("").mtime) << it.name;
        }
      }
    }
  }
}

TEST(CpioFormat, DecodesArchivesOfGnuCpio) {
  if (!archive_test::HaveTool("cpio")) GTEST_SKIP() << "GNU cpio not installed";
  TempDir dir;
  std::filesystem::create_directories(dir / "t/sub dir");
  tvutest::WriteFile(dir / "t/one", "1");
  tvutest::WriteFile(dir / "t/sub dir/Grüße", std::string(1000, 'g'));
  tvutest::WriteFile(dir / "t/sub dir/empty", "");
  for (const char* fmt : {"newc", "odc"}) {
    SCOPED_TRACE(fmt);
    const std::string archive = dir / (std::string(fmt) + ".cpio");
    ASSERT_EQ(Shell("cd " + Quote(dir.path()) + " && find t | LC_ALL=C sort | cpio -o --quiet -H " +
                  fmt + " >" + Quote(archive)),
              0);
    const std::string bytes = ReadFile(archive);
    std::map<std::string, std::string> found;
    size_t pos = 0;
    for (;;) {
      cpio::Header h;
      size_t len = 0;
      std::string why;
      ASSERT_EQ(DecodeHeader(bytes.data() + pos, bytes.size() - pos, &h, &len, &why),
                DecodeResult::kOk)
          << "at " << pos << ": " << why;
      if (h.name == cpio::kTrailerName) break;
      ASSERT_LE(pos + len + h.filesize, bytes.size());
      found[h.name] = (h.mode & 0170000) == 040000 ? "<dir>" : bytes.substr(pos + len, h.filesize);
      pos += len + h.filesize + cpio::DataPadding(h.format, h.filesize);
    }
    const std::map<std::string, std::string> want = {
        {"t", "<dir>"}, {"t/one", "1"}, {"t/sub dir", "<dir>"},
        {"t/sub dir/Grüße", std::string(1000, 'g')}, {"t/sub dir/empty", ""}};
    EXPECT_EQ(found, want);
  }
}

}  // namespace
