// ini.h - the product's configuration: INI files and global path variables.
//
// The product INI file is named by an environment variable (the module uses
// "TQ_INI").  Its section "[pathes]" holds the product's global variables
// ("gv_rw_tqslis", "gv_rw_ini", ...), which resolve_path() expands when a path
// begins with "gv_name:".
//
// INI syntax: "[section]" lines, "key=value" lines (blanks around key and
// value are trimmed), blank lines, and comment lines starting with ";" or "#".
// Any other line is malformed: the reader reports "file:line: what is wrong".
// Section and key names compare without regard to case; the first occurrence
// of a key in a section wins.
//
// Thread safety: all functions may be called from any thread.
#ifndef TVU_RUNTIME_INI_H
#define TVU_RUNTIME_INI_H

#include <cstddef>
#include <string>

namespace korvo {

// Reads `key` of `section` ("[pathes]" or "pathes") from the INI file that the
// environment variable `envVar` names.  Returns 1 when the key was found (the
// value copied into value, cut to valueSize-1 characters), 0 when the section
// or key is missing, and -1 when the variable is unset, the file cannot be read
// or a line is malformed.  For results other than 1, `reason` receives a text
// that names the file (and line) and what is wrong.
int i_READ_INI(const char* envVar, const char* section, const char* key, char* value, size_t valueSize,
               char* reason, size_t reasonSize);

// Reads `key` of `section` from the INI file `iniPath`.  Results as i_READ_INI.
int i_GetPrivateProfileString(const char* section, const char* key, char* value, size_t valueSize,
                              const char* iniPath, char* error, size_t errorSize);

// Expands a leading "gv_name:" prefix with the value of product variable
// gv_name from "[pathes]" of the "TQ_INI" file.  The value and the rest are
// joined with "/" unless the value already ends with a separator or the rest
// begins with one.  A path without such a prefix (a drive letter such as
// "C:" is not one) is copied unchanged.  Returns 0 on success, -1 when the
// variable cannot be read (out then holds the input unchanged).  out is cut
// to outSize-1 characters.
int resolve_path(const char* in, char* out, size_t outSize);
std::string resolve_path(const std::string& in);

}  // namespace korvo

#endif
