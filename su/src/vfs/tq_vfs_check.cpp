// tq_vfs_check.cpp - the chain examined before streaming, the stream's layout
// from the catalog, and reads of the stream at any offset.
#include "vfs/tq_vfs_check.h"

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <unordered_map>

#include "archive/cpio_format.h"
#include "archive/dump_format.h"
#include "archive/mtf_stream.h"
#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/ini.h"
#include "runtime/text.h"
#include "tvu_con.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_chain.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_init.h"
#include "vfs/tq_vfs_saveset.h"

namespace tvu {
namespace {

// The longest line the consolidation reads (its line buffer less the NUL).
constexpr size_t kLongestLine = LIS_LINE_BUFFER - 1;
// Bytes read at an item's offset: the largest header with the longest name
// and its fill bytes.
constexpr size_t kRecordProbe = 128 + cpio::kMaxNameSize + 8;
constexpr size_t kFirstProbe = 512;

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

std::string U64(uint64_t v) { return std::to_string(v); }

bool IsDigits(std::string_view s, size_t from, size_t n) {
  for (size_t i = from; i < from + n; ++i)
    if (i >= s.size() || s[i] < '0' || s[i] > '9') return false;
  return true;
}

// "YYYY-MM-DD" and "HH:MM:SS" in shape.
bool IsDate(std::string_view s) {
  return s.size() == 10 && IsDigits(s, 0, 4) && s[4] == '-' && IsDigits(s, 5, 2) && s[7] == '-' && IsDigits(s, 8, 2);
}
bool IsClock(std::string_view s) {
  return s.size() == 8 && IsDigits(s, 0, 2) && s[2] == ':' && IsDigits(s, 3, 2) && s[5] == ':' && IsDigits(s, 6, 2);
}
bool IsInteger(std::string_view s, bool signedAllowed) {
  size_t i = signedAllowed && !s.empty() && s[0] == '-' ? 1 : 0;
  return s.size() > i && s.size() - i <= 20 && IsDigits(s, i, s.size() - i);
}

// Splits at single blanks: two blanks in a row give an empty field.
void SplitFields(const char* p, const char* end, std::vector<std::string_view>* fields) {
  fields->clear();
  const char* start = p;
  for (; p < end; ++p) {
    if (*p == ' ') {
      fields->emplace_back(start, static_cast<size_t>(p - start));
      start = p + 1;
    }
  }
  fields->emplace_back(start, static_cast<size_t>(end - start));
}

// A decimal number as the parser reads it ("%llu": a minus negates modulo
// 2^64); the field has been checked to be digits with an optional minus.
uint64_t FieldU64(std::string_view f) {
  const bool negative = !f.empty() && f[0] == '-';
  uint64_t v = 0;
  for (size_t i = negative ? 1 : 0; i < f.size(); ++i) v = v * 10 + static_cast<unsigned>(f[i] - '0');
  return negative ? 0 - v : v;
}

// A record's name and a catalog path compare without a leading "./" or "/".
std::string PlainName(const std::string& name) {
  size_t i = 0;
  while (i < name.size() && (name[i] == '/' || (name[i] == '.' && i + 1 < name.size() && name[i + 1] == '/'))) ++i;
  return name.substr(i);
}

bool IsVersion2(int32_t type) { return type == ctLSLv2 || type == ctLISv2; }
bool IsLsl(int32_t type) { return type == ctLSL || type == ctLSLv2; }
size_t NumbersOf(int32_t type) { return type == ctLSLv2 ? 6 : type == ctLISv2 ? 5 : 3; }
const char* TypeText(int32_t type) {
  switch (type) {
    case ctLSLv2: return "LSL version 2";
    case ctLSL: return "LSL version 1";
    case ctLISv2: return "LIS version 2";
    case ctLIS: return "LIS version 1";
    default: return "unknown";
  }
}

std::string SavesetBase(int32_t i) {
  return i >= 0 && i < g_iSavesetCount && g_psSavesets[i].szName ? korvo::basename(g_psSavesets[i].szName) : "?";
}

std::string SavesetOsPath(int32_t i) {
  return i >= 0 && i < g_iSavesetCount && g_psSavesets[i].szName ? pf::OsPath(g_psSavesets[i].szName) : "?";
}

// Reads up to n bytes of saveset i at offset; the count read.
uint64_t ReadSavesetAt(int32_t i, uint64_t offset, char* buffer, uint64_t n) {
  saveset_operation_mutex_lock(i);
  uint64_t got = 0;
  uint8_t eof = 0;
  if (saveset_seek(i, static_cast<int64_t>(offset)) == 0) saveset_read(i, buffer, n, &got, &eof);
  saveset_operation_mutex_unlock(i);
  return got;
}

}  // namespace

ChainPlan::~ChainPlan() { Close(); }

int FindConsolidation(const std::string& saveset, std::string* metaDir, std::string* error) {
  char tqslis[4096] = "";
  char reason[256] = "";
  if (korvo::i_READ_INI("TQ_INI", "[pathes]", "gv_rw_tqslis", tqslis, sizeof tqslis, reason, sizeof reason) != 1) {
    *error = std::string("the folder of the consolidations (gv_rw_tqslis in [pathes] of TQ_INI) is not known: ") +
             reason;
    return ENOENT;
  }
  *metaDir = pf::OsPath((std::string(tqslis) + saveset + "_mnt/").c_str());
  const std::string argFile = *metaDir + "consolidate.arg";
  if (!pf::PathExists(argFile.c_str())) {
    *error = "no consolidation of " + saveset + " exists: " + argFile + " is missing";
    return ENOENT;
  }
  return 0;
}

int ChainPlan::Open(const std::string& saveset, std::string* error) {
  Close();
  if (FindConsolidation(saveset, &metaDir_, error) != 0) return ENOENT;
  ResetConsolidationArgs();
  char metaDir[4096];
  if (LoadChain(saveset.c_str(), metaDir, sizeof metaDir) != DB_NUM_I_OK) {
    *error = tvu_error_record().szMessage;
    saveset_table_free();
    return ENOENT;
  }
  names_.clear();
  catalog_ = pf::OsPath(ConsolidationArgs()->pszCatalogPath);
  catalogType_ = g_iCatalogType;
  CatalogSetLineByLine(true);
  open_ = true;

  // Savesets that cannot be opened are problems of the check, not reasons to
  // stop (opening a missing file would end the process).
  readable_.assign(static_cast<size_t>(g_iSavesetCount), false);
  sizes_.assign(static_cast<size_t>(g_iSavesetCount), 0);
  for (int32_t i = 0; i < g_iSavesetCount; ++i) {
    if (g_psSavesets[i].uiMediaType == smFILE) {
      pf::File* f = nullptr;
      if (pf::FileOpenRead(g_psSavesets[i].szName, &f) != 0) continue;
      pf::FileClose(f);
    }
    if (saveset_init(i) != 0 || saveset_open(i) != 0) continue;
    uint64_t size = 0;
    if (saveset_size(i, &size) != 0) continue;
    readable_[static_cast<size_t>(i)] = true;
    sizes_[static_cast<size_t>(i)] = size;
  }
  saveset_set_readahead(256 * 1024);
  return 0;
}

void ChainPlan::Close() {
  if (fp_) fclose(fp_);
  fp_ = nullptr;
  if (!open_) return;
  saveset_set_readahead(0);
  TerminateVFS();
  saveset_table_free();
  CatalogSetLineByLine(false);
  open_ = false;
}

std::vector<std::string> ChainPlan::SavesetNames() const {
  std::vector<std::string> names;
  for (int32_t i = 0; i < g_iSavesetCount; ++i) names.push_back(SavesetBase(i));
  return names;
}

std::string ChainPlan::Unreadable() const {
  std::string text;
  if (!pf::PathExists(catalog_.c_str())) text = "the consolidated catalog " + catalog_ + " is missing";
  for (int32_t i = 0; i < g_iSavesetCount; ++i) {
    if (readable_[static_cast<size_t>(i)]) continue;
    text += (text.empty() ? "" : "; ") + std::string("saveset ") + SavesetOsPath(i) + " cannot be opened";
  }
  return text;
}

bool ChainPlan::IsCpio() const { return ConsolidationArgs()->iSavesetType == sdtCPIO; }
bool ChainPlan::IsDump() const { return ConsolidationArgs()->iSavesetType == sdtDUMP; }
bool ChainPlan::IsMtf() const { return ConsolidationArgs()->iSavesetType == sdtMTF; }

bool ChainPlan::ReadLine(std::string* line) {
  if (!fp_ || !korvo::read_line(fp_, line)) return false;
  ++lineNo_;
  return true;
}

int ChainPlan::ParseLine(const std::string& line, PlanItem* item, std::string* why) {
  // The patterns of lines that are not items all begin with a quote and one
  // of these letters (or not with a quote at all): an item line that begins
  // otherwise needs no pattern run.
  const bool plainItem = line.size() > 1 && line[0] == '"' && !strchr("DEIST", line[1]);
  if (!plainItem && IsIgnoredLine(line.c_str())) return 0;
  if (line.size() > kLongestLine) {
    *why = "the line is " + U64(line.size()) + " characters long; the consolidation reads lines of at most " +
           U64(kLongestLine);
    return -1;
  }
  const size_t open = line.find('"');
  const size_t close = open == std::string::npos ? open : line.find('"', open + 1);
  if (close == std::string::npos) {
    *why = "no path between double quotes (the consolidation passes the line over)";
    return -1;
  }
  if (close - open - 1 > static_cast<size_t>(MAX_LIS_ENTRY_PATH)) {
    *why = "the path is " + U64(close - open - 1) + " characters long, more than " + U64(MAX_LIS_ENTRY_PATH);
    return -1;
  }
  if (close + 2 >= line.size() || line[close + 1] != ' ') {
    *why = "no item type after the path";
    return -1;
  }
  const char type = line[close + 2];
  if (type != 'f' && type != 'd') return 0;  // not streamed

  // The fields after the type: two times of two fields, the numbers, and in
  // LSL catalogs the saveset name with a blank after it.
  const char* end = line.data() + line.size();
  const char* typeEnd = static_cast<const char*>(memchr(line.data() + close + 2, ' ', end - (line.data() + close + 2)));
  if (!typeEnd) {
    *why = "nothing after the item type";
    return -1;
  }
  static thread_local std::vector<std::string_view> f;
  SplitFields(typeEnd + 1, end, &f);
  const size_t numbers = NumbersOf(catalogType_);
  if (f.size() < 4 || !(IsDate(f[0]) || f[0] == "0000-00-00") || !IsClock(f[1])) {
    *why = "the change time is not YYYY-MM-DD HH:MM:SS";
    return -1;
  }
  if (!IsDate(f[2]) || !IsClock(f[3])) {
    *why = "the modification time is not YYYY-MM-DD HH:MM:SS";
    return -1;
  }
  for (size_t i = 0; i < numbers; ++i) {
    if (4 + i >= f.size() || f[4 + i].empty()) {
      *why = Format("%zu numbers where an %s line has %zu", i, TypeText(catalogType_), numbers);
      return -1;
    }
    // Only the numbers after the first of a version-2 line may be negative.
    if (!IsInteger(f[4 + i], IsVersion2(catalogType_) && i > 0)) {
      *why = Format("number %zu \"%.*s\" is not a number", i + 1, static_cast<int>(f[4 + i].size()), f[4 + i].data());
      return -1;
    }
  }
  int32_t saveset = 0;
  if (IsLsl(catalogType_)) {
    const size_t at = 4 + numbers;
    if (at >= f.size() || f[at].empty()) {
      *why = "no saveset name after the numbers";
      return -1;
    }
    const std::string name(f[at]);
    if (at + 1 >= f.size()) {
      *why = "the saveset name \"" + name + "\" has no blank after it, so the consolidation cannot read it";
      return -1;
    }
    auto known = names_.find(name);
    if (known == names_.end()) known = names_.emplace(name, saveset_find_by_name(name.c_str())).first;
    saveset = known->second;
    if (saveset < 0) {
      *why = "saveset \"" + name + "\" is not in the saveset list";
      return -1;
    }
  }
  // The consolidation reads each line by its own shape: one that does not
  // have the catalog's would be read with other meanings of its numbers.
  // A version-2 line whose fields passed the checks above has the version-2
  // shape when its type is one letter, no quote follows the path and the
  // saveset name is letters, digits and "@" (what the pattern asks beyond
  // those checks); any other line is matched against the pattern.
  bool shaped = IsVersion2(catalogType_) && typeEnd == line.data() + close + 3 &&
                memchr(line.data() + close + 1, '"', line.size() - close - 1) == nullptr;
  if (shaped && IsLsl(catalogType_))
    for (char ch : f[4 + numbers]) shaped = shaped && (isalnum(static_cast<unsigned char>(ch)) || ch == '@');
  const int32_t shape = shaped ? catalogType_ : DetectCatalogTypeByLine(line.c_str());
  if (shape != catalogType_) {
    *why = Format("the line has the fields of an %s line in an %s catalog", TypeText(shape), TypeText(catalogType_));
    return -1;
  }

  // The numbers as the consolidation reads them (each line by its shape).
  const uint64_t first = FieldU64(f[4]);
  const uint64_t second = FieldU64(f[5]);
  item->line = lineNo_;
  item->path.assign(line, open + 1, close - open - 1);
  item->type = type;
  item->ctime.assign(f[0].data(), 19);
  item->mtime.assign(f[2].data(), 19);
  item->saveset = saveset;
  item->offset = first;
  if (IsVersion2(catalogType_)) {
    // Kept as written: a new catalog carries them on with their meaning
    // (a dump chain's -1, "not located", stays -1).
    item->relOffset = static_cast<int64_t>(second);
    item->span = FieldU64(f[6]);
    item->dataSize = FieldU64(f[7]);
    item->inode = FieldU64(f[8]);
  } else {
    // Version 1: the second number is the record's end.
    if (second < first) {
      *why = "the record ends at " + U64(second) + ", before it starts at " + U64(first);
      return -1;
    }
    item->relOffset = 0;
    item->span = second - first;
    item->dataSize = FieldU64(f[6]);
    item->inode = 0;
  }
  if (item->offset + item->span < item->offset) {
    *why = "offset " + U64(item->offset) + " plus size " + U64(item->span) + " is beyond any saveset";
    return -1;
  }
  return 1;
}

int ChainPlan::Rewind(std::string* error) {
  if (fp_) fclose(fp_);
  fp_ = pf::FOpen(catalog_.c_str(), "r");
  lineNo_ = 0;
  runSaveset_ = -1;
  runStart_ = runEnd_ = runStream_ = streamEnd_ = 0;
  if (!fp_) {
    *error = catalog_ + ": " + pf::ErrorText(pf::LastError());
    return ENOENT;
  }
  return 0;
}

bool ChainPlan::Next(PlanItem* item) {
  std::string line, why;
  while (ReadLine(&line)) {
    if (ParseLine(line, item, &why) != 1) continue;
    const uint64_t end = item->offset + item->span;
    if (runSaveset_ != item->saveset) {
      if (runSaveset_ != -1) streamEnd_ = runStream_ + (runEnd_ - runStart_);
      runSaveset_ = item->saveset;
      runStart_ = item->offset;
      runStream_ = streamEnd_;
      runEnd_ = end;
    } else if (end >= runStart_) {
      runEnd_ = end;
    }
    item->streamOffset = runStream_ + (item->offset - runStart_);
    return true;
  }
  return false;
}

int ChainPlan::Check(bool records, CheckSummary* s, const CheckProgress& progress) {
  *s = CheckSummary();
  std::string error;
  if (Rewind(&error) != 0) {
    s->problems.push_back({catalog_, 0, "cannot be read: " + pf::ErrorText(pf::LastError())});
    return ENOENT;
  }
  auto problem = [&](uint64_t line, const std::string& what) { s->problems.push_back({catalog_, line, what}); };
  for (int32_t i = 0; i < g_iSavesetCount; ++i)
    if (!readable_[static_cast<size_t>(i)])
      s->problems.push_back({SavesetOsPath(i), 0, "the saveset cannot be opened"});

  uint64_t catalogSize = 0;
  pf::FileSizeByPath(catalog_.c_str(), &catalogSize);
  uint64_t bytesRead = 0, lastReport = 0;
  std::unique_ptr<char[]> probe(new char[kRecordProbe]);

  PlanRun run;
  bool inRun = false;
  uint64_t runLine = 0, prevEnd = 0, prevLine = 0;
  auto closeRun = [&] {
    if (!inRun) return;
    run.streamOffset = s->streamBytes;
    s->streamBytes += run.end - run.start;
    s->runs.push_back(run);
    inRun = false;
  };

  // The record at an item's offset: an ACL record of the item may come
  // first; then the item's own header, its name, kind and size.
  auto checkRecord = [&](const PlanItem& it) {
    const std::string where = "saveset " + SavesetBase(it.saveset) + " at offset " + U64(it.offset);
    uint64_t at = it.offset;
    const uint64_t size = sizes_[static_cast<size_t>(it.saveset)];
    for (int pass = 0; pass < 2; ++pass) {
      // Most names are short: a small read first, the longest header only
      // when the name needs it.
      uint64_t n = ReadSavesetAt(it.saveset, at, probe.get(), std::min<uint64_t>(kFirstProbe, size - at));
      cpio::Header h;
      size_t headerLen = 0;
      std::string why;
      cpio::DecodeResult r = cpio::DecodeHeader(probe.get(), n, &h, &headerLen, &why);
      if (r == cpio::DecodeResult::kTruncated && n == kFirstProbe && headerLen <= kRecordProbe) {
        n = ReadSavesetAt(it.saveset, at, probe.get(), std::min<uint64_t>(kRecordProbe, size - at));
        r = cpio::DecodeHeader(probe.get(), n, &h, &headerLen, &why);
      }
      ++s->recordsChecked;
      if (r == cpio::DecodeResult::kTruncated) {
        problem(it.line, "the record in " + where + " is cut by the saveset's end");
        return;
      }
      if (r == cpio::DecodeResult::kCorrupt) {
        problem(it.line, "no CPIO record in " + where + ": " + why);
        return;
      }
      if (h.format == cpio::Format::kEaAcl && pass == 0) {
        at += cpio::RecordSpan(h.format, h.namesize, h.filesize);
        if (at >= size) {
          problem(it.line, "the ACL record in " + where + " is the saveset's last");
          return;
        }
        continue;
      }
      if (PlainName(h.name) != PlainName(it.path)) {
        problem(it.line, "the record in " + where + " is \"" + h.name + "\", not this line's item");
        return;
      }
      const bool isDir = (h.mode & 0170000) == 0040000;
      if (it.type == 'd' && !isDir) problem(it.line, Format("the record in %s is no folder (mode %06" PRIo64 ")", where.c_str(), h.mode));
      if (it.type == 'f' && isDir) problem(it.line, "the record in " + where + " is a folder, the line a file");
      const bool plain = r == cpio::DecodeResult::kOk;
      if (it.type == 'f' && plain && h.filesize != it.dataSize)
        problem(it.line, "the record in " + where + " holds " + U64(h.filesize) + " bytes of data, the line says " +
                             U64(it.dataSize));
      const uint64_t recordEnd = at + cpio::RecordSpan(h.format, h.namesize, h.filesize);
      if (it.offset + it.span < recordEnd)
        problem(it.line, "the line covers " + U64(it.span) + " bytes, the record in " + where + " needs " +
                             U64(recordEnd - it.offset));
      if (it.type == 'f' && it.relOffset > 0 && it.offset + static_cast<uint64_t>(it.relOffset) != at + headerLen)
        problem(it.line, "the line says the data starts " + std::to_string(it.relOffset) +
                             " bytes into the record in " + where + "; it starts " + U64(at + headerLen - it.offset));
      return;
    }
  };

  // A dump saveset: the record at an item's offset is the header of an inode
  // of the item's kind, and the line covers it and its data records.
  auto checkDumpRecord = [&](const PlanItem& it) {
    const std::string where = "saveset " + SavesetBase(it.saveset) + " at offset " + U64(it.offset);
    uint8_t record[dump::kRecordSize];
    const uint64_t n = ReadSavesetAt(it.saveset, it.offset, reinterpret_cast<char*>(record), sizeof record);
    ++s->recordsChecked;
    dump::Header h;
    const dump::Check c = n == sizeof record ? dump::DecodeHeader(record, &h) : dump::Check::kBadMagic;
    if (n != sizeof record) return problem(it.line, "the record in " + where + " is cut by the saveset's end");
    if (c != dump::Check::kOk) return problem(it.line, std::string("no dump header in ") + where + ": " + dump::CheckText(c));
    if (h.type != dump::kTsInode) return problem(it.line, "the record in " + where + " is no inode header (type " +
                                                              std::to_string(h.type) + ")");
    const bool isDir = (h.mode & 0170000) == 0040000;
    if (it.type == 'd' && !isDir) problem(it.line, "the inode in " + where + " is no folder");
    if (it.type == 'f' && isDir) problem(it.line, "the inode in " + where + " is a folder, the line a file");
    const uint64_t needed = (1 + static_cast<uint64_t>(h.DataRecords())) * dump::kRecordSize;
    if (it.span < needed)
      problem(it.line, "the line covers " + U64(it.span) + " bytes, the inode in " + where + " and its data need " +
                           U64(needed));
  };

  // An MTF saveset: the block at a file's offset is the FILE block of the
  // item, its streams walk cleanly to the data (or to their end: an empty
  // file), and the line covers the data.  Folders' blocks are passed over.
  auto checkMtfRecord = [&](const PlanItem& it) {
    if (it.type != 'f') return;
    const std::string where = "saveset " + SavesetBase(it.saveset) + " at offset " + U64(it.offset);
    const int32_t idx = it.saveset;
    const MtfReadAt readAt = [idx](uint64_t pos, uint8_t* buf, size_t n) {
      return static_cast<int64_t>(ReadSavesetAt(idx, pos, reinterpret_cast<char*>(buf), n));
    };
    const size_t slash = it.path.find_last_of('/');
    const std::string base = slash == std::string::npos ? it.path : it.path.substr(slash + 1);
    std::wstring wideBase;
    if (!korvo::mbstowcsl(base.data(), base.size(), ".UTF-8,,ISO-8859", &wideBase)) wideBase.clear();
    MTF_ITEM item;
    std::string why;
    ++s->recordsChecked;
    const int r = MtfWalkFileBlock(readAt, it.offset, sizes_[static_cast<size_t>(idx)], wideBase, &item, &why);
    if (r != mwFOUND && r != mwEMPTY) return problem(it.line, "no readable FILE block of the item in " + where + ": " + why);
    if (r == mwFOUND && item.ullDataOffset + item.ullSize > it.span)
      problem(it.line, "the line covers " + U64(it.span) + " bytes, the item's data in " + where + " ends at " +
                           U64(item.ullDataOffset + item.ullSize));
  };

  std::string line, why;
  PlanItem it;
  while (ReadLine(&line)) {
    bytesRead += line.size() + 1;
    ++s->lines;
    if (progress && bytesRead - lastReport >= (1u << 20)) {
      lastReport = bytesRead;
      progress(bytesRead, catalogSize);
    }
    const int r = ParseLine(line, &it, &why);
    if (r < 0) problem(lineNo_, why);
    if (r != 1) continue;
    ++s->items;
    if (it.type == 'f') s->dataBytes += IsCpio() ? it.dataSize : it.span;
    const uint64_t end = it.offset + it.span;
    if (inRun && run.saveset != it.saveset) closeRun();
    if (!inRun) {
      run = PlanRun{it.saveset, it.offset, end, 0};
      inRun = true;
      runLine = lineNo_;
    } else if (end < run.start) {
      problem(lineNo_, "ends at " + U64(end) + ", before its run (from line " + U64(runLine) + ", saveset " +
                           SavesetBase(it.saveset) + ") starts at " + U64(run.start) +
                           ": the consolidation stops here");
    } else {
      if (it.offset < prevEnd)
        problem(lineNo_, "starts at " + U64(it.offset) + ", before line " + U64(prevLine) + " of the same run ends at " +
                             U64(prevEnd) + ": lines of one saveset must go forward");
      if (end < run.end)
        problem(lineNo_, "ends at " + U64(end) + ", before its run's end so far (" + U64(run.end) +
                             "): the run is shortened by " + U64(run.end - end) + " bytes");
      run.end = end;
    }
    prevEnd = end;
    prevLine = lineNo_;
    const size_t idx = static_cast<size_t>(it.saveset);
    if (!readable_[idx]) continue;
    if (end > sizes_[idx]) {
      problem(lineNo_, "bytes " + U64(it.offset) + " to " + U64(end) + " lie past the end of saveset " +
                           SavesetBase(it.saveset) + " (" + U64(sizes_[idx]) + " bytes)");
      continue;
    }
    if (records && IsCpio()) checkRecord(it);
    if (records && IsDump()) checkDumpRecord(it);
    if (records && IsMtf()) checkMtfRecord(it);
  }
  closeRun();
  if (s->items == 0) problem(0, "the catalog lists no items to stream");
  if (progress) progress(catalogSize, catalogSize);
  if (fp_) fclose(fp_);
  fp_ = nullptr;
  return 0;
}

int ChainPlan::ReadStream(const std::vector<PlanRun>& runs, uint64_t offset, char* buffer, uint64_t n,
                          uint64_t* got) {
  *got = 0;
  // The run holding the offset: the last that begins at or before it.
  auto it = std::upper_bound(runs.begin(), runs.end(), offset,
                             [](uint64_t o, const PlanRun& r) { return o < r.streamOffset; });
  if (it == runs.begin()) return 0;
  --it;
  while (n > 0 && it != runs.end()) {
    const uint64_t length = it->end - it->start;
    if (offset >= it->streamOffset + length) {
      ++it;
      continue;
    }
    const uint64_t inRun = offset - it->streamOffset;
    const uint64_t want = std::min<uint64_t>(n, length - inRun);
    if (it->saveset < 0 || it->saveset >= g_iSavesetCount || !readable_[static_cast<size_t>(it->saveset)]) return EIO;
    const uint64_t read = ReadSavesetAt(it->saveset, it->start + inRun, buffer, want);
    if (read != want) return EIO;
    buffer += read;
    *got += read;
    offset += read;
    n -= read;
  }
  return 0;
}

}  // namespace tvu
