// tq_vfs_cache.cpp - the tree cache: nodes, the per-directory name index, path
// lookup with its one-entry lookup cache, tree building, dump and destroy.
//
// Case folding.  Names are compared without regard to case one wide character
// at a time through Fold(c): ASCII letters map to lower case directly, every
// other character to towlower(towupper(c)) in the process's LC_CTYPE locale.
// Going through upper case first also merges characters whose upper case is
// shared ("s" and the long s); ASCII is folded by itself both for speed and so
// that plain names match the same way in every locale.  The comparison, the
// hash of the index and the lookup cache all use this one fold, so the index
// can never disagree with a linear walk over the children.  The locale must
// not change while a tree is alive (the host sets it before the operation
// starts).
//
// Locks.  The critical section is a recursive mutex: enumeration holds it for a
// whole directory fill and calls the lookups below, which take it again.  The
// lookup cache has its own small mutex so that a hit never waits for a fill.
#include "vfs/tq_vfs_cache.h"

#include <algorithm>
#include <cwchar>
#include <cwctype>
#include <mutex>
#include <new>

#include "runtime/trace.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_common.h"

// Index of a directory with many children: an open-addressing hash table of
// child pointers keyed by the case-folded name, holding the first child (in
// list order) of every folded name.  It stores bare pointers (8 bytes a slot,
// at most 3/4 full) rather than name copies, which keeps a directory of a
// million files at a few megabytes; a probe compares against the child's own
// name.
struct ChildIndex {
  std::vector<LIS_NODE*> aSlot;  // size a power of two; null marks a free slot
  size_t nUsed = 0;
};

namespace {

// Directories with more children than this get an index; below it a walk of
// the list is as fast and costs no memory.
constexpr size_t kIndexThreshold = 16;

inline wint_t Fold(wchar_t c) {
  const wint_t u = static_cast<wint_t>(c);
  if (u < 0x80) return (u >= L'A' && u <= L'Z') ? u + (L'a' - L'A') : u;
  return towlower(towupper(u));
}

// -1, 0, 1 over two counted names, by code unit or by folded code unit.
int CompareSpan(bool ignoreCase, const wchar_t* a, size_t na, const wchar_t* b, size_t nb) {
  const size_t n = std::min(na, nb);
  for (size_t i = 0; i < n; ++i) {
    if (a[i] == b[i]) continue;
    const wint_t ca = ignoreCase ? Fold(a[i]) : static_cast<wint_t>(a[i]);
    const wint_t cb = ignoreCase ? Fold(b[i]) : static_cast<wint_t>(b[i]);
    if (ca != cb) return ca < cb ? -1 : 1;
  }
  if (na == nb) return 0;
  return na < nb ? -1 : 1;
}

// The comparison of a path component with a node's name, traced at level 3.
int CompareTraced(bool ignoreCase, const wchar_t* name, size_t len, const std::wstring& nodeName) {
  const int r = CompareSpan(ignoreCase, name, len, nodeName.data(), nodeName.size());
  WRITE_TRACE(3, "Comparing ignore case %d [%.*ls] to [%ls] identical = %d", ignoreCase ? 1 : 0,
              static_cast<int>(len), name, nodeName.c_str(), r == 0 ? 1 : 0);
  return r;
}

// FNV-1a over the folded code units, finished with a multiply-shift mix so
// that the low bits used for the slot are well spread.
uint64_t FoldHash(const wchar_t* s, size_t n) {
  uint64_t h = 1469598103934665603ull;
  for (size_t i = 0; i < n; ++i) {
    h ^= static_cast<uint64_t>(Fold(s[i]));
    h *= 1099511628211ull;
  }
  return (h ^ (h >> 29)) * 0xbf58476d1ce4e5b9ull;
}

// The first child whose folded name equals the given one, or null.
LIS_NODE* IndexFind(const ChildIndex& idx, const wchar_t* name, size_t len) {
  const size_t mask = idx.aSlot.size() - 1;
  for (size_t i = FoldHash(name, len) & mask;; i = (i + 1) & mask) {
    LIS_NODE* n = idx.aSlot[i];
    if (n == nullptr) return nullptr;
    if (CompareTraced(true, name, len, n->wsName) == 0) return n;
  }
}

void IndexResize(ChildIndex* idx, size_t slots) {
  std::vector<LIS_NODE*> old;
  old.swap(idx->aSlot);
  idx->aSlot.assign(slots, nullptr);
  const size_t mask = slots - 1;
  for (LIS_NODE* n : old) {
    if (n == nullptr) continue;  // the names are distinct: only a free slot is looked for
    size_t i = FoldHash(n->wsName.data(), n->wsName.size()) & mask;
    while (idx->aSlot[i] != nullptr) i = (i + 1) & mask;
    idx->aSlot[i] = n;
  }
}

// Adds a child unless a child of the same folded name is there already (the
// earlier one in list order stays the answer).
void IndexAdd(ChildIndex* idx, LIS_NODE* node) {
  if ((idx->nUsed + 1) * 4 > idx->aSlot.size() * 3) IndexResize(idx, idx->aSlot.size() * 2);
  const std::wstring& name = node->wsName;
  const size_t mask = idx->aSlot.size() - 1;
  for (size_t i = FoldHash(name.data(), name.size()) & mask;; i = (i + 1) & mask) {
    LIS_NODE* n = idx->aSlot[i];
    if (n == nullptr) {
      idx->aSlot[i] = node;
      ++idx->nUsed;
      return;
    }
    if (CompareTraced(true, name.data(), name.size(), n->wsName) == 0) return;
  }
}

void IndexBuild(LIS_NODE* dir) {
  auto* idx = new ChildIndex;
  size_t slots = 64;
  while (slots < dir->vChildren.size() * 2) slots *= 2;
  idx->aSlot.assign(slots, nullptr);
  for (LIS_NODE* child : dir->vChildren) IndexAdd(idx, child);
  dir->pIndex = idx;
}

// The cache state: the root and the critical section.  Both are set up and
// torn down on the client's thread, before and after every other call.
LIS_NODE* s_pRoot = nullptr;
std::recursive_mutex* s_pCs = nullptr;

// The one-entry lookup cache: the last (start, flag, path) found and its node.
// The start node and the flag are part of the key, so that a lookup from
// another node or under the other flag never returns this answer.
struct LookupCache {
  std::mutex mutex;
  bool bValid = false;
  const LIS_NODE* pStart = nullptr;
  bool bIgnoreCase = false;
  std::wstring wsPath;
  LIS_NODE* pNode = nullptr;
};
LookupCache s_lookup;

void ForgetLookup() {
  std::lock_guard<std::mutex> g(s_lookup.mutex);
  s_lookup.bValid = false;
  s_lookup.pNode = nullptr;
  s_lookup.pStart = nullptr;
  s_lookup.wsPath.clear();
  s_lookup.wsPath.shrink_to_fit();
}

// A catalog time in 8 bytes; a cleared record (no day) is "unknown".
PACKED_TIME Pack(const struct tm& tm, bool emulated) {
  PACKED_TIME t{};
  if (tm.tm_mday != 0) {
    t.year = static_cast<uint16_t>(std::clamp(tm.tm_year + 1900, 0, 65535));
    t.mon = static_cast<uint8_t>(tm.tm_mon + 1);
    t.mday = static_cast<uint8_t>(tm.tm_mday);
    t.hour = static_cast<uint8_t>(tm.tm_hour);
    t.min = static_cast<uint8_t>(tm.tm_min);
    t.sec = static_cast<uint8_t>(tm.tm_sec);
  }
  t.emulated = emulated ? 1 : 0;
  return t;
}

LIS_NODE* FindChildLocked(LIS_NODE* dir, const wchar_t* name, size_t len, bool ignoreCase) {
  if (dir->pIndex != nullptr) {
    LIS_NODE* first = IndexFind(*dir->pIndex, name, len);
    // The index answers for the folded name.  A case-sensitive lookup takes
    // that child when it matches exactly; otherwise an exact match can only be
    // a later child of the same folded name, which the walk below finds.
    if (ignoreCase || first == nullptr) return first;
    if (CompareTraced(false, name, len, first->wsName) == 0) return first;
  }
  for (LIS_NODE* child : dir->vChildren) {
    if (CompareTraced(ignoreCase, name, len, child->wsName) == 0) return child;
  }
  return nullptr;
}

uint64_t DumpLocked(LIS_NODE* node) {
  WRITE_TRACE(3, "--> [%ls] children populated [%d]", node->wsName.c_str(), node->bChildrenPopulated ? 1 : 0);
  for (const LIS_NODE* c : node->vChildren) {
    const auto id = static_cast<unsigned long long>(c->fileId);
    const auto size = static_cast<unsigned long long>(c->ullSize);
    const int pop = c->bChildrenPopulated ? 1 : 0;
    switch (c->llSource) {
      case nsSAVESET:
        WRITE_TRACE(3,
                    "*[%ls] fileId=[%llu] type=[%c] childrenPopulated=[%d] size=[%llu] ssetIdx=[%d] ssetOff=[%llu] "
                    "relOff=[%lld]",
                    c->wsName.c_str(), id, c->cType, pop, size, c->sLoc.ssetIdx,
                    static_cast<unsigned long long>(c->sLoc.ssetOff), static_cast<long long>(c->sLoc.relOff));
        break;
      case nsVMDK:
        WRITE_TRACE(3, "*[%ls] fileId=[%llu] type=[%c] childrenPopulated=[%d] size=[%llu] ihLocalVFS=[%d]",
                    c->wsName.c_str(), id, c->cType, pop, size, c->iHandle);
        break;
      case nsMAPPER:
        WRITE_TRACE(3, "*[%ls] fileId=[%llu] type=[%c] childrenPopulated=[%d] size=[%llu]", c->wsName.c_str(), id,
                    c->cType, pop, size);
        break;
      case nsPURE_VIRTUAL:
        WRITE_TRACE(3, "*[%ls] fileId=[%llu] type=[%c] childrenPopulated=[%d] size=[%llu] ", c->wsName.c_str(), id,
                    c->cType, pop, size);
        break;
      case nsSAVESET_MAPPED:  // saveset-mapped and MERGE files print no line
      case nsMERGE:
        break;
      default:
        WRITE_TRACE(3, "*[%ls] unknown source kind %lld", c->wsName.c_str(), static_cast<long long>(c->llSource));
        break;
    }
  }
  uint64_t count = 1;
  for (LIS_NODE* c : node->vChildren) count += DumpLocked(c);
  WRITE_TRACE(3, "<-- [%ls] (entries=%llu)", node->wsName.c_str(), static_cast<unsigned long long>(count));
  return count;
}

uint64_t DestroyLocked(LIS_NODE* node) {
  uint64_t count = 1;
  for (LIS_NODE* c : node->vChildren) count += DestroyLocked(c);
  delete node->pMapper;  // only mapper nodes have one
  delete node->pIndex;
  delete node;
  return count;
}

}  // namespace

// ---- life cycle --------------------------------------------------------------

int LISCacheInit() {
  if (s_pCs == nullptr) {
    s_pCs = new (std::nothrow) std::recursive_mutex;
    if (s_pCs == nullptr) {
      WRITE_TRACE(1, "Cannot initialize critical section");
      return 1;
    }
  }
  if (s_pRoot == nullptr) s_pRoot = LISCacheNewNode(L"R", 'X');
  ForgetLookup();
  return 0;
}

LIS_NODE* LISCacheRoot() { return s_pRoot; }

uint64_t LISCacheTerminate() {
  uint64_t removed = 0;
  if (s_pRoot != nullptr) {
    removed = LISCacheDestroy(s_pRoot);
    s_pRoot = nullptr;
  }
  ForgetLookup();
  delete s_pCs;
  s_pCs = nullptr;
  return removed;
}

void LISCacheLock() {
  if (s_pCs != nullptr) s_pCs->lock();
}

void LISCacheUnlock() {
  if (s_pCs != nullptr) s_pCs->unlock();
}

// ---- nodes -------------------------------------------------------------------

LIS_NODE* LISCacheNewNode(const std::wstring& name, char type) {
  try {
    auto* node = new LIS_NODE();  // value-initialised: every scalar field 0
    node->wsName = name;
    node->cType = type;
    return node;
  } catch (const std::bad_alloc&) {
    tvu_out_of_memory(sizeof(LIS_NODE) + name.size() * sizeof(wchar_t), __FILE__, __LINE__);
  }
}

void LISCacheAppendChild(LIS_NODE* dir, LIS_NODE* child) {
  LISCacheGuard g;
  child->pParent = dir;
  dir->vChildren.push_back(child);
  if (dir->pIndex != nullptr) {
    IndexAdd(dir->pIndex, child);
  } else if (dir->vChildren.size() > kIndexThreshold) {
    IndexBuild(dir);
  }
}

LIS_NODE* LISCacheFindChild(LIS_NODE* dir, const wchar_t* name, size_t nameLen, bool ignoreCase) {
  if (dir == nullptr || name == nullptr) return nullptr;
  LISCacheGuard g;
  return FindChildLocked(dir, name, nameLen, ignoreCase);
}

// Every field a catalog line describes is overwritten; the name, the children,
// the populated flag, the parent, the index and the file number stay.  A
// node that was a mapper node becomes a saveset item, so its payload goes.
void LISCacheFillFromEntry(LIS_NODE* node, const LIS_ENTRY& entry) {
  delete node->pMapper;  // only mapper nodes have one
  node->pMapper = nullptr;
  node->llSource = nsSAVESET;
  node->cType = entry.cType;
  node->bFullBackup = entry.bFullBackup;
  node->bNotLocated = false;
  node->sCtime = Pack(entry.tmCtime, entry.bCtimeEmulated);
  node->sMtime = Pack(entry.tmMtime, entry.bMtimeEmulated);
  node->llFourth = entry.llFourth;
  node->sLoc.ssetIdx = entry.iSavesetIdx;
  node->sLoc.ssetOff = entry.ullOffset;
  node->sLoc.relOff = entry.llRelOffset;
  node->iHandle = 0;
  // A located file's data size is the fourth number (the third is the span of
  // its whole record).  A file not yet located starts from the same number
  // and gets its size from its stream; a directory has none.  In a dump
  // saveset the fourth number is the inode number and every file is located
  // by its walk (the catalog's relative offset is not used): it starts with
  // no size and a negative relative offset.
  if (entry.cType == 'd') {
    node->ullSize = 0;
  } else if (entry.cType == 'f' && CatalogGetSavesetType() == sdtDUMP) {
    node->ullSize = 0;
    node->sLoc.relOff = -1;
  } else if (entry.cType == 'f') {
    node->ullSize = entry.llFourth > 0 ? static_cast<uint64_t>(entry.llFourth) : 0;
  } else {
    node->ullSize = entry.ullSize;
  }
}

LIS_NODE* LISCacheInsertEntry(LIS_NODE* dir, const LIS_ENTRY& entry) {
  LISCacheGuard g;
  if (!dir->bChildrenPopulated) dir->bChildrenPopulated = true;
  const std::wstring& name = entry.wsBaseName;
  LIS_NODE* child = FindChildLocked(dir, name.data(), name.size(), true);
  if (child != nullptr) {
    WRITE_TRACE(3, "Updating [%ls] with [%ls]", child->wsName.c_str(), name.c_str());
    LISCacheFillFromEntry(child, entry);
    return child;
  }
  child = LISCacheNewNode(name, entry.cType);
  LISCacheFillFromEntry(child, entry);
  LISCacheAppendChild(dir, child);
  WRITE_TRACE(3, "Inserted  [%ls]", name.c_str());
  return child;
}

// ---- paths -------------------------------------------------------------------

LIS_NODE* LISCacheFind(LIS_NODE* start, const wchar_t* path, bool ignoreCase) {
  if (start == nullptr || path == nullptr) return nullptr;
  const size_t len = wcslen(path);
  {
    std::lock_guard<std::mutex> g(s_lookup.mutex);
    if (s_lookup.bValid && s_lookup.pStart == start && s_lookup.bIgnoreCase == ignoreCase &&
        CompareSpan(ignoreCase, path, len, s_lookup.wsPath.data(), s_lookup.wsPath.size()) == 0) {
      return s_lookup.pNode;
    }
  }
  LIS_NODE* node;
  {
    LISCacheGuard g;
    node = LISCacheFindEntryRecursive(start, path, ignoreCase);
  }
  if (node != nullptr) {
    std::lock_guard<std::mutex> g(s_lookup.mutex);
    s_lookup.bValid = true;
    s_lookup.pStart = start;
    s_lookup.bIgnoreCase = ignoreCase;
    s_lookup.wsPath.assign(path, len);
    s_lookup.pNode = node;
  }
  return node;
}

// The path's first component names node itself and is compared only when it
// is the last one; each further component is looked up among the children of
// the node reached so far.  "/" and a path ending in "/" give the node
// reached.  Only the caller's whole path goes into the lookup cache (LISCacheFind):
// caching each level's remainder would key answers to the wrong start node.
LIS_NODE* LISCacheFindEntryRecursive(LIS_NODE* node, const wchar_t* path, bool ignoreCase) {
  if (node == nullptr || path == nullptr) return nullptr;
  LISCacheGuard g;
  for (;;) {
    WRITE_TRACE(3, "LISCacheFindEntryRecursive [%ls]", path);
    if (path[0] != L'/') return nullptr;
    if (path[1] == L'\0') return node;
    const wchar_t* first = path + 1;
    const wchar_t* slash = wcschr(first, L'/');
    if (slash == nullptr) {
      return CompareTraced(ignoreCase, first, wcslen(first), node->wsName) == 0 ? node : nullptr;
    }
    if (slash[1] == L'\0') return node;
    const wchar_t* next = slash + 1;
    const wchar_t* nextEnd = wcschr(next, L'/');
    const size_t nextLen = nextEnd ? static_cast<size_t>(nextEnd - next) : wcslen(next);
    LIS_NODE* child = FindChildLocked(node, next, nextLen, ignoreCase);
    if (child == nullptr) return nullptr;
    node = child;
    path = slash;
  }
}

// As in Find, the path's first component names start itself.  reserved: null,
// or a bool* that, pointing to true, marks the directories the walk creates as
// populated (a complete build adds all their entries itself).
LIS_NODE* LISCacheBuildTree(LIS_NODE* start, const wchar_t* path, bool ignoreCase, void* reserved) {
  if (start == nullptr || path == nullptr) return nullptr;
  WRITE_TRACE(2, "--> LISCacheBuildTree [%ls]", path);
  const bool markCreated = reserved != nullptr && *static_cast<const bool*>(reserved);
  LISCacheGuard g;
  LIS_NODE* node = start;
  const wchar_t* p = path;
  while (*p == L'/') ++p;
  p = wcschr(p, L'/');  // past the start node's own component
  while (p != nullptr) {
    while (*p == L'/') ++p;
    if (*p == L'\0') break;
    const wchar_t* end = wcschr(p, L'/');
    const size_t len = end ? static_cast<size_t>(end - p) : wcslen(p);
    LIS_NODE* child = FindChildLocked(node, p, len, ignoreCase);
    if (child == nullptr) {
      child = LISCacheNewNode(std::wstring(p, len), 'X');
      child->bChildrenPopulated = markCreated;
      LISCacheAppendChild(node, child);
    }
    node = child;
    p = end;
  }
  WRITE_TRACE(2, "<-- LISCacheBuildTree");
  return node;
}

int LISCacheCompareNames(bool ignoreCase, const wchar_t* a, const wchar_t* b) {
  const int r = CompareSpan(ignoreCase, a, wcslen(a), b, wcslen(b));
  WRITE_TRACE(3, "Comparing ignore case %d [%ls] to [%ls] identical = %d", ignoreCase ? 1 : 0, a, b, r == 0 ? 1 : 0);
  return r;
}

wint_t LISCacheFold(wchar_t c) { return Fold(c); }

// ---- reports -----------------------------------------------------------------

// The count is made at every trace level (a million nodes take a few
// milliseconds); the lines only at level 3.
uint64_t LISCacheDump(LIS_NODE* node) {
  if (node == nullptr) return 0;
  LISCacheGuard g;
  return DumpLocked(node);
}

// REQUIRES: node is the root, or its parent is being destroyed as well (the
// parent's children list is not updated).
uint64_t LISCacheDestroy(LIS_NODE* node) {
  if (node == nullptr) return 0;
  ForgetLookup();  // first, so that no lookup returns a node being freed
  LISCacheGuard g;
  return DestroyLocked(node);
}
