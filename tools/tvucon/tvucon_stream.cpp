// tvucon_stream.cpp - the new saveset's catalog and the record check of the
// stream, item by item as the bytes go out.
#include "tvucon/tvucon_stream.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "archive/cpio_format.h"
#include "archive/dump_format.h"
#include "archive/mtf_stream.h"
#include "platform/platform.h"
#include "runtime/text.h"

namespace {

// Bytes gathered at an item's stream offset: an ACL record and the item's
// own header with the longest name.
constexpr size_t kProbe = 2 * (128 + cpio::kMaxNameSize + 8);
// Bytes gathered at an MTF item: its FILE block and the stream headers up to
// its data (security and other streams before the data are small).
constexpr size_t kMtfProbe = 64 * 1024;

std::string PlainName(const std::string& name) {
  size_t i = 0;
  while (i < name.size() && (name[i] == '/' || (name[i] == '.' && i + 1 < name.size() && name[i + 1] == '/'))) ++i;
  return name.substr(i);
}

}  // namespace

StreamFollower::StreamFollower(tvu::ChainPlan* plan, const std::string& catalog, const std::string& name, bool verify,
                               uint64_t from)
    : plan_(plan), catalogPath_(catalog), name_(name), verify_(verify), from_(from), pos_(from) {}

StreamFollower::~StreamFollower() {
  if (catalog_) fclose(catalog_);
}

int StreamFollower::Start(std::string* error) {
  if (plan_->Rewind(error) != 0) return 1;
  if (!catalogPath_.empty()) {
    catalog_ = pf::FOpen(catalogPath_.c_str(), "w");
    if (!catalog_) {
      *error = "cannot create " + catalogPath_ + ": " + pf::ErrorText(pf::LastError());
      return 1;
    }
    // The header says version 2, so that readers take every line as such.
    fprintf(catalog_, "Tape ID: %s Tape Label: %s Format: %s LIS: 2.0\n", name_.c_str(), name_.c_str(),
            plan_->IsDump() ? "DUMP" : plan_->IsMtf() ? "MTF" : "CPIO");
  }
  // Items that lie wholly before a resumed stream's start are written now.
  Feed(nullptr, 0);
  return 0;
}

void StreamFollower::WriteLine(const tvu::PlanItem& it) {
  if (it.type == 'd') {
    ++dirs_;
    lastDir_ = it.streamOffset;
  } else {
    ++files_;
    lastFile_ = it.streamOffset;
    dataBytes_ += it.dataSize;  // the footer's total
  }
  if (!catalog_) return;
  fprintf(catalog_, "\"%s\" %c %s %s %" PRIu64 " %" PRId64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " 0 %s \n",
          it.path.c_str(), it.type, it.ctime.c_str(), it.mtime.c_str(), it.streamOffset, it.relOffset, it.span,
          it.dataSize, it.inode, name_.c_str());
}

void StreamFollower::Verify(const tvu::PlanItem& it) {
  ++verified_;
  const std::string where = "stream offset " + std::to_string(it.streamOffset) + " (catalog line " +
                            std::to_string(it.line) + ")";
  auto problem = [&](const std::string& what) { problems_.push_back(where + ": " + what); };
  if (plan_->IsDump()) {
    // A dump stream: the inode header of the item's kind.
    dump::Header h;
    if (probe_.size() < dump::kRecordSize) return problem("the record is cut short");
    const dump::Check c = dump::DecodeHeader(reinterpret_cast<const uint8_t*>(probe_.data()), &h);
    if (c != dump::Check::kOk) return problem(std::string("no dump header: ") + dump::CheckText(c));
    if (h.type != dump::kTsInode) return problem("no inode header (type " + std::to_string(h.type) + ")");
    const bool isDir = (h.mode & 0170000) == 0040000;
    if (isDir != (it.type == 'd')) return problem(isDir ? "the inode is a folder, the line a file" : "the inode is no folder");
    return;
  }
  if (plan_->IsMtf()) return VerifyMtf(it, where);
  size_t at = 0;
  for (int pass = 0; pass < 2; ++pass) {
    cpio::Header h;
    size_t headerLen = 0;
    std::string why;
    const cpio::DecodeResult r = cpio::DecodeHeader(probe_.data() + at, probe_.size() - at, &h, &headerLen, &why);
    if (r == cpio::DecodeResult::kTruncated) return problem("the record is cut short");
    if (r == cpio::DecodeResult::kCorrupt) return problem("no CPIO record: " + why);
    if (h.format == cpio::Format::kEaAcl && pass == 0) {
      at += cpio::RecordSpan(h.format, h.namesize, h.filesize);
      if (at >= probe_.size()) return problem("an ACL record and no item record");
      continue;
    }
    if (PlainName(h.name) != PlainName(it.path)) return problem("the record is \"" + h.name + "\", not \"" + it.path + "\"");
    const bool isDir = (h.mode & 0170000) == 0040000;
    if (isDir != (it.type == 'd')) return problem(isDir ? "the record is a folder, the line a file" : "the record is no folder");
    if (it.type == 'f' && r == cpio::DecodeResult::kOk && h.filesize != it.dataSize)
      return problem("the record holds " + std::to_string(h.filesize) + " bytes of data, the line says " +
                     std::to_string(it.dataSize));
    if (at + cpio::RecordSpan(h.format, h.namesize, h.filesize) > it.span)
      return problem("the record is longer than the " + std::to_string(it.span) + " bytes the line covers");
    return;
  }
}

// An MTF item: the FILE block of the item and the walk of its streams to its
// data, over the bytes gathered.  A walk that needs bytes beyond them (streams
// before the data longer than the probe) leaves the item unchecked.
void StreamFollower::VerifyMtf(const tvu::PlanItem& it, const std::string& where) {
  if (it.type != 'f') {
    --verified_;  // folders' blocks are not judged
    return;
  }
  bool beyond = false;
  const MtfReadAt readAt = [this, &beyond](uint64_t pos, uint8_t* buf, size_t n) -> int64_t {
    if (pos + n > probe_.size()) beyond = true;
    if (pos >= probe_.size()) return 0;
    const size_t take = std::min<size_t>(n, probe_.size() - pos);
    memcpy(buf, probe_.data() + pos, take);
    return static_cast<int64_t>(take);
  };
  const size_t slash = it.path.find_last_of('/');
  const std::string base = slash == std::string::npos ? it.path : it.path.substr(slash + 1);
  std::wstring wideBase;
  if (!korvo::mbstowcsl(base.data(), base.size(), ".UTF-8,,ISO-8859", &wideBase)) wideBase.clear();
  MTF_ITEM item;
  std::string why;
  const int r = MtfWalkFileBlock(readAt, 0, it.span, wideBase, &item, &why);
  if (r == mwTRUNCATED && beyond && probe_.size() < it.span) {
    --verified_;  // not judged
    return;
  }
  if (r != mwFOUND && r != mwEMPTY) {
    problems_.push_back(where + ": no readable FILE block of the item: " + why);
    return;
  }
  if (r == mwFOUND && item.ullDataOffset + item.ullSize > it.span)
    problems_.push_back(where + ": the item's data ends " + std::to_string(item.ullDataOffset + item.ullSize) +
                        " bytes into it, past the " + std::to_string(it.span) + " bytes the line covers");
}

void StreamFollower::Feed(const char* data, size_t n) {
  const uint64_t start = pos_, end = pos_ + n;
  pos_ = end;
  for (;;) {
    if (!haveCur_) {
      if (exhausted_ || !plan_->Next(&cur_)) {
        exhausted_ = true;
        return;
      }
      haveCur_ = true;
      // Records are checked in CPIO, dump and MTF streams; others pass.
      curChecked_ = !verify_ || cur_.streamOffset < from_ || (!plan_->IsCpio() && !plan_->IsDump() && !plan_->IsMtf());
      probe_.clear();
    }
    if (!curChecked_) {
      const uint64_t want =
          std::min<uint64_t>(cur_.span, plan_->IsDump() ? dump::kRecordSize : plan_->IsMtf() ? kMtfProbe : kProbe);
      const uint64_t next = cur_.streamOffset + probe_.size();
      if (next < start) {
        // The line goes back into bytes already gone (a catalog that was
        // not checked): nothing to compare.
        problems_.push_back("catalog line " + std::to_string(cur_.line) + ": its record lies before the stream's " +
                            "current position and cannot be checked");
        curChecked_ = true;
      } else {
        if (next < end && probe_.size() < want) {
          const uint64_t take = std::min<uint64_t>(want - probe_.size(), end - next);
          probe_.append(data + (next - start), take);
        }
        if (probe_.size() < want) return;  // more bytes needed
        Verify(cur_);
        curChecked_ = true;
      }
    }
    if (cur_.streamOffset + cur_.span > end) return;  // the item's bytes are not all out yet
    WriteLine(cur_);
    haveCur_ = false;
  }
}

int StreamFollower::Finish(uint64_t streamBytes, std::string* error) {
  // Items the stream ended before (a catalog that was not checked).
  if (haveCur_ || !exhausted_) {
    uint64_t missing = 0;
    tvu::PlanItem it;
    if (haveCur_) ++missing;
    while (!exhausted_ && plan_->Next(&it)) ++missing;
    if (missing) problems_.push_back(std::to_string(missing) + " catalog items lie past the stream's end (" +
                                     std::to_string(streamBytes) + " bytes)");
  }
  if (!catalog_) return 0;
  fprintf(catalog_,
          "Total: %" PRIu64 " Last File Offset: %" PRIu64 " Last Dir Offset: %" PRIu64
          " Number of directories: %" PRIu64 " Number of files: %" PRIu64 "\n",
          dataBytes_, lastFile_, lastDir_, dirs_, files_);
  const bool failed = ferror(catalog_) != 0;
  if (fclose(catalog_) != 0 || failed) {
    catalog_ = nullptr;
    *error = "writing " + catalogPath_ + " failed: " + pf::ErrorText(pf::LastError());
    return 1;
  }
  catalog_ = nullptr;
  return 0;
}
