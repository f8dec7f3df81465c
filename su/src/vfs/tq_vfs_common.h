// tq_vfs_common.h - allocation, options and module-wide settings shared by
// the virtual file system.
#ifndef TVU_VFS_COMMON_H
#define TVU_VFS_COMMON_H

#include <cstddef>
#include <cstdint>
#include <cwchar>

// Allocation that never returns null: out of memory writes
// "[<source>:<line>]Out of memory ..." to the standard error stream, makes a
// fatal report with the same text and ends the process (exit status 1).
// <source> is the calling source file's path in the tree (su/src/...).
void* safe_malloc_at(size_t bytes, const char* file, unsigned long line);
char* safe_strdup_at(const char* s, const char* file, unsigned long line);
wchar_t* safe_wstrdup_at(const wchar_t* s, const char* file, unsigned long line);
#define safe_malloc(n) safe_malloc_at((n), __FILE__, __LINE__)
#define safe_strdup(s) safe_strdup_at((s), __FILE__, __LINE__)
#define safe_wstrdup(s) safe_wstrdup_at((s), __FILE__, __LINE__)
// The out-of-memory path of C++ allocations (std::bad_alloc at the boundary).
[[noreturn]] void tvu_out_of_memory(size_t bytes, const char* file, unsigned long line);

// Saveset data type of the whole chain ("-t" of the consolidation arguments).
enum SAVESET_DATA_TYPE : int32_t { sdtUNKNOWN = 0, sdtMTF = 1, sdtCPIO = 2, sdtDUMP = 3, sdtNONE = 4 };

// Options of the virtual file system.  Fields start 0.
struct VFS_OPTIONS {
  int32_t iNo_vmdk_search;   // 1: skip the VMDK file system ("no_vmdk_search=1")
  int32_t iFullCbt;          // full-CBT flag, cleared by "fullcbt=1"
  int32_t iStartDelaySec;    // InitVFS sleeps this long first
  int32_t iBuildCache;       // build the whole tree at InitVFS
  int32_t iForceLineByLine;  // force line-by-line catalog detection
  int32_t iMapper;           // set: RCT sources instead of VMDK file system and mapper
};
extern VFS_OPTIONS gVOPTIONS;

// Longest catalog path in characters.
constexpr int MAX_LIS_ENTRY_PATH = 4094;
// Line buffer size for catalog lines.
constexpr size_t LIS_LINE_BUFFER = 34499;

#endif
