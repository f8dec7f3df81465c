// cpio_stream.cpp - locating an item's data in the CPIO-derived item stream of
// a saveset.
//
// UpdateFSEntryFromCPIOSaveset seeks the saveset to the entry's offset and
// reads the stream: first a few hundred bytes, which hold the header and name
// of the record there in nearly every case (the item's own record, as the
// catalog points at it), then buffers of 64 KiB.  The block walker moves through each
// buffer record by record (header, name, fill, data, fill), asks the archive
// callback (PDS_CallingtModule) whether a record's name is the one looked for
// and, when it is, reports where the record's data begins and how long it is.
//
// What the search means:
//  - The relative offset is counted from the entry's saveset offset to the
//    first byte of the item's data.
//  - Only records that begin within the first 64 KiB after the entry's offset
//    are examined.  A record that begins there but whose header or name runs
//    past the end of the buffer is re-read: the walker seeks back to the
//    record's first byte and the next read starts there.  When that record
//    began the buffer (a name longer than the first read), the next read is
//    made large enough for its header and name.
//  - A record named "TRAILER!!!" ends the search: the item is not there.
//  - A record of the looked-for name without data is an empty file.
//  - Extended-attribute / ACL records (magic 070716) name the item they belong
//    to but never hold its data; the walker passes over them.
//  - Data that lies beyond the end of a buffer is passed over by skipping the
//    rest of it at the start of the next buffer, never by seeking.
//
// Thread safety: the caller of UpdateFSEntryFromCPIOSaveset may be any thread;
// it holds the saveset's operation mutex for the whole search, the walker
// state lives on its stack and the looked-for name is per thread.
#include "archive/cpio_stream.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>

#include "archive/cpio_format.h"
#include "report/tvu_report.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_common.h"
#include "vfs/tq_vfs_saveset.h"
#include "vfs/tq_vfs_timer.h"

#ifndef TVU_BUILD_ID
#define TVU_BUILD_ID "development build"
#endif

namespace {

constexpr size_t kBufferSize = 65536;     // the search window, and every read after the first
constexpr size_t kFirstRead = 512;        // the first read: a header (at most 126 bytes) and a name
constexpr size_t kMaxLookedFor = 4094;    // longest catalog path
constexpr size_t kMaxWideName = 4096;     // wide name of a record, NUL included
constexpr size_t kMagicLen = 6;
constexpr char kCompressedMagic[] = "070106";  // cpio::kMagicExtCompressed as text
constexpr size_t kMaxHeaderText = 128;    // every fixed header is at most 126 bytes
constexpr const char* kNameEncodings = ".UTF-8,ISO-8859";

// Operations of the archive callback and the answer to a matching name.
constexpr int kOpCompareName = 1;
constexpr int kOpSeekForward = 48;
constexpr int kOpSeekBackward = 49;
constexpr int kNameMatches = 10;
constexpr int kOpUnknown = 2;

// Walker results: 0 go on with the next buffer (or done, see the flags);
// -1 the walk cannot go on (damaged stream, failed seek, or the end of the
// archive when bStop is set); -2 a record the module cannot handle.
constexpr int kWalkOk = 0;
constexpr int kWalkError = -1;
constexpr int kWalkUnhandled = -2;
// The record at the start of the buffer needs more bytes than were asked for
// (its name is longer than the read); the stream is back at its first byte.
constexpr int kWalkGrow = 1;

using ArchiveCallback = int (*)(int operation, const char* name, int64_t bytes, int32_t iSavesetIdx);

// The name the current thread looks for; read by operation 1 of the callback,
// whose interface carries no context.
thread_local char t_szLookedFor[kMaxLookedFor + 1];

// State of one search, carried from buffer to buffer.
struct CpioWalk {
  ArchiveCallback pfnCallback = nullptr;
  int32_t iSavesetIdx = -1;
  uint64_t ullEntryOffset = 0;  // saveset offset of the entry (for messages)
  uint64_t ullWalked = 0;       // stream bytes behind the current buffer, from the entry's offset
  uint64_t ullSkip = 0;         // data and fill of the last record still to pass
  size_t uRequested = 0;        // bytes the read of the current buffer asked for
  size_t uNeeded = 0;           // kWalkGrow: bytes the record's header and name take
  bool bFound = false;          // the item's record was met and has data
  bool bEmpty = false;          // the item's record was met and has no data
  bool bStop = false;           // the walk ended on purpose (end of archive)
  bool bEncrypted = false;
  bool bCompressed = false;
  uint64_t ullRelOffset = 0;    // found or empty: entry offset to the item's data
  uint64_t ullStreamSize = 0;   // found: bytes of the item's data
  int64_t llStreamTime = -1;    // found or empty: the record's time stamp
  wchar_t wszName[kMaxWideName];  // name of the last record walked, wide as the tree holds names
};

// Saveset offset of byte pos of the current buffer.
unsigned long long Where(const CpioWalk& w, size_t pos) {
  return w.ullEntryOffset + w.ullWalked + pos;
}

// Copies the first n of the avail bytes at p into a NUL-terminated text for
// the traces.
void HeaderText(const char* p, size_t n, size_t avail, char (&text)[kMaxHeaderText + 1]) {
  if (n > avail) n = avail;
  if (n > kMaxHeaderText) n = kMaxHeaderText;
  memcpy(text, p, n);
  text[n] = '\0';
}

// The header reader: decodes the fixed header of an item record (odc, newc or
// the extended family) at p, of which avail bytes are readable (at least the
// fixed header).  Returns 0, or -1 after tracing why; the name is not read.
int ReadCpioHeader(const char* p, size_t avail, unsigned long long where, cpio::Header* h) {
  char text[kMaxHeaderText + 1];
  size_t fieldsRead = 0;
  std::string why;
  const cpio::DecodeResult r = cpio::DecodeFixedHeader(p, avail, h, &fieldsRead, &why);
  cpio::Format format;
  HeaderText(p, cpio::FormatFromMagic(p, &format) ? cpio::HeaderSize(format) : kMagicLen, avail, text);
  if (fieldsRead == 0) {  // not even the magic is a number
    WRITE_TRACE(1, "sscanf() failed: [%s]", text);
    return -1;
  }
  if (!cpio::FormatFromMagic(p, &format)) {
    WRITE_TRACE(1, "invalid magic number %lu [%s]", static_cast<unsigned long>(h->magic), text);
    return -1;
  }
  if (fieldsRead != cpio::FieldCount(format)) {
    WRITE_TRACE(1, "sscanf():invalid number of header fields:[%d][%d]", static_cast<int>(fieldsRead),
                static_cast<int>(cpio::FieldCount(format)));
    return -1;
  }
  if (r != cpio::DecodeResult::kOk) {  // a field out of range, such as the name size
    WRITE_TRACE(1, "CPIO header at saveset offset %llu: %s", where, why.c_str());
    return -1;
  }
  return 0;
}

// The reader of the extended-attribute / ACL header (magic 070716); the same
// contract as ReadCpioHeader.
int ReadEaAclHeader(const char* p, size_t avail, unsigned long long where, cpio::Header* h) {
  char text[kMaxHeaderText + 1];
  size_t fieldsRead = 0;
  std::string why;
  const cpio::DecodeResult r = cpio::DecodeFixedHeader(p, avail, h, &fieldsRead, &why);
  cpio::Format format;
  if (!cpio::FormatFromAnyMagic(p, &format) || format != cpio::Format::kEaAcl) {
    HeaderText(p, kMagicLen, avail, text);
    WRITE_TRACE(1, "ea_acl: invalid magic number [%s]", text);
    return -1;
  }
  if (fieldsRead != cpio::FieldCount(format)) {
    WRITE_TRACE(1, "sscanf(): invalid number of header fields:[%d][%d]", static_cast<int>(fieldsRead),
                static_cast<int>(cpio::FieldCount(format)));
    return -1;
  }
  if (r != cpio::DecodeResult::kOk) {
    WRITE_TRACE(1, "ea_acl header at saveset offset %llu: %s", where, why.c_str());
    return -1;
  }
  return 0;
}

// A record that begins at pos does not fit in the rest of the buffer: asks
// the callback to move the stream back by the bytes from pos on, so that the
// next read starts at the record.  A record that does not fit even in a
// buffer that begins with it can only be cut off by the end of the stream
// (a header and its name take at most 4222 bytes); seeking back would read the
// same bytes again for ever, so that ends the walk.  (A store that returned a
// short buffer before its end would be taken for a cut-off stream too.)
// A seek the callback did not carry out (any result but 0) leaves the stream
// where the walk cannot follow it, and also ends the walk.
int SeekBackward(CpioWalk* w, size_t pos, size_t len, size_t* consumed, size_t needed = 0) {
  if (pos == 0 && needed > len && len == w->uRequested && w->uRequested < kBufferSize) {
    // Not the stream's end: the read was short of the record.  Back to its
    // start, for a larger read.
    WRITE_TRACE(2, "Record of %lu bytes of header and name; reading again from its start",
                static_cast<unsigned long>(needed));
    *consumed = 0;
    w->uNeeded = needed;
    const int r = w->pfnCallback(kOpSeekBackward, nullptr, static_cast<int64_t>(len), w->iSavesetIdx);
    return r == 0 ? kWalkGrow : kWalkError;
  }
  if (pos == 0) {
    WRITE_TRACE(1, "CPIO stream ends inside a record header at saveset offset %llu (%lu bytes left)",
                Where(*w, pos), static_cast<unsigned long>(len));
    return kWalkError;
  }
  *consumed = pos;
  const int r = w->pfnCallback(kOpSeekBackward, nullptr, static_cast<int64_t>(len - pos), w->iSavesetIdx);
  return r == 0 ? kWalkOk : kWalkError;
}

// The block walker: walks the len bytes of buf (the stream from the entry's
// offset + w->ullWalked on) and sets *consumed to the bytes of buf it is done
// with, so that the next buffer begins at w->ullWalked + *consumed.
int WalkCpioBlock(CpioWalk* w, const char* buf, size_t len, size_t* consumed) {
  *consumed = len;
  if (w->ullSkip >= len) {  // the whole buffer is data of an earlier record
    w->ullSkip -= len;
    return kWalkOk;
  }
  size_t pos = static_cast<size_t>(w->ullSkip);
  w->ullSkip = 0;

  for (;;) {
    if (w->ullWalked + pos >= kBufferSize) {  // records beyond the window are not examined
      *consumed = pos;
      return kWalkOk;
    }
    if (pos == len) return kWalkOk;
    const char* p = buf + pos;
    const size_t avail = len - pos;

    if (avail < kMagicLen) {
      WRITE_TRACE(2, "Seek backward - next CPIOMAGIC does not fit in this buffer. Bytes to seek backwards %lu",
                  static_cast<unsigned long>(avail));
      return SeekBackward(w, pos, len, consumed);
    }
    char szMagic[kMagicLen + 1];
    memcpy(szMagic, p, kMagicLen);
    szMagic[kMagicLen] = '\0';
    WRITE_TRACE(3, "szHeader(header type): %6s", szMagic);
    cpio::Format format;
    if (!cpio::FormatFromAnyMagic(p, &format)) {
      WRITE_TRACE(1, "unknown header type %6s", szMagic);
      WRITE_TRACE(1, "CPIO record expected at saveset offset %llu", Where(*w, pos));
      return kWalkUnhandled;
    }
    if (strcmp(szMagic, kCompressedMagic) == 0) {
      w->bCompressed = true;
      WRITE_TRACE(1, "Cannot handle compressed blocks %6s", szMagic);
      return kWalkUnhandled;
    }
    const size_t headerSize = cpio::HeaderSize(format);
    if (avail < headerSize) {
      WRITE_TRACE(2, "Seek backward - next header does not fit in this buffer. Bytes to seek %lu buffer size %lu",
                  static_cast<unsigned long>(avail), static_cast<unsigned long>(len));
      return SeekBackward(w, pos, len, consumed);
    }

    // Fixed header first; its name size (capped by the reader) decides
    // whether the name is in this buffer.
    const bool bEaAcl = format == cpio::Format::kEaAcl;
    cpio::Header h;
    const int read = bEaAcl ? ReadEaAclHeader(p, avail, Where(*w, pos), &h)
                            : ReadCpioHeader(p, avail, Where(*w, pos), &h);
    if (read != 0) return kWalkError;
    if (korvo::trace_level() >= 3) {
      char text[kMaxHeaderText + 1];
      HeaderText(p, headerSize, avail, text);
      WRITE_TRACE(3, "szHeader(complete): %s", text);
    }
    if ((format == cpio::Format::kExt || format == cpio::Format::kExtUnpadded) &&
        (h.flags == cpio::kFlagsEncrypted || h.flags == cpio::kFlagsEncryptedAlt)) {
      w->bEncrypted = true;
      WRITE_TRACE(1, "Cannot handle encrypted blocks %6s", szMagic);
      return kWalkUnhandled;
    }
    if (avail - headerSize < h.namesize) {
      WRITE_TRACE(2, "Seek backward - next filename does not fit in this buffer. Bytes to seek %lu",
                  static_cast<unsigned long>(avail));
      return SeekBackward(w, pos, len, consumed, headerSize + static_cast<size_t>(h.namesize));
    }

    size_t dataOffset = 0;  // header, name, NUL and fill
    std::string why;
    if (cpio::DecodeHeader(p, avail, &h, &dataOffset, &why) == cpio::DecodeResult::kCorrupt) {
      WRITE_TRACE(1, "CPIO record at saveset offset %llu: %s", Where(*w, pos), why.c_str());
      return kWalkError;
    }
    WRITE_TRACE(3, "szFileName: %s", h.name.c_str());
    if (korvo::mbstowcsl(w->wszName, h.name.c_str(), kMaxWideName, kNameEncodings) == static_cast<size_t>(-1))
      w->wszName[0] = L'\0';

    if (!bEaAcl) {
      if (h.name == cpio::kTrailerName) {
        WRITE_TRACE(3, "End of archive at saveset offset %llu", Where(*w, pos));
        w->bStop = true;
        return kWalkError;
      }
      if (w->pfnCallback(kOpCompareName, h.name.c_str(), 0, w->iSavesetIdx) == kNameMatches) {
        w->ullRelOffset = w->ullWalked + pos + dataOffset;
        w->ullStreamSize = h.filesize;
        w->llStreamTime = static_cast<int64_t>(h.mtime);
        if (h.filesize == 0)
          w->bEmpty = true;
        else
          w->bFound = true;
        *consumed = pos;
        return kWalkOk;
      }
    }

    // On to the next record.  filesize is at most 8 GiB (11 octal or 8 hex
    // digits), so the span cannot overflow; it is never used as an index
    // into buf, only compared with what is left of it.
    const uint64_t span = cpio::RecordSpan(format, h.namesize, h.filesize);
    if (span > avail) {
      w->ullSkip = span - avail;
      return kWalkOk;
    }
    pos += static_cast<size_t>(span);
  }
}

}  // namespace

int PDS_CallingtModule(int operation, const char* name, int64_t bytes, int32_t iSavesetIdx) {
  if (operation == kOpCompareName) {
    const bool match = name && strcmp(name, t_szLookedFor) == 0;
    WRITE_TRACE(3, "compare [%s] with [%s]: %s", name ? name : "", t_szLookedFor, match ? "match" : "no match");
    return match ? kNameMatches : 0;
  }
  if (operation != kOpSeekForward && operation != kOpSeekBackward) return kOpUnknown;

  if (operation == kOpSeekBackward)
    WRITE_TRACE(2, "******** SEEK BACKWARD bytes=%lld savesetIdx=%d", static_cast<long long>(bytes), iSavesetIdx);
  else
    WRITE_TRACE(2, "******** SEEK FORWARD bytes=%lld savesetIdx=%d", static_cast<long long>(bytes), iSavesetIdx);
  uint64_t position = 0;
  int err = saveset_ftello(iSavesetIdx, &position);
  if (err != 0) {
    WRITE_TRACE(1, "saveset_ftello error %d", err);
    return 1;
  }
  // Distances are signed 32-bit values: the walker never moves by more than
  // one buffer, and 2 GiB and more are not supported.
  const int64_t distance = static_cast<int32_t>(static_cast<uint32_t>(bytes));
  const int64_t target = static_cast<int64_t>(position) + (operation == kOpSeekBackward ? -distance : distance);
  err = saveset_seek(iSavesetIdx, target);
  if (err != 0) {
    WRITE_TRACE(1, "saveset_seek error %d", err);
    return 1;
  }
  return 0;
}

int UpdateFSEntryFromCPIOSaveset(CPIO_ENTRY_UPDATE* entry) {
  const int32_t idx = entry->iSavesetIdx;
  saveset_operation_mutex_lock(idx);
  snprintf(t_szLookedFor, sizeof t_szLookedFor, "%s", entry->sName.c_str());
  WRITE_TRACE(2, "+++UpdateFSEntryFromCPIOSaveset = [%s] saveset idx [%d] looking for [%s] saveset offset [%llu]",
              entry->sName.c_str(), idx, t_szLookedFor, static_cast<unsigned long long>(entry->ullSavesetOffset));
  VfsTimerStart(vtCPIO);

  CpioWalk walk;
  walk.pfnCallback = PDS_CallingtModule;
  walk.iSavesetIdx = idx;
  walk.ullEntryOffset = entry->ullSavesetOffset;
  tvu_log(TQ_LOG_DETAIL, "InitArchive:  PACKDATA.DLL module - Released: %s", TVU_BUILD_ID);
  tvu_log(TQ_LOG_DETAIL, "InitArchive: Start.");

  int err = saveset_seek(idx, static_cast<int64_t>(entry->ullSavesetOffset));
  if (err != 0) {
    WRITE_TRACE(1, "---UpdateFSEntryFromCPIOSaveset: saveset_seek failed with error = %d", err);
    saveset_operation_mutex_unlock(idx);
    VfsTimerStop(vtCPIO);
    return 1;
  }

  // Owned by the scope: the fatal paths below leave through it too.
  std::unique_ptr<char, decltype(&free)> owned(static_cast<char*>(safe_malloc(kBufferSize)), &free);
  char* buffer = owned.get();
  size_t readSize = kFirstRead;
  unsigned long ulTotalRead = 0;  // bytes read, re-read ones included
  int walkResult = kWalkOk;
  // The loop ends when the item (or an empty file) is found, at the end of
  // the stream, or once the walker is past the first 64 KiB.  The window is
  // measured by the walked position rather than by the bytes read, so that a
  // record that straddles the first buffer's end is still re-read and found.
  do {
    uint64_t got = 0;
    uint8_t eof = 0;
    err = saveset_read(idx, buffer, readSize, &got, &eof);
    if (err != 0) {
      WRITE_TRACE(1, "---UpdateFSEntryFromCPIOSaveset: saveset_read failed with error = %d", err);
      saveset_operation_mutex_unlock(idx);
      VfsTimerStop(vtCPIO);
      return 1;
    }
    if (got == 0) break;  // nothing more to read, whatever the media's end flag says
    ulTotalRead += static_cast<unsigned long>(got);
    size_t consumed = 0;
    walk.uRequested = readSize;
    walkResult = WalkCpioBlock(&walk, buffer, static_cast<size_t>(got), &consumed);
    if (walkResult < 0) break;
    if (walkResult == kWalkGrow) {
      // Read again from the record's start, enough for its header and name.
      readSize = walk.uNeeded < kBufferSize ? (walk.uNeeded + kFirstRead - 1) / kFirstRead * kFirstRead : kBufferSize;
      walkResult = kWalkOk;
      continue;
    }
    readSize = kBufferSize;
    if (!walk.bFound) walk.ullWalked += consumed;
    if (walk.bEmpty) {
      WRITE_TRACE(2, "Empty file located; stop processing");
      break;
    }
  } while (!walk.bFound && saveset_feof(idx) == 0 && walk.ullWalked < kBufferSize);

  if (walkResult < 0) {
    if (walk.bEncrypted) {
      const char* name = g_psSavesets[idx].szName;
      printf("Saveset [%s] is encrypted. Encrypted savesets are not supported\n", name);
      WRITE_TRACE(1, "Saveset [%s] is encrypted. Encrypted savesets are not supported\n", name);
    } else if (!walk.bStop) {
      WRITE_TRACE(1, "---UpdateFSEntryFromCPIOSaveset: ERROR unpacking CPIO block (%d)", walkResult);
    }
    if (walk.bCompressed) {
      const char* name = g_psSavesets[idx].szName;
      printf("Saveset [%s] is compressed. Compressed savesets are not supported\n", name);
      WRITE_TRACE(1, "Saveset [%s] is compressed. Compressed savesets are not supported\n", name);
    }
    // Neither kind of record can be read by the module; the consolidation
    // cannot go on without their items.  One message serves both.
    if (walk.bEncrypted || walk.bCompressed) tvu_fatal("Saveset is compressed. Compressed savesets are not supported");
  }

  const unsigned long long rel = walk.ullRelOffset;
  if (walk.bFound) {
    WRITE_TRACE(2, "File located; relative offset = %llu stream size = %llu", rel,
                static_cast<unsigned long long>(walk.ullStreamSize));
    entry->llRelOffset = static_cast<int64_t>(rel);
    entry->ullSize = walk.ullStreamSize;
    entry->llStreamTime = walk.llStreamTime;
    entry->bLocated = true;
  } else if (walk.bEmpty) {
    WRITE_TRACE(2, "Empty file located; relative offset = %llu stream size = %llu", rel, 0ull);
    entry->llRelOffset = 0;
    entry->ullSize = 0;
    entry->llStreamTime = walk.llStreamTime;
    entry->bLocated = true;
  } else {
    WRITE_TRACE(2, "Cannot locate [%ls] in saveset", entry->wsName.c_str());
    tvu_note("Cannot locate [%s] in saveset [%s] from offset %llu", entry->sName.c_str(),
             g_psSavesets[idx].szName, static_cast<unsigned long long>(entry->ullSavesetOffset));
    entry->ullSize = 0;
  }
  tvu_log(TQ_LOG_PROGRESS, "bytes read %lu", ulTotalRead);
  WRITE_TRACE(2, "---UpdateFSEntryFromCPIOSaveset iTotalBytesRead = %lu iRet = %d", ulTotalRead, 0);
  saveset_operation_mutex_unlock(idx);
  VfsTimerStop(vtCPIO);
  return 0;
}
