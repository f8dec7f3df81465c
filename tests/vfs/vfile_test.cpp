// Tests of the sliced virtual file and its handle tables: reads compared with
// a plain byte-array model over random overlapping slices of every source
// type, the combine rule's corner cases, gaps and short sources, the seek and
// range rules of the handle functions, MERGE slices and their locks, and the
// in-memory table.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "plugin/db_hooks.h"
#include "runtime/trace.h"
#include "support/test_util.h"
#include "vfs/tq_vfs_saveset.h"
#include "vfs/tq_vfs_vfile.h"

namespace {

using tvutest::TempDir;
using Bytes = std::vector<unsigned char>;

tq_vfs_slice Slice(int32_t type, int64_t start, int64_t end, int64_t mTime) {
  tq_vfs_slice s;
  s.iType = type;
  s.miIntervalStart = start;
  s.miIntervalEnd = end;
  s.mTime = mTime;
  return s;
}
tq_vfs_slice Fill(int64_t start, int64_t end, int64_t mTime, unsigned char byte) {
  tq_vfs_slice s = Slice(stFILL, start, end, mTime);
  s.ullFill = 0x4200u | byte;  // only the low 8 bits count
  return s;
}
tq_vfs_slice Saveset(int64_t start, int64_t end, int64_t mTime, int32_t idx, uint64_t offset) {
  tq_vfs_slice s = Slice(stSAVESET, start, end, mTime);
  s.miSavesetIdx = idx;
  s.miSavesetOffset = offset;
  return s;
}
tq_vfs_slice Memory(int64_t start, int64_t end, int64_t mTime, Bytes data) {
  tq_vfs_slice s = Slice(stMEMORY, start, end, mTime);
  s.pBuffer = std::make_shared<Bytes>(std::move(data));
  return s;
}
tq_vfs_slice Merge(int64_t start, int64_t end, int64_t mTime, uint64_t handle, uint64_t offset) {
  tq_vfs_slice s = Slice(stMERGE, start, end, mTime);
  s.ullMergeHandle = handle;
  s.ullMergeOffset = offset;
  return s;
}

std::unique_ptr<tq_vfs_vfile> NewFile(std::initializer_list<tq_vfs_slice> slices) {
  auto f = std::make_unique<tq_vfs_vfile>(L"disk.vmdk", L"vm/disk.vmdk");
  for (const tq_vfs_slice& s : slices) f->add_slice(s);
  return f;
}

std::string ReadAt(tq_vfs_vfile* f, int64_t pos, uint64_t n, uint64_t* got) {
  std::string buf(n, '\0');
  f->m_fpos = pos;
  *got = f->read(&buf[0], n);
  return buf;
}

// The combine rule and the read rule over plain arrays.  Slice sources are
// looked up through byteOf(slice, bytes into the slice); the model is only
// used with sources that hold every byte a slice can be asked for.
class Model {
 public:
  explicit Model(std::function<unsigned char(const tq_vfs_slice&, int64_t)> byteOf) : byteOf_(std::move(byteOf)) {}

  void add(const tq_vfs_slice& s) {
    if (s.miIntervalEnd != s.miIntervalStart) slices_.push_back(s);
  }

  // Fills the per-position arrays; call after the last add.
  void build() {
    size_ = 0;
    for (const tq_vfs_slice& s : slices_) size_ = std::max(size_, s.miIntervalEnd);
    std::vector<std::vector<int32_t>> cover(static_cast<size_t>(size_));
    for (size_t i = 0; i < slices_.size(); ++i)
      for (int64_t p = slices_[i].miIntervalStart; p < slices_[i].miIntervalEnd; ++p)
        cover[static_cast<size_t>(p)].push_back(static_cast<int32_t>(i));
    bytes_.assign(static_cast<size_t>(size_), 0);
    covered_.assign(static_cast<size_t>(size_), false);
    segments_ = 0;
    for (int64_t p = 0; p < size_; ++p) {
      const std::vector<int32_t>& c = cover[static_cast<size_t>(p)];
      if (c.empty()) continue;
      if (p == 0 || cover[static_cast<size_t>(p - 1)] != c) ++segments_;
      int32_t best = 0;
      int64_t version = 0;
      for (int32_t i : c)
        if (slices_[static_cast<size_t>(i)].mTime > version) best = i, version = slices_[static_cast<size_t>(i)].mTime;
      const tq_vfs_slice& w = slices_[static_cast<size_t>(best)];
      bytes_[static_cast<size_t>(p)] = byteOf_(w, p - w.miIntervalStart);
      covered_[static_cast<size_t>(p)] = true;
    }
  }

  // Expected result of a read of n bytes at pos; *copied is what lands in the
  // buffer (more than the result when a gap ends the read).
  uint64_t read(int64_t pos, uint64_t n, Bytes* out, uint64_t* copied) const {
    out->clear();
    for (int64_t p = pos; out->size() < n && p < size_; ++p) {
      if (!covered_[static_cast<size_t>(p)]) {
        *copied = out->size();
        return 0;
      }
      out->push_back(bytes_[static_cast<size_t>(p)]);
    }
    *copied = out->size();
    return out->size();
  }

  int64_t size() const { return size_; }
  size_t segments() const { return segments_; }
  const Bytes& bytes() const { return bytes_; }

 private:
  std::function<unsigned char(const tq_vfs_slice&, int64_t)> byteOf_;
  std::vector<tq_vfs_slice> slices_;
  int64_t size_ = 0;
  size_t segments_ = 0;
  Bytes bytes_;
  std::vector<bool> covered_;
};

class VfileTest : public ::testing::Test {
 protected:
  void TearDown() override {
    vfile_tables_clear();
    for (int32_t i = 0; i < g_iSavesetCount; ++i) saveset_close(i);
    saveset_table_free();
  }

  // A file saveset with the given content, opened.
  int32_t AddSaveset(const std::string& content) {
    std::string path = dir_ / ("SF" + std::to_string(g_iSavesetCount) + ".cpio");
    tvutest::WriteFile(path, content);
    SAVESET s;
    memset(&s, 0, sizeof s);
    s.uiMediaType = smFILE;
    s.szName = strdup(path.c_str());
    s.iDedupHandle = -1;
    int32_t idx = saveset_append(s);
    EXPECT_EQ(0, saveset_init(idx));
    EXPECT_EQ(0, saveset_open(idx));
    savesets_.push_back(content);
    return idx;
  }

  TempDir dir_;
  std::vector<std::string> savesets_;
};

std::string RandomBytes(std::mt19937* rng, size_t n) {
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>((*rng)() & 0xff);
  return s;
}

// Random overlapping slices of all four types with few distinct mTimes (so
// ties and zeros are common) against the model, read through the handle
// functions at random positions and sizes.
TEST_F(VfileTest, RandomSlicesReadLikeTheModel) {
  std::mt19937 rng(20261101);
  const int32_t ss[2] = {AddSaveset(RandomBytes(&rng, 96 * 1024)), AddSaveset(RandomBytes(&rng, 40 * 1024))};
  std::vector<Bytes> mergeBytes;
  auto byteOf = [&](const tq_vfs_slice& s, int64_t k) -> unsigned char {
    switch (static_cast<VFILE_SLICE_TYPE>(s.iType)) {
      case stFILL:
        return static_cast<unsigned char>(s.ullFill);
      case stSAVESET:
        return static_cast<unsigned char>(savesets_[static_cast<size_t>(s.miSavesetIdx)].at(s.miSavesetOffset + k));
      case stMEMORY:
        return s.pBuffer->at(static_cast<size_t>(k));
      case stMERGE:
        return mergeBytes.at(s.ullMergeHandle).at(s.ullMergeOffset + static_cast<uint64_t>(k));
    }
    ADD_FAILURE() << "unknown type";
    return 0;
  };
  auto u = [&](int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng); };
  // A random slice of [0, limit) that its source can serve in full.
  auto randomSlice = [&](int64_t limit, bool allowMerge) {
    int64_t start = u(0, limit - 1);
    int64_t len = u(0, 9) == 0 ? 0 : std::min(u(1, u(0, 4) == 0 ? 16384 : 3000), limit - start);
    int64_t end = start + len, mTime = u(0, 5);
    switch (u(0, allowMerge ? 3 : 2)) {
      case 0:
        return Fill(start, end, mTime, static_cast<unsigned char>(u(0, 255)));
      case 1: {
        int32_t which = static_cast<int32_t>(u(0, 1));
        int64_t room = static_cast<int64_t>(savesets_[static_cast<size_t>(which)].size()) - len;
        return Saveset(start, end, mTime, ss[which], static_cast<uint64_t>(u(0, room)));
      }
      case 2: {
        std::string b = RandomBytes(&rng, static_cast<size_t>(len));
        return Memory(start, end, mTime, Bytes(b.begin(), b.end()));
      }
      default: {
        uint64_t h = static_cast<uint64_t>(u(0, static_cast<int64_t>(mergeBytes.size()) - 1));
        int64_t room = static_cast<int64_t>(mergeBytes[h].size()) - len;
        return Merge(start, end, mTime, h, static_cast<uint64_t>(u(0, room)));
      }
    }
  };

  // Two MERGE files without gaps (a fill slice under everything), read
  // through MERGE slices of the files under test.
  for (int m = 0; m < 2; ++m) {
    const int64_t size = 20000 + 5000 * m;
    auto f = std::make_unique<tq_vfs_vfile>(L"merge", L"merge");
    Model model(byteOf);
    for (int i = 0; i < 60; ++i) {
      tq_vfs_slice s = i == 0 ? Fill(0, size, u(0, 2), 0xEE) : randomSlice(size, false);
      f->add_slice(s);
      model.add(s);
    }
    model.build();
    ASSERT_EQ(static_cast<uint64_t>(model.size()), f->size());
    mergeBytes.push_back(model.bytes());
    vfile_table_MERGE_push(std::move(f));
  }

  for (int round = 0; round < 25; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const int64_t limit = 65536;
    auto f = std::make_unique<tq_vfs_vfile>(L"disk", L"disk");
    Model model(byteOf);
    // Slice 0 is a fill slice, so that serving a segment it does not cover
    // (no covering slice newer than 0) still has a defined byte.
    const int slices = static_cast<int>(u(1, 250));
    for (int i = 0; i < slices; ++i) {
      tq_vfs_slice s = randomSlice(limit, true);
      if (i == 0) s = Fill(s.miIntervalStart, std::max(s.miIntervalEnd, s.miIntervalStart + 1), u(0, 3), 0x5A);
      f->add_slice(s);
      model.add(s);
    }
    model.build();
    tq_vfs_vfile* pf = f.get();
    const int32_t h = vfile_table_push(std::move(f));
    ASSERT_EQ(static_cast<uint64_t>(model.size()), vfile_size(h));
    ASSERT_EQ(model.segments(), pf->segmentCount());

    Bytes want, got;
    for (int r = 0; r < 300; ++r) {
      const int64_t pos = u(0, model.size() - 1);
      const uint64_t n = static_cast<uint64_t>(u(0, 4) == 0 ? u(0, model.size()) : u(0, 6000));
      uint64_t copied = 0;
      const uint64_t expect = model.read(pos, n, &want, &copied);
      ASSERT_EQ(static_cast<uint64_t>(pos), vfile_seek(h, pos));
      got.assign(n, 0);
      // Below trace level 3 reads walk the flattened runs, at level 3 the
      // segments one by one: alternate so both ways meet the model.
      korvo::trace_configure(r % 2 ? 3 : 0, r % 2 ? "/dev/null" : nullptr);
      const uint64_t read = vfile_read(h, got.data(), n);
      korvo::trace_configure(0, nullptr);
      ASSERT_EQ(expect, read) << "pos " << pos << " n " << n << " trace level " << (r % 2 ? 3 : 0);
      ASSERT_TRUE(std::equal(want.begin(), want.begin() + static_cast<ptrdiff_t>(copied), got.begin()))
          << "pos " << pos << " n " << n;
      ASSERT_EQ(pos + static_cast<int64_t>(copied), pf->m_fpos);
    }
  }
}

// Overlaps in both orders, equal versions, all versions 0 and zero-size
// slices, through fill slices whose bytes name the slice.
TEST_F(VfileTest, CombineRule) {
  uint64_t got = 0;
  // B is newer than A whichever is added first; 150 bytes take two passes.
  for (bool aFirst : {true, false}) {
    auto f = aFirst ? NewFile({Fill(0, 100, 10, 'A'), Fill(50, 150, 20, 'B')})
                    : NewFile({Fill(50, 150, 20, 'B'), Fill(0, 100, 10, 'A')});
    EXPECT_EQ(std::string(50, 'A') + std::string(100, 'B'), ReadAt(f.get(), 0, 150, &got));
    EXPECT_EQ(150u, got);
    EXPECT_EQ(3u, f->segmentCount());
  }
  // Equal versions: the slice added first wins in the overlap.
  auto eq = NewFile({Fill(0, 100, 7, 'A'), Fill(50, 150, 7, 'B')});
  EXPECT_EQ(std::string(100, 'A') + std::string(50, 'B'), ReadAt(eq.get(), 0, 150, &got));
  auto eq2 = NewFile({Fill(50, 150, 7, 'B'), Fill(0, 100, 7, 'A')});
  EXPECT_EQ(std::string(50, 'A') + std::string(100, 'B'), ReadAt(eq2.get(), 0, 150, &got));

  // All versions 0: slice 0 serves every segment, even one it does not cover.
  auto zero = NewFile({Fill(0, 10, 0, 'A'), Fill(10, 20, 0, 'B'), Fill(5, 15, 0, 'C')});
  EXPECT_EQ(std::string(20, 'A'), ReadAt(zero.get(), 0, 20, &got));
  // A version above 0 beats slice 0 only where it covers.
  auto one = NewFile({Fill(0, 10, 0, 'A'), Fill(10, 20, 1, 'B'), Fill(5, 15, 0, 'C')});
  EXPECT_EQ(std::string(10, 'A') + std::string(10, 'B'), ReadAt(one.get(), 0, 20, &got));
  EXPECT_EQ(0, one->getNewestSlice({}));  // the start values

  // A zero-size slice changes nothing, not even the slice numbering.
  auto z = NewFile({Fill(0, 10, 1, 'A')});
  z->add_slice(Fill(5, 5, 9, 'Z'));
  EXPECT_EQ(1u, z->sliceCount());
  EXPECT_EQ(1u, z->segmentCount());
  z->add_slice(Fill(5, 10, 2, 'B'));
  EXPECT_EQ(std::string(5, 'A') + std::string(5, 'B'), ReadAt(z.get(), 0, 10, &got));
}

// A gap ends the read with 0 although earlier passes copied data; a read at
// the size returns 0; a short source ends the read with what was read.
TEST_F(VfileTest, GapsSizeAndShortSources) {
  uint64_t got = 7;
  auto gap = NewFile({Fill(0, 10, 1, 'A'), Fill(20, 30, 1, 'B')});
  EXPECT_EQ(30u, gap->size());
  std::string buf = ReadAt(gap.get(), 5, 20, &got);
  EXPECT_EQ(0u, got);
  EXPECT_EQ(std::string(5, 'A'), buf.substr(0, 5));
  EXPECT_EQ(10, gap->m_fpos);  // the passes before the gap still moved it
  EXPECT_EQ(std::string(10, 'B'), ReadAt(gap.get(), 20, 50, &got).substr(0, 10));
  EXPECT_EQ(10u, got);
  ReadAt(gap.get(), 30, 5, &got);
  EXPECT_EQ(0u, got);
  EXPECT_EQ(30, gap->m_fpos);

  // The saveset holds 100 bytes but the slice claims 150: the pass reads
  // 100, the read returns the 50 + 100 bytes it got and goes no further.
  std::string content(100, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>('a' + i % 26);
  int32_t idx = AddSaveset(content);
  auto shortSs = NewFile({Fill(0, 50, 1, '#'), Saveset(50, 200, 2, idx, 0), Fill(200, 300, 1, '#')});
  buf = ReadAt(shortSs.get(), 0, 300, &got);
  EXPECT_EQ(150u, got);
  EXPECT_EQ(std::string(50, '#') + content, buf.substr(0, 150));
  EXPECT_EQ(150, shortSs->m_fpos);
  // Saveset slices across segment borders, with offsets into the middle.
  auto ss = NewFile({Saveset(0, 60, 1, idx, 40), Saveset(30, 40, 2, idx, 0)});
  EXPECT_EQ(content.substr(40, 30) + content.substr(0, 10) + content.substr(80, 20), ReadAt(ss.get(), 0, 60, &got));
  EXPECT_EQ(content.substr(85, 15), ReadAt(ss.get(), 45, 100, &got).substr(0, 15));
  EXPECT_EQ(15u, got);

  // A memory buffer shorter than its slice is a short source too.
  auto mem = NewFile({Memory(0, 10, 1, Bytes{'x', 'y', 'z'}), Fill(10, 20, 1, '#')});
  buf = ReadAt(mem.get(), 1, 15, &got);
  EXPECT_EQ(2u, got);
  EXPECT_EQ("yz", buf.substr(0, 2));
  // An unknown slice type reads nothing at all.
  tq_vfs_slice odd = Fill(10, 20, 5, '?');
  odd.iType = 9;
  auto unknown = NewFile({Fill(0, 20, 1, 'A'), odd});
  ReadAt(unknown.get(), 0, 20, &got);
  EXPECT_EQ(0u, got);
}

// Seek, size and read by handle, and the range rules of every handle function.
TEST_F(VfileTest, HandleSeekSizeAndRanges) {
  const int32_t h = vfile_table_push(NewFile({Fill(0, 100, 1, 'A')}));
  const int32_t empty = vfile_table_push(NewFile({Fill(7, 7, 1, 'Z')}));
  ASSERT_EQ(2u, vfile_table_count());
  EXPECT_EQ(0, vfile_open(h));
  EXPECT_EQ(100u, vfile_size(h));
  EXPECT_EQ(99u, vfile_seek(h, 99));
  EXPECT_EQ(0u, vfile_seek(h, 100));  // past the last byte: refused
  EXPECT_EQ(99, vfile_get(h)->m_fpos);
  char buf[8];
  EXPECT_EQ(1u, vfile_read(h, buf, sizeof buf));
  EXPECT_EQ(0u, vfile_read(h, buf, sizeof buf));  // at the size
  // Only zero-size slices: size 0, every seek 0.
  EXPECT_EQ(0u, vfile_size(empty));
  EXPECT_EQ(0u, vfile_seek(empty, 0));
  EXPECT_EQ(0u, vfile_seek(empty, 5));
  EXPECT_EQ(0, vfile_get(empty)->m_fpos);

  // The count itself, beyond it and negative handles are out of range.
  for (int32_t bad : {2, 3, -1, INT32_MIN}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(-1, vfile_open(bad));
    EXPECT_EQ(0u, vfile_seek(bad, 1));
    EXPECT_EQ(0u, vfile_size(bad));
    EXPECT_EQ(0u, vfile_read(bad, buf, sizeof buf));
    EXPECT_EQ(-1, vfile_mutex_lock(bad));
    EXPECT_EQ(-1, vfile_mutex_unlock(bad));
    EXPECT_EQ(nullptr, vfile_get(bad));
  }
  // The MERGE table is empty: even handle 0 is out of range there.
  for (int32_t bad : {0, 1, -1, INT32_MIN}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(0u, vfile_seek_MERGE(bad, 0));
    EXPECT_EQ(0u, vfile_read_MERGE(bad, buf, sizeof buf));
    EXPECT_EQ(-1, vfile_mutex_lock_MERGE(bad));
    EXPECT_EQ(-1, vfile_mutex_unlock_MERGE(bad));
    EXPECT_EQ(nullptr, vfile_get_MERGE(bad));
  }
  EXPECT_EQ(0, vfile_mutex_lock(h));
  EXPECT_EQ(0, vfile_mutex_unlock(h));
}

// A MERGE slice reads the MERGE file under its lock, moving the MERGE file's
// position by the position rule; the lock is free again after the read.
TEST_F(VfileTest, MergeSlicesReadUnderTheMergeFilesLock) {
  std::string content = "0123456789abcdefghijklmnopqrstuvwxyz";
  int32_t idx = AddSaveset(content);
  const int32_t m = vfile_table_MERGE_push(NewFile({Saveset(0, 36, 1, idx, 0), Fill(10, 20, 2, '-')}));
  tq_vfs_vfile* merge = vfile_get_MERGE(m);
  const int32_t h = vfile_table_push(NewFile({Fill(0, 40, 1, '.'), Merge(5, 30, 2, static_cast<uint64_t>(m), 3)}));
  const std::string want = std::string(5, '.') + "3456789" + std::string(10, '-') + "klmnopqr" + std::string(10, '.');

  char buf[40];
  EXPECT_EQ(0u, vfile_seek(h, 0));
  EXPECT_EQ(40u, vfile_read(h, buf, 40));
  EXPECT_EQ(want, std::string(buf, 40));
  EXPECT_EQ(28, merge->m_fpos);
  // The MERGE file is also readable by its own handle.
  EXPECT_EQ(4u, vfile_seek_MERGE(m, 4));
  EXPECT_EQ(3u, vfile_read_MERGE(m, buf, 3));
  EXPECT_EQ("456", std::string(buf, 3));

  // A target past the MERGE file's last byte leaves its position as it is.
  const int32_t far = vfile_table_push(NewFile({Merge(0, 4, 1, static_cast<uint64_t>(m), 100)}));
  merge->m_fpos = 30;
  EXPECT_EQ(0u, vfile_seek(far, 0));
  EXPECT_EQ(4u, vfile_read(far, buf, 4));
  EXPECT_EQ("uvwx", std::string(buf, 4));
  // A MERGE handle outside the table is a short source.
  const int32_t bad = vfile_table_push(NewFile({Merge(0, 4, 1, 7, 0)}));
  EXPECT_EQ(0u, vfile_read(bad, buf, 4));

  // While another thread holds the MERGE lock the read waits for it.
  std::promise<void> locked, release;
  std::thread holder([&] {
    vfile_mutex_lock_MERGE(m);
    locked.set_value();
    release.get_future().wait();
    vfile_mutex_unlock_MERGE(m);
  });
  locked.get_future().wait();
  std::future<uint64_t> reader = std::async(std::launch::async, [&] {
    char b[40];
    vfile_mutex_lock(h);
    vfile_seek(h, 0);
    uint64_t n = vfile_read(h, b, 40);
    vfile_mutex_unlock(h);
    return n == 40 && std::string(b, 40) == want ? n : 0;
  });
  EXPECT_EQ(std::future_status::timeout, reader.wait_for(std::chrono::milliseconds(150)));
  release.set_value();
  holder.join();
  EXPECT_EQ(40u, reader.get());

  // After the read, a second thread takes both locks at once.  (Detached,
  // so that a lock left held fails the test instead of hanging it.)
  auto freed = std::make_shared<std::promise<void>>();
  std::future<void> done = freed->get_future();
  std::thread([freed, m, h] {
    vfile_mutex_lock(h);
    vfile_mutex_lock_MERGE(m);
    vfile_mutex_unlock_MERGE(m);
    vfile_mutex_unlock(h);
    freed->set_value();
  }).detach();
  EXPECT_EQ(std::future_status::ready, done.wait_for(std::chrono::seconds(5)));
}

using VfileDeathTest = VfileTest;

// A release of a lock the thread does not hold fails, and ends the process.
TEST_F(VfileDeathTest, FailedReleaseEndsTheProcess) {
  TempDir meta;
  tvu_set_meta_dir((meta.path() + "/").c_str());
  const int32_t h = vfile_table_push(NewFile({Fill(0, 1, 1, 'A')}));
  EXPECT_EXIT(vfile_mutex_unlock(h), ::testing::ExitedWithCode(1), "");
  EXPECT_NE(std::string::npos, tvutest::ReadFile(meta / "tvu_con.status").find("INFO=Internal error: mutex release"));
}

// The in-memory table: the seek keeps the position below the length, the
// read does not move it and stops at the end.
TEST_F(VfileTest, PureVirtualSeekAndRead) {
  auto p = std::make_unique<tq_vfs_PureVirtualFile>();
  const std::string text = "abcdef";
  p->content.assign(text.begin(), text.end());
  const int32_t h = pure_virtual_table_push(std::move(p));
  char buf[16];
  EXPECT_EQ(2u, pure_virtual_seek(h, 2));
  EXPECT_EQ(4u, pure_virtual_read(h, buf, 10));
  EXPECT_EQ("cdef", std::string(buf, 4));
  EXPECT_EQ(2u, pure_virtual_read(h, buf, 2));  // same bytes again: no advance
  EXPECT_EQ("cd", std::string(buf, 2));
  EXPECT_EQ(2u, pure_virtual_seek(h, 6));  // at the length: old position
  EXPECT_EQ(5u, pure_virtual_seek(h, 5));
  for (int32_t bad : {-1, 1, INT32_MIN}) {
    EXPECT_EQ(~0ull, pure_virtual_seek(bad, 0));
    EXPECT_EQ(~0ull, pure_virtual_read(bad, buf, 1));
  }
}

// Every trace line of the read path formats its arguments (run at level 3
// so that the format strings and their arguments meet).
TEST_F(VfileTest, ReadPathTracesAtLevelThree) {
  const std::string trc = dir_ / "vfile.trc";
  korvo::trace_configure(3, trc.c_str());
  int32_t idx = AddSaveset("0123456789");
  const int32_t m = vfile_table_MERGE_push(NewFile({Fill(0, 8, 1, 'm')}));
  auto f = NewFile({Saveset(0, 10, 1, idx, 0), Memory(10, 12, 1, Bytes{'x', 'y'}),
                    Merge(12, 14, 1, static_cast<uint64_t>(m), 0), Fill(14, 16, 1, 'f'), Fill(20, 25, 1, 'g')});
  f->add_slice(Fill(3, 3, 1, 'z'));
  const int32_t h = vfile_table_push(std::move(f));
  char buf[32];
  vfile_open(h);
  vfile_size(h);
  vfile_seek(h, 0);
  EXPECT_EQ(0u, vfile_read(h, buf, 25));  // runs into the gap at 16
  korvo::trace_configure(0, nullptr);
  const std::string t = tvutest::ReadFile(trc);
  for (const char* line : {"tq_vfs_vfile::tq_vfs_vfile cpFilename=disk.vmdk", "tq_vfs_vfile::open [disk.vmdk]",
                           "tq_vfs_vfile::getNewestSlice found handle=0 version=1",
                           "tq_vfs_vfile::read m_fpos not found in interval tree \n",
                           "bytes to read: 2 bytes read: 2 bytes read total: 16 remaining: 9 m_fpos=16"}) {
    EXPECT_NE(std::string::npos, t.find(line)) << line;
  }
}

}  // namespace
