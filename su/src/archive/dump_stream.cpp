// dump_stream.cpp - the walk over a dump item's headers and its block map.
//
// What dump writes for a file: its inode header (TS_INODE) with up to 512
// address flags, one per 1 KiB block of the file; then one data record for
// each flag that is set, in block order; a flag of 0 is a hole and has no
// record.  A longer file goes on with continuation headers (TS_ADDR, same
// inode), each followed by its own data records, until the flags describe
// ceil(di_size / 1024) blocks.  The walk therefore reads only headers: from
// one header it knows where the next one is.
#include "archive/dump_stream.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

#include "archive/dump_format.h"
#include "report/tvu_report.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_saveset.h"
#include "vfs/tq_vfs_timer.h"

namespace {

constexpr uint64_t kRecord = dump::kRecordSize;

// Located items by (saveset index, inode header offset): an inode number
// alone recurs in several savesets of a chain, and two items of one saveset
// never share a header.
std::mutex s_mapsMutex;
std::map<std::pair<int32_t, uint64_t>, std::shared_ptr<const DUMP_ITEM_MAP>> s_maps;

// Appends blocks to the map, joining a run that goes on without a break.
void AddBlocks(DUMP_ITEM_MAP* m, uint64_t recordOffset, uint64_t blocks) {
  if (!m->vRuns.empty()) {
    DUMP_RUN& last = m->vRuns.back();
    const bool bothHoles = last.ullRecordOffset == kDumpHole && recordOffset == kDumpHole;
    const bool adjacent = last.ullRecordOffset != kDumpHole && recordOffset != kDumpHole &&
                          last.ullRecordOffset + last.ullBlocks * kRecord == recordOffset;
    if (bothHoles || adjacent) {
      last.ullBlocks += blocks;
      m->ullBlocks += blocks;
      return;
    }
  }
  m->vRuns.push_back(DUMP_RUN{m->ullBlocks, recordOffset, blocks});
  m->ullBlocks += blocks;
}

const char* SavesetName(int32_t idx) {
  return idx >= 0 && idx < g_iSavesetCount && g_psSavesets[idx].szName ? g_psSavesets[idx].szName : "";
}

}  // namespace

const DUMP_RUN* DUMP_ITEM_MAP::Find(uint64_t block) const {
  // The last run whose first block is at or before block.
  auto it = std::upper_bound(vRuns.begin(), vRuns.end(), block,
                             [](uint64_t b, const DUMP_RUN& r) { return b < r.ullFirstBlock; });
  if (it == vRuns.begin()) return nullptr;
  --it;
  return block < it->ullFirstBlock + it->ullBlocks ? &*it : nullptr;
}

int analyzeUFSblock(DUMP_WALK* walk, uint64_t recordOffset, const uint8_t* record) {
  dump::Header h;
  const dump::Check check = dump::DecodeHeader(record, &h);
  if (check != dump::Check::kOk) {
    WRITE_TRACE(2, "analyzeUFSblock: record at item offset %llu: %s", static_cast<unsigned long long>(recordOffset),
                dump::CheckText(check));
    return -1;
  }
  WRITE_TRACE(3, "analyzeUFSblock: Block  c_type = %d c_count = %d", h.type, h.count);
  if (walk->bAnalysed && recordOffset <= walk->ullLastRecord) return 0;
  const bool first = !walk->bStarted;
  if (h.inumber != walk->uiInode || h.type != (first ? dump::kTsInode : dump::kTsAddr)) {
    WRITE_TRACE(2, "analyzeUFSblock: type %d inode %u ends the headers of inode %u", h.type, h.inumber,
                walk->uiInode);
    return -1;
  }
  walk->bAnalysed = true;
  walk->ullLastRecord = recordOffset;
  DUMP_ITEM_MAP& m = walk->map;
  if (first) {
    walk->bStarted = true;
    m.uiInode = h.inumber;
    m.ullSize = h.size;
    walk->ullWanted = h.size / kRecord + (h.size % kRecord != 0);
  }
  uint64_t data = 0;  // data records of this header so far
  for (int32_t i = 0; i < h.count; ++i) {
    if (h.addr[i] != 0) {
      ++data;
      AddBlocks(&m, recordOffset + data * kRecord, 1);
    } else {
      WRITE_TRACE(3, "analyzeUFSblock: Block %llu is a hole", static_cast<unsigned long long>(m.ullBlocks));
      AddBlocks(&m, kDumpHole, 1);
    }
  }
  m.ullSpan = recordOffset + (data + 1) * kRecord;
  return static_cast<int>(data + 1);
}

int UpdateFSEntryFromDUMPSaveset(DUMP_ENTRY_UPDATE* entry) {
  const int32_t idx = entry->iSavesetIdx;
  const uint64_t start = entry->ullSavesetOffset;
  entry->llRelOffset = -1;
  if (auto known = DumpItemMapGet(idx, start); known && known->uiInode == static_cast<uint32_t>(entry->llInode)) {
    entry->llRelOffset = 0;
    entry->ullSize = known->ullSize;
    return 0;
  }
  WRITE_TRACE(2, "+++UpdateFSEntryFromDUMPSaveset [%ls] saveset idx [%d] saveset offset [%llu] inode [%lld]",
              entry->wsName.c_str(), idx, static_cast<unsigned long long>(start),
              static_cast<long long>(entry->llInode));
  VfsTimerStart(vtDUMP);
  saveset_operation_mutex_lock(idx);

  DUMP_WALK walk;
  walk.uiInode = static_cast<uint32_t>(entry->llInode);
  uint8_t* record = static_cast<uint8_t*>(safe_malloc(kRecord));
  uint64_t pos = start;
  int err = 0;
  for (;;) {
    err = saveset_seek(idx, static_cast<int64_t>(pos));
    if (err != 0) {
      WRITE_TRACE(1, "---UpdateFSEntryFromDUMPSaveset: saveset_seek [%llu] failed with error = %d",
                  static_cast<unsigned long long>(pos), err);
      break;
    }
    uint64_t got = 0;
    uint8_t eof = 0;
    if (saveset_read(idx, record, kRecord, &got, &eof) != 0 || got != kRecord) break;
    const int n = analyzeUFSblock(&walk, pos - start, record);
    if (n <= 0 || walk.Complete()) break;
    pos += static_cast<uint64_t>(n) * kRecord;
  }
  free(record);
  saveset_operation_mutex_unlock(idx);
  VfsTimerStop(vtDUMP);

  if (!walk.bStarted) {
    WRITE_TRACE(2, "---UpdateFSEntryFromDUMPSaveset; File not found iNode = %lld",
                static_cast<long long>(entry->llInode));
    tvu_note("Cannot locate inode %lld in saveset [%s] at offset %llu", static_cast<long long>(entry->llInode),
             SavesetName(idx), static_cast<unsigned long long>(start));
    return 1;
  }
  if (!walk.Complete()) {
    // Reads of the blocks no header describes come back short.
    WRITE_TRACE(1, "UpdateFSEntryFromDUMPSaveset: inode %lld: the headers describe %llu of %llu blocks",
                static_cast<long long>(entry->llInode), static_cast<unsigned long long>(walk.map.ullBlocks),
                static_cast<unsigned long long>(walk.ullWanted));
  }
  entry->llRelOffset = 0;
  entry->ullSize = walk.map.ullSize;
  {
    std::lock_guard<std::mutex> g(s_mapsMutex);
    s_maps.emplace(std::make_pair(idx, start), std::make_shared<const DUMP_ITEM_MAP>(std::move(walk.map)));
  }
  WRITE_TRACE(2, "---UpdateFSEntryFromDUMPSaveset File [iNode = %lld] located; relative offset = %llu",
              static_cast<long long>(entry->llInode), 0ull);
  return 0;
}

std::shared_ptr<const DUMP_ITEM_MAP> DumpItemMapGet(int32_t iSavesetIdx, uint64_t headerOffset) {
  std::lock_guard<std::mutex> g(s_mapsMutex);
  auto it = s_maps.find(std::make_pair(iSavesetIdx, headerOffset));
  return it == s_maps.end() ? nullptr : it->second;
}

void DumpItemMapsReset() {
  std::lock_guard<std::mutex> g(s_mapsMutex);
  s_maps.clear();
}

int DumpCheckVolume(const uint8_t* firstRecord) {
  dump::Header h;
  const dump::Check check = dump::DecodeHeader(firstRecord, &h);
  if (check != dump::Check::kOk) {
    WRITE_TRACE(1, "First record: %s", dump::CheckText(check));
    return -1;
  }
  return (h.flags & dump::kFlagCompressed) != 0 ? 1 : 0;
}
