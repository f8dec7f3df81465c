// tq_vfs_rct.cpp - rebuilds Hyper-V disks from RCT records (see tq_vfs_rct.h).
#include "vfs/tq_vfs_rct.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <exception>

#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/timefmt.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_enum.h"
#include "vfs/tq_vfs_regex.h"
#include "vfs/tq_vfs_vfile.h"
#include "vfs/tq_vfs_vhdx.h"

namespace {

using ull = unsigned long long;

std::unique_ptr<RCTUtils> s_rct;

const char* const kDiskLine = "^\"[^\"]*\\.(vhdx|VHDX|avhdx|AVHDX)\" ";
const char* const kInputDir = "/R/MAPPER/INTERMEDIATE";

// Quotes a path for a PCRE pattern.
std::string Quoted(const std::string& text) {
  std::string out = "\\Q";
  for (size_t i = 0; i < text.size(); ++i) {
    if (text.compare(i, 2, "\\E") == 0) {
      out += "\\E\\\\E\\Q";
      ++i;
    } else {
      out += text[i];
    }
  }
  return out + "\\E";
}

time_t Seconds(const struct tm& t) {
  return korvo::local_mktime(t);
}

std::wstring Wide(const std::string& narrow) {
  std::wstring wide;
  if (!korvo::mbstowcsl(narrow.data(), narrow.size(), ".UTF-8,,ISO-8859", &wide)) wide.clear();
  return wide;
}

LIS_NODE* Directory(const std::wstring& path) {
  bool populated = true;
  LIS_NODE* dir = LISCacheBuildTree(LISCacheRoot(), path.c_str(), true, &populated);
  for (LIS_NODE* n = dir; n != nullptr && n != LISCacheRoot(); n = n->pParent) {
    if (n->cType == 'X') n->cType = 'd';
  }
  return dir;
}

}  // namespace

// One record: its catalog line, where its data lies, and for range and
// bitmap records the file bytes [first, last] it holds.
struct RctRecord {
  LIS_ENTRY entry{};
  LIS_NODE* node = nullptr;  // the located item (under INTERMEDIATE)
  uint64_t first = 0, last = 0;
  bool bat = false;
};

struct RCTUtils::Impl::Disk {
  std::string name;          // the full file's path as written
  RctRecord full;
  std::vector<RctRecord> records;  // ranges, bitmaps and the BAT
  bool fullState = false;
};

namespace {

// Parses a catalog line and locates its data; false when it does not parse.
bool Locate(const std::string& line, RctRecord* rec) {
  if (ParseSavesetEntry(&rec->entry, line.c_str(), "f") != 0) return false;
  LIS_NODE* node = LISCacheNewNode(rec->entry.wsBaseName, 'f');
  node->llSource = nsSAVESET;
  node->bChildrenPopulated = true;
  LISCacheFillFromEntry(node, rec->entry);
  const int32_t type = CatalogGetSavesetType();
  if ((rec->entry.llRelOffset < 1 || type == sdtDUMP) && (type == sdtMTF || type == sdtCPIO || type == sdtDUMP) &&
      VfsUpdateEntryFromSaveset(node, rec->entry.sPath.c_str()) != 0) {
    WRITE_TRACE(1, "Unable to locate %s in saveset", rec->entry.sPath.c_str());
  }
  LISCacheLock();
  LISCacheAppendChild(Directory(Wide(kInputDir)), node);
  VfsFileTableAppend(node);
  LISCacheUnlock();
  rec->node = node;
  return true;
}

void AddSlice(tq_vfs_vfile* file, int64_t version, const LIS_NODE* node, uint64_t at, uint64_t length) {
  tq_vfs_slice s;
  s.mTime = version;
  s.iType = stSAVESET;
  s.miIntervalStart = static_cast<int64_t>(at);
  s.miIntervalEnd = static_cast<int64_t>(at + length);
  s.miSavesetIdx = node->sLoc.ssetIdx;
  s.miSavesetOffset = node->sLoc.ssetOff + static_cast<uint64_t>(node->sLoc.relOff);
  file->add_slice(s);
}

}  // namespace

RCTUtils::RCTUtils() : impl_(new Impl) {}
RCTUtils::~RCTUtils() = default;

std::vector<std::string> RCTUtils::Impl::FindAllRawRecordsInLslFileByRegex(const std::string& lslFile,
                                                                          const std::string& pattern) {
  WRITE_TRACE(2, "+++RCTUtils::Impl::FindAllRawRecordsInLslFileByRegex");
  std::vector<std::string> lines;
  TqRegex re;
  std::string why;
  FILE* fp = re.Compile(pattern.c_str(), 0, nullptr, &why) ? pf::FOpen(lslFile.c_str(), "r") : nullptr;
  if (fp == nullptr) {
    WRITE_TRACE(1, "cannot search %s for [%s] %s", lslFile.c_str(), pattern.c_str(), why.c_str());
  } else {
    std::string line;
    while (korvo::read_line(fp, &line)) {
      while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
      if (!re.Match(line.data(), line.size())) continue;
      WRITE_TRACE(2, "Add record: %s", line.c_str());
      lines.push_back(line);
    }
    std::fclose(fp);
  }
  WRITE_TRACE(2, "---RCTUtils::Impl::FindAllRawRecordsInLslFileByRegex");
  return lines;
}

void RCTUtils::Impl::GetDisksInfoFromInputFiles(const std::string& lslFile) {
  for (const std::string& line : FindAllRawRecordsInLslFileByRegex(lslFile, kDiskLine)) {
    auto disk = std::make_unique<Disk>();
    if (!Locate(line, &disk->full)) continue;
    disk->name = disk->full.entry.sPath;
    const std::string q = "^\"" + Quoted(disk->name);
    for (const std::string& r : FindAllRawRecordsInLslFileByRegex(lslFile, q + "@[0-9]+-[0-9]+\" ")) {
      RctRecord rec;
      if (!Locate(r, &rec)) continue;
      const size_t at = rec.entry.sPath.rfind('@');
      if (std::sscanf(rec.entry.sPath.c_str() + at, "@%llu-%llu", reinterpret_cast<ull*>(&rec.first),
                      reinterpret_cast<ull*>(&rec.last)) == 2)
        disk->records.push_back(rec);
    }
    for (const std::string& r : FindAllRawRecordsInLslFileByRegex(lslFile, q + "@sectorbitmap\\{[0-9]+-[0-9]+\\}\" ")) {
      RctRecord rec;
      if (!Locate(r, &rec)) continue;
      const size_t at = rec.entry.sPath.rfind("@sectorbitmap{");
      if (std::sscanf(rec.entry.sPath.c_str() + at, "@sectorbitmap{%llu-%llu}", reinterpret_cast<ull*>(&rec.first),
                      reinterpret_cast<ull*>(&rec.last)) == 2)
        disk->records.push_back(rec);
    }
    for (const std::string& r : FindAllRawRecordsInLslFileByRegex(lslFile, q + "\\.BAT\" ")) {
      WRITE_TRACE(1, "szBATRecordsLSL: %s", r.c_str());
      RctRecord rec;
      rec.bat = true;
      if (Locate(r, &rec)) disk->records.push_back(rec);
    }
    if (FindAllRawRecordsInLslFileByRegex(lslFile, q + "\\.serialize\" ").empty()) {
      tvu_log_error("Serialize file not found for %s\n", disk->name.c_str());
    }
    if (disk->records.empty()) {
      WRITE_TRACE(1, "SetDiskAtFullState for  %s", disk->name.c_str());
      disk->fullState = true;
    }
    disks.push_back(std::move(disk));
  }
}

int RCTUtils::Impl::BuildDisks() {
  int built = 0;
  for (const std::unique_ptr<Disk>& disk : disks) {
    const std::wstring base = Wide(korvo::basename(disk->name.c_str()));
    auto file = std::make_unique<tq_vfs_vfile>(base, Wide(disk->name));
    tq_vfs_vfile* f = file.get();
    AddSlice(f, 1, disk->full.node, 0, disk->full.node->ullSize);
    const int32_t handle = vfile_table_MERGE_push(std::move(file));
    VhdxSource src;
    src.pFile = f;
    src.name = Wide(disk->name);
    src.iMergeHandle = handle;
    // The BAT record goes where the full file's region table puts the BAT.
    uint64_t batOffset = 0;
    if (!disk->fullState) {
      const VhdxImagePtr full = parse_vhdx(src);
      if (!full) {
        WRITE_TRACE(1, "Error parsing VHDX file %s - RCT records not applied", disk->name.c_str());
        continue;
      }
      batOffset = full->bat_offset;
    }
    // Older backups first; within one backup, catalog order.  Each record
    // gets the next version, so a newer one wins where they overlap.
    std::stable_sort(disk->records.begin(), disk->records.end(), [](const RctRecord& a, const RctRecord& b) {
      return Seconds(a.entry.tmCtime) < Seconds(b.entry.tmCtime);
    });
    int64_t version = 1;
    for (const RctRecord& rec : disk->records) {
      const uint64_t size = rec.node->ullSize;
      const uint64_t at = rec.bat ? batOffset : rec.first;
      uint64_t length = rec.bat ? size : rec.last - rec.first + 1;
      if (!rec.bat && (rec.last < rec.first || length > size)) {
        WRITE_TRACE(1, "RCT record %s holds %llu bytes - only those applied", rec.entry.sPath.c_str(),
                    static_cast<ull>(size));
        length = std::min(length, size);
      }
      AddSlice(f, ++version, rec.node, at, length);
    }
    if (!parse_vhdx(src)) {
      WRITE_TRACE(1, "Error parsing merged VHDX file %ls", base.c_str());
      continue;
    }
    LIS_NODE* node = LISCacheNewNode(base, 'f');
    node->llSource = nsMERGE;
    node->bChildrenPopulated = true;
    node->iHandle = handle;
    node->ullSize = f->size();
    node->sCtime = disk->full.node->sCtime;
    node->sMtime = disk->full.node->sMtime;
    LISCacheLock();
    LISCacheAppendChild(Directory(Wide(resultPath)), node);
    VfsFileTableAppend(node);
    LISCacheUnlock();
    WRITE_TRACE(1, "RCT disk %s rebuilt from %zu records", disk->name.c_str(), disk->records.size());
    ++built;
  }
  return built;
}

int init_vhdx_rct(const CON_ARGS* /*operation*/) {
  WRITE_TRACE(1, "+++init_vhdx_rct");
  try {
    s_rct.reset(new RCTUtils);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    s_rct.reset();
  }
  if (s_rct) {
    s_rct->impl().GetDisksInfoFromInputFiles(CatalogGetPath());
    s_rct->impl().BuildDisks();
  }
  WRITE_TRACE(1, "---init_vhdx_rct");
  return 0;
}

RCTUtils* rct_utils() { return s_rct.get(); }
void rct_reset() { s_rct.reset(); }
