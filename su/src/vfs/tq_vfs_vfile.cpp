// tq_vfs_vfile.cpp - the sliced virtual file: adding slices to its interval
// map and reading through the map, one segment per pass.
//
// The map.  Each segment is a right-open interval of file positions carrying
// the set of every slice that covers it.  Adding a slice aggregates on
// overlap: segments are split at the slice's borders, the overlapped parts get
// the union of their set and {slice}, uncovered parts become new segments, and
// neighbours that end up with equal sets are joined.  Sets only ever grow, so
// the winner of a segment is decided at read time (getNewestSlice), not when
// slices are added; that keeps add_slice independent of the order of mTimes.
//
// The read.  A pass finds the segment that holds the position (a descent of
// the map for the first pass, a step to the next segment after that), picks
// the segment's slice, and copies min(remaining, rest of the segment) straight
// from the slice's source into the caller's buffer: no data is buffered and
// nothing is allocated per pass.
#include "vfs/tq_vfs_vfile.h"

#include <boost/icl/interval_map.hpp>
#include <boost/icl/right_open_interval.hpp>
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <set>

#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_dedup_lib.h"
#include "vfs/tq_vfs_saveset.h"
#include "vfs/tq_vfs_timer.h"

namespace {

using SliceSet = std::set<int32_t>;

// Right-open intervals are named explicitly rather than left to ICL's
// configurable default, so that segment bounds are static (no bound flags per
// interval) whatever the ICL configuration.
using SliceIntervalMap = boost::icl::interval_map<
    int64_t, SliceSet, boost::icl::partial_absorber, ICL_COMPARE_INSTANCE(ICL_COMPARE_DEFAULT, int64_t),
    ICL_COMBINE_INSTANCE(boost::icl::inplace_plus, SliceSet), ICL_SECTION_INSTANCE(boost::icl::inter_section, SliceSet),
    ICL_INTERVAL_INSTANCE(boost::icl::right_open_interval, int64_t, ICL_COMPARE_DEFAULT)>;
using SliceInterval = SliceIntervalMap::interval_type;

using ull = unsigned long long;

// The combine rule over one segment's slice indices (ascending): the greatest
// mTime wins, the first added among equals; the start values (index 0,
// version 0) make slice 0 the answer when no slice has an mTime above 0.
// The versions come from a compact copy (mTimes) so that choosing touches
// only the winner's full record, not every covering slice's.
template <class Indices>
int32_t NewestOf(const std::vector<tq_vfs_slice>& slices, const std::vector<int64_t>& mTimes, const Indices& indices) {
  const bool bTrace = korvo::trace_level() >= 3;
  if (bTrace) korvo::write_trace(3, "tq_vfs_vfile::getNewestSlice");
  int32_t iBest = 0;
  int64_t llBestVersion = 0;
  for (int32_t i : indices) {
    const int64_t llVersion = mTimes[static_cast<size_t>(i)];
    if (bTrace) {
      const tq_vfs_slice& s = slices[static_cast<size_t>(i)];
      korvo::write_trace(3, "handle[%d]: ssetIdx %d offset %lu time: %lu", i, s.miSavesetIdx,
                         static_cast<unsigned long>(s.miSavesetOffset), static_cast<unsigned long>(s.mTime));
    }
    if (llVersion > llBestVersion) {
      iBest = i;
      llBestVersion = llVersion;
    }
  }
  if (bTrace)
    korvo::write_trace(3, "tq_vfs_vfile::getNewestSlice found handle=%d version=%lu", iBest,
                       static_cast<unsigned long>(llBestVersion));
  return iBest;
}

// Releases the dedup library lock after the saveset branch went wrong: a
// failure inside the saveset layer may have left it held, and a read that
// cannot say whether it is held must not go on.  A failed release ends the
// process.
void ReleaseLibraryLockAfterFailure() {
  int err = pf::MutexUnlock(VfsDedupLibraryMutex());
  if (err != 0) {
    WRITE_TRACE(1, "mutex_unlock mutex release failed GetLastError() = %d", err);
    tvu_fatal("Internal error: mutex release");
  }
}

}  // namespace

// A stretch of the file that one slice supplies: consecutive segments won
// by the same slice, [first, last].  MERGE slices get a run per segment.
struct SliceRun {
  int64_t first;
  int64_t last;
  int32_t slice;
};

struct tq_vfs_vfile::SliceMap {
  SliceIntervalMap m;
  std::vector<int64_t> mTimes;  // mTime of every slice, by index
  // The winners of the map, flattened once slices stop arriving (built at
  // the first read after an add_slice): reads below trace level 3 walk this
  // array instead of the tree and the slice sets.
  std::vector<SliceRun> runs;
  bool runsValid = false;
};

tq_vfs_vfile::tq_vfs_vfile(const std::wstring& cpFilename, const std::wstring& relativePath)
    : map_(new SliceMap), cpFilename_(cpFilename), relativePath_(relativePath) {
  WRITE_TRACE(1, "tq_vfs_vfile::tq_vfs_vfile cpFilename=%ls", cpFilename_.c_str());
  // Without a lock the file stays usable for building; the first wait on the
  // null lock fails and ends the process, as every failed wait does.
  int err = pf::MutexCreate(&hMutex);
  if (err != 0) WRITE_TRACE(1, "tq_vfs_vfile::tq_vfs_vfile cannot create mutex error = %d", err);
}

tq_vfs_vfile::~tq_vfs_vfile() { pf::MutexClose(hMutex); }

int tq_vfs_vfile::add_slice(const tq_vfs_slice& slice) {
  WRITE_TRACE(2,
              "tq_vfs_vfile::add_slice [%ls] miSavesetIdx=%d miSavesetOffset=%llu miIntervalStart=%llu "
              "miIntervalEnd=%llu mTime=%lu",
              cpFilename_.c_str(), slice.miSavesetIdx, static_cast<ull>(slice.miSavesetOffset),
              static_cast<ull>(slice.miIntervalStart), static_cast<ull>(slice.miIntervalEnd),
              static_cast<unsigned long>(slice.mTime));
  if (slice.miIntervalEnd == slice.miIntervalStart) {
    WRITE_TRACE(1, "ignoring slice - zero size");
    return 0;
  }
  VfsTimerStart(vtSLICE);
  slices_.push_back(slice);
  map_->mTimes.push_back(slice.mTime);
  map_->runsValid = false;
  const int32_t i = static_cast<int32_t>(slices_.size() - 1);
  map_->m += std::make_pair(SliceInterval(slice.miIntervalStart, slice.miIntervalEnd), SliceSet{i});
  VfsTimerStop(vtSLICE);
  return 0;
}

int32_t tq_vfs_vfile::getNewestSlice(const std::vector<int32_t>& slices) const {
  return NewestOf(slices_, map_->mTimes, slices);
}

uint64_t tq_vfs_vfile::size() const {
  if (map_->m.empty()) return 0;
  return static_cast<uint64_t>(boost::icl::last(map_->m.rbegin()->first)) + 1;
}

bool tq_vfs_vfile::empty() const { return map_->m.empty(); }

size_t tq_vfs_vfile::segmentCount() const { return map_->m.iterative_size(); }

// Flattens the map into runs of one winning slice each.
static void BuildRuns(const std::vector<tq_vfs_slice>& slices, const std::vector<int64_t>& mTimes,
                      const SliceIntervalMap& map, std::vector<SliceRun>* runs) {
  runs->clear();
  for (const auto& seg : map) {
    const int64_t first = boost::icl::first(seg.first);
    const int64_t last = boost::icl::last(seg.first);
    const int32_t winner = NewestOf(slices, mTimes, seg.second);
    if (!runs->empty() && runs->back().slice == winner && runs->back().last + 1 == first &&
        slices[static_cast<size_t>(winner)].iType != stMERGE) {
      runs->back().last = last;
    } else {
      runs->push_back(SliceRun{first, last, winner});
    }
  }
}

void tq_vfs_vfile::forEachRun(
    const std::function<void(int64_t first, int64_t last, const tq_vfs_slice& slice)>& visit) const {
  std::vector<SliceRun> runs;
  BuildRuns(slices_, map_->mTimes, map_->m, &runs);
  for (const SliceRun& r : runs) visit(r.first, r.last, slices_[static_cast<size_t>(r.slice)]);
}

uint64_t tq_vfs_vfile::read(void* buffer, uint64_t size) {
  WRITE_TRACE(3, "tq_vfs_vfile::read iBufSize=%llu m_fpos=%llu", static_cast<ull>(size), static_cast<ull>(m_fpos));
  unsigned char* pOut = static_cast<unsigned char*>(buffer);
  uint64_t remaining = size;
  uint64_t total = 0;
  const int64_t llFileSize = static_cast<int64_t>(this->size());
  const SliceIntervalMap& map = map_->m;
  SliceIntervalMap::const_iterator seg = map.end();
  bool bStepped = false;  // seg holds the previous pass's segment
  int64_t llPrevEnd = 0;
  // Below trace level 3 the pass walks the flattened runs; at level 3 every
  // segment is its own pass with its trace lines.
  const bool bFast = korvo::trace_level() < 3;
  if (bFast && !map_->runsValid) {
    BuildRuns(slices_, map_->mTimes, map, &map_->runs);
    map_->runsValid = true;
  }
  const std::vector<SliceRun>& runs = map_->runs;
  size_t iRun = runs.size();

  while (remaining > 0) {
    if (m_fpos >= llFileSize) return total;
    WRITE_TRACE(3, "tq_vfs_vfile::read bytesRemaining=%zd m_fpos=%llu", static_cast<std::ptrdiff_t>(remaining),
                static_cast<ull>(m_fpos));

    int64_t llSegFirst, llSegLast;
    int32_t iSlice;
    if (bFast) {
      // The run holding the position: the next one after a pass that used up
      // its run, else a binary search.
      if (!(iRun < runs.size() && runs[iRun].first <= m_fpos && m_fpos <= runs[iRun].last)) {
        auto it = std::upper_bound(runs.begin(), runs.end(), m_fpos,
                                   [](int64_t pos, const SliceRun& r) { return pos < r.first; });
        iRun = it == runs.begin() ? runs.size() : static_cast<size_t>(it - runs.begin()) - 1;
        if (iRun < runs.size() && runs[iRun].last < m_fpos) iRun = runs.size();
      }
      if (iRun >= runs.size()) {
        // A gap: what earlier passes copied is deliberately not counted.
        return 0;
      }
      llSegFirst = runs[iRun].first;
      llSegLast = runs[iRun].last;
      iSlice = runs[iRun].slice;
      ++iRun;
    } else {
      // The segment holding the position.  After a pass that used up its
      // segment the position is that segment's end, and the segment holding
      // it, if any, is the next one: one step instead of a descent of the tree.
      if (bStepped && m_fpos == llPrevEnd) {
        ++seg;
        if (seg != map.end() && boost::icl::first(seg->first) != m_fpos) seg = map.end();
      } else {
        seg = map.find(m_fpos);
      }
      if (seg == map.end()) {
        // A gap: what earlier passes copied is deliberately not counted.
        WRITE_TRACE(3, "tq_vfs_vfile::read m_fpos not found in interval tree ");
        return 0;
      }
      llSegFirst = boost::icl::first(seg->first);
      llSegLast = boost::icl::last(seg->first);
      bStepped = true;
      llPrevEnd = llSegLast + 1;
      iSlice = NewestOf(slices_, map_->mTimes, seg->second);
    }
    const uint64_t segRest = static_cast<uint64_t>(llSegLast - m_fpos) + 1;
    const uint64_t chunk = remaining < segRest ? remaining : segRest;
    WRITE_TRACE(3, "tq_vfs_vfile::read interval cbrSliceIdx = %d begin: %llu interval end: %llu to read: %llu", iSlice,
                static_cast<ull>(llSegFirst), static_cast<ull>(llSegLast), static_cast<ull>(chunk));

    const tq_vfs_slice& s = slices_[static_cast<size_t>(iSlice)];
    // Negative only when slice 0 serves a segment it does not cover (all
    // mTimes 0); the sources below then see the wrapped offset, as they
    // would any other offset outside their data.
    const int64_t llSkip = m_fpos - s.miIntervalStart;
    const uint64_t skip = static_cast<uint64_t>(llSkip);
    WRITE_TRACE(3, "sliceBytesToSkip: %llu", static_cast<ull>(skip));

    uint64_t got = 0;
    bool bKnownType = false;
    switch (static_cast<VFILE_SLICE_TYPE>(s.iType)) {
      case stSAVESET: {
        bKnownType = true;
        const int32_t iSsIdx = s.miSavesetIdx;
        const uint64_t off = s.miSavesetOffset + skip;
        saveset_operation_mutex_lock(iSsIdx);
        try {
          if (m_fpos > llSegLast) {
            // The lookup rules this out; if it happens the map and the
            // position disagree and nothing read here can be trusted.
            WRITE_TRACE(1, "seek_read: iSsIdx=%d off=%llu read=%llu", iSsIdx, static_cast<ull>(off),
                        static_cast<ull>(chunk));
            WRITE_TRACE(1, "!!! m_fpos %lld > intervalEnd %lld !!!", static_cast<long long>(m_fpos),
                        static_cast<long long>(llSegLast));
            saveset_operation_mutex_unlock(iSsIdx);
            ReleaseLibraryLockAfterFailure();
            return 0;
          }
          WRITE_TRACE(3, "seek_read: iSsIdx=%d off=%llu read=%llu", iSsIdx, static_cast<ull>(off),
                      static_cast<ull>(chunk));
          if (saveset_seek(iSsIdx, static_cast<int64_t>(off)) != 0) {
            saveset_operation_mutex_unlock(iSsIdx);
            return 0;
          }
          uint8_t ucEof = 0;
          if (saveset_read(iSsIdx, pOut, chunk, &got, &ucEof) != 0) {
            WRITE_TRACE(1, "tq_vfs_vfile::read saveset_read iSavesetIdx = %d bytesToRead = %llu", iSsIdx,
                        static_cast<ull>(chunk));
            saveset_operation_mutex_unlock(iSsIdx);
            return 0;
          }
        } catch (...) {
          // The blank flags in "% llu" are part of the message as written;
          // printf ignores them for unsigned conversions.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
          WRITE_TRACE(1,
                      "unexpected error caught in tq_vfs_vfile::read iBufSize = % llu m_fpos = % llu iSavesetIdx = %d",
                      static_cast<ull>(size), static_cast<ull>(m_fpos), iSsIdx);
#pragma GCC diagnostic pop
          saveset_operation_mutex_unlock(iSsIdx);
          ReleaseLibraryLockAfterFailure();
          return 0;
        }
        saveset_operation_mutex_unlock(iSsIdx);
        break;
      }
      case stMEMORY: {
        bKnownType = true;
        // A buffer shorter than the slice (or none) gives a short count,
        // which the check below reports, rather than a read past its end.
        const uint64_t have = s.pBuffer ? s.pBuffer->size() : 0;
        const uint64_t avail = skip < have ? have - skip : 0;
        got = chunk < avail ? chunk : avail;
        if (got) memcpy(pOut, s.pBuffer->data() + skip, got);
        break;
      }
      case stMERGE: {
        bKnownType = true;
        // A handle outside the MERGE table reads nothing (reported below as
        // a short read of this slice).
        if (s.ullMergeHandle >= vfile_table_MERGE_count()) break;
        const int32_t iMerge = static_cast<int32_t>(s.ullMergeHandle);
        tq_vfs_vfile* pMerge = vfile_get_MERGE(iMerge);
        vfile_mutex_lock_MERGE(iMerge);
        const uint64_t target = skip + s.ullMergeOffset;
        if (!pMerge->empty() && target <= pMerge->size() - 1) pMerge->m_fpos = static_cast<int64_t>(target);
        got = pMerge->read(pOut, chunk);
        vfile_mutex_unlock_MERGE(iMerge);
        break;
      }
      case stFILL:
        bKnownType = true;
        memset(pOut, static_cast<unsigned char>(s.ullFill & 0xff), chunk);
        got = chunk;
        break;
    }
    if (!bKnownType) {
      WRITE_TRACE(3, "tq_vfs_vfile::read unknown slice type %d", s.iType);
      return 0;
    }

    m_fpos += static_cast<int64_t>(got);
    pOut += got;
    remaining -= got;
    total += got;
    WRITE_TRACE(3, "bytes to read: %lld bytes read: %zd bytes read total: %lld remaining: %lld m_fpos=%llu",
                static_cast<long long>(chunk), static_cast<std::ptrdiff_t>(got), static_cast<long long>(total),
                static_cast<long long>(remaining), static_cast<ull>(m_fpos));
    if (got != chunk) {
      WRITE_TRACE(1, "Unexpected: bytes to read: %lld bytes read: %lld interval: [%llu %llu]",
                  static_cast<long long>(chunk), static_cast<long long>(got), static_cast<ull>(llSegFirst),
                  static_cast<ull>(llSegLast));
      return total;
    }
  }
  return total;
}
