// tq_vfs_mapper.cpp - the mapper rules file: one tree node per accepted rule
// under "/R/MAPPER".
//
// Rule line form: TOKEN, a blank, a one-character type field, a blank, the
// source in double quotes and optionally a blank and the node's name in
// double quotes (without it the node takes the source's base name).  MAPTO
// has no type field: its one quoted argument is the directory that the
// following rules fill.
//
//   MAPTO "/vm1"                               -> directory /R/MAPPER/vm1
//   LOCALFS f "/etc/hosts" "hosts.txt"         -> local file (kind 2)
//   SAVESET f "SF20261101020000"               -> whole saveset (kind 4)
//   LIS f <catalog line> "name"                -> catalog item (kind 0)
//   LIS R "disk1/disk1.vmdk"                   -> link to /R/VMDK/disk1/disk1.vmdk
//   SAVESET2VHD f "SF..." "disk.vhd"           -> dynamic VHD of a whole saveset
//   BITMERGE_FULL f "SF..." "disk.raw"         -> head of a bitmap merge
//   BITMERGE_INC f "SI..."                     -> the next increment's blocks
//   BITMERGE_BITMAP f <catalog line>           -> its bitmap: laid over the head
//
// Disk-image inputs go to /R/MAPPER/INTERMEDIATE; a bitmap merge's head is
// converted to "<head>.vhd" in the target when the next head starts or the
// rules end (see tq_vfs_bitmap.h).
//
// For LIS 'f' the source is a whole catalog line: everything after the type
// field goes to the catalog parser, which reads the path between the first
// two quotes and the fields after it, so the optional "name" at the end is
// read past (and gives an LSL line's saveset name the blank that ends it).
//
// Every created directory is marked children-populated: its nodes are all it
// holds, and listing it must not go to the catalog.  Every created file node
// gets a fileId from the enumeration's file table, like the file nodes of the
// complete build.
#include "vfs/tq_vfs_mapper.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <new>
#include <string>

#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/text.h"
#include "runtime/timefmt.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_bitmap.h"
#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_enum.h"
#include "vfs/tq_vfs_saveset.h"
#include "vfs/tq_vfs_vfile.h"
#include "vfs/tq_vfs_vhd.h"
#include "vfs/tq_vfs_vhdx.h"

namespace {

// A rule's arguments are parsed in a buffer of this size (the text after the
// type field is cut to fit it, with room for the terminating NUL).
constexpr size_t kWorkBuffer = 34500;

// Names and paths of rules are local text; the list the catalog parser uses
// turns any byte sequence into a name.
const char* const kEncodings = ".UTF-8,,ISO-8859";

const wchar_t* const kMapperDir = L"/R/MAPPER";
const wchar_t* const kIntermediateDir = L"/R/MAPPER/INTERMEDIATE";
const wchar_t* const kVmdkDir = L"/R/VMDK";

std::string s_rulesFile;

// Set when the rules are read into a tree that was already built: then the
// rules go to the root and the fixed directories are not made.  The VFS
// initialisation always calls with a fresh tree, so it stays clear there.
bool s_treeInitialised = false;

// The rules' directories: the fixed ones and the last MAPTO target.  The
// bitmap merge and VHD creation put their results and sources there once
// they are part of the build.
LIS_NODE* s_mapperNode = nullptr;
LIS_NODE* s_intermediateNode = nullptr;
LIS_NODE* s_lastMapTo = nullptr;

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string out(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) std::vsnprintf(&out[0], out.size() + 1, format, args);
  va_end(args);
  return out;
}

// The end of every failing rule: the trace line, the standard-error line and
// the error hook's report, then exit status 1.
[[noreturn]] void RuleFatal(const std::string& traceText, const std::string& stderrText,
                            const std::string& reportText) {
  WRITE_TRACE(1, "%s", traceText.c_str());
  std::fputs(stderrText.c_str(), stderr);
  std::fflush(stderr);
  tvu_fatal("%s", reportText.c_str());
}

MAPPER_PAYLOAD* NewPayload(const std::string& localPath, LIS_NODE* other) {
  try {
    return new MAPPER_PAYLOAD{localPath, other};
  } catch (const std::bad_alloc&) {
    tvu_out_of_memory(sizeof(MAPPER_PAYLOAD) + localPath.size(), __FILE__, __LINE__);
  }
}

std::wstring Wide(const std::string& narrow) {
  std::wstring wide;
  if (!korvo::mbstowcsl(narrow.data(), narrow.size(), kEncodings, &wide)) wide.clear();
  return wide;
}

PACKED_TIME Pack(time_t t) {
  PACKED_TIME p{};
  struct tm tm {};
  if (!pf::LocalTime(t, &tm)) return p;
  p.year = static_cast<uint16_t>(tm.tm_year + 1900);
  p.mon = static_cast<uint8_t>(tm.tm_mon + 1);
  p.mday = static_cast<uint8_t>(tm.tm_mday);
  p.hour = static_cast<uint8_t>(tm.tm_hour);
  p.min = static_cast<uint8_t>(tm.tm_min);
  p.sec = static_cast<uint8_t>(tm.tm_sec);
  return p;
}

// Both times of a node made now rather than taken from its source.
void StampNow(LIS_NODE* node) {
  PACKED_TIME now = Pack(korvo::time_get());
  now.emulated = 1;
  node->sCtime = now;
  node->sMtime = now;
}

// Finds or makes the directory at path with its missing parents.  Every
// directory on the way that holds only a path becomes a real directory ('d').
LIS_NODE* MakeDirectory(const std::wstring& path) {
  LIS_NODE* root = LISCacheRoot();
  bool markPopulated = true;
  LIS_NODE* dir = LISCacheBuildTree(root, path.c_str(), true, &markPopulated);
  LISCacheLock();
  for (LIS_NODE* n = dir; n != nullptr && n != root; n = n->pParent) {
    if (n->cType == 'X') n->cType = 'd';
  }
  LISCacheUnlock();
  return dir;
}

// A new file node of the given kind; not yet in the tree.
LIS_NODE* NewFileNode(const std::wstring& name, NODE_SOURCE kind) {
  LIS_NODE* node = LISCacheNewNode(name, 'f');
  node->llSource = kind;
  node->bChildrenPopulated = true;  // a file has no children to read
  return node;
}

void AddToTree(LIS_NODE* dir, LIS_NODE* node) {
  LISCacheLock();
  LISCacheAppendChild(dir, node);
  VfsFileTableAppend(node);
  LISCacheUnlock();
}

// One rule line after its token: the type field and the quoted arguments.
struct Rule {
  int lineNo = 0;
  std::string typeField;  // one character, or "" when the line ends after the token
  std::string work;       // the text after the type field and its blank
  std::string source;     // first quoted argument
  std::string name;       // second quoted argument
  bool hasName = false;
};

Rule SplitRule(const std::string& afterToken, int lineNo) {
  Rule r;
  r.lineNo = lineNo;
  if (!afterToken.empty()) r.typeField.assign(1, afterToken[0]);
  if (afterToken.size() > 2) r.work.assign(afterToken, 2, kWorkBuffer - 1);
  // Arguments lie between the 1st and 2nd, and the 3rd and 4th quotes.
  size_t q[4];
  size_t found = 0;
  for (size_t from = 0; found < 4; ++found) {
    const size_t pos = r.work.find('"', from);
    if (pos == std::string::npos) break;
    q[found] = pos;
    from = pos + 1;
  }
  if (found >= 2) r.source.assign(r.work, q[0] + 1, q[1] - q[0] - 1);
  if (found == 4 && q[3] > q[2] + 1) {
    // An empty name ("") names nothing: the source's base name is used.
    r.name.assign(r.work, q[2] + 1, q[3] - q[2] - 1);
    r.hasName = true;
  }
  return r;
}

// A node named "." or "..", or with a "/" in its name, could never be
// reached by a path in the tree: such a rule ends the process.
[[noreturn]] void BadNameFatal(const std::wstring& name, int lineNo) {
  const std::string text = korvo::wcstombs_utf8(name.c_str());
  RuleFatal(Format("MAPPER name [%s] is no file name line no: %d", text.c_str(), lineNo),
            Format("ERROR: MAPPER name '%s' is no file name line no: %d\n", text.c_str(), lineNo),
            Format("MAPPER name [%s] is no file name line no: %d", text.c_str(), lineNo));
}

bool IsReachableName(const std::wstring& name) {
  return name != L"." && name != L".." && name.find(L'/') == std::wstring::npos;
}

// The node's name: the rule's own, else the given default.
std::wstring NodeName(const Rule& r, const std::wstring& fallback) {
  std::wstring name = r.hasName ? Wide(r.name) : fallback;
  if (name.empty() || !IsReachableName(name)) BadNameFatal(name, r.lineNo);
  return name;
}

// ---- rules -------------------------------------------------------------------

// MAPTO "path": the directory "/R/MAPPER" + path becomes the target (the path
// brings its own leading slash; without one it extends the name MAPPER).
void MapTo(const std::string& afterToken, int lineNo, LIS_NODE** target) {
  const size_t open = afterToken.find('"');
  const size_t close = open == std::string::npos ? open : afterToken.find('"', open + 1);
  if (close == std::string::npos) return;
  const std::wstring path = kMapperDir + Wide(afterToken.substr(open + 1, close - open - 1));
  for (size_t from = 0; from <= path.size();) {
    size_t slash = path.find(L'/', from);
    if (slash == std::wstring::npos) slash = path.size();
    const std::wstring part = path.substr(from, slash - from);
    if (!IsReachableName(part)) BadNameFatal(part, lineNo);
    from = slash + 1;
  }
  s_lastMapTo = MakeDirectory(path);
  *target = s_lastMapTo;
}

// LOCALFS: a local file, opened again at each read.  The size is taken as a
// 32-bit signed value and widened with its sign.  That is deliberate, not an
// oversight to fix: a file of 2 GiB or more does not show its true size.
void MapLocalFile(const Rule& r, LIS_NODE* target) {
  FILE* fp = pf::FOpen(r.source.c_str(), "rb");
  if (fp == nullptr) {
    RuleFatal(Format("MAPPER cannot open local file [%s] line no: %d", r.source.c_str(), r.lineNo),
              Format("ERROR: MAPPER cannot open local file '%s' line no: %d\n", r.source.c_str(), r.lineNo),
              Format("MAPPER cannot open local file [%s] line no: %d", r.source.c_str(), r.lineNo));
  }
  std::fclose(fp);
  uint64_t size = 0;
  pf::FileSizeByPath(r.source.c_str(), &size);
  time_t ctime = 0, mtime = 0;
  pf::FileTimes(r.source.c_str(), &ctime, &mtime);

  LIS_NODE* node = NewFileNode(NodeName(r, Wide(korvo::basename(r.source.c_str()))), nsMAPPER);
  node->pMapper = NewPayload(r.source, nullptr);
  node->ullSize = static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(size)));
  node->sCtime = Pack(ctime);
  node->sMtime = Pack(mtime);
  AddToTree(target, node);
  WRITE_TRACE(1, "MAPPER mapped LOCALFS: %s -> %ls", r.source.c_str(), node->wsName.c_str());
}

// The saveset a rule names, and its size; false (traced, the rule then makes
// no node) when no saveset has that name.
bool FindSaveset(const Rule& r, int32_t* idx, uint64_t* size) {
  *idx = saveset_find_by_name(r.source.c_str());
  if (*idx < 0) {
    WRITE_TRACE(1, "Mapper line %d - cannot find matching saveset for [%s]", r.lineNo, r.source.c_str());
    return false;
  }
  if (saveset_size(*idx, size) != 0) *size = 0;  // traced by the saveset layer
  return true;
}

// SAVESET: a whole saveset as one file, read from its start as it stands.
LIS_NODE* MapSaveset(const Rule& r, LIS_NODE* target) {
  int32_t idx = -1;
  uint64_t size = 0;
  if (!FindSaveset(r, &idx, &size)) return nullptr;

  LIS_NODE* node = NewFileNode(NodeName(r, Wide(korvo::basename(r.source.c_str()))), nsSAVESET_MAPPED);
  node->sLoc.ssetIdx = idx;
  node->sLoc.ssetOff = 0;
  node->sLoc.relOff = 0;
  node->ullSize = size;
  StampNow(node);
  AddToTree(target, node);
  WRITE_TRACE(1, "MAPPER mapped SAVESET: %s -> %ls", r.source.c_str(), node->wsName.c_str());
  return node;
}

// LIS 'f': one catalog item, located in its stream now when the line does
// not say where its data starts (later reads could not: the node's path in
// the tree is no longer the item's path in its stream).
LIS_NODE* MapCatalogItem(const Rule& r, LIS_NODE* target) {
  LIS_ENTRY rec{};
  if (ParseSavesetEntry(&rec, r.work.c_str(), "f") != 0) {
    RuleFatal(Format("Could not extract [%s] from rules file line no: %d", r.work.c_str(), r.lineNo),
              Format("ERROR: unable to parse LIS line within rules file [%s] line no: %d\n", r.work.c_str(), r.lineNo),
              Format("Unable to parse LIS line within rules file [%s] line no: %d\n", r.work.c_str(), r.lineNo));
  }
  WRITE_TRACE(2,
              "adding szEntryName=[%ls] cEntryType=[%c] entryOffset=[%llu] entryRelativeOffset=[%lld] "
              "entrySize=[%llu] iSavesetIdx=%d",
              rec.wsBaseName.c_str(), rec.cType, static_cast<unsigned long long>(rec.ullOffset),
              static_cast<long long>(rec.llRelOffset), static_cast<unsigned long long>(rec.ullSize), rec.iSavesetIdx);

  LIS_NODE* node = NewFileNode(rec.wsBaseName, nsSAVESET);
  LISCacheFillFromEntry(node, rec);
  // A dump item is always located by its walk (its relative offset is not used).
  if (rec.llRelOffset < 1 || CatalogGetSavesetType() == sdtDUMP) {
    const int32_t dataType = CatalogGetSavesetType();
    if ((dataType == sdtMTF || dataType == sdtCPIO || dataType == sdtDUMP) &&
        VfsUpdateEntryFromSaveset(node, rec.sPath.c_str()) != 0) {
      WRITE_TRACE(1, "Unable to locate %s in saveset", rec.sPath.c_str());
    }
  }
  node->wsName = NodeName(r, rec.wsBaseName);
  StampNow(node);
  AddToTree(target, node);
  WRITE_TRACE(1, "MAPPER mapped LIS: %ls -> %ls", rec.wsPath.c_str(), node->wsName.c_str());
  return node;
}

// LIS 'R': a link to a rebuilt VMDK file, read through that node.
void MapVmdkFile(const Rule& r, LIS_NODE* target) {
  LIS_NODE* root = LISCacheRoot();
  const std::wstring wpath = Wide(r.source);
  LIS_NODE* vmdk = nullptr;
  // An empty path names the VMDK directory itself.
  if (LISCacheFind(root, kVmdkDir, true) != nullptr) {
    vmdk = LISCacheFind(root, (std::wstring(kVmdkDir) + L"/" + wpath).c_str(), true);
  }
  if (vmdk == nullptr) {
    // The path as UTF-8 text: formatting a wide string would depend on the
    // process's locale, and a message must not come out empty.
    const std::string path = korvo::wcstombs_utf8(wpath.c_str());
    RuleFatal(Format("MAPPER cannot locate VMDK file [%s] line no: %d", path.c_str(), r.lineNo),
              Format("ERROR: MAPPER cannot locate VMDK file '%s' line no: %d\n", path.c_str(), r.lineNo),
              Format("MAPPER cannot locate VMDK file [%s] line no: %d", path.c_str(), r.lineNo));
  }
  LIS_NODE* node = NewFileNode(NodeName(r, korvo::basename(wpath.c_str())), nsMAPPER);
  node->pMapper = NewPayload(std::string(), vmdk);
  node->ullSize = vmdk->ullSize;
  node->sCtime = vmdk->sCtime;
  node->sMtime = vmdk->sMtime;
  AddToTree(target, node);
  WRITE_TRACE(1, "MAPPER mapping LIS: %ls -> %ls", wpath.c_str(), node->wsName.c_str());
}

[[noreturn]] void TypeNotSupported(const Rule& r) {
  const std::string text = Format("MAPPER type %s currently not supported line no %d", r.typeField.c_str(), r.lineNo);
  RuleFatal(text, "ERROR: " + text + "\n", text);
}

void MapLis(const Rule& r, LIS_NODE* target) {
  if (r.typeField == "f") {
    MapCatalogItem(r, target);
  } else if (r.typeField == "R") {
    MapVmdkFile(r, target);
  } else {
    TypeNotSupported(r);
  }
}

// ---- disk images -------------------------------------------------------------

// Where the inputs of disk-image rules go: the intermediate directory, or
// the target when the rules were read into a tree built before.
LIS_NODE* Intermediate(LIS_NODE* target) { return s_intermediateNode ? s_intermediateNode : target; }

[[noreturn]] void VhdFatal(const std::wstring& name) {
  const std::string text = korvo::wcstombs_utf8(name.c_str());
  RuleFatal(Format("Could not create VHD file for %s", text.c_str()),
            Format("ERROR: Could not create VHD file for %s\n", text.c_str()),
            Format("Could not create VHD file for %s\n", text.c_str()));
}

// Ends the open bitmap merge: its head becomes a VHD in the target.
void FinishBitmapMerge(LIS_NODE* target) {
  LIS_NODE* head = bitmap_head();
  if (head != nullptr && bitmap_finalize(target) != 0) VhdFatal(head->wsName + L".vhd");
}

// BITMERGE_FULL: the whole saveset becomes the head of a new bitmap merge,
// the node itself (named as a SAVESET rule's node) being the merged disk.
void MapBitmapHead(const Rule& r, LIS_NODE* target) {
  int32_t idx = -1;
  uint64_t size = 0;
  if (!FindSaveset(r, &idx, &size)) return;
  const std::wstring name = NodeName(r, Wide(korvo::basename(r.source.c_str())));
  FinishBitmapMerge(target);
  bitmap_set_head(target, Intermediate(target), name, idx, size);
  StampNow(bitmap_head());  // the merged disk is made now
  WRITE_TRACE(1, "MAPPER mapped SAVESET: %s -> %ls", r.source.c_str(), name.c_str());
}

// BITMERGE_INC: the saveset holding the next increment's blocks.  When it is
// not found, the increment has no data and its bitmap rule fails.
void MapBitmapIncrement(const Rule& r, LIS_NODE* target) {
  bitmap_set_increment(MapSaveset(r, Intermediate(target)));
}

// BITMERGE_BITMAP 'f': the increment's bitmap file, laid over the head with
// the data named just before.
void MapBitmap(const Rule& r, LIS_NODE* target) {
  if (r.typeField != "f") TypeNotSupported(r);
  LIS_NODE* bitmap = MapCatalogItem(r, Intermediate(target));
  if (bitmap_append_bitmap(r.source.c_str(), bitmap) != 0) {
    const std::string text =
        Format("MAPPER bitmap without a BITMERGE_FULL head or BITMERGE_INC data before it line no %d", r.lineNo);
    RuleFatal(text, "ERROR: " + text + "\n", text);
  }
}

// SAVESET2VHD: the whole saveset (a node in the intermediate directory) as a
// dynamic VHD in the target, named by the rule or "<saveset>.vhd".
void MapSavesetToVhd(const Rule& r, LIS_NODE* target) {
  Rule source = r;
  source.hasName = false;
  source.name.clear();
  const std::wstring base = Wide(korvo::basename(r.source.c_str()));
  const std::wstring vhdName = NodeName(r, base + L".vhd");
  LIS_NODE* node = MapSaveset(source, Intermediate(target));
  if (node == nullptr) return;
  if (localfs_VHD_create(node, target, vhdName) < 0) VhdFatal(vhdName);
  WRITE_TRACE(1, "MAPPER mapped SAVESET2VHD: %s -> %ls", r.source.c_str(), vhdName.c_str());
}

// VHDXMERGE f <catalog line>: the disk file goes to INTERMEDIATE as a LIS 'f'
// node, then joins the VHDX merge: a name containing ".avhdx" is a tail of
// the disk whose head came last, else one containing ".vhdx" starts a disk.
// The merges are completed when the rules file ends.
struct VhdxDisk {
  std::unique_ptr<VhdxMerge> merge;
  std::wstring baseName;  // the head's: the merged disk's name
};
std::vector<VhdxDisk> s_vhdxDisks;

// The item's bytes as a MERGE file (one stretch of its saveset), so that the
// parser reads it like any other VHDX file.
VhdxSource VhdxSourceOf(const LIS_NODE* node, const std::wstring& catalogPath) {
  auto file = std::make_unique<tq_vfs_vfile>(catalogPath, catalogPath);
  VhdxSource src;
  src.name = catalogPath;
  src.iSavesetIdx = node->sLoc.ssetIdx;
  src.ullSavesetOffset = node->sLoc.ssetOff + static_cast<uint64_t>(node->sLoc.relOff);
  tq_vfs_slice slice;
  slice.mTime = 1;
  slice.iType = stSAVESET;
  slice.miIntervalEnd = static_cast<int64_t>(node->ullSize);
  slice.miSavesetIdx = src.iSavesetIdx;
  slice.miSavesetOffset = src.ullSavesetOffset;
  file->add_slice(slice);
  src.pFile = file.get();
  src.iMergeHandle = vfile_table_MERGE_push(std::move(file));
  return src;
}

void MapVhdxMerge(const Rule& r, LIS_NODE* target) {
  if (r.typeField != "f") TypeNotSupported(r);
  LIS_ENTRY rec{};
  const bool parsed = ParseSavesetEntry(&rec, r.work.c_str(), "f") == 0;
  LIS_NODE* node = MapCatalogItem(r, s_intermediateNode ? s_intermediateNode : target);
  const std::wstring path = parsed ? Wide(rec.sPath) : node->wsName;  // the catalog path as written
  const bool tail = rec.sPath.find(".avhdx") != std::string::npos;
  if (!tail && rec.sPath.find(".vhdx") == std::string::npos) {
    const std::string text = Format("Unexpected file type for VHDX in map file line no %d", r.lineNo);
    RuleFatal("ERROR: " + text, "ERROR: " + text + "\n", text);
  }
  const VhdxSource src = VhdxSourceOf(node, path);
  if (!tail) {
    VhdxImagePtr head = parse_vhdx(src);
    if (!head) {
      WRITE_TRACE(1, "Error parsing VHDX head %ls line no %d - disk left out", path.c_str(), r.lineNo);
      std::fprintf(stdout, "[VHDX] Error parsing VHDX file %s\n", rec.sPath.c_str());
      std::fflush(stdout);
      s_vhdxDisks.push_back(VhdxDisk{});  // its tails have no head to join
      return;
    }
    s_vhdxDisks.push_back(VhdxDisk{std::make_unique<VhdxMerge>(head), Wide(korvo::basename(rec.sPath.c_str()))});
  } else if (s_vhdxDisks.empty() || !s_vhdxDisks.back().merge) {
    WRITE_TRACE(1, "VHDX tail %ls line no %d has no head - left out", path.c_str(), r.lineNo);
  } else {
    s_vhdxDisks.back().merge->add_tail(src);
  }
}

// Each disk's newest state under the head's base name in the target.
void CompleteVhdxMerges(LIS_NODE* target) {
  for (VhdxDisk& disk : s_vhdxDisks) {
    if (!disk.merge) continue;
    const VhdxImagePtr result = disk.merge->merge_all_tails();
    const int32_t handle = disk.merge->finalize(result, disk.baseName);
    if (handle < 0) continue;
    LIS_NODE* node = NewFileNode(disk.baseName, nsMERGE);
    node->iHandle = handle;
    node->ullSize = vfile_get_MERGE(handle)->size();
    StampNow(node);
    AddToTree(target, node);
    WRITE_TRACE(1, "MAPPER merged VHDX: %ls", disk.baseName.c_str());
  }
  s_vhdxDisks.clear();
}

// One trimmed, non-empty rule line.
void ProcessLine(const std::string& line, int lineNo, LIS_NODE** target) {
  const size_t blank = line.find(' ');
  const std::string token = line.substr(0, blank);
  const std::string afterToken = blank == std::string::npos ? std::string() : line.substr(blank + 1);
  WRITE_TRACE(1, "got token %s", token.c_str());

  // Tested in this order; a token that is none of these is ignored.
  if (token == "MAPTO") {
    MapTo(afterToken, lineNo, target);
  } else if (token == "LOCALFS") {
    MapLocalFile(SplitRule(afterToken, lineNo), *target);
  } else if (token == "SAVESET") {
    MapSaveset(SplitRule(afterToken, lineNo), *target);
  } else if (token == "BITMERGE_FULL") {
    MapBitmapHead(SplitRule(afterToken, lineNo), *target);
  } else if (token == "BITMERGE_INC") {
    MapBitmapIncrement(SplitRule(afterToken, lineNo), *target);
  } else if (token == "SAVESET2VHD") {
    MapSavesetToVhd(SplitRule(afterToken, lineNo), *target);
  } else if (token == "VHDXMERGE") {
    MapVhdxMerge(SplitRule(afterToken, lineNo), *target);
  } else if (token == "LIS") {
    MapLis(SplitRule(afterToken, lineNo), *target);
  } else if (token == "BITMERGE_BITMAP") {
    MapBitmap(SplitRule(afterToken, lineNo), *target);
  }
}

void Trim(std::string* s) {
  const size_t first = s->find_first_not_of(" \t");
  if (first == std::string::npos) {
    s->clear();
    return;
  }
  s->erase(s->find_last_not_of(" \t") + 1);
  s->erase(0, first);
}

}  // namespace

void VfsSetMapperRulesFile(const char* path) { s_rulesFile = path ? path : ""; }

const char* VfsGetMapperRulesFile() { return s_rulesFile.c_str(); }

// args: the rules path is set apart (VfsSetMapperRulesFile), so the
// consolidation arguments are not read here.
int initializeMAPPER_FS(const CON_ARGS* /*args*/) {
  WRITE_TRACE(1, "+++ initializeMAPPER_FS");
  s_mapperNode = s_intermediateNode = s_lastMapTo = nullptr;
  bitmap_reset();
  s_vhdxDisks.clear();
  const std::string path = s_rulesFile;
  if (path.empty()) {
    WRITE_TRACE(1, "no mapper file given");
    WRITE_TRACE(1, "--- initializeMAPPER_FS");
    return 0;
  }
  WRITE_TRACE(1, "reading rules from  %s", path.c_str());
  // A rules file that was named must be read: a tree without the files it
  // places would look complete while it is not.  The test open only traces.
  if (!pf::PathExists(path.c_str())) {
    WRITE_TRACE(1, "mapper file not given. File does not exist");
    WRITE_TRACE(1, "--- initializeMAPPER_FS");
  }
  FILE* fp = pf::FOpen(path.c_str(), "r");
  if (fp == nullptr) {
    WRITE_TRACE(1, "cannot read from %s", path.c_str());
    std::fprintf(stderr, "ERROR: cannot read from %s\n", path.c_str());
    std::fflush(stderr);
    tvu_fatal("MAPPER cannot read from %s\n", path.c_str());
  }

  LIS_NODE* target = LISCacheRoot();
  if (!s_treeInitialised) {
    s_mapperNode = MakeDirectory(kMapperDir);
    s_intermediateNode = MakeDirectory(kIntermediateDir);
    target = s_mapperNode;
  }

  std::string line;
  int lineNo = 0;
  while (korvo::read_line(fp, &line)) {
    ++lineNo;
    Trim(&line);
    if (line.empty()) continue;
    ProcessLine(line, lineNo, &target);
  }
  std::fclose(fp);

  WRITE_TRACE(1, "+++bitmap_finalize");
  FinishBitmapMerge(target);
  WRITE_TRACE(1, "---bitmap_finalize");
  if (!s_treeInitialised) CompleteVhdxMerges(target);
  s_vhdxDisks.clear();
  WRITE_TRACE(1, "--- initializeMAPPER_FS");
  return 0;
}
