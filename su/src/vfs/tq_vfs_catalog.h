// tq_vfs_catalog.h - catalog type detection and catalog line parsing.
//
// A catalog lists the items of a saveset one per line: the path in double
// quotes, a type letter, change and modification times, numbers saying where
// the item lies, and in LSL catalogs the saveset's name.  All patterns are
// PCRE regular expressions, compiled once on first use and kept for the life
// of the module.
//
// Thread safety: detection and the mode switches run before the operation
// starts; ParseSavesetEntry may be called from one thread at a time.
#ifndef TVU_VFS_CATALOG_H
#define TVU_VFS_CATALOG_H

#include <cstdint>
#include <ctime>
#include <string>

enum CATALOG_TYPE : int32_t { ctUNKNOWN = 0, ctLIS = 1, ctLISv2 = 2, ctLSL = 3, ctLSLv2 = 4 };

// One parsed catalog line.  The caller owns it; ParseSavesetEntry clears and
// refills it (reusing the strings' storage).
struct LIS_ENTRY {
  int64_t llFourth;        // fourth number of a version-2 line; 0 otherwise
  std::wstring wsBaseName; // last path component
  std::wstring wsPath;     // the whole path (drive-bracket form rewritten)
  std::string sPath;       // the path as written in the catalog
  char cType;              // first character of the type field
  uint64_t ullSize;
  struct tm tmCtime;
  struct tm tmMtime;
  int32_t iSavesetIdx;     // index in the saveset table; 0 for LIS; -1 until found
  uint64_t ullOffset;      // byte position of the item in its saveset
  int64_t llRelOffset;     // second number of a version-2 f line; -1 otherwise
  bool bCtimeEmulated;
  bool bMtimeEmulated;
  bool bFullBackup;        // the saveset name's second character is 'F'
};

// Module-wide catalog settings.
extern int32_t g_iCatalogType;   // CATALOG_TYPE
void CatalogSetPath(const char* path);          // kept whole
const char* CatalogGetPath();
void CatalogSetSavesetType(int32_t type);        // SAVESET_DATA_TYPE
int32_t CatalogGetSavesetType();
void CatalogSetLineByLine(bool on);              // line-by-line detection mode
bool CatalogGetLineByLine();
const char* CatalogTypeName(int32_t type);       // "ctLIS", ...

// Detects the type of the catalog set by CatalogSetPath.  Returns 0, or -1 when
// a pattern does not compile; ends the process when the type stays unknown.
int DetectCatalogType();
// 1 to 4 from the catalog path's extension and the line's shape; 0 for an
// unknown extension; -1 when a pattern does not compile.
int DetectCatalogTypeByLine(const char* line);
// 1 for lines that are not items, else 0.
int IsIgnoredLine(const char* line);
// 0 for an item, 1 for a skipped line; fatal conditions end the process.
// With wideNames false the record's wide path and base name stay empty: a
// caller that only streams the item's bytes saves their conversion.
int ParseSavesetEntry(LIS_ENTRY* record, const char* line, const char* admitted, bool wideNames = true);

// Resets the module-wide settings and the saveset-name lookup cache (tests).
void CatalogResetForTest();

#endif
