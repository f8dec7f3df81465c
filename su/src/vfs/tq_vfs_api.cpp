// tq_vfs_api.cpp - the tree mode of the library over the module's tables.
#include "vfs/tq_vfs_api.h"

#include <cerrno>
#include <cstring>
#include <mutex>

#include "platform/platform.h"
#include "vfs/tq_vfs_chain.h"
#include "report/tvu_report.h"
#include "runtime/timefmt.h"
#include "runtime/text.h"
#include "tvu_con.h"
#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_enum.h"
#include "vfs/tq_vfs_init.h"
#include "vfs/tq_vfs_mapper.h"
#include "vfs/tq_vfs_read.h"
#include "vfs/tq_vfs_saveset.h"

namespace tvu {
namespace {

bool g_open = false;
std::string g_saveset;

std::vector<std::string> Components(const std::string& path) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    if (slash == std::string::npos) slash = path.size();
    if (slash > start) parts.push_back(path.substr(start, slash - start));
    start = slash + 1;
  }
  return parts;
}

bool IsDirectory(const LIS_NODE* node) { return node->cType == 'd' || node->cType == 'X'; }

// The enumeration's search path of a node: "\" for the root, "\a\b" below.
std::string SearchPath(const LIS_NODE* node) {
  std::string path;
  for (const LIS_NODE* n = node; n && n->pParent; n = n->pParent)
    path = "\\" + korvo::wcstombs_utf8(n->wsName.c_str()) + path;
  return path.empty() ? "\\" : path;
}

// Fills a directory from the catalog when it has not been yet.
int Populate(LIS_NODE* dir) {
  std::vector<LIS_NODE*> entries;
  int32_t rc = GetSavesetEntries(SearchPath(dir).c_str(), true, false, &entries);
  if (rc == geTerminateInProgress) return ECANCELED;
  return rc == geOK ? 0 : EIO;
}

time_t ToTime(const PACKED_TIME& t) {
  if (t.year == 0) return 0;
  struct tm tm;
  memset(&tm, 0, sizeof tm);
  tm.tm_year = t.year - 1900;
  tm.tm_mon = t.mon - 1;
  tm.tm_mday = t.mday;
  tm.tm_hour = t.hour;
  tm.tm_min = t.min;
  tm.tm_sec = t.sec;
  return korvo::local_mktime(tm);
}

std::string JoinPath(const std::string& dir, const std::string& name) {
  return dir == "/" || dir.empty() ? "/" + name : dir + "/" + name;
}

}  // namespace

int Open(const TreeOptions& options, std::string* error) {
  if (g_open) {
    *error = "a tree is open already";
    return EBUSY;
  }
  ResetConsolidationArgs();
  char metaDir[4096];
  if (LoadChain(options.saveset.c_str(), metaDir, sizeof metaDir) != DB_NUM_I_OK) {
    *error = tvu_error_record().szMessage;
    TerminateVFS();
    saveset_table_free();
    return ENOENT;
  }
  CatalogSetLineByLine(false);
  gVOPTIONS.iBuildCache = options.buildCache ? 1 : 0;
  VfsSetMapperRulesFile(options.rulesFile.c_str());
  gVOPTIONS.iMapper = options.rct ? 1 : 0;
  if (InitVFS(ConsolidationArgs()) != 0) {
    *error = !InitVFSFailure().empty()
                 ? InitVFSFailure()
                 : "the virtual file system could not be brought up over the chain of " + options.saveset +
                       " (a saveset could not be opened; TQ_TRACE_LEVEL=1 and TQ_TRACE_FILE tell more)";
    TerminateVFS();
    saveset_table_free();
    return EIO;
  }
  g_saveset = options.saveset;
  g_open = true;
  return 0;
}

void Close() {
  if (!g_open) return;
  TerminateVFS();
  saveset_table_free();
  g_open = false;
}

bool IsOpen() { return g_open; }

int Lookup(const std::string& path, LIS_NODE** out) {
  *out = nullptr;
  if (!g_open) return EBADF;
  LIS_NODE* node = LISCacheRoot();
  for (const std::string& part : Components(path)) {
    if (!IsDirectory(node)) return ENOTDIR;
    if (!node->bChildrenPopulated) {
      int rc = Populate(node);
      if (rc != 0) return rc;
    }
    std::wstring wide;
    if (!korvo::mbstowcsl(part.data(), part.size(), ".UTF-8,,ISO-8859", &wide)) return ENOENT;
    LIS_NODE* child;
    {
      LISCacheGuard lock;
      child = LISCacheFindChild(node, wide.c_str(), wide.size(), true);
    }
    if (!child) return ENOENT;
    node = child;
  }
  *out = node;
  return 0;
}

NodeInfo Describe(LIS_NODE* node, const std::string& path) {
  NodeInfo info;
  info.name = node->pParent ? korvo::wcstombs_utf8(node->wsName.c_str()) : "/";
  info.path = path;
  info.type = node->cType;
  info.isDir = IsDirectory(node);
  info.source = node->llSource;
  const int32_t dataType = CatalogGetSavesetType();
  if (!info.isDir && node->llSource == nsSAVESET &&
      ((node->sLoc.relOff == 0 && dataType == sdtCPIO) || (node->sLoc.relOff < 0 && dataType == sdtDUMP))) {
    // The size of an item not yet located in its stream comes from the stream.
    char none;
    ReadFromVFS(g_saveset.c_str(), node, 0, &none, 0);
  }
  info.size = info.isDir ? 0 : node->ullSize;
  info.unreadable = node->bNotLocated;
  info.ctime = ToTime(node->sCtime);
  info.mtime = ToTime(node->sMtime);
  info.fileId = node->fileId;
  if (node->llSource == nsSAVESET || node->llSource == nsSAVESET_MAPPED) {
    info.savesetIdx = node->sLoc.ssetIdx;
    if (node->sLoc.ssetIdx >= 0 && node->sLoc.ssetIdx < g_iSavesetCount)
      info.saveset = korvo::basename(g_psSavesets[node->sLoc.ssetIdx].szName);
    info.savesetOffset = node->sLoc.ssetOff;
    info.relOffset = node->sLoc.relOff;
  }
  return info;
}

int Stat(const std::string& path, NodeInfo* info) {
  LIS_NODE* node = nullptr;
  int rc = Lookup(path, &node);
  if (rc != 0) return rc;
  *info = Describe(node, path);
  // An item its stream does not hold has no size and no bytes to give.
  return node->bNotLocated ? EIO : 0;
}

int List(const std::string& path, std::vector<NodeInfo>* entries) {
  entries->clear();
  LIS_NODE* dir = nullptr;
  int rc = Lookup(path, &dir);
  if (rc != 0) return rc;
  if (!IsDirectory(dir)) return ENOTDIR;
  if (!dir->bChildrenPopulated) {
    rc = Populate(dir);
    if (rc != 0) return rc;
  }
  std::vector<LIS_NODE*> children;
  {
    LISCacheGuard lock;
    children = dir->vChildren;
  }
  for (LIS_NODE* child : children)
    entries->push_back(Describe(child, JoinPath(path, korvo::wcstombs_utf8(child->wsName.c_str()))));
  return 0;
}

int64_t Read(LIS_NODE* node, uint64_t offset, char* buffer, uint64_t n) {
  if (!g_open) return -EBADF;
  if (IsDirectory(node)) return -EISDIR;
  if (n == 0) return 0;
  uint64_t got = ReadFromVFS(g_saveset.c_str(), node, offset, buffer, n);
  if (got == static_cast<uint64_t>(-1) || got > n || node->bNotLocated) return -EIO;
  return static_cast<int64_t>(got);
}

int MapToFile(LIS_NODE* node, uint64_t offset, uint64_t n, intptr_t* handle, uint64_t* position, uint64_t* count) {
  if (!g_open || IsDirectory(node)) return 1;
  pf::File* file = nullptr;
  if (MapFromSaveset(node, offset, n, &file, position, count) != 0) return 1;
  *handle = pf::FileNativeHandle(file);
  return *handle < 0 ? 1 : 0;
}

uint64_t BuildAll() { return g_open ? BuildCompleteTree("\\") : 0; }

}  // namespace tvu
