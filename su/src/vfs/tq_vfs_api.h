// tq_vfs_api.h - the tree mode of the library: the chain of savesets as one
// browsable file tree.
//
// Open() brings the virtual file system up over a chain from the same files a
// consolidation reads (the meta files folder of the saveset to consolidate,
// found through TQ_INI: "consolidate.arg", the saveset list and the
// consolidated catalog); the tree is filled on demand, directory by
// directory, from the consolidated catalog.  One tree per process (the module
// keeps its state in process-wide tables).
//
// Paths are tree paths: "/" is the top; a catalog item "a/b.txt" is
// "/a/b.txt", "C:/x/y" is "/C/x/y".  Names compare without regard to case.
// Errors are errno values (ENOENT, ENOTDIR, EISDIR, EIO, ...).
//
// Thread safety: after Open, List, Lookup, Stat and Read may be called from
// several threads; Open and Close from one.
#ifndef TVU_VFS_API_H
#define TVU_VFS_API_H

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

struct LIS_NODE;

namespace tvu {

struct TreeOptions {
  std::string saveset;    // the saveset to consolidate (names the meta files folder)
  bool buildCache = false;  // build the whole tree while opening
  std::string rulesFile;  // mapper rules file (empty: none)
  bool rct = false;       // Hyper-V RCT disks instead of the VMDK disks and the rules
};

struct NodeInfo {
  std::string name;       // UTF-8
  std::string path;       // tree path, UTF-8
  char type = 0;          // 'd', 'f', 'X' (directory made to hold a path), ...
  bool isDir = false;
  bool unreadable = false; // its stream was walked and the item's record not met
  uint64_t size = 0;
  time_t ctime = 0;
  time_t mtime = 0;
  int64_t source = 0;     // NODE_SOURCE
  int32_t savesetIdx = -1;
  std::string saveset;    // the saveset holding the newest copy (its name in the list)
  uint64_t savesetOffset = 0;
  int64_t relOffset = 0;
  uint64_t fileId = 0;
};

// 0, or an errno value with a message in *error.
int Open(const TreeOptions& options, std::string* error);
void Close();
bool IsOpen();

// The node of a tree path (directories on the way are filled on demand).
int Lookup(const std::string& path, LIS_NODE** node);
// Facts about a node.  For a file not yet located in its stream the size is
// settled first (the stream is read).
NodeInfo Describe(LIS_NODE* node, const std::string& path);
int Stat(const std::string& path, NodeInfo* info);
// The entries of a directory, in the tree's order.
int List(const std::string& path, std::vector<NodeInfo>* entries);
// Reads up to n bytes of a file at offset; returns the count (0 at the end)
// or -errno.
int64_t Read(LIS_NODE* node, uint64_t offset, char* buffer, uint64_t n);
// When the bytes of a read lie as one range of a saveset file: the file's OS
// handle, the position and the count (after the end rules).  0 then; non-zero
// when they do not, and Read is the way.  The handle stays open while the
// tree is open; read it positionally only.
int MapToFile(LIS_NODE* node, uint64_t offset, uint64_t n, intptr_t* handle, uint64_t* position, uint64_t* count);
// Enumerates the whole tree; returns the number of catalog lines processed.
uint64_t BuildAll();

}  // namespace tvu

#endif
