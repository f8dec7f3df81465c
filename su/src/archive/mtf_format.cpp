// mtf_format.cpp - decoding and encoding of MTF descriptor block headers,
// stream headers, strings and dates.
#include "archive/mtf_format.h"

#include <cstring>

namespace mtf {
namespace {

uint16_t Load16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
uint32_t Load32(const uint8_t* p) { return static_cast<uint32_t>(Load16(p)) | static_cast<uint32_t>(Load16(p + 2)) << 16; }
uint64_t Load64(const uint8_t* p) { return static_cast<uint64_t>(Load32(p)) | static_cast<uint64_t>(Load32(p + 4)) << 32; }

// Days from 1970-01-01 to the given civil date (proleptic Gregorian).
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void CivilFromDays(int64_t z, int64_t* y, unsigned* m, unsigned* d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  *d = doy - (153 * mp + 2) / 5 + 1;
  *m = mp < 10 ? mp + 3 : mp - 9;
  *y = static_cast<int64_t>(yoe) + era * 400 + (*m <= 2);
}

}  // namespace

uint16_t WordXor(const uint8_t* p, size_t words) {
  uint16_t x = 0;
  for (size_t i = 0; i < words; ++i) x ^= Load16(p + 2 * i);
  return x;
}

Check DecodeDblkHeader(const uint8_t* p, size_t avail, DblkHeader* h) {
  if (avail < kDblkHeaderSize) return Check::kShort;
  h->type = Load32(p);
  h->attributes = Load32(p + 4);
  h->firstEvent = Load16(p + 8);
  h->osId = p[10];
  h->osVersion = p[11];
  h->displaySize = Load64(p + 12);
  h->logicalAddress = Load64(p + 20);
  h->controlBlockId = Load32(p + 36);
  h->osData.size = Load16(p + 44);
  h->osData.offset = Load16(p + 46);
  h->stringType = p[48];
  h->checksum = Load16(p + 50);
  return WordXor(p, 25) == h->checksum ? Check::kOk : Check::kBadChecksum;
}

Check DecodeStreamHeader(const uint8_t* p, size_t avail, StreamHeader* h) {
  if (avail < kStreamHeaderSize) return Check::kShort;
  h->id = Load32(p);
  h->fsAttributes = Load16(p + 4);
  h->mediaAttributes = Load16(p + 6);
  h->length = Load64(p + 8);
  h->encryption = Load16(p + 16);
  h->compression = Load16(p + 18);
  h->checksum = Load16(p + 20);
  return WordXor(p, 10) == h->checksum ? Check::kOk : Check::kBadChecksum;
}

void DecodeFileBlock(const uint8_t* p, FileBlock* f) {
  f->attributes = Load32(p + 52);
  std::memcpy(f->modified, p + 56, 5);
  f->directoryId = Load32(p + 76);
  f->fileId = Load32(p + 80);
  f->name.size = Load16(p + 84);
  f->name.offset = Load16(p + 86);
}

bool IsDblkType(uint32_t type) {
  for (uint32_t t : {kTape, kSset, kVolb, kDirb, kFile, kCfil, kEspb, kEset, kEotm, kSfmb})
    if (t == type) return true;
  return false;
}

std::string IdText(uint32_t id) {
  std::string s(4, '?');
  for (int i = 0; i < 4; ++i) {
    const unsigned char c = static_cast<unsigned char>(id >> (8 * i));
    if (c >= 0x20 && c < 0x7F) s[i] = static_cast<char>(c);
  }
  return s;
}

uint64_t AlignUp(uint64_t value, uint64_t alignment) {
  const uint64_t rest = value % alignment;
  if (rest == 0) return value;
  const uint64_t add = alignment - rest;
  return value > UINT64_MAX - add ? UINT64_MAX : value + add;
}

bool DecodeString(const uint8_t* p, size_t size, uint8_t stringType, std::wstring* out) {
  out->clear();
  if (stringType == kStringAnsi) {
    for (size_t i = 0; i < size; ++i) out->push_back(static_cast<wchar_t>(p[i]));
    return true;
  }
  if (stringType != kStringUnicode || size % 2 != 0) return false;
  for (size_t i = 0; i < size; i += 2) {
    uint32_t c = Load16(p + i);
    if (c >= 0xD800 && c < 0xDC00 && i + 2 < size) {
      const uint32_t low = Load16(p + i + 2);
      if (low >= 0xDC00 && low < 0xE000) {
        c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        i += 2;
      }
    }
    out->push_back(static_cast<wchar_t>(c));
  }
  return true;
}

int64_t DateToEpoch(const uint8_t* d) {
  const unsigned year = static_cast<unsigned>(d[0]) << 6 | d[1] >> 2;
  const unsigned month = (d[1] & 3u) << 2 | d[2] >> 6;
  const unsigned day = (d[2] >> 1) & 31u;
  const unsigned hour = (d[2] & 1u) << 4 | d[3] >> 4;
  const unsigned minute = (d[3] & 15u) << 2 | d[4] >> 6;
  const unsigned second = d[4] & 63u;
  if (year == 0 || month < 1 || month > 12 || day < 1 || hour > 23 || minute > 59 || second > 59) return -1;
  return DaysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
}

void EpochToDate(int64_t seconds, uint8_t* d) {
  int64_t days = seconds / 86400, rest = seconds % 86400;
  if (rest < 0) {
    rest += 86400;
    --days;
  }
  int64_t y = 0;
  unsigned m = 0, day = 0;
  CivilFromDays(days, &y, &m, &day);
  const unsigned year = static_cast<unsigned>(y) & 0x3FFFu;
  const unsigned hour = static_cast<unsigned>(rest / 3600), minute = static_cast<unsigned>(rest / 60 % 60),
                 second = static_cast<unsigned>(rest % 60);
  d[0] = static_cast<uint8_t>(year >> 6);
  d[1] = static_cast<uint8_t>((year & 63u) << 2 | m >> 2);
  d[2] = static_cast<uint8_t>((m & 3u) << 6 | day << 1 | hour >> 4);
  d[3] = static_cast<uint8_t>((hour & 15u) << 4 | minute >> 2);
  d[4] = static_cast<uint8_t>((minute & 3u) << 6 | second);
}

void Store16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
void Store32(uint8_t* p, uint32_t v) {
  Store16(p, static_cast<uint16_t>(v));
  Store16(p + 2, static_cast<uint16_t>(v >> 16));
}
void Store64(uint8_t* p, uint64_t v) {
  Store32(p, static_cast<uint32_t>(v));
  Store32(p + 4, static_cast<uint32_t>(v >> 32));
}

void EncodeDblkHeader(const DblkHeader& h, uint8_t* p) {
  std::memset(p, 0, kDblkHeaderSize);
  Store32(p, h.type);
  Store32(p + 4, h.attributes);
  Store16(p + 8, h.firstEvent);
  p[10] = h.osId;
  p[11] = h.osVersion;
  Store64(p + 12, h.displaySize);
  Store64(p + 20, h.logicalAddress);
  Store32(p + 36, h.controlBlockId);
  Store16(p + 44, h.osData.size);
  Store16(p + 46, h.osData.offset);
  p[48] = h.stringType;
  SetDblkChecksum(p);
}

void SetDblkChecksum(uint8_t* p) { Store16(p + 50, WordXor(p, 25)); }

void EncodeStreamHeader(const StreamHeader& h, uint8_t* p) {
  Store32(p, h.id);
  Store16(p + 4, h.fsAttributes);
  Store16(p + 6, h.mediaAttributes);
  Store64(p + 8, h.length);
  Store16(p + 16, h.encryption);
  Store16(p + 18, h.compression);
  Store16(p + 20, WordXor(p, 10));
}

uint32_t DataChecksum(const uint8_t* p, size_t n, uint32_t previous, size_t offset) {
  uint32_t x = previous;
  for (size_t i = 0; i < n; ++i) x ^= static_cast<uint32_t>(p[i]) << (8 * ((offset + i) % 4));
  return x;
}

}  // namespace mtf
