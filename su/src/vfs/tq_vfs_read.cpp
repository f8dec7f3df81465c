// tq_vfs_read.cpp - the read paths of tree nodes, one per source kind.
#include "vfs/tq_vfs_read.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "archive/dump_format.h"
#include "archive/dump_stream.h"

#include "platform/platform.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_enum.h"
#include "vfs/tq_vfs_saveset.h"
#include "vfs/tq_vfs_vfile.h"

namespace {

const char* SavesetName(int32_t idx) {
  return idx >= 0 && idx < g_iSavesetCount && g_psSavesets[idx].szName ? g_psSavesets[idx].szName : "";
}

// The item's path as its catalog line (and its stream record) writes it:
// the components below the root joined with "/".
std::string NodeNarrowPath(const LIS_NODE* node) {
  std::string path;
  for (const LIS_NODE* n = node; n && n->pParent; n = n->pParent) {
    std::string part = korvo::wcstombs_utf8(n->wsName.c_str());
    path = path.empty() ? part : part + "/" + path;
  }
  return path;
}

// In-memory files (kind 3): the read does not move the position.
uint64_t ReadFromPureVirtual(LIS_NODE* node, uint64_t fileOffset, char* buffer, uint64_t size) {
  WRITE_TRACE(2, "+++ReadFromPureVirtual file to read [%ls] file offset [%ld] buffer size [%lu]", node->wsName.c_str(),
              static_cast<long>(fileOffset), static_cast<unsigned long>(size));
  if (pure_virtual_seek(node->iHandle, fileOffset) == static_cast<uint64_t>(-1)) return static_cast<uint64_t>(-1);
  uint64_t got = pure_virtual_read(node->iHandle, buffer, size);
  WRITE_TRACE(2, "---ReadFromPureVirtual bytesRead %llu", static_cast<unsigned long long>(got));
  return got;
}

// VMDK sliced files (kind 1): the file's lock is held across the seek and the
// read, because the position lives in the file.
uint64_t ReadFromVMDK(LIS_NODE* node, uint64_t fileOffset, char* buffer, uint64_t size) {
  vfile_mutex_lock(node->iHandle);
  vfile_seek(node->iHandle, static_cast<int64_t>(fileOffset));  // result not tested: 0 is also a good seek
  uint64_t got = vfile_read(node->iHandle, buffer, size);
  if (got != size)
    WRITE_TRACE(1, "ReadFromVMDK file to read [%ls] file offset [%ld] buffer size [%lu] VFILE handle [%d] !! bytes to "
                   "read: %llu bytes read: %llu",
                node->wsName.c_str(), static_cast<long>(fileOffset), static_cast<unsigned long>(size), node->iHandle,
                static_cast<unsigned long long>(size), static_cast<unsigned long long>(got));
  WRITE_TRACE(2, "---ReadFromVMDK: return [%u]", static_cast<unsigned>(got));
  vfile_mutex_unlock(node->iHandle);
  return got;
}

// MERGE sliced files (kind 5).
uint64_t ReadFromMERGE(LIS_NODE* node, uint64_t fileOffset, char* buffer, uint64_t size) {
  vfile_mutex_lock_MERGE(node->iHandle);
  WRITE_TRACE(2, "+++ReadFromMERGE file to read [%ls] file offset [%ld] buffer size [%lu] VFILE handle [%d]",
              node->wsName.c_str(), static_cast<long>(fileOffset), static_cast<unsigned long>(size), node->iHandle);
  vfile_seek_MERGE(node->iHandle, static_cast<int64_t>(fileOffset));
  uint64_t got = vfile_read_MERGE(node->iHandle, buffer, size);
  WRITE_TRACE(2, "---ReadFromMERGE: return [%u]", static_cast<unsigned>(got));
  vfile_mutex_unlock_MERGE(node->iHandle);
  return got;
}

// A mapper node reads another tree node, or a local file opened for this one read.
uint64_t ReadFromMAPPER_FS(const char* context, LIS_NODE* node, uint64_t fileOffset, char* buffer, uint64_t size) {
  const MAPPER_PAYLOAD* m = node->pMapper;
  WRITE_TRACE(2, "+++ReadFromMAPPER_FS file to read [%ls] file offset [%ld] buffer size [%lu] pTreeNode [%p]",
              node->wsName.c_str(), static_cast<long>(fileOffset), static_cast<unsigned long>(size),
              static_cast<const void*>(m ? m->pNode : nullptr));
  if (!m) return 0;
  if (m->pNode) return ReadFromVFS(context, m->pNode, fileOffset, buffer, size);
  pf::File* f = nullptr;
  if (pf::FileOpenRead(m->sLocalPath.c_str(), &f) != 0) {
    WRITE_TRACE(2, "+++ReadFromMAPPER_FS file to read [%ls] cannot open file %s", node->wsName.c_str(),
                m->sLocalPath.c_str());
    return 0;
  }
  uint64_t got = 0;
  if (pf::FileSeek(f, static_cast<int64_t>(fileOffset), 0, nullptr) == 0) pf::FileRead(f, buffer, size, &got);
  pf::FileClose(f);
  WRITE_TRACE(2, "---ReadFromMAPPER_FS: return [%u]", static_cast<unsigned>(got));
  return got;
}

// An item whose relative offset is 0 is found in its stream before its first
// read; that fills the node's relative offset and size, and the tree's lock
// keeps two readers from doing it at once.  false when it cannot be found.
// Only CPIO and MTF savesets have such an entry update; an item of any other
// data type lies at its saveset offset plus its relative offset.
bool LocateOnce(LIS_NODE* node) {
  if (node->sLoc.relOff != 0) return true;
  const int32_t dataType = CatalogGetSavesetType();
  if (dataType != sdtCPIO && dataType != sdtMTF) return true;
  LISCacheGuard lock;
  return node->sLoc.relOff != 0 || VfsUpdateEntryFromSaveset(node, NodeNarrowPath(node).c_str()) == 0;
}

}  // namespace

int MapFromSaveset(LIS_NODE* node, uint64_t fileOffset, uint64_t size, pf::File** file, uint64_t* position,
                   uint64_t* count) {
  if (node->llSource != nsSAVESET && node->llSource != nsSAVESET_MAPPED) return 1;
  if (CatalogGetSavesetType() == sdtDUMP) return 1;
  const int32_t idx = node->sLoc.ssetIdx;
  if (idx < 0 || idx >= g_iSavesetCount || g_psSavesets[idx].uiMediaType != smFILE || !g_psSavesets[idx].hFile)
    return 1;
  if (node->llSource == nsSAVESET && !LocateOnce(node)) return 1;
  if (fileOffset >= node->ullSize || size == 0) return 1;
  *file = g_psSavesets[idx].hFile;
  *position = node->sLoc.ssetOff + fileOffset + static_cast<uint64_t>(node->sLoc.relOff);
  *count = fileOffset + size > node->ullSize ? node->ullSize - fileOffset : size;
  return 0;
}

uint64_t ReadFromSaveset(const char* context, LIS_NODE* node, uint64_t fileOffset, char* buffer, uint64_t size,
                         bool located) {
  SAVESET_LOCATION& loc = node->sLoc;
  WRITE_TRACE(2,
              "+++ReadFromSaveset [%s] file to read [%ls] file offset [%llu] buffer size [%llu] saveset offset [%llu] "
              "relative offset [%lld]",
              SavesetName(loc.ssetIdx), node->wsName.c_str(), static_cast<unsigned long long>(fileOffset),
              static_cast<unsigned long long>(size), static_cast<unsigned long long>(loc.ssetOff),
              static_cast<long long>(loc.relOff));
  (void)context;

  if (!located && !LocateOnce(node)) {
    WRITE_TRACE(1, "---ReadFromSaveset: cannot locate stream location in saveset");
    return 0;
  }

  const uint64_t position = loc.ssetOff + fileOffset + static_cast<uint64_t>(loc.relOff);
  if (fileOffset >= node->ullSize) {
    WRITE_TRACE(1, "---ReadFromSaveset: seek above stream size [seek to %llu; stream size = %llu]",
                static_cast<unsigned long long>(fileOffset), static_cast<unsigned long long>(node->ullSize));
    return 0;
  }
  uint64_t count = size;
  if (fileOffset + size > node->ullSize) {
    count = node->ullSize - fileOffset;
    WRITE_TRACE(1, "Near EOF requested bytes=%d remaining=%d", static_cast<int>(size), static_cast<int>(count));
  }

  saveset_operation_mutex_lock(loc.ssetIdx);
  int rc = saveset_seek(loc.ssetIdx, static_cast<int64_t>(position));
  if (rc != 0) {
    WRITE_TRACE(1, "---ReadFromSaveset: saveset_seek error %d", rc);
    saveset_operation_mutex_unlock(loc.ssetIdx);
    return 0;
  }
  uint64_t got = 0;
  uint8_t eof = 0;
  rc = saveset_read(loc.ssetIdx, buffer, count, &got, &eof);
  if (rc != 0) {
    WRITE_TRACE(1, "---ReadFromSaveset: saveset_ failed with error = %d", rc);
    saveset_operation_mutex_unlock(loc.ssetIdx);
    return 0;
  }
  saveset_operation_mutex_unlock(loc.ssetIdx);
  WRITE_TRACE(3,
              "ReadFromSaveset seek to: %llu uliEntryRelativeOffset = %llu ullEntrySize = %llu ui64FileOffset = %lld "
              "bytesToRead = %llu iBytesRead = %llu",
              static_cast<unsigned long long>(position), static_cast<unsigned long long>(loc.relOff),
              static_cast<unsigned long long>(node->ullSize), static_cast<long long>(fileOffset),
              static_cast<unsigned long long>(count), static_cast<unsigned long long>(got));
  WRITE_TRACE(2, "---ReadFromSaveset: return [%u]", static_cast<unsigned>(got));
  return got;
}

// A dump item's bytes lie in 1 KiB records among headers and other items'
// records, and its holes have none; the block map of its walk says where each
// block is.  The item is located before its first read (which gives its
// size, di_size), then each piece of the read that lies in one run of the map
// is one saveset read, or zeros for a hole.  A piece never crosses a run's
// border, so a block-aligned read of 1024 bytes is always one saveset read.
uint64_t ReadFromDUMPSaveset(const char* context, LIS_NODE* node, uint64_t fileOffset, char* buffer, uint64_t size) {
  (void)context;
  SAVESET_LOCATION& loc = node->sLoc;
  WRITE_TRACE(2,
              "+++ReadFromDUMPSaveset [%s] file to read [%ls] file offset [%llu] buffer size [%llu] saveset offset "
              "[%llu] relative offset [%lu]",
              SavesetName(loc.ssetIdx), node->wsName.c_str(), static_cast<unsigned long long>(fileOffset),
              static_cast<unsigned long long>(size), static_cast<unsigned long long>(loc.ssetOff),
              static_cast<unsigned long>(loc.relOff));
  // The size is known only once the item is located, so that comes first.
  std::shared_ptr<const DUMP_ITEM_MAP> map;
  if (loc.relOff >= 0) map = DumpItemMapGet(loc.ssetIdx, loc.ssetOff);
  if (!map) {
    {
      LISCacheGuard lock;
      if (loc.relOff < 0 || !DumpItemMapGet(loc.ssetIdx, loc.ssetOff)) {
        loc.relOff = -1;
        VfsUpdateEntryFromSaveset(node, nullptr);
      }
    }
    if (loc.relOff >= 0) map = DumpItemMapGet(loc.ssetIdx, loc.ssetOff);
    if (!map) {
      WRITE_TRACE(1, "---ReadFromDUMPSaveset: cannot locate stream location in saveset");
      return 0;
    }
  }
  if (fileOffset >= node->ullSize) {
    WRITE_TRACE(1, "---ReadFromDUMPSaveset: seek above stream size [seek to %llu; stream size = %llu]",
                static_cast<unsigned long long>(fileOffset), static_cast<unsigned long long>(node->ullSize));
    return 0;
  }
  uint64_t count = size;
  if (fileOffset + size > node->ullSize) {
    count = node->ullSize - fileOffset;
    WRITE_TRACE(1, "Near EOF requested bytes=%d remaining=%d", static_cast<int>(size), static_cast<int>(count));
  }

  const uint64_t base = loc.ssetOff + static_cast<uint64_t>(loc.relOff);
  uint64_t done = 0;
  uint64_t streamPos = ~0ull;  // where the saveset stands after the last read
  saveset_operation_mutex_lock(loc.ssetIdx);
  while (done < count) {
    const uint64_t at = fileOffset + done;
    const DUMP_RUN* run = map->Find(at / dump::kRecordSize);
    if (run == nullptr) {
      WRITE_TRACE(1, "ReadFromDUMPSaveset: block %llu of [%ls] is described by no header",
                  static_cast<unsigned long long>(at / dump::kRecordSize), node->wsName.c_str());
      break;
    }
    const uint64_t runEnd = (run->ullFirstBlock + run->ullBlocks) * dump::kRecordSize;
    const uint64_t chunk = std::min(count - done, runEnd - at);
    if (run->ullRecordOffset == kDumpHole) {
      memset(buffer + done, 0, chunk);
      done += chunk;
      continue;
    }
    const uint64_t position = base + run->ullRecordOffset + (at - run->ullFirstBlock * dump::kRecordSize);
    if (position != streamPos) {
      const int rc = saveset_seek(loc.ssetIdx, static_cast<int64_t>(position));
      if (rc != 0) {
        WRITE_TRACE(1, "---ReadFromSaveset: saveset_seek error %d", rc);
        saveset_operation_mutex_unlock(loc.ssetIdx);
        return 0;
      }
    }
    uint64_t got = 0;
    uint8_t eof = 0;
    const int rc = saveset_read(loc.ssetIdx, buffer + done, chunk, &got, &eof);
    if (rc != 0) {
      WRITE_TRACE(1, "---ReadFromDUMPSaveset: saveset_ failed with error = %d", rc);
      saveset_operation_mutex_unlock(loc.ssetIdx);
      return 0;
    }
    WRITE_TRACE(3, "ReadFromDUMPSaveset: read from saveset offset: %llu mapped offset: %llu actual file offset: %llu",
                static_cast<unsigned long long>(position),
                static_cast<unsigned long long>(position - loc.ssetOff), static_cast<unsigned long long>(at));
    done += got;
    streamPos = position + got;
    if (got < chunk) {
      WRITE_TRACE(1, "ReadFromDUMPSaveset: saveset ends at %llu", static_cast<unsigned long long>(streamPos));
      break;
    }
  }
  saveset_operation_mutex_unlock(loc.ssetIdx);
  WRITE_TRACE(3,
              "ReadFromDUMPSaveset seek to: %llu uliEntryRelativeOffset = %llu ullEntrySize = %llu ui64FileOffset = "
              "%llu bytesToRead = %llu iBytesRead = %llu",
              static_cast<unsigned long long>(base), static_cast<unsigned long long>(loc.relOff),
              static_cast<unsigned long long>(node->ullSize), static_cast<unsigned long long>(fileOffset),
              static_cast<unsigned long long>(count), static_cast<unsigned long long>(done));
  WRITE_TRACE(2, "---ReadFromDUMPSaveset: return [%u]", static_cast<unsigned>(done));
  return done;
}

uint64_t ReadFromVFS(const char* context, LIS_NODE* node, uint64_t fileOffset, char* buffer, uint64_t size) {
  switch (node->llSource) {
    case nsPURE_VIRTUAL:
      return ReadFromPureVirtual(node, fileOffset, buffer, size);
    case nsVMDK:
      return ReadFromVMDK(node, fileOffset, buffer, size);
    case nsMERGE:
      return ReadFromMERGE(node, fileOffset, buffer, size);
    case nsMAPPER:
      return ReadFromMAPPER_FS(context, node, fileOffset, buffer, size);
    case nsSAVESET_MAPPED:
      return ReadFromSaveset(context, node, fileOffset, buffer, size, true);
    case nsSAVESET:
      break;
  }
  // Catalog items, and any kind this build does not know, are saveset items.
  if (CatalogGetSavesetType() == sdtDUMP) return ReadFromDUMPSaveset(context, node, fileOffset, buffer, size);
  return ReadFromSaveset(context, node, fileOffset, buffer, size, false);
}
