// mtf_stream.cpp - the walk over an MTF FILE block and its streams, and the
// entry update that runs it on a saveset.
//
// The walk reads the saveset through a window of 64 KiB: the first read
// starts at the FILE block, so a small item's block, its streams' headers and
// usually its data header are all in it.  A header that is not wholly inside
// the window (one that crosses its end, or one behind a long stream that the
// walk passed over by arithmetic) is read again with a window that starts at
// it.  Stream data is never read.
//
// Every field is checked before the walk trusts it: the block's type and
// header checksum, where its name and its first stream lie, each stream
// header's checksum, and that each stream's data ends inside the saveset.
#include "archive/mtf_stream.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "archive/mtf_format.h"
#include "report/tvu_report.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_saveset.h"
#include "vfs/tq_vfs_timer.h"

namespace {

constexpr size_t kWindowSize = 65536;
// A FILE block holds a handful of streams (data, security, alternate data,
// checksums); a walk over this many headers is walking over garbage.
constexpr unsigned kMaxStreams = 4096;

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

unsigned long long U(uint64_t v) { return static_cast<unsigned long long>(v); }

// The bytes of the saveset the walk has read last.
class Window {
 public:
  Window(const MtfReadAt& readAt, MTF_ITEM* item)
      : readAt_(readAt), item_(item), buf_(static_cast<uint8_t*>(safe_malloc(kWindowSize)), &free) {}

  // The n bytes (n <= kWindowSize) at pos, read anew unless the window holds
  // them all.  Null when fewer are there: *avail says how many (the saveset
  // ends), or *failed is set (it cannot be read).
  const uint8_t* Get(uint64_t pos, size_t n, size_t* avail, bool* failed) {
    *failed = false;
    if (!(valid_ && pos >= start_ && pos - start_ <= len_ && len_ - (pos - start_) >= n)) {
      ++item_->uiReads;
      const int64_t got = readAt_(pos, buf_.get(), kWindowSize);
      if (got < 0) {
        valid_ = false;
        *failed = true;
        *avail = 0;
        return nullptr;
      }
      valid_ = true;
      start_ = pos;
      len_ = static_cast<size_t>(got);
    }
    *avail = static_cast<size_t>(len_ - (pos - start_));
    return *avail >= n ? buf_.get() + (pos - start_) : nullptr;
  }

 private:
  const MtfReadAt& readAt_;
  MTF_ITEM* item_;
  std::unique_ptr<uint8_t, decltype(&free)> buf_;
  bool valid_ = false;
  uint64_t start_ = 0;
  size_t len_ = 0;
};

std::wstring WithoutColons(const std::wstring& s) {
  std::wstring out;
  for (wchar_t c : s)
    if (c != L':') out.push_back(c);
  return out;
}

std::string Narrow(const std::wstring& s) { return korvo::wcstombs_utf8(s.c_str()); }

// What makes a data stream unreadable as plain bytes, or null.
const char* Unsupported(const mtf::StreamHeader& s) {
  if ((s.mediaAttributes & mtf::kStreamEncrypted) != 0 || s.encryption != 0) return "encrypted";
  if ((s.mediaAttributes & mtf::kStreamCompressed) != 0 || s.compression != 0) return "compressed";
  if ((s.fsAttributes & mtf::kStreamIsSparse) != 0) return "sparse";
  if ((s.mediaAttributes & (mtf::kStreamVariable | mtf::kStreamVarEnd)) != 0) return "of variable length";
  if ((s.mediaAttributes & mtf::kStreamContinue) != 0) return "continued from another medium";
  return nullptr;
}

}  // namespace

int MtfWalkFileBlock(const MtfReadAt& readAt, uint64_t blockOffset, uint64_t savesetSize,
                     const std::wstring& expectedName, MTF_ITEM* item, std::string* why) {
  *item = MTF_ITEM();
  why->clear();
  Window w(readAt, item);
  size_t avail = 0;
  bool failed = false;
  auto readError = [&](uint64_t pos) {
    *why = Format("the saveset cannot be read at offset %llu", U(pos));
    return mwREAD_ERROR;
  };

  // The block: common header and FILE fields.
  const uint8_t* p = w.Get(blockOffset, mtf::kFileSize, &avail, &failed);
  if (failed) return readError(blockOffset);
  if (!p) {
    *why = Format("the saveset ends %llu bytes after offset %llu, inside a descriptor block", U(avail),
                  U(blockOffset));
    return mwTRUNCATED;
  }
  mtf::DblkHeader h;
  if (mtf::DecodeDblkHeader(p, mtf::kFileSize, &h) != mtf::Check::kOk) {
    *why = Format("no descriptor block at offset %llu: header checksum 0x%04x, computed 0x%04x", U(blockOffset),
                  h.checksum, mtf::WordXor(p, 25));
    return mwNOT_FILE;
  }
  if (h.type != mtf::kFile) {
    *why = Format("the descriptor block at offset %llu is of type %s, not FILE", U(blockOffset),
                  mtf::IdText(h.type).c_str());
    return mwNOT_FILE;
  }
  mtf::FileBlock f;
  mtf::DecodeFileBlock(p, &f);
  item->uiAttributes = f.attributes;
  item->llModified = mtf::DateToEpoch(f.modified);
  if (h.firstEvent < mtf::kFileSize || h.firstEvent % mtf::kStreamAlign != 0) {
    *why = Format("the FILE block at offset %llu puts its first stream at %u, before its end (%u) or off a 4-byte "
                  "boundary",
                  U(blockOffset), h.firstEvent, static_cast<unsigned>(mtf::kFileSize));
    return mwDAMAGED;
  }

  // Its name, unless the block keeps it in a stream.
  if ((f.attributes & mtf::kFileNameInStream) == 0) {
    if (f.name.offset < mtf::kFileSize || f.name.offset + f.name.size > h.firstEvent) {
      *why = Format("the FILE block at offset %llu has its name at %u (%u bytes), outside the block", U(blockOffset),
                    f.name.offset, f.name.size);
      return mwDAMAGED;
    }
    const uint8_t* name = w.Get(blockOffset + f.name.offset, f.name.size, &avail, &failed);
    if (failed) return readError(blockOffset + f.name.offset);
    if (!name) {
      *why = Format("the saveset ends inside the FILE block at offset %llu", U(blockOffset));
      return mwTRUNCATED;
    }
    if (!mtf::DecodeString(name, f.name.size, h.stringType, &item->wsName)) {
      *why = Format("the FILE block at offset %llu has a name of string type %u and %u bytes", U(blockOffset),
                    h.stringType, f.name.size);
      return mwDAMAGED;
    }
    if (!expectedName.empty() && WithoutColons(item->wsName) != WithoutColons(expectedName)) {
      *why = Format("the FILE block at offset %llu is of [%s], not of [%s]", U(blockOffset),
                    Narrow(item->wsName).c_str(), Narrow(expectedName).c_str());
      return mwNOT_FILE;
    }
  }

  // Its streams, one after the other, up to the data stream.
  uint64_t pos = blockOffset + h.firstEvent;
  while (item->uiStreams < kMaxStreams) {
    if (pos == savesetSize) {
      *why = Format("the saveset ends at %llu after the streams of the FILE block at offset %llu, before their pad or "
                    "the next descriptor block",
                    U(pos), U(blockOffset));
      return mwTRUNCATED;
    }
    p = w.Get(pos, mtf::kStreamHeaderSize, &avail, &failed);
    if (failed) return readError(pos);
    if (!p) {
      *why = Format("the saveset ends inside the stream header at offset %llu (FILE block at %llu)", U(pos),
                    U(blockOffset));
      return mwTRUNCATED;
    }
    mtf::StreamHeader s;
    if (mtf::DecodeStreamHeader(p, mtf::kStreamHeaderSize, &s) != mtf::Check::kOk) {
      // Streams that end on a logical block boundary need no pad: the next
      // descriptor block follows at once.
      mtf::DblkHeader next;
      const uint8_t* q = w.Get(pos, mtf::kDblkHeaderSize, &avail, &failed);
      if (q && mtf::DecodeDblkHeader(q, mtf::kDblkHeaderSize, &next) == mtf::Check::kOk && mtf::IsDblkType(next.type)) {
        item->ullDataOffset = pos - blockOffset;
        return mwEMPTY;
      }
      *why = Format("the stream header at offset %llu (id %s, FILE block at %llu) has checksum 0x%04x, computed "
                    "0x%04x",
                    U(pos), mtf::IdText(s.id).c_str(), U(blockOffset), s.checksum, mtf::WordXor(p, 10));
      return mwDAMAGED;
    }
    ++item->uiStreams;
    const uint64_t dataStart = pos + mtf::kStreamHeaderSize;
    const uint64_t left = savesetSize >= dataStart ? savesetSize - dataStart : 0;
    if (s.length > left) {
      *why = Format("the %s stream at offset %llu claims %llu bytes, the saveset has %llu left", mtf::IdText(s.id).c_str(),
                    U(pos), U(s.length), U(left));
      return savesetSize == UINT64_MAX ? mwDAMAGED : mwTRUNCATED;
    }
    if (s.id == mtf::kSpad) {
      item->ullDataOffset = pos - blockOffset;
      return mwEMPTY;
    }
    if (s.id == mtf::kStan) {
      if (const char* what = Unsupported(s)) {
        *why = Format("the data stream at offset %llu is %s; such streams are not supported", U(pos), what);
        return mwUNSUPPORTED;
      }
      item->ullDataOffset = dataStart - blockOffset;
      item->ullSize = s.length;
      return mwFOUND;
    }
    if (s.id == mtf::kSpar || s.id == mtf::kNted) {
      *why = Format("the file's data is kept %s (%s stream at offset %llu); such streams are not supported",
                    s.id == mtf::kSpar ? "sparse" : "encrypted", mtf::IdText(s.id).c_str(), U(pos));
      return mwUNSUPPORTED;
    }
    WRITE_TRACE(3, "MTF: passing over the %s stream at offset %llu (%llu bytes)", mtf::IdText(s.id).c_str(), U(pos),
                U(s.length));
    pos = mtf::AlignUp(dataStart + s.length, mtf::kStreamAlign);
    if (pos == UINT64_MAX) {
      *why = Format("the %s stream at offset %llu claims %llu bytes", mtf::IdText(s.id).c_str(), U(dataStart - 22),
                    U(s.length));
      return mwDAMAGED;
    }
  }
  *why = Format("the FILE block at offset %llu has more than %u streams", U(blockOffset), kMaxStreams);
  return mwDAMAGED;
}

int UpdateFSEntryFromMTFSaveset(MTF_ENTRY_UPDATE* entry, const char* context) {
  const int32_t idx = entry->iSavesetIdx;
  const unsigned long long offset = entry->ullSavesetOffset;
  const std::string name = Narrow(entry->wsName);
  WRITE_TRACE(2, "+++UpdateFSEntryFromMTFSaveset [%s] saveset idx [%d] saveset offset [%llu]", name.c_str(), idx,
              offset);
  VfsTimerStart(vtMTF);
  saveset_operation_mutex_lock(idx);
  uint64_t size = UINT64_MAX;
  if (saveset_size(idx, &size) != 0) size = UINT64_MAX;
  const MtfReadAt readAt = [idx](uint64_t pos, uint8_t* buf, size_t n) -> int64_t {
    if (saveset_seek(idx, static_cast<int64_t>(pos)) != 0) return -1;
    uint64_t got = 0;
    uint8_t eof = 0;
    if (saveset_read(idx, buf, n, &got, &eof) != 0) return -1;
    return static_cast<int64_t>(got);
  };
  MTF_ITEM item;
  std::string why;
  const int r = MtfWalkFileBlock(readAt, entry->ullSavesetOffset, size, entry->wsName, &item, &why);
  saveset_operation_mutex_unlock(idx);
  VfsTimerStop(vtMTF);

  if (r == mwFOUND || r == mwEMPTY) {
    // An empty file is placed where its streams end, so that it counts as
    // located (a relative offset of 0 means "not yet").
    entry->llRelOffset = static_cast<int64_t>(item.ullDataOffset);
    entry->ullSize = item.ullSize;
    entry->llStreamTime = item.llModified;
    entry->bLocated = true;
    WRITE_TRACE(2, "---UpdateFSEntryFromMTFSaveset %s located; relative offset = %llu stream size = %llu",
                r == mwFOUND ? "File" : "Empty file", U(item.ullDataOffset), U(item.ullSize));
    return 0;
  }
  const char* saveset = context && *context ? context
                        : idx >= 0 && idx < g_iSavesetCount && g_psSavesets[idx].szName ? g_psSavesets[idx].szName
                                                                                         : "";
  entry->bLocated = false;
  entry->ullSize = 0;
  WRITE_TRACE(1, "---UpdateFSEntryFromMTFSaveset: cannot locate [%s] in saveset [%s]: %s", name.c_str(), saveset,
              why.c_str());
  tvu_log(TQ_LOG_ERROR, "Cannot locate [%s] in MTF saveset [%s]: %s", name.c_str(), saveset, why.c_str());
  tvu_note("Cannot locate [%s] in MTF saveset [%s]: %s", name.c_str(), saveset, why.c_str());
  return r;
}
