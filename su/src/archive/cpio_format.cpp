// cpio_format.cpp - layouts, encoder and decoder of the record headers.
//
// Each header layout is a table of fields {name, offset, length, base,
// member}.  One helper turns a field's digits into a number and one turns a
// number into digits, so the three formats share all of their code and differ
// only in their tables.
#include "archive/cpio_format.h"

#include <cstdio>
#include <cstring>

namespace cpio {
namespace {

struct Field {
  const char* name;
  uint8_t off;   // byte offset from the start of the header
  uint8_t len;   // number of digits
  uint8_t base;  // 8 or 16
  uint64_t Header::*member;
};

// The magic is always the first six characters and always octal; it is not
// part of the tables because it is held as uint32_t and checked separately.
constexpr size_t kMagicLen = 6;

// odc: 11 octal fields, 76 bytes.
constexpr Field kOdcFields[] = {
    {"dev", 6, 6, 8, &Header::dev},           {"ino", 12, 6, 8, &Header::ino},
    {"mode", 18, 6, 8, &Header::mode},        {"uid", 24, 6, 8, &Header::uid},
    {"gid", 30, 6, 8, &Header::gid},          {"nlink", 36, 6, 8, &Header::nlink},
    {"rdev", 42, 6, 8, &Header::rdev},        {"mtime", 48, 11, 8, &Header::mtime},
    {"namesize", 59, 6, 8, &Header::namesize}, {"filesize", 65, 11, 8, &Header::filesize},
};

// newc and ext share their first 13 fields; ext appends flags and reserved.
constexpr Field kExtFields[] = {
    {"ino", 6, 8, 16, &Header::ino},
    {"mode", 14, 8, 16, &Header::mode},
    {"uid", 22, 8, 16, &Header::uid},
    {"gid", 30, 8, 16, &Header::gid},
    {"nlink", 38, 8, 16, &Header::nlink},
    {"mtime", 46, 8, 16, &Header::mtime},
    {"filesize", 54, 8, 16, &Header::filesize},
    {"devmajor", 62, 8, 16, &Header::devmajor},
    {"devminor", 70, 8, 16, &Header::devminor},
    {"rdevmajor", 78, 8, 16, &Header::rdevmajor},
    {"rdevminor", 86, 8, 16, &Header::rdevminor},
    {"namesize", 94, 8, 16, &Header::namesize},
    {"check", 102, 8, 16, &Header::check},
    {"flags", 110, 8, 16, &Header::flags},
    {"reserved", 118, 8, 16, &Header::reserved},
};
constexpr size_t kNewcFieldCount = 13;

// ea_acl: 12 hex fields, 102 bytes.
constexpr Field kEaAclFields[] = {
    {"ino", 6, 8, 16, &Header::ino},
    {"mode", 14, 8, 16, &Header::mode},
    {"uid", 22, 8, 16, &Header::uid},
    {"gid", 30, 8, 16, &Header::gid},
    {"nlink", 38, 8, 16, &Header::nlink},
    {"mtime", 46, 8, 16, &Header::mtime},
    {"easize", 54, 8, 16, &Header::easize},
    {"aclsize", 62, 8, 16, &Header::aclsize},
    {"devmajor", 70, 8, 16, &Header::devmajor},
    {"devminor", 78, 8, 16, &Header::devminor},
    {"namesize", 86, 8, 16, &Header::namesize},
    {"check", 94, 8, 16, &Header::check},
};

struct Layout {
  size_t size;
  const Field* fields;
  size_t count;
};

Layout LayoutOf(Format format) {
  switch (format) {
    case Format::kOdc:
      return {76, kOdcFields, sizeof(kOdcFields) / sizeof(kOdcFields[0])};
    case Format::kNewc:
      return {110, kExtFields, kNewcFieldCount};
    case Format::kExt:
    case Format::kExtUnpadded:
      return {126, kExtFields, sizeof(kExtFields) / sizeof(kExtFields[0])};
    case Format::kEaAcl:
      return {102, kEaAclFields, sizeof(kEaAclFields) / sizeof(kEaAclFields[0])};
  }
  return {0, nullptr, 0};  // not reached: every format is listed above
}

// Fill bytes that bring n up to the next multiple of 4.
uint64_t Pad4(uint64_t n) { return (4 - n % 4) & 3; }

int DigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return 99;
}

// Reads len digits of the given base; on a bad digit returns false and its
// index in *bad.  No field is wider than 11 octal or 8 hex digits, so the
// value cannot overflow.
bool ParseDigits(const char* p, size_t len, unsigned base, uint64_t* value, size_t* bad) {
  uint64_t v = 0;
  for (size_t i = 0; i < len; ++i) {
    int d = DigitValue(p[i]);
    if (d >= static_cast<int>(base)) {
      *bad = i;
      return false;
    }
    v = v * base + static_cast<unsigned>(d);
  }
  *value = v;
  return true;
}

// Writes value as exactly len zero-filled digits; false if it does not fit.
// Hex digits are upper case, as GNU cpio writes them, so that records of
// both tools compare equal byte for byte.
bool FormatDigits(uint64_t value, size_t len, unsigned base, char* out) {
  static const char kDigits[] = "0123456789ABCDEF";
  for (size_t i = len; i-- > 0;) {
    out[i] = kDigits[value % base];
    value /= base;
  }
  return value == 0;
}

// Renders bytes for a message: printable ASCII as is, the rest as \xNN.
std::string Printable(const char* p, size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    unsigned char c = static_cast<unsigned char>(p[i]);
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      s += static_cast<char>(c);
    } else {
      char esc[8];
      std::snprintf(esc, sizeof esc, "\\x%02x", c);
      s += esc;
    }
  }
  return s;
}

void SetWhy(std::string* why, const std::string& text) {
  if (why) *why = text;
}

std::string Num(uint64_t v) { return std::to_string(v); }

}  // namespace

bool FormatFromMagic(const char* six, Format* format) {
  uint64_t magic = 0;
  size_t bad = 0;
  if (!ParseDigits(six, kMagicLen, 8, &magic, &bad)) return false;
  switch (magic) {
    case kMagicOdc:
      *format = Format::kOdc;
      return true;
    case kMagicNewc:
      *format = Format::kNewc;
      return true;
    case kMagicExtUnpadded:
      *format = Format::kExtUnpadded;
      return true;
    case kMagicExt:
    case kMagicExtCompressed:
    case 070206:
    case 070306:
    case 071206:
    case 071306:
      *format = Format::kExt;
      return true;
    default:
      return false;
  }
}

bool FormatFromAnyMagic(const char* six, Format* format) {
  if (FormatFromMagic(six, format)) return true;
  uint64_t magic = 0;
  size_t bad = 0;
  if (!ParseDigits(six, kMagicLen, 8, &magic, &bad) || magic != kMagicEaAcl) return false;
  *format = Format::kEaAcl;
  return true;
}

uint32_t DefaultMagic(Format format) {
  switch (format) {
    case Format::kOdc: return kMagicOdc;
    case Format::kNewc: return kMagicNewc;
    case Format::kExt: return kMagicExt;
    case Format::kExtUnpadded: return kMagicExtUnpadded;
    case Format::kEaAcl: return kMagicEaAcl;
  }
  return 0;
}

const char* FormatName(Format format) {
  switch (format) {
    case Format::kOdc: return "odc";
    case Format::kNewc: return "newc";
    case Format::kExt: return "ext";
    case Format::kExtUnpadded: return "ext-unpadded";
    case Format::kEaAcl: return "ea_acl";
  }
  return "?";
}

size_t HeaderSize(Format format) { return LayoutOf(format).size; }

size_t FieldCount(Format format) { return 1 + LayoutOf(format).count; }

bool IsPadded(Format format) {
  return format == Format::kNewc || format == Format::kExt || format == Format::kEaAcl;
}

uint64_t DataOffset(Format format, uint64_t nameSize) {
  uint64_t n = HeaderSize(format) + nameSize;
  return IsPadded(format) ? n + Pad4(n) : n;
}

uint64_t DataPadding(Format format, uint64_t dataSize) {
  return IsPadded(format) ? Pad4(dataSize) : 0;
}

uint64_t RecordSpan(Format format, uint64_t nameSize, uint64_t dataSize) {
  return DataOffset(format, nameSize) + dataSize + DataPadding(format, dataSize);
}

bool EncodeRecordHeader(Format format, const Header& header, std::string* out,
                        std::string* why) {
  if (header.name.empty()) {
    SetWhy(why, "empty name");
    return false;
  }
  if (header.name.find('\0') != std::string::npos) {
    SetWhy(why, "name holds a NUL byte");
    return false;
  }
  const uint64_t nameSize = header.name.size() + 1;
  if (nameSize > kMaxNameSize) {
    SetWhy(why, "name of " + Num(header.name.size()) + " bytes is longer than " +
                    Num(kMaxNameSize - 1));
    return false;
  }

  const Layout layout = LayoutOf(format);
  char buf[128];
  const uint32_t magic = header.magic ? header.magic : DefaultMagic(format);
  Format magicFormat;
  if (!FormatDigits(magic, kMagicLen, 8, buf) || !FormatFromAnyMagic(buf, &magicFormat) ||
      magicFormat != format) {
    SetWhy(why, "magic " + Num(magic) + " does not belong to format " + FormatName(format));
    return false;
  }
  for (size_t i = 0; i < layout.count; ++i) {
    const Field& f = layout.fields[i];
    uint64_t value = (f.member == &Header::namesize) ? nameSize : header.*f.member;
    if (!FormatDigits(value, f.len, f.base, buf + f.off)) {
      SetWhy(why, std::string("field ") + f.name + ": value " + Num(value) + " does not fit " +
                      Num(f.len) + (f.base == 8 ? " octal" : " hex") + " digits");
      return false;
    }
  }

  out->append(buf, layout.size);
  out->append(header.name);
  out->push_back('\0');
  out->append(DataOffset(format, nameSize) - layout.size - nameSize, '\0');
  return true;
}

std::string TrailerRecord(Format format) {
  Header h;
  h.nlink = 1;
  h.name = kTrailerName;
  std::string out;
  EncodeRecordHeader(format, h, &out, nullptr);  // cannot fail: every value fits
  return out;
}

DecodeResult DecodeFixedHeader(const char* buf, size_t avail, Header* header,
                               size_t* fieldsRead, std::string* why) {
  size_t readDummy = 0;
  size_t& read = fieldsRead ? *fieldsRead : readDummy;
  *header = Header();
  read = 0;
  if (avail < kMagicLen) {
    SetWhy(why, "byte 0: magic needs 6 bytes, " + Num(avail) + " available");
    return DecodeResult::kTruncated;
  }
  uint64_t magic = 0;
  size_t bad = 0;
  if (!ParseDigits(buf, kMagicLen, 8, &magic, &bad)) {
    SetWhy(why, "byte 0: unknown magic \"" + Printable(buf, kMagicLen) + "\"");
    return DecodeResult::kCorrupt;
  }
  read = 1;
  header->magic = static_cast<uint32_t>(magic);
  Format format;
  if (!FormatFromAnyMagic(buf, &format)) {
    SetWhy(why, "byte 0: unknown magic \"" + Printable(buf, kMagicLen) + "\"");
    return DecodeResult::kCorrupt;
  }
  const Layout layout = LayoutOf(format);
  if (avail < layout.size) {
    SetWhy(why, std::string("byte 0: ") + FormatName(format) + " header needs " +
                    Num(layout.size) + " bytes, " + Num(avail) + " available");
    return DecodeResult::kTruncated;
  }

  header->format = format;
  size_t nameSizeAt = 0;
  for (size_t i = 0; i < layout.count; ++i) {
    const Field& f = layout.fields[i];
    if (!ParseDigits(buf + f.off, f.len, f.base, &(header->*f.member), &bad)) {
      SetWhy(why, "byte " + Num(f.off + bad) + ": field " + f.name + ": \"" +
                      Printable(buf + f.off + bad, 1) + "\" is not " +
                      (f.base == 8 ? "an octal" : "a hex") + " digit");
      return DecodeResult::kCorrupt;
    }
    ++read;
    if (f.member == &Header::namesize) nameSizeAt = f.off;
  }
  if (format == Format::kOdc) {
    // odc keeps whole device numbers; callers use the byte-wise split.
    header->devmajor = (header->dev >> 8) & 255;
    header->devminor = header->dev & 255;
    header->rdevmajor = (header->rdev >> 8) & 255;
    header->rdevminor = header->rdev & 255;
  }
  if (format == Format::kEaAcl) {
    // Both are at most 0xffffffff, so the sum cannot overflow.
    header->filesize = header->easize + header->aclsize;
  }

  // The name size is the one length used to index the buffer: check it
  // against its cap here; DecodeHeader checks it against the bytes available.
  const uint64_t nameSize = header->namesize;
  if (nameSize == 0) {
    SetWhy(why, "byte " + Num(nameSizeAt) + ": name size 0 (a name has at least its NUL)");
    return DecodeResult::kCorrupt;
  }
  if (nameSize > kMaxNameSize) {
    SetWhy(why, "byte " + Num(nameSizeAt) + ": name size " + Num(nameSize) +
                    " exceeds the limit of " + Num(kMaxNameSize));
    return DecodeResult::kCorrupt;
  }
  return DecodeResult::kOk;
}

DecodeResult DecodeHeader(const char* buf, size_t avail, Header* header,
                          size_t* headerAndNameLen, std::string* why) {
  *headerAndNameLen = 0;
  const DecodeResult fixed = DecodeFixedHeader(buf, avail, header, nullptr, why);
  if (fixed == DecodeResult::kTruncated) {
    // The magic, or the fixed part of a known format, does not fit.
    Format format;
    *headerAndNameLen = (avail >= kMagicLen && FormatFromAnyMagic(buf, &format))
                            ? HeaderSize(format) : kMagicLen;
    *header = Header();
    return fixed;
  }
  if (fixed != DecodeResult::kOk) return fixed;

  const Format format = header->format;
  const size_t headerSize = HeaderSize(format);
  const uint64_t nameSize = header->namesize;
  if (avail - headerSize < nameSize) {
    *headerAndNameLen = headerSize + nameSize;
    SetWhy(why, "byte " + Num(headerSize) + ": name of " + Num(nameSize) + " bytes, " +
                    Num(avail - headerSize) + " available");
    return DecodeResult::kTruncated;
  }
  const char* name = buf + headerSize;
  const void* nul = std::memchr(name, '\0', nameSize);
  if (nul != name + nameSize - 1) {
    SetWhy(why, nul ? "byte " + Num(headerSize + (static_cast<const char*>(nul) - name)) +
                          ": NUL inside the name"
                    : "byte " + Num(headerSize + nameSize - 1) + ": name not NUL-terminated");
    return DecodeResult::kCorrupt;
  }
  header->name.assign(name, nameSize - 1);
  *headerAndNameLen = DataOffset(format, nameSize);

  if (header->magic == kMagicExtCompressed) {
    SetWhy(why, "compressed record (magic 070106)");
    return DecodeResult::kCompressed;
  }
  if ((format == Format::kExt || format == Format::kExtUnpadded) &&
      (header->flags == kFlagsEncrypted || header->flags == kFlagsEncryptedAlt)) {
    SetWhy(why, "encrypted record (flags " + Num(header->flags) + ")");
    return DecodeResult::kEncrypted;
  }
  return DecodeResult::kOk;
}

const char* DecodeResultName(DecodeResult result) {
  switch (result) {
    case DecodeResult::kOk: return "ok";
    case DecodeResult::kTruncated: return "truncated";
    case DecodeResult::kCorrupt: return "corrupt";
    case DecodeResult::kCompressed: return "compressed";
    case DecodeResult::kEncrypted: return "encrypted";
  }
  return "?";
}

}  // namespace cpio
