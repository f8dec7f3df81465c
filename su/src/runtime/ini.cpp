// ini.cpp - the product's INI files and the "gv_name:" path variables.
#include "runtime/ini.h"

#include <string>
#include <string_view>

#include "platform/platform.h"
#include "runtime/strutil.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace korvo {
namespace {

using detail::CopyCut;
using detail::EqualsNoCase;
using detail::Trim;

// The product file that holds the global path variables, and their section.
constexpr const char* kProductIniEnv = "TQ_INI";
constexpr const char* kPathSection = "pathes";

// Callers name a section either as "[name]" or as "name".
std::string_view SectionName(const char* section) {
  std::string_view s = Trim(section ? section : "");
  if (s.size() >= 2 && s.front() == '[' && s.back() == ']') s = Trim(s.substr(1, s.size() - 2));
  return s;
}

// Classifies one line of an INI file.  Returns an empty text for a good line;
// then *isSection tells a "[section]" line (name in *name) from a "key=value"
// line (key in *name, value in *value) and *skip a blank or comment line.
std::string ParseLine(std::string_view line, bool* skip, bool* isSection, std::string_view* name,
                      std::string_view* value) {
  *skip = false;
  *isSection = false;
  std::string_view text = Trim(line);
  if (text.empty() || text[0] == ';' || text[0] == '#') {
    *skip = true;
    return {};
  }
  if (text[0] == '[') {
    size_t close = text.find(']');
    if (close == std::string_view::npos) return "missing ']' after section name";
    if (close != text.size() - 1) return "unexpected text after ']'";
    *name = Trim(text.substr(1, close - 1));
    if (name->empty()) return "empty section name";
    *isSection = true;
    return {};
  }
  size_t eq = text.find('=');
  if (eq == std::string_view::npos) return "expected '[section]', 'key=value' or a comment";
  *name = Trim(text.substr(0, eq));
  if (name->empty()) return "empty key name before '='";
  *value = Trim(text.substr(eq + 1));
  return {};
}

// Looks `key` of `section` up in the INI file `path`.  The whole file is read
// even after the key is found, so that a malformed file is rejected the same
// way whichever key is asked for.  Results as i_GetPrivateProfileString.
int LookupIni(const std::string& path, std::string_view section, std::string_view key, std::string* value,
              std::string* reason) {
  FILE* fp = pf::FOpen(path.c_str(), "r");
  if (!fp) {
    *reason = path + ": cannot open the file: " + pf::ErrorText(pf::LastError());
    return -1;
  }
  bool inSection = false;  // the current section is the one asked for
  bool sectionSeen = false;
  bool found = false;
  int result = 0;
  size_t lineNo = 0;
  std::string line;
  while (read_line(fp, &line)) {
    ++lineNo;
    std::string_view text = line;
    // Files saved by Windows editors may start with a UTF-8 byte order mark.
    if (lineNo == 1 && text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
    bool skip;
    bool isSection;
    std::string_view name;
    std::string_view val;
    std::string problem = ParseLine(text, &skip, &isSection, &name, &val);
    if (!problem.empty()) {
      *reason = path + ":" + std::to_string(lineNo) + ": " + problem;
      result = -1;
      break;
    }
    if (skip) continue;
    if (isSection) {
      inSection = EqualsNoCase(name, section);
      sectionSeen = sectionSeen || inSection;
    } else if (inSection && !found && EqualsNoCase(name, key)) {
      value->assign(val);  // the first occurrence wins
      found = true;
    }
  }
  if (result == 0 && std::ferror(fp)) {
    *reason = path + ": cannot read the file: " + pf::ErrorText(pf::LastError());
    result = -1;
  }
  std::fclose(fp);
  if (result < 0) return result;
  if (found) return 1;
  if (!sectionSeen) {
    *reason = path + ": section [" + std::string(section) + "] not found";
  } else {
    *reason = path + ": key '" + std::string(key) + "' not found in section [" + std::string(section) + "]";
  }
  return 0;
}

// Hands a lookup's outcome to the caller's buffers: the value only when it was
// found, the reason only when it was not.
int Deliver(int result, const std::string& found, const std::string& reason, char* value, size_t valueSize,
            char* reasonOut, size_t reasonSize) {
  CopyCut(result == 1 ? std::string_view(found) : std::string_view(), value, valueSize);
  CopyCut(result == 1 ? std::string_view() : std::string_view(reason), reasonOut, reasonSize);
  return result;
}

// Length of a leading "gv_name:" prefix without its colon, or 0 when the path
// has none.  The name part after "gv_" is one or more of [A-Za-z0-9_], so a
// drive letter ("C:") or any other "x:" never counts.
size_t VariableLength(std::string_view in) {
  if (in.substr(0, 3) != "gv_") return 0;
  size_t i = 3;
  while (i < in.size()) {
    char c = in[i];
    bool nameChar = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || detail::IsDigit(c) || c == '_';
    if (!nameChar) break;
    ++i;
  }
  if (i == 3 || i >= in.size() || in[i] != ':') return 0;
  return i;
}

bool IsSeparator(char c) { return c == '/' || c == '\\'; }

// Expands the path's variable prefix into *out.  On failure *out is the input.
int Resolve(std::string_view in, std::string* out) {
  size_t nameLength = VariableLength(in);
  if (nameLength == 0) {
    out->assign(in);
    return 0;
  }
  std::string_view name = in.substr(0, nameLength);
  std::string_view rest = in.substr(nameLength + 1);
  std::string iniPath;
  std::string value;
  std::string reason;
  int rc = -1;
  if (!pf::GetEnv(kProductIniEnv, &iniPath) || iniPath.empty()) {
    reason = std::string("environment variable ") + kProductIniEnv + " is not set";
  } else {
    rc = LookupIni(iniPath, kPathSection, name, &value, &reason);
  }
  if (rc != 1) {
    WRITE_TRACE(1, "resolve_path: cannot expand '%.*s': %s", static_cast<int>(in.size()), in.data(),
                reason.c_str());
    out->assign(in);
    return -1;
  }
  // One separator between the two parts; none is added when either side
  // already has one or when a side is empty.
  *out = value;
  if (!value.empty() && !rest.empty() && !IsSeparator(value.back()) && !IsSeparator(rest.front()))
    *out += '/';
  out->append(rest);
  return 0;
}

}  // namespace

int i_GetPrivateProfileString(const char* section, const char* key, char* value, size_t valueSize,
                              const char* iniPath, char* error, size_t errorSize) {
  std::string found;
  std::string reason;
  int result;
  if (!iniPath || !*iniPath) {
    reason = "no INI file given";
    result = -1;
  } else if (!key || !*key) {
    reason = std::string(iniPath) + ": no key given";
    result = -1;
  } else {
    result = LookupIni(iniPath, SectionName(section), Trim(key), &found, &reason);
  }
  return Deliver(result, found, reason, value, valueSize, error, errorSize);
}

int i_READ_INI(const char* envVar, const char* section, const char* key, char* value, size_t valueSize,
               char* reason, size_t reasonSize) {
  std::string path;
  if (!envVar || !pf::GetEnv(envVar, &path) || path.empty()) {
    std::string why = std::string("environment variable ") + (envVar ? envVar : "(null)") + " is not set";
    return Deliver(-1, {}, why, value, valueSize, reason, reasonSize);
  }
  return i_GetPrivateProfileString(section, key, value, valueSize, path.c_str(), reason, reasonSize);
}

int resolve_path(const char* in, char* out, size_t outSize) {
  std::string result;
  int rc = Resolve(in ? in : "", &result);
  CopyCut(result, out, outSize);
  return rc;
}

std::string resolve_path(const std::string& in) {
  std::string result;
  Resolve(in, &result);
  return result;
}

}  // namespace korvo
