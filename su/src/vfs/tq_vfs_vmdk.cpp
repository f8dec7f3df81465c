// tq_vfs_vmdk.cpp - VMDK disks rebuilt from their full-disk line and their
// changed-block files, and their place in the tree under "/R/VMDK".
#include "vfs/tq_vfs_vmdk.h"

#include <boost/lexical_cast.hpp>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "archive/cpio_stream.h"
#include "platform/platform.h"
#include "report/tvu_report.h"
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
  struct tm copy = t;
  copy.tm_isdst = -1;
  return mktime(&copy);
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

// Where a changed-block file's data starts in its saveset.  Items the catalog
// does not place yet are located in their stream first; one that cannot be
// found ends the process, since the disk would be rebuilt wrong.
uint64_t LocateChangedBlocks(LIS_ENTRY* e) {
  if (e->llRelOffset >= 1) return e->ullOffset + static_cast<uint64_t>(e->llRelOffset);
  int rc = 1;
  if (CatalogGetSavesetType() == sdtCPIO) {
    CPIO_ENTRY_UPDATE u;
    u.iSavesetIdx = e->iSavesetIdx;
    u.ullSavesetOffset = e->ullOffset;
    u.sName = e->sPath;
    u.wsName = e->wsBaseName;
    u.llRelOffset = 0;
    u.ullSize = 0;
    rc = UpdateFSEntryFromCPIOSaveset(&u);
    if (rc == 0 && u.ullSize == 0 && u.llRelOffset == 0) rc = 1;  // not in its stream
    if (rc == 0) e->llRelOffset = u.llRelOffset;
  }
  if (rc != 0) {
    WRITE_TRACE(1, "---localfs_catalog_parse_VMDK: cannot locate stream location in saveset [%ls]",
                e->wsBaseName.c_str());
    tvu_fatal("VMDK: cannot locate stream location in saveset [%ls]", e->wsBaseName.c_str());
  }
  return e->ullOffset + static_cast<uint64_t>(e->llRelOffset);
}

// The time a changed-block slice carries: its catalog change time.  When the
// catalog marks that as not valid the stream's time would be next; the stream
// reader keeps none, so the parser's emulated time is used.
int64_t SliceTime(const LIS_ENTRY& e) {
  if (e.bCtimeEmulated) {
    WRITE_TRACE(1, "localfs_catalog_parse_VMDK: Using ctime from stream: %lld is also not valid. Using emulated time",
                -1ll);
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
  const std::string* current = &first;
  try {
    *offset = boost::lexical_cast<uint64_t>(first);
    current = &second;
    *size = boost::lexical_cast<uint64_t>(second);
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
    tq_vfs_slice slice;
    slice.miSavesetOffset = LocateChangedBlocks(&b.entry);
    slice.mTime = SliceTime(b.entry);
    slice.iType = stSAVESET;
    slice.miIntervalStart = static_cast<int64_t>(b.ullCbtOffset);
    slice.miIntervalEnd = static_cast<int64_t>(b.ullCbtOffset + b.ullCbtSize);
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
