// tq_vfs_vmdk.cpp - VMDK disks rebuilt from their full-disk line and their
// changed-block files, and their place in the tree under "/R/VMDK".
#include "vfs/tq_vfs_vmdk.h"

#include <boost/lexical_cast.hpp>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "archive/cpio_stream.h"
#include "archive/mtf_stream.h"
#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/timefmt.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_saveset.h"
#include "vfs/tq_vfs_vfile.h"

namespace {

bool g_initialised = false;

// A catalog line the pass keeps: full-disk lines and changed-block files.
struct VmdkLine {
  LIS_ENTRY entry;
  uint64_t ullCbtOffset = 0;
  uint64_t ullCbtSize = 0;
};

time_t CatalogSeconds(const struct tm& t) {
  return korvo::local_mktime(t);
}

// Cheap test before the full parse: a line can only matter here if it names
// a changed-block file ("@" in its path) or is a full-disk line (type 'R').
bool MayMatter(const char* line) {
  const char* open = strchr(line, '"');
  const char* close = open ? strchr(open + 1, '"') : nullptr;
  if (!close) return false;
  if (close[1] == ' ' && close[2] == 'R') return true;
  return memchr(open, '@', static_cast<size_t>(close - open)) != nullptr;
}

// Where a changed-block file's data lies in its saveset, and its time stamp
// in the stream when the walk met its record.
struct ChangedBlocks {
  uint64_t ullDataOffset = 0;  // saveset offset of the data
  uint64_t ullDataSize = 0;    // bytes of the item's data, when known
  bool bSizeKnown = false;
  int64_t llStreamTime = -1;   // -1: not known
};

// Locates a changed-block file's data.  The catalog places it when its
// relative offset is 1 or more (the fourth number is then the data size);
// otherwise the entry update of the saveset's format (CPIO or MTF) finds it
// in the stream.  A record the walk does not meet, or an empty one, gives no
// data; only a failed update ends the process, since the disk would be
// rebuilt wrong.  Dump and "none"
// savesets have no entry update: their data lies at the saveset offset plus
// the relative offset, of a size the catalog does not give.  The walk also
// runs for a placed item whose catalog change time is not valid, for the
// time stamp in its record.
ChangedBlocks LocateChangedBlocks(const LIS_ENTRY& e) {
  ChangedBlocks cb;
  const int32_t dataType = CatalogGetSavesetType();
  const bool placed = e.llRelOffset >= 1;
  if (placed) {
    cb.ullDataOffset = e.ullOffset + static_cast<uint64_t>(e.llRelOffset);
    cb.ullDataSize = static_cast<uint64_t>(e.llFourth > 0 ? e.llFourth : 0);
    cb.bSizeKnown = true;
  } else if (dataType != sdtCPIO && dataType != sdtMTF) {
    cb.ullDataOffset = e.ullOffset;
  }
  const bool needWalk = !placed || e.bCtimeEmulated;
  if (!needWalk || (dataType != sdtCPIO && dataType != sdtMTF)) return cb;

  int rc = 1;
  CPIO_ENTRY_UPDATE u;
  if (dataType == sdtCPIO) {
    u.iSavesetIdx = e.iSavesetIdx;
    u.ullSavesetOffset = e.ullOffset;
    u.sName = e.sPath;
    u.wsName = e.wsBaseName;
    u.llRelOffset = 0;
    u.ullSize = 0;
    rc = UpdateFSEntryFromCPIOSaveset(&u);
  } else {
    // The MTF result goes into the CPIO record, which the code below reads.
    MTF_ENTRY_UPDATE m;
    m.iSavesetIdx = e.iSavesetIdx;
    m.ullSavesetOffset = e.ullOffset;
    m.wsName = e.wsBaseName;
    rc = UpdateFSEntryFromMTFSaveset(&m, nullptr);
    u.llRelOffset = m.llRelOffset;
    u.ullSize = m.ullSize;
    u.llStreamTime = m.llStreamTime;
  }
  if (rc != 0) {
    if (placed) return cb;  // the time stamp only: the catalog's place stands
    WRITE_TRACE(1, "---localfs_catalog_parse_VMDK: cannot locate stream location in saveset [%ls]",
                e.wsBaseName.c_str());
    tvu_fatal("VMDK: cannot locate stream location in saveset [%ls]", e.wsBaseName.c_str());
  }
  cb.llStreamTime = u.llStreamTime;
  if (!placed) {
    cb.ullDataOffset = e.ullOffset + static_cast<uint64_t>(u.llRelOffset);
    cb.ullDataSize = u.ullSize;
    cb.bSizeKnown = true;
    if (u.llStreamTime == -1)
      WRITE_TRACE(1, "localfs_catalog_parse_VMDK: [%ls] not found in its saveset at offset %llu: no data taken",
                  e.wsBaseName.c_str(), static_cast<unsigned long long>(e.ullOffset));
  }
  return cb;
}

// The time a changed-block slice carries: its catalog change time; when the
// catalog marks that as not valid, the time stamp of its record in the
// stream, else the parser's emulated time.
int64_t SliceTime(const LIS_ENTRY& e, int64_t streamTime) {
  if (e.bCtimeEmulated) {
    if (streamTime != -1) {
      WRITE_TRACE(1, "localfs_catalog_parse_VMDK: catalog ctime not valid. Using ctime from stream: %lld",
                  static_cast<long long>(streamTime));
      return streamTime;
    }
    WRITE_TRACE(1, "localfs_catalog_parse_VMDK: Using ctime from stream: %lld is also not valid. Using emulated time",
                static_cast<long long>(streamTime));
  }
  return static_cast<int64_t>(CatalogSeconds(e.tmCtime));
}

}  // namespace

bool extractVMDK_CBT_params(const wchar_t* name, uint64_t* offset, uint64_t* size) {
  if (!name) {
    WRITE_TRACE(2, "---extractVMDK_CBT_params Cannot extract filename - null string");
    return false;
  }
  WRITE_TRACE(2, "+++extractVMDK_CBT_params [%ls]", name);
  std::wstring s(name);
  if (s.size() < 5) {
    WRITE_TRACE(2, "---extractVMDK_CBT_params Cannot extract filename - string too short");
    return false;
  }
  size_t at = s.find(L'@');
  if (at == std::wstring::npos) {
    WRITE_TRACE(2, "---extractVMDK_CBT_params Cannot extract filename - not a CBT file");
    return false;
  }
  // After the "@": offset "-" length "." extension.
  std::wstring rest = s.substr(at + 1);
  size_t dash = rest.find(L'-');
  size_t dot = rest.find(L'.', dash == std::wstring::npos ? 0 : dash);
  if (dash == std::wstring::npos || dot == std::wstring::npos) {
    WRITE_TRACE(2, "---extractVMDK_CBT_params Cannot extract filename - not a CBT file");
    return false;
  }
  std::string first = korvo::wcstombs_utf8(rest.substr(0, dash).c_str());
  std::string second = korvo::wcstombs_utf8(rest.substr(dash + 1, dot - dash - 1).c_str());
  if (first.empty()) {
    WRITE_TRACE(2, "---extractVMDK_CBT_params Cannot extract first block ");
    return false;
  }
  // Digits only: a conversion to an unsigned type would take "-5" as a huge
  // number.
  for (const std::string* number : {&first, &second}) {
    if (!number->empty() && ((*number)[0] == '-' || (*number)[0] == '+')) {
      WRITE_TRACE(2, "---extractVMDK_CBT_params Exception performing lexical cast extracting interval offset %s "
                     "filename = [%ls]",
                  number->c_str(), name);
      return false;
    }
  }
  const std::string* current = &first;
  try {
    *offset = boost::lexical_cast<uint64_t>(first);
    current = &second;
    *size = boost::lexical_cast<uint64_t>(second);
    // A range that reaches past what a file offset can address is no range.
    if (*offset > static_cast<uint64_t>(INT64_MAX) || *size > static_cast<uint64_t>(INT64_MAX) - *offset)
      throw boost::bad_lexical_cast();
  } catch (const boost::bad_lexical_cast&) {
    WRITE_TRACE(2, "---extractVMDK_CBT_params Exception performing lexical cast extracting interval offset %s "
                   "filename = [%ls]",
                current->c_str(), name);
    return false;
  }
  WRITE_TRACE(2, "---extractVMDK_CBT_params [%ls] offset = %llu size = %llu", name,
              static_cast<unsigned long long>(*offset), static_cast<unsigned long long>(*size));
  return true;
}

int localfs_catalog_parse_VMDK(const CON_ARGS* /*args*/, const char* catalogPath) {
  WRITE_TRACE(1, "+++localfs_catalog_parse_VMDK cpCatalogPath=%s", catalogPath);
  FILE* fp = pf::FOpen(catalogPath, "r");
  if (!fp) {
    WRITE_TRACE(1, "---localfs_catalog_parse_VMDK cpCatalogPath=%s", catalogPath);
    return 1;
  }
  // One read of the catalog keeps the lines the three passes look at; the
  // passes then run over them in catalog order.
  std::vector<VmdkLine> disks, blocks;
  std::string line;
  LIS_ENTRY e;
  while (korvo::read_line(fp, &line)) {
    if (line.size() >= LIS_LINE_BUFFER) line.resize(LIS_LINE_BUFFER - 1);
    if (!MayMatter(line.c_str())) continue;
    if (ParseSavesetEntry(&e, line.c_str(), "R") == 0) {
      disks.push_back(VmdkLine{e, 0, 0});
    } else if (ParseSavesetEntry(&e, line.c_str(), "f") == 0) {
      VmdkLine v{e, 0, 0};
      if (extractVMDK_CBT_params(e.wsBaseName.c_str(), &v.ullCbtOffset, &v.ullCbtSize)) blocks.push_back(v);
    }
  }
  fclose(fp);

  // First pass: the first changed-block file.
  if (!blocks.empty())
    WRITE_TRACE(1, "First VMDK saveset offset = %llu, saveset Idx = %d",
                static_cast<unsigned long long>(blocks[0].entry.ullOffset), blocks[0].entry.iSavesetIdx);

  // Second pass: every full disk starts as zeros of its size.
  for (VmdkLine& d : disks) {
    auto file = std::make_unique<tq_vfs_vfile>(d.entry.wsBaseName, d.entry.wsPath);
    file->tmCtime = d.entry.tmCtime;
    file->tmMtime = d.entry.tmMtime;
    SAVESET zero;
    memset(&zero, 0, sizeof zero);
    zero.uiMediaType = smZERO;
    zero.szName = safe_strdup("zero");
    zero.llSize = static_cast<int64_t>(d.entry.ullSize);
    zero.iDedupHandle = -1;
    int32_t zeroIdx = saveset_append(zero);
    WRITE_TRACE(1, "addNULLDevSaveset size %lld idx = %d", static_cast<long long>(d.entry.ullSize), zeroIdx);
    tq_vfs_slice slice;
    slice.mTime = static_cast<int64_t>(CatalogSeconds(d.entry.tmCtime));
    slice.iType = stSAVESET;
    slice.miIntervalStart = 0;
    slice.miIntervalEnd = static_cast<int64_t>(d.entry.ullSize);
    slice.miSavesetIdx = zeroIdx;
    slice.miSavesetOffset = 0;
    WRITE_TRACE(1, "Adding first slice %ls range %lld - %lld", d.entry.wsBaseName.c_str(), 0ll,
                static_cast<long long>(d.entry.ullSize));
    WRITE_TRACE(1, "slice size %lld", static_cast<long long>(d.entry.ullSize));
    file->add_slice(slice);
    vfile_table_push(std::move(file));
  }

  // Third pass: every changed-block file becomes a slice of its disk.
  for (VmdkLine& b : blocks) {
    std::wstring diskName = b.entry.wsBaseName.substr(0, b.entry.wsBaseName.find(L'@'));
    tq_vfs_vfile* disk = nullptr;
    for (size_t h = 0; h < vfile_table_count() && !disk; ++h) {
      tq_vfs_vfile* f = vfile_get(static_cast<int32_t>(h));
      if (f && f->name() == diskName) disk = f;
    }
    if (!disk) {
      WRITE_TRACE(1, "Skipping [%ls]", b.entry.wsBaseName.c_str());
      continue;
    }
    const ChangedBlocks cb = LocateChangedBlocks(b.entry);
    // The slice takes the item's own data at most: a name that claims more
    // would pull in the records that follow the item.  The rest of the range
    // stays with older slices.
    uint64_t length = b.ullCbtSize;
    if (cb.bSizeKnown && cb.ullDataSize < length) {
      WRITE_TRACE(1, "localfs_catalog_parse_VMDK: [%ls] names %llu bytes, its item holds %llu: the slice takes %llu",
                  b.entry.wsBaseName.c_str(), static_cast<unsigned long long>(b.ullCbtSize),
                  static_cast<unsigned long long>(cb.ullDataSize), static_cast<unsigned long long>(cb.ullDataSize));
      length = cb.ullDataSize;
    }
    if (length == 0) continue;
    tq_vfs_slice slice;
    slice.miSavesetOffset = cb.ullDataOffset;
    slice.mTime = SliceTime(b.entry, cb.llStreamTime);
    slice.iType = stSAVESET;
    slice.miIntervalStart = static_cast<int64_t>(b.ullCbtOffset);
    slice.miIntervalEnd = static_cast<int64_t>(b.ullCbtOffset + length);
    slice.miSavesetIdx = b.entry.iSavesetIdx;
    disk->add_slice(slice);
  }
  WRITE_TRACE(1, "---localfs_catalog_parse_VMDK cpCatalogPath=%s", catalogPath);
  return 0;
}

int initializeVMDK_FS() {
  WRITE_TRACE(1, "+++ initializeVMDK_FS");
  if (g_initialised) {
    WRITE_TRACE(1, "--- initializeVMDK_FS no need to initialize");
    return 0;
  }
  if (localfs_catalog_parse_VMDK(nullptr, CatalogGetPath()) != 0) {
    WRITE_TRACE(1, "--- initializeVMDK_FS localfs_catalog_parse_VMDK failed");
    return -1;
  }
  g_initialised = true;
  WRITE_TRACE(1, "virtual files count %lu", static_cast<unsigned long>(vfile_table_count()));
  if (vfile_table_count() == 0) {
    WRITE_TRACE(1, "--- initializeVMDK_FS (no vmdk files found)");
    return 0;
  }
  LISCacheLock();
  bool populated = true;
  LIS_NODE* vmdk = LISCacheBuildTree(LISCacheRoot(), L"/R/VMDK", true, &populated);
  vmdk->cType = 'd';
  for (size_t h = 0; h < vfile_table_count(); ++h) {
    const int32_t handle = static_cast<int32_t>(h);
    tq_vfs_vfile* f = vfile_get(handle);
    if (vfile_open(handle) != 0 || !f) {
      WRITE_TRACE(1, "Cannot add virtual file %ls handle %d", f ? f->name().c_str() : L"", handle);
      LISCacheUnlock();
      return -1;
    }
    // The disk's folder below "/R/VMDK" is its catalog path up to the last "/".
    std::wstring rel = f->relativePath();
    size_t slash = rel.rfind(L'/');
    std::wstring dirPath = L"/R/VMDK" + (slash == std::wstring::npos ? L"" : L"/" + rel.substr(0, slash));
    LIS_NODE* dir = LISCacheBuildTree(LISCacheRoot(), dirPath.c_str(), true, &populated);
    dir->cType = 'd';
    LIS_NODE* node = LISCacheNewNode(f->name(), 'f');
    node->llSource = nsVMDK;
    node->iHandle = handle;
    node->ullSize = vfile_size(handle);
    node->bChildrenPopulated = true;
    const struct tm* times[2] = {&f->tmCtime, &f->tmMtime};
    PACKED_TIME* packed[2] = {&node->sCtime, &node->sMtime};
    for (int i = 0; i < 2; ++i) {
      packed[i]->year = static_cast<uint16_t>(times[i]->tm_year + 1900);
      packed[i]->mon = static_cast<uint8_t>(times[i]->tm_mon + 1);
      packed[i]->mday = static_cast<uint8_t>(times[i]->tm_mday);
      packed[i]->hour = static_cast<uint8_t>(times[i]->tm_hour);
      packed[i]->min = static_cast<uint8_t>(times[i]->tm_min);
      packed[i]->sec = static_cast<uint8_t>(times[i]->tm_sec);
    }
    LISCacheAppendChild(dir, node);
  }
  LISCacheUnlock();
  WRITE_TRACE(1, "--- initializeVMDK_FS");
  return 0;
}

void VmdkReset() { g_initialised = false; }
