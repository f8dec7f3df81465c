// lis_search.h - catalog search of the common runtime: which catalog lines
// describe the entries of one directory.
//
// INIT_LIS_LIB indexes a catalog once (one pass; for every item line, the
// directory it belongs to and where the line lies in the file); iEXTRACT_DIR
// then copies the lines of one directory's entries without reading the whole
// catalog again.  Paths are compared as written in the catalog (ASCII letters
// without regard to case, as the tree compares names), in "tree form":
// components joined with "/", no leading "/" ("" is the top).
//
// Thread safety: calls are serialised internally.
#ifndef TVU_RUNTIME_LIS_SEARCH_H
#define TVU_RUNTIME_LIS_SEARCH_H

#include <cstdio>

namespace korvo {

// Indexes the catalog at path (again only when the file changed since).
// Returns 0, or -1 when it cannot be read (reason in error).
int INIT_LIS_LIB(const char* catalogPath, char* error = nullptr, size_t errorSize = 0);

// Writes to out, in catalog order, every item line of the catalog whose path
// lies directly below dirTreePath ("demo/sub"; "" or "/" for the top), and
// counts them by type ('d' directories, every other type files).  Returns 0,
// or -1 when the catalog cannot be read.
int iEXTRACT_DIR(const char* catalogPath, const char* dirTreePath, FILE* out, long* files, long* dirs);

// 1 when the line is an item line of a file or a directory (a quoted path,
// then a blank and the type letter 'f' or 'd'), else 0.
int iIS_FILESYSTEM_FILE_OR_DIRECTORY(const char* line);

}  // namespace korvo

#endif
