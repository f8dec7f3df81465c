// tq_vfs_catalog_internal.h - what the catalog sources share among
// themselves (tq_vfs_catalog.cpp, tq_vfs_catalog_parse.cpp); not for other
// callers.
#ifndef TVU_VFS_CATALOG_INTERNAL_H
#define TVU_VFS_CATALOG_INTERNAL_H

#include <cstddef>
#include <string>

namespace catalog_internal {

// True in line-by-line mode, set by the operation or forced by the option.
bool IsLineByLine();
// IsIgnoredLine and DetectCatalogTypeByLine for a line whose length is known.
int IsIgnoredLine(const char* line, size_t length);
int DetectCatalogTypeByLine(const char* line, size_t length);
// Matches the line against the current catalog type's pattern; a mismatch or
// a pattern that does not compile ends the process.
void MatchTypePatternOrDie(const char* line, size_t length);
// The literal text that an anchored pattern demands at the start of every
// subject it matches (possibly empty); a subject without it cannot match.
std::string AnchoredPrefix(const char* pattern);
// Forgets the parser's saveset-name lookup cache.
void ResetParserState();

}  // namespace catalog_internal

#endif
