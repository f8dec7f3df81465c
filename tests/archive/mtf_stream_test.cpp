// Tests of locating an item's data in an MTF saveset: streams in front of the
// data and their 4-byte alignment, pad streams and blocks that need none, a
// stream header across the end of the 64 KiB window, damaged and truncated
// sets, data streams the module cannot read, the entry update on the saveset
// table, and a corpus-driven fuzz loop over the walk.
//
// The media come from the project's MTF writer; expected offsets come from
// where each item's (unique) data lies in the bytes, not from the format's
// arithmetic.
#include "archive/mtf_stream.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "archive/mtf_format.h"
#include "mkchain/mtf_writer.h"
#include "plugin/db_hooks.h"
#include "report/tvu_report.h"
#include "runtime/trace.h"
#include "support/test_util.h"
#include "vfs/tq_vfs_saveset.h"

namespace {

using mkchain::MtfWriter;
using tvutest::ReadFile;
using tvutest::TempDir;

constexpr time_t kWhen = 1793500000;

// Bytes of MTF media written by body, and where its FILE blocks start.
struct Media {
  std::string bytes;
  std::map<std::string, uint64_t> block;  // by file name
};

Media Write(const TempDir& dir, const std::function<void(MtfWriter&, Media*)>& body, uint32_t blockSize = 1024) {
  Media m;
  mkchain::OutFile out;
  std::string error;
  EXPECT_TRUE(out.Open(dir / "media.tmp", &error)) << error;
  MtfWriter w(&out, blockSize);
  EXPECT_TRUE(w.Tape("T", kWhen) && w.StartSet(1, "S", kWhen) && w.Volume("C:", kWhen) && w.Directory("", kWhen) &&
              w.Directory("d", kWhen));
  body(w, &m);
  EXPECT_TRUE(w.EndSet(kWhen));
  EXPECT_TRUE(out.Close(&error)) << error;
  m.bytes = ReadFile(dir / "media.tmp");
  return m;
}

// A FILE block for name with the given data, recorded in m.
void AddFile(MtfWriter& w, Media* m, const std::string& name, const std::string& data,
             MtfWriter::FileData d = MtfWriter::FileData()) {
  m->block[name] = w.pos();
  d.size = data.size();
  d.write = [data](mkchain::OutFile* o) { return o->Write(data.data(), data.size()); };
  EXPECT_TRUE(w.File(name, kWhen, d)) << name;
}

MtfReadAt ReadString(const std::string& bytes, unsigned* reads = nullptr) {
  return [&bytes, reads](uint64_t pos, uint8_t* buf, size_t n) -> int64_t {
    if (reads) ++*reads;
    if (pos >= bytes.size()) return 0;
    const size_t got = std::min<size_t>(n, bytes.size() - static_cast<size_t>(pos));
    memcpy(buf, bytes.data() + pos, got);
    return static_cast<int64_t>(got);
  };
}

struct Walked {
  int r;
  MTF_ITEM item;
  std::string why;
};

Walked Walk(const std::string& bytes, uint64_t block, const std::wstring& name = L"") {
  Walked w;
  w.r = MtfWalkFileBlock(ReadString(bytes), block, bytes.size(), name, &w.item, &w.why);
  return w;
}

void ExpectData(const Media& m, const std::string& name, const std::string& data) {
  SCOPED_TRACE(name);
  const uint64_t block = m.block.at(name);
  const Walked w = Walk(m.bytes, block, std::wstring(name.begin(), name.end()));
  ASSERT_EQ(mwFOUND, w.r) << w.why;
  EXPECT_EQ(m.bytes.find(data, block) - block, w.item.ullDataOffset);
  EXPECT_EQ(data.size(), w.item.ullSize);
  EXPECT_EQ(static_cast<int64_t>(kWhen), w.item.llModified);
  EXPECT_EQ(0u, (block + w.item.ullDataOffset - mtf::kStreamHeaderSize) % 4) << "stream header off its boundary";
}

class MtfStreamTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (int32_t i = 0; i < g_iSavesetCount; ++i) saveset_close(i);
    saveset_table_free();
    korvo::trace_configure(0, nullptr);
    tvu_hooks_reset_for_test();
  }
  TempDir dir_;
};

TEST_F(MtfStreamTest, DataBehindOtherStreamsOnFourByteBoundaries) {
  const std::string big(3001, 'B');
  const Media m = Write(dir_, [&](MtfWriter& w, Media* mm) {
    MtfWriter::FileData acl;
    acl.before = {{mtf::kNacl, "acl"}, {mtf::Id("NTEA"), std::string(7, 'e')}};  // 3 and 1 fill bytes
    AddFile(w, mm, "acl.txt", "after the security streams", acl);
    MtfWriter::FileData plain;
    plain.checksum = false;
    plain.after = {{mtf::Id("ADAT"), "an alternate stream"}};
    AddFile(w, mm, "plain.bin", "no checksum, odd size", plain);
    AddFile(w, mm, "big.bin", big);
    AddFile(w, mm, "ñamé.txt", "a name beyond ASCII");
  });
  ExpectData(m, "acl.txt", "after the security streams");
  ExpectData(m, "plain.bin", "no checksum, odd size");
  ExpectData(m, "big.bin", big);
  const Walked w = Walk(m.bytes, m.block.at("ñamé.txt"), L"ñamé.txt");
  EXPECT_EQ(mwFOUND, w.r) << w.why;
  EXPECT_EQ(L"ñamé.txt", w.item.wsName);
  // Colons are not part of the names the catalog gives.
  EXPECT_EQ(mwFOUND, Walk(m.bytes, m.block.at("acl.txt"), L"acl.t:xt").r);
}

// Empty files have no data stream: their streams end with a pad, or (when
// they end on a block boundary) with the next block.
TEST_F(MtfStreamTest, EmptyFilesEndAtTheirPadOrTheNextBlock) {
  const Media m = Write(dir_, [&](MtfWriter& w, Media* mm) {
    MtfWriter::FileData none;
    none.present = false;
    AddFile(w, mm, "e1", "", none);
    // 88 + 4 name bytes = 92: one stream of 910 bytes ends at 1024.
    none.before = {{mtf::kNacl, std::string(910, 'a')}};
    AddFile(w, mm, "e2", "", none);
    AddFile(w, mm, "next", "follows e2 directly");
  });
  ASSERT_EQ(m.block.at("e2") + 1024, m.block.at("next")) << "e2's streams should end on the boundary";
  for (const char* name : {"e1", "e2"}) {
    const Walked w = Walk(m.bytes, m.block.at(name));
    EXPECT_EQ(mwEMPTY, w.r) << name << ": " << w.why;
    EXPECT_EQ(0u, w.item.ullSize) << name;
    EXPECT_GE(w.item.ullDataOffset, mtf::kFileSize) << name;
  }
  ExpectData(m, "next", "follows e2 directly");
}

// The walk reads 64 KiB from the block; a header that crosses the end of
// that window, or lies behind a longer stream, is read again from its start.
TEST_F(MtfStreamTest, StreamHeaderAcrossTheWindowIsReadAgain) {
  const uint64_t firstEvent = 92;  // a FILE block with a 2-character name
  // Headers lie on 4-byte boundaries: 65512 is the last one that ends inside
  // the window, 65524 crosses its end.
  for (uint64_t headerAt : {65512, 65524, 65560, 200000}) {
    SCOPED_TRACE(headerAt);
    const std::string data = "data at " + std::to_string(headerAt);
    const Media m = Write(dir_, [&](MtfWriter& w, Media* mm) {
      MtfWriter::FileData d;
      d.before = {{mtf::kNacl, std::string(static_cast<size_t>(headerAt - firstEvent - 22), 's')}};
      AddFile(w, mm, "f1", data, d);
    });
    ExpectData(m, "f1", data);
    unsigned reads = 0;
    MTF_ITEM item;
    std::string why;
    const uint64_t block = m.block.at("f1");
    ASSERT_EQ(mwFOUND, MtfWalkFileBlock(ReadString(m.bytes, &reads), block, m.bytes.size(), L"", &item, &why));
    EXPECT_EQ(headerAt + 22, item.ullDataOffset);
    EXPECT_EQ(headerAt + 22 > 65536 ? 2u : 1u, reads);
  }
}

TEST_F(MtfStreamTest, DamagedAndTruncatedSetsSayWhatIsWrong) {
  const Media m = Write(dir_, [&](MtfWriter& w, Media* mm) {
    MtfWriter::FileData d;
    d.before = {{mtf::kNacl, "sd"}};
    AddFile(w, mm, "a.txt", "alpha alpha");
    AddFile(w, mm, "b.txt", "bravo bravo", d);
  });
  const uint64_t a = m.block.at("a.txt"), b = m.block.at("b.txt");
  const uint64_t nacl = b + 100, stan = nacl + 24;  // b's streams: 88 + 10 name bytes, aligned
  struct Case {
    const char* what;
    std::function<void(std::string*)> damage;
    uint64_t block;
    int result;
    const char* says;
  };
  const std::vector<Case> cases = {
      {"header checksum", [&](std::string* s) { (*s)[a + 30] ^= 1; }, a, mwNOT_FILE, "header checksum"},
      {"a directory block", [](std::string*) {}, a - 1024, mwNOT_FILE, "of type DIRB, not FILE"},
      {"inside data", [](std::string*) {}, a + 124, mwNOT_FILE, "no descriptor block"},
      {"first event before the block's end",
       [&](std::string* s) {
         mtf::Store16(reinterpret_cast<uint8_t*>(&(*s)[a + 8]), 40);
         mtf::SetDblkChecksum(reinterpret_cast<uint8_t*>(&(*s)[a]));
       },
       a, mwDAMAGED, "puts its first stream at 40"},
      {"stream header checksum", [&](std::string* s) { (*s)[nacl + 9] ^= 4; }, b, mwDAMAGED, "has checksum"},
      {"stream length past the end",
       [&](std::string* s) {
         uint8_t* h = reinterpret_cast<uint8_t*>(&(*s)[stan]);
         mtf::Store64(h + 8, 1u << 30);
         mtf::Store16(h + 20, mtf::WordXor(h, 10));
       },
       b, mwTRUNCATED, "claims 1073741824 bytes"},
      {"cut inside the block", [&](std::string* s) { s->resize(b + 60); }, b, mwTRUNCATED, "inside a descriptor"},
      {"cut inside a stream header", [&](std::string* s) { s->resize(stan + 10); }, b, mwTRUNCATED,
       "inside the stream header"},
      {"cut inside the data", [&](std::string* s) { s->resize(stan + 30); }, b, mwTRUNCATED, "claims 11 bytes"},
      {"cut after a stream", [&](std::string* s) { s->resize(nacl + 24); }, b, mwTRUNCATED, "before their pad"},
      {"a name that is not the item's", [](std::string*) {}, a, mwNOT_FILE, "is of [a.txt], not of [b.txt]"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string bytes = m.bytes;
    c.damage(&bytes);
    const bool named = std::string(c.what).find("name") != std::string::npos;
    const Walked w = Walk(bytes, c.block, named ? L"b.txt" : L"");
    EXPECT_EQ(c.result, w.r) << w.why;
    EXPECT_NE(std::string::npos, w.why.find(c.says)) << w.why;
  }
}

TEST_F(MtfStreamTest, DataTheModuleCannotReadIsNotSupported) {
  struct Case {
    const char* what;
    uint16_t fs, media, compression, encryption;
    uint32_t stream;  // a stream ahead of the data, 0: none
  };
  const Case cases[] = {{"compressed", 0, mtf::kStreamCompressed, 0, 0, 0},
                        {"compressed", 0, 0, 3, 0, 0},
                        {"encrypted", 0, mtf::kStreamEncrypted, 0, 0, 0},
                        {"encrypted", 0, 0, 0, 1, 0},
                        {"sparse", mtf::kStreamIsSparse, 0, 0, 0, 0},
                        {"variable length", 0, mtf::kStreamVariable, 0, 0, 0},
                        {"sparse", 0, 0, 0, 0, mtf::kSpar},
                        {"encrypted", 0, 0, 0, 0, mtf::kNted}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const Media m = Write(dir_, [&](MtfWriter& w, Media* mm) {
      MtfWriter::FileData d;
      d.fsAttributes = c.fs;
      d.mediaAttributes = c.media;
      d.compression = c.compression;
      d.encryption = c.encryption;
      if (c.stream) d.before = {{c.stream, "xx"}};
      AddFile(w, mm, "x", "not plain data", d);
    });
    const Walked w = Walk(m.bytes, m.block.at("x"));
    EXPECT_EQ(mwUNSUPPORTED, w.r) << w.why;
    EXPECT_NE(std::string::npos, w.why.find("not supported")) << w.why;
    EXPECT_NE(std::string::npos, w.why.find(std::string(c.what).substr(0, 6))) << w.why;
  }
}

std::string g_logged;
void CollectLog(const char* text) { g_logged += std::string(text) + "\n"; }

// Through the saveset table: the entry gets the data's place, size and time,
// or a non-zero result with the reason in the log and the notes.
TEST_F(MtfStreamTest, EntryUpdateOnTheSavesetTable) {
  tvu_hooks_reset_for_test();
  DB_SetLog(CollectLog);
  g_logged.clear();
  tvu_set_meta_dir((dir_.path() + "/").c_str());
  const Media m = Write(dir_, [&](MtfWriter& w, Media* mm) {
    AddFile(w, mm, "one.txt", "the first file");
    MtfWriter::FileData packed;
    packed.mediaAttributes = mtf::kStreamCompressed;
    AddFile(w, mm, "packed", "compressed bytes", packed);
  });
  tvutest::WriteFile(dir_ / "SF20261101020000.mtf", m.bytes);
  SAVESET s;
  memset(&s, 0, sizeof s);
  s.uiMediaType = smFILE;
  std::string name = dir_ / "SF20261101020000.mtf";
  for (char& c : name)
    if (c == '/') c = '\\';  // the table holds names as the client gives them
  s.szName = strdup(name.c_str());
  s.iDedupHandle = -1;
  const int32_t idx = saveset_append(s);
  ASSERT_EQ(0, saveset_init(idx));
  ASSERT_EQ(0, saveset_open(idx));

  MTF_ENTRY_UPDATE u;
  u.iSavesetIdx = idx;
  u.ullSavesetOffset = m.block.at("one.txt");
  u.wsName = L"one.txt";
  ASSERT_EQ(0, UpdateFSEntryFromMTFSaveset(&u, nullptr));
  EXPECT_TRUE(u.bLocated);
  EXPECT_EQ(static_cast<int64_t>(m.bytes.find("the first file") - u.ullSavesetOffset), u.llRelOffset);
  EXPECT_EQ(14u, u.ullSize);
  EXPECT_EQ(static_cast<int64_t>(kWhen), u.llStreamTime);

  MTF_ENTRY_UPDATE p;
  p.iSavesetIdx = idx;
  p.ullSavesetOffset = m.block.at("packed");
  p.wsName = L"packed";
  EXPECT_NE(0, UpdateFSEntryFromMTFSaveset(&p, "SF20261101020000"));
  EXPECT_FALSE(p.bLocated);
  const std::string says = "Cannot locate [packed] in MTF saveset [SF20261101020000]";
  EXPECT_NE(std::string::npos, g_logged.find(says + ": the data stream at offset")) << g_logged;
  EXPECT_NE(std::string::npos, ReadFile(tvu_notes_file()).find("compressed; such streams are not supported"));
}

TEST(MtfFormat, DatesAndChecksumsRoundTrip) {
  for (int64_t t : {0ll, 951782400ll /* 2000-02-29 */, 1793500000ll, 4102444799ll}) {
    uint8_t d[5];
    mtf::EpochToDate(t, d);
    EXPECT_EQ(t, mtf::DateToEpoch(d)) << t;
  }
  const uint8_t zero[5] = {};
  EXPECT_EQ(-1, mtf::DateToEpoch(zero));
  mtf::StreamHeader s;
  s.id = mtf::kStan;
  s.length = 0x123456789ull;
  uint8_t h[mtf::kStreamHeaderSize];
  mtf::EncodeStreamHeader(s, h);
  EXPECT_EQ(0, mtf::WordXor(h, 11));  // a header's words with its checksum give 0
  mtf::StreamHeader back;
  ASSERT_EQ(mtf::Check::kOk, mtf::DecodeStreamHeader(h, sizeof h, &back));
  EXPECT_EQ(s.length, back.length);
  h[3] ^= 0x20;
  EXPECT_EQ(mtf::Check::kBadChecksum, mtf::DecodeStreamHeader(h, sizeof h, &back));
  EXPECT_EQ(mtf::Check::kShort, mtf::DecodeStreamHeader(h, 21, &back));
}

// The seeds of the libFuzzer target (a 4-byte block offset, then the
// media), each mutated a fixed number of times with a fixed seed: the walk
// always ends and never places data outside the input.
TEST(MtfWalkFuzz, MutatedSeedsNeverCrashOrReachOutside) {
  const std::string corpus = std::string(TVU_SOURCE_DIR) + "/fuzz/corpus/fuzz_mtf_walk";
  std::vector<std::string> seeds;
  for (const auto& e : std::filesystem::directory_iterator(corpus)) seeds.push_back(ReadFile(e.path().string()));
  ASSERT_GE(seeds.size(), 3u);
  uint64_t rng = 0x9E3779B97F4A7C15ull;
  auto next = [&rng] {
    rng ^= rng << 13, rng ^= rng >> 7, rng ^= rng << 17;
    return rng;
  };
  int found = 0;
  for (const std::string& seed : seeds) {
    ASSERT_GT(seed.size(), 4u);
    for (int i = 0; i < 1000; ++i) {
      std::string input = seed;
      const int edits = 1 + static_cast<int>(next() % 4);
      for (int k = 0; k < edits; ++k) {
        const uint64_t r = next();
        switch (r % 4) {
          case 0: input[r % input.size()] = static_cast<char>(r >> 40); break;
          case 1: input[4 + (r >> 8) % (input.size() - 4)] ^= static_cast<char>(1 << (r >> 32) % 8); break;
          case 2: input.resize(4 + (r >> 8) % (input.size() - 3)); break;
          default: {  // a 64-bit length or offset field gets a large value
            const size_t at = 4 + (r >> 8) % (input.size() - 4);
            for (size_t b = at; b < at + 8 && b < input.size(); ++b) input[b] = static_cast<char>(0xFF);
          }
        }
        if (input.size() <= 4) input = seed;
      }
      uint32_t offset = 0;
      memcpy(&offset, input.data(), 4);
      const std::string media = input.substr(4);
      MTF_ITEM item;
      std::string why;
      const int r = MtfWalkFileBlock(ReadString(media), offset % (media.size() + 1), media.size(), L"", &item, &why);
      ASSERT_GE(r, mwFOUND);
      ASSERT_LE(r, mwREAD_ERROR);
      if (r == mwFOUND) {
        ++found;
        EXPECT_LE(offset % (media.size() + 1) + item.ullDataOffset + item.ullSize, media.size());
      } else if (r != mwEMPTY) {
        EXPECT_FALSE(why.empty());
      }
    }
  }
  EXPECT_GT(found, 0) << "no mutation left a seed's file readable";
}

}  // namespace
