// dump_format.cpp - decoding, checking and byte-order conversion of UFS dump
// header records.
#include "archive/dump_format.h"

#include <cstring>

namespace dump {
namespace {

constexpr bool kHostBig = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;

// Reads an unsigned field of len bytes (2, 4 or 8) in the stream's order.
uint64_t Load(const uint8_t* rec, Field f, bool swapped) {
  const bool big = kHostBig != swapped;
  uint64_t v = 0;
  for (size_t i = 0; i < f.len; ++i) {
    const uint8_t b = rec[f.off + (big ? i : f.len - 1 - i)];
    v = (v << 8) | b;
  }
  return v;
}

void Store(uint8_t* rec, Field f, uint64_t v, bool swapped) {
  const bool big = kHostBig != swapped;
  for (size_t i = 0; i < f.len; ++i) {
    rec[f.off + (big ? f.len - 1 - i : i)] = static_cast<uint8_t>(v);
    v >>= 8;
  }
}

bool IsMagic(uint32_t m) { return m == kMagicNfs || m == kMagicOld || m == kMagicUfs2; }

}  // namespace

uint32_t Header::DataRecords() const {
  uint32_t n = 0;
  for (int32_t i = 0; i < count; ++i) n += addr[i] != 0;
  return n;
}

const char* CheckText(Check c) {
  switch (c) {
    case Check::kOk:
      return "valid header";
    case Check::kBadMagic:
      return "no dump magic";
    case Check::kBadChecksum:
      return "checksum mismatch";
    case Check::kBadCount:
      return "address count out of range";
  }
  return "?";
}

uint32_t WordSum(const uint8_t* rec, bool swapped) {
  uint32_t sum = 0;
  for (size_t off = 0; off < kRecordSize; off += 4) sum += static_cast<uint32_t>(Load(rec, Field{off, 4}, swapped));
  return sum;
}

Check DecodeHeader(const uint8_t* rec, Header* h) {
  bool swapped = false;
  uint32_t magic = static_cast<uint32_t>(Load(rec, kMagic, false));
  if (!IsMagic(magic)) {
    magic = static_cast<uint32_t>(Load(rec, kMagic, true));
    if (!IsMagic(magic)) return Check::kBadMagic;
    swapped = true;
  }
  if (WordSum(rec, swapped) != kChecksum) return Check::kBadChecksum;
  const int32_t count = static_cast<int32_t>(Load(rec, kCount, swapped));
  if (count < 0 || count > static_cast<int32_t>(kMaxAddr)) return Check::kBadCount;

  h->swapped = swapped;
  h->magic = magic == kMagicOld ? kMagicNfs : magic;
  h->type = static_cast<int32_t>(Load(rec, kType, swapped));
  h->date = static_cast<uint32_t>(Load(rec, kDate, swapped));
  h->ddate = static_cast<uint32_t>(Load(rec, kDdate, swapped));
  h->tapea = static_cast<uint32_t>(Load(rec, kTapea, swapped));
  h->inumber = static_cast<uint32_t>(Load(rec, kInumber, swapped));
  h->mode = static_cast<uint16_t>(Load(rec, kMode, swapped));
  h->size = Load(rec, kSize, swapped);
  h->count = count;
  h->level = static_cast<int32_t>(Load(rec, kLevel, swapped));
  h->flags = static_cast<uint32_t>(Load(rec, kFlags, swapped));
  memcpy(h->addr, rec + kAddr.off, kAddr.len);
  return Check::kOk;
}

void SwapFields(uint8_t* rec) {
  size_t off = 0;
  for (const char* p = kSwapLayout; *p;) {
    size_t n = 0;
    while (*p >= '0' && *p <= '9') n = n * 10 + static_cast<size_t>(*p++ - '0');
    if (n == 0) n = 1;
    const char kind = *p++;
    const size_t width = kind == 'i' ? 4 : kind == 's' ? 2 : kind == 'l' ? 8 : 1;
    for (size_t k = 0; k < n && off + width <= kRecordSize; ++k, off += width) {
      for (size_t a = off, b = off + width - 1; a < b; ++a, --b) {
        const uint8_t t = rec[a];
        rec[a] = rec[b];
        rec[b] = t;
      }
    }
  }
}

void SetChecksum(uint8_t* rec) {
  Store(rec, kCheck, 0, false);
  Store(rec, kCheck, kChecksum - WordSum(rec, false), false);
}

bool ConvertByteOrder(uint8_t* rec) {
  Header h;
  if (DecodeHeader(rec, &h) != Check::kOk) return false;
  SwapFields(rec);
  // The record is now in the other order than it was: its checksum must sum
  // up for a reader of that order.
  const bool nowSwapped = !h.swapped;
  Store(rec, kCheck, 0, nowSwapped);
  Store(rec, kCheck, kChecksum - WordSum(rec, nowSwapped), nowSwapped);
  return true;
}

}  // namespace dump
