// tq_vfs_enum.cpp - directory enumeration: GetSavesetEntries fills one
// directory of the tree cache from the consolidated catalog on a miss and
// completes its entries from their saveset streams.
//
// Paths.  A search path names a directory with backslashes ("\demo\sub",
// "\" for the root).  The tree node it names is found under "/R/demo/sub",
// its parts split at "\" and ":" like every catalog path the tree holds; the
// catalog search asks for the directory in tree form, "demo/sub", where a
// one-character first part is a drive and gets its colon back ("\C\x" asks for
// "C:/x").
#include "vfs/tq_vfs_enum.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "archive/cpio_stream.h"
#include "archive/dump_stream.h"
#include "archive/mtf_stream.h"
#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/lis_search.h"
#include "runtime/text.h"
#include "runtime/timefmt.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_timer.h"

namespace {

// The forms of one search path.
struct SearchForms {
  std::wstring wsFindPath;  // "/R/demo/sub"; "/R" for the root
  std::string sCatalogDir;  // "demo/sub"; "C:/x"; "/" for the root
  std::string sPlainDir;    // sCatalogDir without an added drive colon
  bool bDriveAdded = false; // a one-character first part got a colon
};

void TreeWide(const std::string& narrow, std::wstring* wide) {
  // The parser's encoding list, so that a name the parser decoded as Latin-1
  // gets the same node path here.
  if (!korvo::mbstowcsl(narrow.data(), narrow.size(), ".UTF-8,,ISO-8859", wide)) wide->clear();
}

// Appends every non-empty part of text between the separators to out, each
// behind a "/".
void AppendTreeParts(const std::string& text, const char* separators, std::string* out) {
  size_t i = 0;
  while (i < text.size()) {
    const size_t j = std::min(text.find_first_of(separators, i), text.size());
    if (j > i) {
      *out += '/';
      out->append(text, i, j - i);
    }
    i = j + 1;
  }
}

SearchForms MakeSearchForms(const char* searchPath) {
  std::string dos(searchPath ? searchPath : "");
  korvo::szPath2Dos(&dos[0]);
  SearchForms f;
  size_t part = 0;
  for (size_t i = 0; i < dos.size();) {
    const size_t j = std::min(dos.find('\\', i), dos.size());
    if (j > i) {
      if (part > 0) f.sCatalogDir += '/';
      f.sCatalogDir.append(dos, i, j - i);
      if (part == 0 && j - i == 1) {
        f.sCatalogDir += ':';
        f.bDriveAdded = true;
      }
      ++part;
    }
    i = j + 1;
  }
  f.sPlainDir = f.sCatalogDir;
  if (f.bDriveAdded) f.sPlainDir.erase(1, 1);
  if (f.sCatalogDir.empty()) f.sCatalogDir = "/";
  // In the tree a colon separates components as a slash does.
  std::string find = "/R";
  AppendTreeParts(dos, "\\:", &find);
  TreeWide(find, &f.wsFindPath);
  return f;
}

// A drive's entry ("C:") is the node "C" in the tree.
void DropDriveColon(std::wstring* name) {
  if (name->size() > 1 && name->back() == L':') name->pop_back();
}

// True for the data types whose streams can locate an entry's data.
bool HasStreamUpdate(int32_t dataType) { return dataType == sdtCPIO || dataType == sdtMTF || dataType == sdtDUMP; }

// A file whose data is still to be located: dump items until their walk ran
// (negative relative offset), the others while the relative offset is below 1.
bool NeedsLocating(const LIS_NODE* node) {
  return CatalogGetSavesetType() == sdtDUMP ? node->sLoc.relOff < 0 : node->sLoc.relOff < 1;
}

void CopyChildren(const LIS_NODE* dir, std::vector<LIS_NODE*>* result) {
  if (result == nullptr) return;
  result->clear();
  if (dir != nullptr) result->assign(dir->vChildren.begin(), dir->vChildren.end());
}

// Writes the catalog lines of the directory's direct entries into tmp; tries
// the drive-less form when a one-character first part found nothing as a
// drive (a Unix catalog's "/a/b" lives in "a/b").
// The ISO-8859-1 bytes of a UTF-8 text, when it has characters beyond ASCII
// and every one of them is in ISO-8859-1; false otherwise.
bool Latin1Of(const std::string& utf8, std::string* latin1) {
  std::wstring wide;
  if (!korvo::mbstowcsl(utf8.data(), utf8.size(), ".UTF-8", &wide)) return false;
  latin1->clear();
  bool beyondAscii = false;
  for (wchar_t c : wide) {
    if (static_cast<unsigned long>(c) > 0xFF) return false;
    beyondAscii = beyondAscii || c > 0x7F;
    latin1->push_back(static_cast<char>(c));
  }
  return beyondAscii;
}

int ExtractOne(const char* catalog, const SearchForms& forms, FILE* tmp, long* files, long* dirs) {
  if (korvo::iEXTRACT_DIR(catalog, forms.sCatalogDir.c_str(), tmp, files, dirs) != 0) return -1;
  if (*files == 0 && *dirs == 0 && forms.bDriveAdded) {
    return korvo::iEXTRACT_DIR(catalog, forms.sPlainDir.c_str(), tmp, files, dirs);
  }
  return 0;
}

// A catalog path that is not UTF-8 was read as ISO-8859-1 (the whole path),
// and the tree names its directories in the characters read; the search path
// comes back as UTF-8.  A directory not found as UTF-8 is looked for again by
// the catalog's own bytes.
int ExtractLines(const char* catalog, const SearchForms& forms, FILE* tmp, long* files, long* dirs) {
  if (ExtractOne(catalog, forms, tmp, files, dirs) != 0) return -1;
  SearchForms latin1 = forms;
  if (*files == 0 && *dirs == 0 && Latin1Of(forms.sCatalogDir, &latin1.sCatalogDir) &&
      Latin1Of(forms.sPlainDir, &latin1.sPlainDir)) {
    return ExtractOne(catalog, latin1, tmp, files, dirs);
  }
  return 0;
}

void TraceAdding(const LIS_ENTRY& e) {
  if (korvo::trace_level() < 3) return;
  char ctime[32], mtime[32];
  korvo::cm_strftime(ctime, sizeof ctime, "%Y%m%d%H%M%S", &e.tmCtime);
  korvo::cm_strftime(mtime, sizeof mtime, "%Y%m%d%H%M%S", &e.tmMtime);
  WRITE_TRACE(3,
              "adding szEntryName=[%ls] cEntryType=[%c] entryOffset=[%llu] entryRelativeOffset=[%lld] "
              "entrySize=[%llu] ctime=%s mtime=%s iSavesetIdx=%d",
              e.wsBaseName.c_str(), e.cType, static_cast<unsigned long long>(e.ullOffset),
              static_cast<long long>(e.llRelOffset), static_cast<unsigned long long>(e.ullSize), ctime, mtime,
              e.iSavesetIdx);
}

// An entry still to be located in its stream, with its catalog path.
struct Pending {
  LIS_NODE* node;
  std::string path;
};

// Reads the extracted lines and puts their entries under the directory (the
// entry read last wins); collects the files whose data is not located yet.
void InsertEntries(FILE* tmp, LIS_NODE* dir, bool collect, std::vector<Pending>* pending) {
  std::unordered_map<LIS_NODE*, size_t> pendingPos;  // a name met twice keeps its last path
  LIS_ENTRY rec{};
  std::string line;
  while (korvo::read_line(tmp, &line)) {
    if (ParseSavesetEntry(&rec, line.c_str(), "fd") != 0) continue;
    DropDriveColon(&rec.wsBaseName);
    TraceAdding(rec);
    LIS_NODE* node = LISCacheInsertEntry(dir, rec);
    WRITE_TRACE(3, "added [%ls]", node->wsName.c_str());
    if (!collect || rec.cType != 'f' || !NeedsLocating(node)) continue;
    auto it = pendingPos.find(node);
    if (it == pendingPos.end()) {
      pendingPos.emplace(node, pending->size());
      pending->push_back(Pending{node, rec.sPath});
    } else {
      (*pending)[it->second].path = rec.sPath;
    }
  }
}

// Locates the data of the collected files in their saveset streams.
void UpdateFromSavesets(std::vector<Pending>* pending) {
  // A file whose last entry was already located needs nothing.
  std::vector<Pending> todo;
  for (Pending& p : *pending) {
    if (p.node->cType == 'f' && NeedsLocating(p.node)) todo.push_back(std::move(p));
  }
  if (todo.empty()) {
    WRITE_TRACE(2, "No entries to update from saveset");
    return;
  }
  const unsigned long total = static_cast<unsigned long>(todo.size());
  WRITE_TRACE(2, "Update entries from saveset (number of elements = %lu)", total);
  int lastPercent = -1;
  for (unsigned long k = 0; k < total; ++k) {
    const int percent = static_cast<int>((k + 1) * 100 / total);
    if (percent != lastPercent) {
      WRITE_TRACE(2, "Progress = %d%% (%lu/%lu)", percent, k + 1, total);
      lastPercent = percent;
    }
    if (VfsUpdateEntryFromSaveset(todo[k].node, todo[k].path.c_str()) != 0) {
      WRITE_TRACE(1, "Unable to locate %s in saveset", todo[k].path.c_str());
    }
  }
  WRITE_TRACE(2, "Update entries from saveset - done");
}

// Fills a directory from the consolidated catalog (dir may be null when the
// tree does not hold the path yet: it is built only when the catalog has
// entries for it).  Runs under the critical section.
int32_t FillDirectory(LIS_NODE* dir, const SearchForms& forms, std::vector<LIS_NODE*>* result) {
  const char* catalog = CatalogGetPath();
  char why[512];
  if (korvo::INIT_LIS_LIB(catalog, why, sizeof why) != 0) {
    WRITE_TRACE(1, "INIT_LIS_LIB failed for [%s]: %s", catalog, why);
    return geERROR;
  }
  int error = 0;
  FILE* tmp = pf::TempFile(&error);
  if (tmp == nullptr) {
    WRITE_TRACE(1, "Failed creating tmpfile GetLastErrror=%d", error);
    tvu_fatal_report("ERROR", "Failed creating tmpfile GetLastErrror=%d", error);
    return geERROR;
  }
  long files = 0, dirs = 0;
  if (ExtractLines(catalog, forms, tmp, &files, &dirs) != 0) {
    WRITE_TRACE(1, "Cannot extract [%s] from catalog [%s]", forms.sCatalogDir.c_str(), catalog);
    std::fclose(tmp);
    return geERROR;
  }
  if (files == 0 && dirs == 0) {
    if (dir != nullptr) {
      dir->bChildrenPopulated = true;
      WRITE_TRACE(2, "Set children populated true (folder empty) to %ls", dir->wsName.c_str());
    }
    std::fclose(tmp);
    CopyChildren(dir, result);
    return geOK;
  }
  std::rewind(tmp);
  if (dir == nullptr) {
    WRITE_TRACE(2, "Build tree [%ls]", forms.wsFindPath.c_str());
    dir = LISCacheBuildTree(LISCacheRoot(), forms.wsFindPath.c_str(), true, nullptr);
  }
  WRITE_TRACE(2, "Working on node [%ls] ", dir->wsName.c_str());
  const bool collect = HasStreamUpdate(CatalogGetSavesetType());
  std::vector<Pending> pending;
  InsertEntries(tmp, dir, collect, &pending);
  std::fclose(tmp);
  dir->bChildrenPopulated = true;
  UpdateFromSavesets(&pending);
  CopyChildren(dir, result);
  return geOK;
}

}  // namespace

// folderSearch and exactItem are traced only: every call lists the directory
// the search path names.
int32_t GetSavesetEntries(const char* searchPath, bool folderSearch, bool exactItem,
                          std::vector<LIS_NODE*>* result) {
  const char* path = searchPath ? searchPath : "\\";
  WRITE_TRACE(1, "+++ GetSavesetEntries cpSearchPath = [%s] bFolderSearch=%d bExactItem=%d", path,
              folderSearch ? 1 : 0, exactItem ? 1 : 0);
  if (result != nullptr) result->clear();
  if (VfsTerminating()) {
    WRITE_TRACE(1, "--- GetSavesetEntries geTerminateInProgress");
    return geTerminateInProgress;
  }
  const int32_t dataType = CatalogGetSavesetType();
  if (dataType < sdtUNKNOWN || dataType > sdtNONE) {
    WRITE_TRACE(1, "--- GetSavesetEntries - invalid saveset type - geERROR");
    return geERROR;
  }
  if (dataType == sdtUNKNOWN) WRITE_TRACE(2, " unknown saveset type - continue");

  LIS_NODE* root = LISCacheRoot();
  if (root == nullptr) {
    WRITE_TRACE(1, "--- GetSavesetEntries no tree cache - geERROR");
    return geERROR;
  }
  const SearchForms forms = MakeSearchForms(path);

  LISCacheGuard cs;  // the whole fill, so that no reader sees a half-filled directory
  LIS_NODE* dir = LISCacheFind(root, forms.wsFindPath.c_str(), true);
  if (dir != nullptr && dir->bChildrenPopulated) {
    WRITE_TRACE(2, "Found [%ls] children populated [%d]", dir->wsName.c_str(), 1);
    CopyChildren(dir, result);
    WRITE_TRACE(1, "--- GetSavesetEntries geOK");
    return geOK;
  }
  WRITE_TRACE(2, "Cache miss");
  if (CatalogGetPath() == nullptr || *CatalogGetPath() == '\0') {
    // No catalog, only virtual disks: their nodes are all the directory has.
    if (dir != nullptr) dir->bChildrenPopulated = true;
    CopyChildren(dir, result);
    WRITE_TRACE(1, "--- GetSavesetEntries geOK (VMDK only)");
    return geOK;
  }
  const int32_t rc = FillDirectory(dir, forms, result);
  WRITE_TRACE(1, "--- GetSavesetEntries %d", rc);
  return rc;
}

// ---- complete build ----------------------------------------------------------

namespace {

// File nodes of the complete build; fileId is the position plus 1.  Changed
// under the critical section.
std::vector<LIS_NODE*> s_fileTable;

// True when path is prefix or lies below it, compared as the tree cache
// compares names.
bool IsAtOrBelow(const std::wstring& path, const std::wstring& prefix) {
  if (path.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (path[i] != prefix[i] && LISCacheFold(path[i]) != LISCacheFold(prefix[i])) return false;
  }
  return path.size() == prefix.size() || path[prefix.size()] == L'/';
}

// The directory a file of the complete build goes into: found, or built with
// its missing parents.  Every directory the build reaches is complete once the
// build ends, so it is marked populated.
LIS_NODE* BuildParent(LIS_NODE* root, const std::wstring& parentPath) {
  LIS_NODE* parent = LISCacheFind(root, parentPath.c_str(), true);
  if (parent == nullptr) {
    bool markCreated = true;
    parent = LISCacheBuildTree(root, parentPath.c_str(), true, &markCreated);
    if (parent != root) parent->cType = 'd';
  } else if (parent != root && parent->cType == 'X') {
    parent->cType = 'd';
  }
  parent->bChildrenPopulated = true;
  return parent;
}

// One file line of the complete build.  A file already in the tree (listed by
// an earlier enumeration, or named twice) is updated in place, as an
// enumeration would: the tree never holds two nodes of one name.
void AddFile(LIS_NODE* root, const LIS_ENTRY& rec, const std::wstring& treePath, std::wstring* parentPath,
             int32_t dataType) {
  parentPath->assign(treePath, 0, treePath.rfind(L'/'));
  LIS_NODE* parent = BuildParent(root, *parentPath);
  LIS_NODE* node = LISCacheFindChild(parent, rec.wsBaseName.data(), rec.wsBaseName.size(), true);
  if (node == nullptr) {
    node = LISCacheNewNode(rec.wsBaseName, 'f');
    LISCacheFillFromEntry(node, rec);
    LISCacheAppendChild(parent, node);
  } else {
    LISCacheFillFromEntry(node, rec);
  }
  node->cType = 'f';
  node->bChildrenPopulated = true;
  if (node->fileId == 0) {
    s_fileTable.push_back(node);
    node->fileId = s_fileTable.size();
  }
  if (NeedsLocating(node) && HasStreamUpdate(dataType) &&
      VfsUpdateEntryFromSaveset(node, rec.sPath.c_str()) != 0) {
    WRITE_TRACE(1, "Unable to locate %s in saveset", rec.sPath.c_str());
  }
}

}  // namespace

uint64_t BuildCompleteTree(const char* searchPath) {
  const char* catalog = CatalogGetPath();
  LIS_NODE* root = LISCacheRoot();
  FILE* fp = (catalog != nullptr && *catalog != '\0') ? pf::FOpen(catalog, "r") : nullptr;
  if (fp == nullptr || root == nullptr) {
    WRITE_TRACE(1, "BuildCompleteTree: cannot read catalog [%s]%s", catalog ? catalog : "",
                root ? "" : " (no tree cache)");
    if (fp != nullptr) std::fclose(fp);
    return 0;
  }
  WRITE_TRACE(2, "+++ BuildCompleteTree");
  uint64_t count = 0;
  {
    LISCacheGuard cs;
    // Below a directory, the path down to it is built (once the catalog is
    // seen to hold something there) without marking its nodes populated:
    // their other entries are not read.
    const SearchForms forms = MakeSearchForms(searchPath ? searchPath : "\\");
    const bool everything = forms.wsFindPath == L"/R";
    bool topBuilt = everything;
    const int32_t dataType = CatalogGetSavesetType();
    bool markCreated = true;

    LIS_ENTRY rec{};
    std::string line, narrowTree;
    std::wstring treePath, parentPath;
    while (korvo::read_line(fp, &line)) {
      if (!korvo::iIS_FILESYSTEM_FILE_OR_DIRECTORY(line.c_str())) continue;
      if (ParseSavesetEntry(&rec, line.c_str(), "fd") != 0) continue;
      narrowTree.assign("/R");
      AppendTreeParts(rec.sPath, "/:", &narrowTree);
      TreeWide(narrowTree, &treePath);
      if (!everything && !IsAtOrBelow(treePath, forms.wsFindPath)) continue;
      if (!topBuilt) {
        LISCacheBuildTree(root, forms.wsFindPath.c_str(), true, nullptr);
        topBuilt = true;
      }
      ++count;
      WRITE_TRACE(2, "+++ BuildCompleteTree: process [%ls]", treePath.c_str());
      if (rec.cType == 'd') {
        LIS_NODE* dir = LISCacheBuildTree(root, treePath.c_str(), true, &markCreated);
        if (dir != root) {
          LISCacheFillFromEntry(dir, rec);
          dir->cType = 'd';
        }
        dir->bChildrenPopulated = true;
      } else if (treePath.size() > 2) {  // "/R" alone names no file
        AddFile(root, rec, treePath, &parentPath, dataType);
      }
    }
  }
  std::fclose(fp);
  if (korvo::trace_level() >= 3) LISCacheDump(root);
  WRITE_TRACE(2, "--- BuildCompleteTree iRet = %d", static_cast<int>(count));
  return count;
}

const std::vector<LIS_NODE*>& VfsFileTable() { return s_fileTable; }

uint64_t VfsFileTableAppend(LIS_NODE* node) {
  LISCacheGuard cs;
  if (node->fileId == 0) {
    s_fileTable.push_back(node);
    node->fileId = s_fileTable.size();
  }
  return node->fileId;
}

void VfsEnumReset() {
  LISCacheGuard cs;
  std::vector<LIS_NODE*>().swap(s_fileTable);
}

// ---- entry update from the saveset stream ------------------------------------

namespace {

int UpdateEntryByDataType(LIS_NODE* node, const char* path);

}  // namespace

// An item whose record the walk does not meet is marked, so that reading it
// fails rather than giving an empty file.
int VfsUpdateEntryFromSaveset(LIS_NODE* node, const char* narrowPath) {
  const int rc = UpdateEntryByDataType(node, narrowPath ? narrowPath : "");
  node->bNotLocated = rc != 0 && HasStreamUpdate(CatalogGetSavesetType());
  return rc;
}

namespace {

int UpdateEntryByDataType(LIS_NODE* node, const char* path) {
  const int32_t dataType = CatalogGetSavesetType();
  switch (dataType) {
    case sdtCPIO: {
      CPIO_ENTRY_UPDATE u;
      u.iSavesetIdx = node->sLoc.ssetIdx;
      u.ullSavesetOffset = node->sLoc.ssetOff;
      u.sName = path;
      TreeWide(u.sName, &u.wsName);
      u.llRelOffset = node->sLoc.relOff;
      u.ullSize = node->ullSize;
      VfsTimerStart(vtCPIO);
      const int rc = UpdateFSEntryFromCPIOSaveset(&u);
      VfsTimerStop(vtCPIO);
      if (rc != 0 || !u.bLocated) return 1;
      node->sLoc.relOff = u.llRelOffset;
      node->ullSize = u.ullSize;
      return 0;
    }
    case sdtMTF: {
      // The walk starts at the item's FILE block and checks that the block
      // names the item (the node's name is the catalog's base name).
      MTF_ENTRY_UPDATE u;
      u.iSavesetIdx = node->sLoc.ssetIdx;
      u.ullSavesetOffset = node->sLoc.ssetOff;
      u.wsName = node->wsName;
      if (UpdateFSEntryFromMTFSaveset(&u, nullptr) != 0 || !u.bLocated) return 1;
      node->sLoc.relOff = u.llRelOffset;
      node->ullSize = u.ullSize;
      return 0;
    }
    case sdtDUMP: {
      // The walk finds the item by its inode number, the line's fourth number.
      DUMP_ENTRY_UPDATE u;
      u.iSavesetIdx = node->sLoc.ssetIdx;
      u.ullSavesetOffset = node->sLoc.ssetOff;
      u.llInode = node->llFourth;
      u.wsName = node->wsName;
      const int rc = UpdateFSEntryFromDUMPSaveset(&u);
      node->sLoc.relOff = u.llRelOffset;
      if (rc == 0) node->ullSize = u.ullSize;
      return rc;
    }
    default:
      WRITE_TRACE(2, "No entry update for saveset data type %d [%s]", dataType, path);
      return 1;
  }
}

}  // namespace
