// tq_vfs_init.h - bringing the virtual file system up over the savesets of the
// chain, and down again.
//
// Single-threaded: InitVFS and TerminateVFS run on the client's thread, before
// and after the operation's reads.
#ifndef TVU_VFS_INIT_H
#define TVU_VFS_INIT_H

#include <cstdint>
#include <string>

struct CON_ARGS;

// Enumeration results of the directory listing.
enum GET_ENTRIES_RESULT : int32_t { geOK = 0, geERROR = 1, geTerminateInProgress = 2 };

// Opens every saveset of the table (and checks them as the data type asks),
// then either hands over to the virtual disk sources (line-by-line mode) or
// builds the tree.  Returns 0 on success, non-zero on failure.
int InitVFS(const CON_ARGS* args);
// Closes every saveset, the dedup library mutex and the tree cache.
void TerminateVFS();

// Sibling catalog paths: the catalog path with its last four characters
// replaced by ".lsl" / ".lst" (appended when the path has three characters or
// fewer), kept whole.
std::string SiblingCatalogPath(const char* catalogPath, const char* extension);

// Why the last InitVFS failed, for the failures that end the operation (a
// saveset of a dump chain that is no dump volume, or a compressed one); empty
// otherwise.
const std::string& InitVFSFailure();

// True once TerminateVFS has begun.
bool VfsTerminating();

#endif
