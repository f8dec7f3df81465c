// tq_vfs_cache.h - the tree cache: every item of the virtual file system as a
// node in a tree of directories, with where its newest data lies.
//
// Thread-safety contract: the tree is filled under the cache's critical
// section (LISCacheLock/LISCacheUnlock), which enumeration holds for the
// whole fill of a directory and lookups that may trigger enumeration take as
// well.  Nodes are never freed before LISCacheTerminate, so a node pointer
// stays valid while the operation lives.
//
// Children keep their insertion order (the order a listing shows); beside the
// list, a directory with many children keeps an index by case-folded name so
// that lookups and updates are not quadratic.  Name comparison without regard
// to case: the first child in list order whose name matches wins.
#ifndef TVU_VFS_CACHE_H
#define TVU_VFS_CACHE_H

#include <cstdint>
#include <cwchar>
#include <string>
#include <vector>

struct LIS_ENTRY;

// Where a node's bytes come from (selects the read path).
enum NODE_SOURCE : int64_t {
  nsSAVESET = 0,          // catalog item in a saveset stream
  nsVMDK = 1,             // VMDK sliced file (ihLocalVFS)
  nsMAPPER = 2,           // mapper local file or link to another node
  nsPURE_VIRTUAL = 3,     // in-memory file
  nsSAVESET_MAPPED = 4,   // saveset-mapped file, stream already located
  nsMERGE = 5,            // MERGE sliced file
};

// Saveset location of kinds 0 and 4.
struct SAVESET_LOCATION {
  int32_t ssetIdx;   // saveset index
  uint64_t ssetOff;  // where the item's archive stream starts in the saveset
  int64_t relOff;    // where the item's data starts in that stream (< 1: not located)
};

// Payload of a mapper node (kind 2): a local file, or another tree node.
struct MAPPER_PAYLOAD {
  std::string sLocalPath;
  struct LIS_NODE* pNode;  // may be null
};

// A local time as written in a catalog, kept compact (8 bytes).
struct PACKED_TIME {
  uint16_t year;  // e.g. 2026; 0 when unknown
  uint8_t mon;    // 1-12
  uint8_t mday;   // 1-31
  uint8_t hour, min, sec;
  uint8_t emulated;  // 1: taken from the clock or the saveset name
};

struct ChildIndex;  // private: case-folded name -> child

struct LIS_NODE {
  int64_t llSource;          // NODE_SOURCE
  std::wstring wsName;       // one path component
  char cType;                // 'X' root and path-only directories, else the catalog's letter
  bool bChildrenPopulated;   // children read from the catalog
  bool bFullBackup;          // newest copy is in a full backup
  bool bNotLocated;          // its stream was walked and the item's record not met
  uint64_t ullSize;
  PACKED_TIME sCtime;
  PACKED_TIME sMtime;
  int64_t llFourth;          // fourth number of a version-2 line
  uint64_t fileId;           // 1-based creation number of file nodes of the complete build; 0 otherwise
  SAVESET_LOCATION sLoc;     // kinds 0 and 4
  int32_t iHandle;           // kinds 1 (ihLocalVFS), 3 and 5: handle into the virtual file tables
  MAPPER_PAYLOAD* pMapper;   // kind 2 (owned)
  LIS_NODE* pParent;         // null for the root
  std::vector<LIS_NODE*> vChildren;
  ChildIndex* pIndex;        // built once a directory has many children
};

// ---- life cycle ------------------------------------------------------------
// Creates the root ("R", type 'X') and the critical section; 0 or 1.
int LISCacheInit();
// The root, or null before LISCacheInit.
LIS_NODE* LISCacheRoot();
// Destroys the whole tree and the critical section; returns the number of
// nodes destroyed (0 when there was no tree).
uint64_t LISCacheTerminate();
void LISCacheLock();
void LISCacheUnlock();
// Holds the cache's critical section for a scope.
class LISCacheGuard {
 public:
  LISCacheGuard() { LISCacheLock(); }
  ~LISCacheGuard() { LISCacheUnlock(); }
  LISCacheGuard(const LISCacheGuard&) = delete;
  LISCacheGuard& operator=(const LISCacheGuard&) = delete;
};

// ---- nodes -----------------------------------------------------------------
// A new node (zero-filled fields, children empty).
LIS_NODE* LISCacheNewNode(const std::wstring& name, char type);
// Appends child to dir's children (and its index).
void LISCacheAppendChild(LIS_NODE* dir, LIS_NODE* child);
// The first child whose name equals name (under the flag), or null.
LIS_NODE* LISCacheFindChild(LIS_NODE* dir, const wchar_t* name, size_t nameLen, bool ignoreCase);
// Fills a node's fields from a catalog line record (name, children and
// populated flag untouched).
void LISCacheFillFromEntry(LIS_NODE* node, const LIS_ENTRY& entry);
// Inserts an enumerated entry under a directory: updates the first child of
// the same name (ignoring case) with all the entry's fields except name,
// children and populated flag ("Updating [%ls] with [%ls]"), or appends a new
// node ("Inserted  [%ls]").  Marks the directory populated.  Returns the node.
LIS_NODE* LISCacheInsertEntry(LIS_NODE* dir, const LIS_ENTRY& entry);

// ---- paths -----------------------------------------------------------------
// Find with the one-entry lookup cache (the start node is not part of the key).
LIS_NODE* LISCacheFind(LIS_NODE* start, const wchar_t* path, bool ignoreCase);
LIS_NODE* LISCacheFindEntryRecursive(LIS_NODE* node, const wchar_t* path, bool ignoreCase);
// Walks path from start, creating 'X' directories where components are
// missing; returns the node of the last component.  As for LISCacheFind the
// path's first component names start itself ("/R/a/b" from the root).
// reserved: null, or a bool* that, pointing to true, marks the directories
// the walk creates as children-populated (the complete build fills them).
LIS_NODE* LISCacheBuildTree(LIS_NODE* start, const wchar_t* path, bool ignoreCase, void* reserved);
// -1, 0, 1; traced at level 3.
int LISCacheCompareNames(bool ignoreCase, const wchar_t* a, const wchar_t* b);
// The case fold of one character that every comparison without regard to
// case uses (names, the index, the lookup cache).
wint_t LISCacheFold(wchar_t c);

// ---- reports ---------------------------------------------------------------
// Traces the subtree at level 3; returns its node count.
uint64_t LISCacheDump(LIS_NODE* node);
// Destroys node and its subtree; returns the number of nodes destroyed.
uint64_t LISCacheDestroy(LIS_NODE* node);

#endif
