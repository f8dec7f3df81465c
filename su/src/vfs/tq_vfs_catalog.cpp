// tq_vfs_catalog.cpp - catalog settings, the catalog patterns, ignored lines
// and catalog type detection.  The line parser itself is in
// tq_vfs_catalog_parse.cpp.
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_catalog_internal.h"

#include <strings.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_regex.h"

int32_t g_iCatalogType = ctUNKNOWN;

namespace catalog_internal {

namespace {

// True when pattern has a "|" outside every group and class.
bool HasTopLevelAlternative(const char* p) {
  int depth = 0;
  bool inClass = false;
  for (; *p != '\0'; ++p) {
    if (*p == '\\') {
      if (p[1] == '\0') break;
      ++p;
    } else if (inClass) {
      if (*p == ']') inClass = false;
    } else if (*p == '[') {
      inClass = true;
      if (p[1] == '^') ++p;
      if (p[1] == ']') ++p;  // a "]" first in a class is a member
    } else if (*p == '(') {
      ++depth;
    } else if (*p == ')') {
      --depth;
    } else if (*p == '|' && depth == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

// The literal text an anchored pattern demands at the start of a subject:
// its characters up to the first one that is not plain ("[x]" counts as x),
// less the last one when a quantifier follows it.  A line that does not begin
// with it cannot match, so the pattern need not run.  Empty for a pattern
// that is not anchored or has an alternative at its top level.
std::string AnchoredPrefix(const char* pattern) {
  std::string prefix;
  if (pattern == nullptr || *pattern != '^' || HasTopLevelAlternative(pattern)) return prefix;
  const char* p = pattern + 1;
  for (;;) {
    char c;
    if (p[0] == '[' && p[1] != '\0' && p[1] != '^' && p[1] != ']' && p[1] != '\\' && p[2] == ']') {
      c = p[1];
      p += 3;
    } else if (*p != '\0' && std::strchr("\\^$.[]|()?*+{}", *p) == nullptr) {
      c = *p++;
    } else {
      break;
    }
    if (*p == '?' || *p == '*' || *p == '{') break;  // c may be missing or repeated: stop before it
    prefix += c;
    if (*p == '+') break;  // c once at least, then maybe more of it
  }
  return prefix;
}

}  // namespace catalog_internal

namespace {

// ---- settings -------------------------------------------------------------

// The catalog path as set by the operation (whole: the arguments allow paths
// far longer than a file name) and the family its extension names, worked out
// once here because the line-by-line parser needs it for every line.
std::string s_sCatalogPath;
int32_t s_iPathFamily = ctUNKNOWN;  // ctLIS, ctLSL or ctUNKNOWN
int32_t s_iSavesetType = sdtUNKNOWN;
bool s_bLineByLine = false;

// The last four characters of path (all of it when it is shorter).
const char* LastFour(const char* path) {
  size_t n = std::strlen(path);
  return n > 4 ? path + n - 4 : path;
}

// ctLSL for ".lsl", ctLIS for ".lis" (any case), ctUNKNOWN otherwise.
int32_t FamilyOfPath(const char* path) {
  const char* ext = LastFour(path);
  if (strcasecmp(ext, ".lsl") == 0) return ctLSL;
  if (strcasecmp(ext, ".lis") == 0) return ctLIS;
  return ctUNKNOWN;
}

// ---- patterns ---------------------------------------------------------------

// Item line patterns by catalog type (index = CATALOG_TYPE).  The type
// field's character class also admits "|", as the format is written.
const char* const kTypePatterns[5] = {
    nullptr,
    "^[\"].*[\"][ ]([d|f|R]|Db|DB|db|U)[ ][0-9]{4}[-][0-9]{2}[-][0-9]{2}[ ][0-9]{2}[:][0-9]{2}[:][0-9]{2}[ ]"
    "[0-9]{4}[-][0-9]{2}[-][0-9]{2}[ ][0-9]{2}[:][0-9]{2}[:][0-9]{2}[ ][0-9]+[ ][0-9]+[ ][0-9]+",
    "^[\"].*[\"][ ]([d|f|R]|Db|DB|db|U)[ ][0-9]{4}[-][0-9]{2}[-][0-9]{2}[ ][0-9]{2}[:][0-9]{2}[:][0-9]{2}[ ]"
    "[0-9]{4}[-][0-9]{2}[-][0-9]{2}[ ][0-9]{2}[:][0-9]{2}[:][0-9]{2}[ ][0-9]+[ ][-]?[0-9]+[ ][-]?[0-9]+"
    "[ ][-]?[0-9]+[ ][-]?[0-9]+",
    "^[\"].*[\"][ ]([d|f|R]|Db|DB|db|U)[ ][0-9]{4}[-][0-9]{2}[-][0-9]{2}[ ][0-9]{2}[:][0-9]{2}[:][0-9]{2}[ ]"
    "[0-9]{4}[-][0-9]{2}[-][0-9]{2}[ ][0-9]{2}[:][0-9]{2}[:][0-9]{2}[ ][0-9]+[ ][0-9]+[ ][0-9]+"
    "[ ][0-9a-zA-Z@]+.*",
    "^[\"].*[\"][ ]([d|f|R]|Db|DB|db|U)[ ][0-9]{4}[-][0-9]{2}[-][0-9]{2}[ ][0-9]{2}[:][0-9]{2}[:][0-9]{2}[ ]"
    "[0-9]{4}[-][0-9]{2}[-][0-9]{2}[ ][0-9]{2}[:][0-9]{2}[:][0-9]{2}[ ][0-9]+[ ][-]?[0-9]+[ ][-]?[0-9]+"
    "[ ][-]?[0-9]+[ ][-]?[0-9]+[ ][-]?[0-9]+[ ][a-zA-Z0-9@]+.*",
};

// Lines that are not items, tested in this order.  The first pattern must
// match, the others must not.
constexpr int kIgnoredCount = 10;
const char* const kIgnoredPatterns[kIgnoredCount] = {
    "^[A-Za-z0-9\"]",
    "^#",
    "^[\"]Device=.*[\"][ ]v",
    "^[\"]ESET.*[\"][ ]",
    "^[\"]IMAP:.*[\"][ ](Db|DB|db)",
    "^[\"]SSET.*[\"][ ]",
    "^[\"]TAPE[\"][ ]",
    "^Tape ID.*Tape Label.*Format.*",
    "^Tape ID.*Tape Label.*Format.*LIS: 2.0",
    "^Total.*Last File Offset.*Last Dir Offset.*Number of directories.*Number of files.*",
};

// A set of patterns compiled together on first use and kept for the life of
// the module.  A pattern that does not compile is remembered with the
// compiler's offset and message; the user of the set reports it.
template <int N>
struct PatternSet {
  TqRegex aRegex[N];
  bool abFailed[N] = {};
  int aiErrorOffset[N] = {};
  std::string asErrorText[N];

  // form, when given, turns a pattern into the text that is compiled.
  explicit PatternSet(const char* const* patterns, std::string (*form)(const char*) = nullptr) {
    for (int i = 0; i < N; ++i) {
      if (patterns[i] == nullptr) continue;
      const std::string text = form != nullptr ? form(patterns[i]) : std::string(patterns[i]);
      if (!aRegex[i].Compile(text.c_str(), 0, &aiErrorOffset[i], &asErrorText[i])) abFailed[i] = true;
    }
  }
};

const PatternSet<5>& TypePatterns() {
  static const PatternSet<5> s_set(kTypePatterns);
  return s_set;
}

// The item patterns begin with the quoted path, '^["].*["][ ]', and the path
// may itself hold quotes, so a match needs the ".*" to try closing quotes
// one by one (from the line's end back, as it is greedy).  The path's closing
// quote is nearly always the line's second quote: the rest of the pattern,
// '^["][ ]...', is tried there first (its "tail"), and the whole pattern runs
// only when that fails.  Neither step changes which lines match.
constexpr char kPathPart[] = "^[\"].*";

std::string TailForm(const char* pattern) {
  const std::string text = pattern;
  if (text.compare(0, sizeof kPathPart - 1, kPathPart) != 0) return "(*FAIL)";  // no shortcut
  return "^" + text.substr(sizeof kPathPart - 1);
}

const PatternSet<5>& TypeTails() {
  static const PatternSet<5> s_set(kTypePatterns, TailForm);
  return s_set;
}

// True when "." matches every byte of [p, end): it matches all but the line
// breaks, and which bytes those are depends on how the library was built;
// none of them is allowed here.
bool DotMatchesAll(const char* p, const char* end) {
  if (TqRegex::DotStopsOnlyAtLineFeed()) return std::memchr(p, '\n', static_cast<size_t>(end - p)) == nullptr;
  for (; p < end; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    if ((c >= '\n' && c <= '\r') || c == 0x85) return false;
  }
  return true;
}

// The whole item pattern of a type (compiled) on line[0, length).
bool MatchItemPattern(const PatternSet<5>& set, int32_t type, const char* line, size_t length) {
  const PatternSet<5>& tails = TypeTails();
  if (length > 1 && line[0] == '"' && !tails.abFailed[type]) {
    const char* const end = line + length;
    const char* close = static_cast<const char*>(std::memchr(line + 1, '"', length - 1));
    if (close != nullptr && DotMatchesAll(line + 1, close) &&
        tails.aRegex[type].Match(close, static_cast<size_t>(end - close))) {
      return true;
    }
  }
  return set.aRegex[type].Match(line, length);
}

const PatternSet<kIgnoredCount>& IgnoredPatterns() {
  static const PatternSet<kIgnoredCount> s_set(kIgnoredPatterns);
  return s_set;
}

// Traces "Regex compile failed at offset %d: %s " followed by the pattern.
void TraceCompileFailure(int offset, const std::string& error, const char* pattern) {
  WRITE_TRACE(1, "Regex compile failed at offset %d: %s %s", offset, error.c_str(), pattern);
}

[[noreturn]] void FatalCompileFailure(int offset, const std::string& error, const char* pattern) {
  TraceCompileFailure(offset, error, pattern);
  tvu_fatal("Regex compile failed at offset %d: %s %s", offset, error.c_str(), pattern);
}

// The version-2 pattern of a family; null when it did not compile (traced).
const TqRegex* Version2Pattern(int32_t family) {
  const int32_t type = family == ctLSL ? ctLSLv2 : ctLISv2;
  const PatternSet<5>& set = TypePatterns();
  if (set.abFailed[type]) {
    TraceCompileFailure(set.aiErrorOffset[type], set.asErrorText[type], kTypePatterns[type]);
    return nullptr;
  }
  return &set.aRegex[type];
}

// Whether line matches the version-2 pattern of a family (which compiled).
bool MatchVersion2(int32_t family, const char* line, size_t length) {
  return MatchItemPattern(TypePatterns(), family == ctLSL ? ctLSLv2 : ctLISv2, line, length);
}

// Which ignored-line patterns (bit i = pattern i) can match a line that
// begins with a given byte.  Each of patterns 1 to 9 is anchored and begins
// with one literal character, so a line whose first byte differs cannot match
// it and the ordered test has the same outcome without running it.  Pattern 0
// is decided by the first byte alone: its bit is set when that byte starts an
// item line.
struct FirstByteTable {
  uint16_t auMask[256] = {};
  FirstByteTable() {
    for (int c = 0; c < 256; ++c) {
      const bool itemStart = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '"';
      if (itemStart) auMask[c] |= 1u << 0;
    }
    auMask[static_cast<unsigned char>('#')] |= 1u << 1;
    for (int i = 2; i <= 6; ++i) auMask[static_cast<unsigned char>('"')] |= 1u << i;
    for (int i = 7; i <= 9; ++i) auMask[static_cast<unsigned char>('T')] |= 1u << i;
  }
};
const FirstByteTable kFirstByte;

// The anchored prefixes of the ignored-line patterns, worked out once.
struct IgnoredPrefixes {
  std::string asPrefix[kIgnoredCount];
  IgnoredPrefixes() {
    for (int i = 0; i < kIgnoredCount; ++i) asPrefix[i] = catalog_internal::AnchoredPrefix(kIgnoredPatterns[i]);
  }
};
const IgnoredPrefixes kIgnoredPrefixes;

inline bool StartsWith(const char* line, size_t length, const std::string& prefix) {
  return length >= prefix.size() && std::memcmp(line, prefix.data(), prefix.size()) == 0;
}

}  // namespace

// ---- settings ---------------------------------------------------------------

void CatalogSetPath(const char* path) {
  s_sCatalogPath = path != nullptr ? path : "";
  s_iPathFamily = FamilyOfPath(s_sCatalogPath.c_str());
}

const char* CatalogGetPath() { return s_sCatalogPath.c_str(); }

void CatalogSetSavesetType(int32_t type) { s_iSavesetType = type; }

int32_t CatalogGetSavesetType() { return s_iSavesetType; }

void CatalogSetLineByLine(bool on) { s_bLineByLine = on; }

bool CatalogGetLineByLine() { return s_bLineByLine; }

const char* CatalogTypeName(int32_t type) {
  switch (type) {
    case ctLIS: return "ctLIS";
    case ctLISv2: return "ctLISv2";
    case ctLSL: return "ctLSL";
    case ctLSLv2: return "ctLSLv2";
    default: return "ctUNKNOWN";
  }
}

void CatalogResetForTest() {
  g_iCatalogType = ctUNKNOWN;
  s_sCatalogPath.clear();
  s_iPathFamily = ctUNKNOWN;
  s_iSavesetType = sdtUNKNOWN;
  s_bLineByLine = false;
  catalog_internal::ResetParserState();
}

// ---- internal tests on lines of known length --------------------------------

namespace catalog_internal {

bool IsLineByLine() { return s_bLineByLine || gVOPTIONS.iForceLineByLine != 0; }

int IsIgnoredLine(const char* line, size_t length) {
  const PatternSet<kIgnoredCount>& set = IgnoredPatterns();
  const unsigned mask = length == 0 ? 0u : kFirstByte.auMask[static_cast<unsigned char>(line[0])];
  // Pattern 0 must match: a line that does not begin like an item is ignored.
  if (set.abFailed[0]) {
    WRITE_TRACE(1, "Error compiling regex");
    tvu_fatal("Error compiling regex");
  }
  if ((mask & 1u) == 0) return 1;
  for (int i = 1; i < kIgnoredCount; ++i) {
    if (set.abFailed[i]) FatalCompileFailure(set.aiErrorOffset[i], set.asErrorText[i], kIgnoredPatterns[i]);
    if ((mask & (1u << i)) != 0 && StartsWith(line, length, kIgnoredPrefixes.asPrefix[i]) &&
        set.aRegex[i].Match(line, length)) {
      return 1;
    }
  }
  return 0;
}

int DetectCatalogTypeByLine(const char* line, size_t length) {
  WRITE_TRACE(2, "DetectCatalogTypeByLine: [%s]", line);
  const int32_t family = s_iPathFamily;
  if (family == ctUNKNOWN) return ctUNKNOWN;
  if (Version2Pattern(family) == nullptr) return -1;
  const bool isV2 = MatchVersion2(family, line, length);
  if (family == ctLSL) {
    if (isV2) {
      WRITE_TRACE(2, "DetectCatalogTypeByLine: LSLv2");
      return ctLSLv2;
    }
    WRITE_TRACE(2, "DetectCatalogTypeByLine: LSLv1");
    return ctLSL;
  }
  if (isV2) {
    WRITE_TRACE(2, "DetectCatalogTypeByLine: LISv2");
    return ctLISv2;
  }
  WRITE_TRACE(2, "DetectCatalogTypeByLine: LISv1");
  return ctLIS;
}

void MatchTypePatternOrDie(const char* line, size_t length) {
  const int32_t type = g_iCatalogType;
  if (type >= ctLIS && type <= ctLSLv2) {
    const PatternSet<5>& set = TypePatterns();
    if (set.abFailed[type]) FatalCompileFailure(set.aiErrorOffset[type], set.asErrorText[type], kTypePatterns[type]);
    if (MatchItemPattern(set, type, line, length)) return;
  }
  // No pattern (unknown type) counts as a mismatch.  The message also goes to
  // the standard error stream: a catalog line that does not parse ends the
  // client's process, and the console is where an operator sees why.
  std::fprintf(stderr, "Regex mismatch parsing LIS/LSL/LISv2/LSLv2[%d] line [%s]\n", type, line);
  WRITE_TRACE(1, "Regex mismatch parsing LIS/LSL/LISv2/LSLv2[%d] line [%s]", type, line);
  tvu_fatal("Regex mismatch parsing LIS/LSL/LISv2/LSLv2[%d] line [%s]", type, line);
}

}  // namespace catalog_internal

// ---- public tests and detection ---------------------------------------------

int IsIgnoredLine(const char* line) {
  if (line == nullptr) return 1;
  return catalog_internal::IsIgnoredLine(line, std::strlen(line));
}

int DetectCatalogTypeByLine(const char* line) {
  if (line == nullptr) line = "";
  return catalog_internal::DetectCatalogTypeByLine(line, std::strlen(line));
}

int DetectCatalogType() {
  // Lines are read into a buffer of this size; a longer line is read as
  // several pieces, each of which counts as a line.
  constexpr size_t kFirstLineBuffer = 34500;
  const char* path = s_sCatalogPath.c_str();
  int32_t type = FamilyOfPath(path);

  std::unique_ptr<char[]> line(new char[kFirstLineBuffer]);
  line[0] = '\0';
  float version = 0.0f;
  FILE* fp = pf::FOpen(path, "r");
  if (fp == nullptr) {
    WRITE_TRACE(1, "Cannot open catalog [%s]", path);
  } else {
    if (std::fgets(line.get(), kFirstLineBuffer, fp) != nullptr) {
      const char* lis = std::strstr(line.get(), "LIS:");
      if (lis != nullptr && std::strstr(line.get(), "Tape ID") != nullptr) {
        // A word ("LIS:"), then the version number.
        std::sscanf(lis, "%*s%f", &version);
      }
    }
    // Stop at the first item line; at end of file the last line read stays.
    while (IsIgnoredLine(line.get()) && std::fgets(line.get(), kFirstLineBuffer, fp) != nullptr) {
    }
    std::fclose(fp);
  }

  if (type == ctLIS && version >= 2.0f) {
    type = ctLISv2;
  } else if (type == ctLSL) {
    if (version >= 2.0f) {
      type = ctLSLv2;
    } else {
      const TqRegex* v2 = Version2Pattern(ctLSL);
      if (v2 == nullptr) return -1;
      if (v2->Match(line.get())) {
        WRITE_TRACE(1, "This is LSLv2 according to regex");
        type = ctLSLv2;
      }
    }
  }

  if (type == ctUNKNOWN) {
    WRITE_TRACE(1, "Unknown catalog type. Abort");
    std::fprintf(stderr, "ERROR: Unknown catalog type [%s]. Expected extensions .lis, .lsl., .lnd Aborting\n",
                 LastFour(path));
    tvu_fatal("ERROR: Unknown catalog type [%s]. Expected extensions .lis, .lsl., .lnd Aborting\n", LastFour(path));
  }
  g_iCatalogType = type;
  WRITE_TRACE(1, "Catalog type %d", type);
  WRITE_TRACE(1, "Catalog type %s", CatalogTypeName(type));
  return 0;
}
