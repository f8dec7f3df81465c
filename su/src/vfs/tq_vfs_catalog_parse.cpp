// tq_vfs_catalog_parse.cpp - ParseSavesetEntry: one catalog line into a line
// record.
//
// This runs once for every line of the consolidated catalog, so it avoids
// work that does not change from line to line: the patterns are compiled once
// (tq_vfs_catalog.cpp), the record's strings keep their storage from line to
// line, the saveset of the previous line is remembered, and the clock is read
// only when a time has to be made up; times in the full-width shape every
// catalog writer uses are read without the general time parser.
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_catalog_internal.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>

#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/text.h"
#include "runtime/timefmt.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_saveset.h"

namespace {

// Encodings tried, in order, for paths written in the catalog.
const char kPathEncodings[] = ".UTF-8,,ISO-8859";
const char kTimeFormat[] = "%Y-%m-%d %H:%M:%S";
const char kZeroDate[] = "0000-00-00";

// Scratch text reused from line to line (one parsing thread at a time).
std::string s_sRewritten;   // the path with its drive bracket rewritten
std::string s_sSavesetName;

// Saveset names looked up and their indexes, valid while the saveset table
// keeps its generation (no entry added, not freed and refilled: a second
// operation's table may name the same savesets in another order).  A
// consolidated catalog names few savesets, line after line, often
// alternating: each distinct name is matched against the table once.
struct SavesetCache {
  uint64_t ullGeneration = 0;
  std::unordered_map<std::string, int32_t> byName;
};
SavesetCache s_cache;

int32_t FindSaveset(const std::string& name) {
  if (s_cache.ullGeneration != saveset_table_generation()) {
    s_cache.byName.clear();
    s_cache.ullGeneration = saveset_table_generation();
  }
  auto it = s_cache.byName.find(name);
  if (it != s_cache.byName.end()) return it->second;
  const int32_t index = saveset_find_by_name(name.c_str());
  // Only hits are kept: a miss ends the process anyway.  The map stays small
  // unless a catalog names very many savesets; it is bounded all the same.
  if (index >= 0 && s_cache.byName.size() < 65536) s_cache.byName.emplace(name, index);
  return index;
}

// The start of the field after the one at p (fields are split by single
// blanks); end when there is none.  The walk does not check that the field
// it leaves was well formed.
inline const char* NextField(const char* p, const char* end) {
  // Fields are a few characters long: a plain loop beats a library call.
  while (p < end && *p != ' ') ++p;
  return p < end ? p + 1 : end;
}

// The first "0000-00-00" in [p, end), or end.  Its dashes are rare in a line,
// so they are what is looked for.
const char* FindZeroDate(const char* p, const char* end) {
  constexpr size_t kLen = sizeof kZeroDate - 1;
  if (static_cast<size_t>(end - p) < kLen) return end;
  const char* const lastDash = end - kLen + 4;  // the last dash with room for the rest
  for (const char* dash = p + 4; dash <= lastDash; ++dash) {
    dash = static_cast<const char*>(std::memchr(dash, '-', static_cast<size_t>(lastDash + 1 - dash)));
    if (dash == nullptr) break;
    // Most dashes are a real date's: its year ends in a digit other than 0
    // or its month is not "00", which two byte tests show without a call.
    if (dash[-1] != '0' || dash[1] != '0') continue;
    if (std::memcmp(dash - 4, kZeroDate, kLen) == 0) return dash - 4;
  }
  return end;
}

inline bool IsScanSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Reads a decimal number at p as sscanf's "%llu" does: leading white space,
// an optional sign (a minus negates modulo 2^64), digits; a value too large
// gives ULLONG_MAX.  False, and *out untouched, when there are no digits.
bool ScanU64(const char* p, uint64_t* out) {
  while (IsScanSpace(*p)) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';
  if (*p < '0' || *p > '9') return false;
  uint64_t value = 0;
  bool overflow = false;
  for (; *p >= '0' && *p <= '9'; ++p) {
    const unsigned digit = static_cast<unsigned>(*p - '0');
    if (value > (ULLONG_MAX - digit) / 10) overflow = true;
    value = value * 10 + digit;
  }
  if (overflow) value = ULLONG_MAX;
  else if (negative) value = 0 - value;
  *out = value;
  return true;
}

// The same as sscanf's "%lld": a value out of range gives LLONG_MAX or
// LLONG_MIN.
bool ScanS64(const char* p, int64_t* out) {
  while (IsScanSpace(*p)) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';
  if (*p < '0' || *p > '9') return false;
  const uint64_t limit = negative ? static_cast<uint64_t>(LLONG_MAX) + 1 : static_cast<uint64_t>(LLONG_MAX);
  uint64_t value = 0;
  bool overflow = false;
  for (; *p >= '0' && *p <= '9'; ++p) {
    const unsigned digit = static_cast<unsigned>(*p - '0');
    if (!overflow && value > (limit - digit) / 10) overflow = true;
    if (!overflow) value = value * 10 + digit;
  }
  if (overflow) value = limit;
  *out = negative ? static_cast<int64_t>(0 - value) : static_cast<int64_t>(value);
  return true;
}

// A catalog time: the full-width shape every catalog writer uses is read
// directly; anything else goes through the general parser, which gives the
// same fields for that shape.
inline void ParseTime(const char* text, struct tm* tm) {
  if (korvo::parse_catalog_time(text, tm) == nullptr) korvo::cm_strptime(text, kTimeFormat, tm);
}

void ClearRecord(LIS_ENTRY* r) {
  r->llFourth = 0;
  r->wsBaseName.clear();
  r->wsPath.clear();
  r->sPath.clear();
  r->cType = '\0';
  r->ullSize = 0;
  std::memset(&r->tmCtime, 0, sizeof r->tmCtime);
  std::memset(&r->tmMtime, 0, sizeof r->tmMtime);
  r->iSavesetIdx = -1;
  r->ullOffset = 0;
  r->llRelOffset = -1;
  r->bCtimeEmulated = false;
  r->bMtimeEmulated = false;
  r->bFullBackup = false;
}

// Fills the wide path and the base name from the narrow path.
void MakeWideNames(LIS_ENTRY* r) {
  const std::string& path = r->sPath;
  // "[drive]?rest" becomes "drive/rest": the text before "[" and the character
  // right after "]" are dropped, and the slash takes the dropped character's
  // place.
  const size_t open = path.find('[');
  const size_t close = open == std::string::npos ? std::string::npos : path.find(']', open + 1);
  if (close != std::string::npos) {
    s_sRewritten.assign(path, open + 1, close - open - 1);
    s_sRewritten += '/';
    if (close + 2 <= path.size()) s_sRewritten.append(path, close + 2, std::string::npos);
    korvo::mbstowcsl(s_sRewritten.data(), s_sRewritten.size(), kPathEncodings, &r->wsPath);
  } else {
    korvo::mbstowcsl(path.data(), path.size(), kPathEncodings, &r->wsPath);
  }
  // The base name is the last non-empty component between slashes.
  size_t stop = path.size();
  while (stop > 0 && path[stop - 1] == '/') --stop;
  size_t start = stop;
  while (start > 0 && path[start - 1] != '/') --start;
  korvo::mbstowcsl(path.data() + start, stop - start, kPathEncodings, &r->wsBaseName);
}

// Replaces an emulated time by the time written in the saveset name from its
// third character on ("SF20261101020000..." -> 2026-11-01 02:00:00).  The
// trace gives the calendar year and month (not the struct tm offsets).
void TimeFromSavesetName(const std::string& name, struct tm* tm, bool isCtime) {
  if (name.size() < 2) return;
  korvo::cm_strptime(name.c_str() + 2, "%Y%m%d%H%M%S", tm);
  if (isCtime) {
    WRITE_TRACE(2, "Using ctime from saveset name %s year=%d month=%d day=%d hour=%d min=%d sec=%d", name.c_str(),
                tm->tm_year + 1900, tm->tm_mon + 1, tm->tm_mday, tm->tm_hour, tm->tm_min, tm->tm_sec);
  } else {
    WRITE_TRACE(2, "Using mtime from saveset name %s year=%d month=%d day=%d hour=%d min=%d sec=%d", name.c_str(),
                tm->tm_year + 1900, tm->tm_mon + 1, tm->tm_mday, tm->tm_hour, tm->tm_min, tm->tm_sec);
  }
}

[[noreturn]] void FatalPathTooLong(const LIS_ENTRY* r) {
  WRITE_TRACE(1, "ERROR: LIS entry [%s] is longer than %d [MAX_LIS_ENTRY_PATH]", r->sPath.c_str(),
              MAX_LIS_ENTRY_PATH);
  std::fprintf(stderr, "ERROR: LIS entry [%s] is longer than %d [MAX_LIS_ENTRY_PATH]\n", r->sPath.c_str(),
               MAX_LIS_ENTRY_PATH);
  tvu_fatal("LIS entry [%s] is longer than %d [MAX_LIS_ENTRY_PATH]", r->sPath.c_str(), MAX_LIS_ENTRY_PATH);
}

[[noreturn]] void FatalUnknownSaveset(const char* line) {
  // The list starts on a line of its own, whether or not the line came with
  // its line end.
  int len = static_cast<int>(std::strlen(line));
  while (len > 0 && (line[len - 1] == '\n' || line[len - 1] == '\r')) --len;
  std::fprintf(stderr, "Cannot find matching saveset for LIS/LSL line: %.*s\n", len, line);
  std::fprintf(stderr, "Known savesets:\n");
  WRITE_TRACE(1, "Cannot find matching saveset for LIS/LSL line: %s", line);
  WRITE_TRACE(1, "Known savesets:\n");
  for (int32_t i = 0; i < g_iSavesetCount; ++i) {
    const char* name = g_psSavesets[i].szName != nullptr ? korvo::basename(g_psSavesets[i].szName) : "";
    std::fprintf(stderr, "%s\n", name);
    WRITE_TRACE(1, "%s\n", name);
  }
  std::fflush(stderr);
  tvu_fatal("Cannot find matching saveset for LIS/LSL line: %s", line);
}

}  // namespace

namespace catalog_internal {

void ResetParserState() { s_cache = SavesetCache(); }

}  // namespace catalog_internal

int ParseSavesetEntry(LIS_ENTRY* record, const char* line, const char* admitted, bool wideNames) {
  WRITE_TRACE(2, "ParseSavesetEntry extracting : [%s]", line);
  const size_t length = std::strlen(line);
  const char* const end = line + length;

  // Ignored lines go straight on to the split; item lines either set
  // the catalog type from their own shape or must match the type's pattern.
  const bool lineByLine = catalog_internal::IsLineByLine();
  if (!catalog_internal::IsIgnoredLine(line, length)) {
    if (lineByLine) {
      WRITE_TRACE(2, "Line-by-line catalog detection");
      g_iCatalogType = catalog_internal::DetectCatalogTypeByLine(line, length);
    } else {
      catalog_internal::MatchTypePatternOrDie(line, length);
    }
  }
  const int32_t type = g_iCatalogType;

  // The path lies between the first two double quotes.
  ClearRecord(record);
  const char* open = static_cast<const char*>(std::memchr(line, '"', length));
  if (open == nullptr) return 1;
  const char* close = static_cast<const char*>(std::memchr(open + 1, '"', static_cast<size_t>(end - open - 1)));
  if (close == nullptr) return 1;
  record->sPath.assign(open + 1, close);
  if (record->sPath.size() > static_cast<size_t>(MAX_LIS_ENTRY_PATH)) FatalPathTooLong(record);

  if (wideNames) MakeWideNames(record);

  // The type letter follows the blank after the closing quote.
  const char* typeField = close + 1 < end ? close + 2 : end;
  record->cType = *typeField;
  if (admitted == nullptr || record->cType == '\0' || std::strchr(admitted, record->cType) == nullptr) return 1;

  // Times.  A zero date anywhere from a time's position to the end of
  // the line makes that time emulated; a zero modification date therefore
  // marks the change time as well.
  const char* const ctimeText = NextField(typeField, end);
  const char* const mtimeText = NextField(NextField(ctimeText, end), end);
  const char* const numbers = NextField(NextField(mtimeText, end), end);
  const char* const zero = FindZeroDate(ctimeText, end);
  // The time now, read only when a time has to be made up.
  struct tm now {};
  if (zero != end) {
    record->bCtimeEmulated = true;
    record->bMtimeEmulated = zero >= mtimeText || FindZeroDate(mtimeText, end) != end;
    pf::LocalTime(korvo::time_get(), &now);
  }
  if (record->bCtimeEmulated) {
    record->tmCtime = now;
    WRITE_TRACE(2, "Emulating ctime for [%s]", record->sPath.c_str());
  } else {
    ParseTime(ctimeText, &record->tmCtime);
  }
  if (record->bMtimeEmulated) {
    record->tmMtime = now;
    WRITE_TRACE(2, "Emulating mtime for [%s]", record->sPath.c_str());
  } else {
    ParseTime(mtimeText, &record->tmMtime);
  }

  // Numbers.  Missing fields are not checked for: outside line-by-line
  // mode the pattern has guaranteed them, and the consolidated catalog is
  // required to be complete.
  const bool isFile = record->cType == 'f';
  const char* p = numbers;
  int numberCount = 0;  // numbers before an LSL line's saveset name
  if (type == ctLIS || type == ctLSL) {
    // Outside line-by-line mode the first number is not the offset.
    if (!lineByLine) p = NextField(p, end);
    uint64_t first = 0, second = 0;
    if (ScanU64(p, &first)) record->ullOffset = first;
    p = NextField(p, end);
    ScanU64(p, &second);
    if (isFile || lineByLine) record->ullSize = second - record->ullOffset;
    numberCount = 3;
  } else if (type == ctLISv2 || type == ctLSLv2) {
    uint64_t offset = 0, size = 0;
    int64_t relOffset = 0, fourth = 0;
    if (ScanU64(p, &offset)) record->ullOffset = offset;
    p = NextField(p, end);
    if (isFile && ScanS64(p, &relOffset)) record->llRelOffset = relOffset;
    p = NextField(p, end);
    if (ScanU64(p, &size)) record->ullSize = size;
    p = NextField(p, end);
    if (ScanS64(p, &fourth)) record->llFourth = fourth;
    numberCount = type == ctLSLv2 ? 6 : 5;
  }

  // MTF savesets keep no colons in item names.
  if (CatalogGetSavesetType() == sdtMTF) {
    std::wstring& base = record->wsBaseName;
    size_t out = 0;
    for (size_t in = 0; in < base.size(); ++in) {
      if (base[in] != L':') base[out++] = base[in];
    }
    base.resize(out);
  }

  // The saveset: named in LSL lines, always the first one for LIS catalogs.
  if (type == ctLSL || type == ctLSLv2) {
    const char* name = numbers;
    for (int i = 0; i < numberCount; ++i) name = NextField(name, end);
    // The name ends at the next blank; a name with none after it is not read.
    const char* nameEnd = static_cast<const char*>(std::memchr(name, ' ', static_cast<size_t>(end - name)));
    if (nameEnd != nullptr) {
      s_sSavesetName.assign(name, nameEnd);
      record->iSavesetIdx = FindSaveset(s_sSavesetName);
      if (s_sSavesetName.size() >= 2 && s_sSavesetName[1] == 'F') record->bFullBackup = true;
      if (record->bCtimeEmulated) TimeFromSavesetName(s_sSavesetName, &record->tmCtime, true);
      if (record->bMtimeEmulated) TimeFromSavesetName(s_sSavesetName, &record->tmMtime, false);
    }
  } else if (type == ctLIS || type == ctLISv2) {
    record->iSavesetIdx = 0;
  }

  if (record->iSavesetIdx < 0) FatalUnknownSaveset(line);
  return 0;
}
