// cpio_format.h - the CPIO-derived record header formats that savesets use.
//
// A saveset's item stream is a sequence of records.  Each record is an ASCII
// header, the item's name with its terminating NUL, optional fill bytes, the
// item's data and optional fill bytes again; the stream ends with a record
// named "TRAILER!!!".  Three header families occur:
//
//   odc  (magic "070707")  76 bytes, octal fields, never padded.
//   newc (magic "070701") 110 bytes, hexadecimal fields, padded to 4.
//   ext  (magic "070706" and kin) 126 bytes: the backup client's extended
//        header, the magic as six octal digits and then 15 fields of eight
//        hexadecimal digits.  Padded to 4, except magic "070726", which has
//        the same layout and is never padded.
//
// Padding: in the padded formats the header plus name is filled up to a
// multiple of 4 bytes counted from the start of the record, and the data is
// filled up to a multiple of 4 bytes counted from its own start.  In a stream
// of padded records only this is the same as aligning to the stream; the
// extended family mixes padded and unpadded records, so records there need
// not start on a multiple of 4.
//
// Fields of the extended header, in stream order after the magic (each eight
// hexadecimal digits, so at most 0xffffffff):
//    1 ino        inode number of the item on the client
//    2 mode       file type and permission bits, as st_mode (040755 folder)
//    3 uid        owner
//    4 gid        group
//    5 nlink      link count
//    6 mtime      modification time, seconds since 1970-01-01 UTC
//    7 filesize   bytes of data that follow the name (and its fill bytes)
//    8 devmajor   device of the file system holding the item
//    9 devminor
//   10 rdevmajor  device number of a device special file
//   11 rdevminor
//   12 namesize   bytes of the name including its terminating NUL
//   13 check      checksum of the data; 0 when not computed
//   14 flags      record flags; 64 and 576 mark an encrypted record
//   15 reserved   0
// Magic "070106" marks a compressed record; "070206", "070306", "071206" and
// "071306" are further members of the family with the same layout.
//
// Extended-attribute / ACL records ("ea_acl", magic "070716") carry the
// extended attributes and the access control list of the item they name; such
// a record comes before the item's own record and never holds the item's
// data.  Its header is 102 bytes: the magic as six octal digits and then 12
// fields of eight hexadecimal digits (13 fields in all):
//    1 ino   2 mode   3 uid   4 gid   5 nlink   6 mtime   as in ext
//    7 easize     bytes of extended attributes after the name
//    8 aclsize    bytes of access control list after the attributes
//    9 devmajor  10 devminor                             as in ext
//   11 namesize   bytes of the name including its NUL
//   12 check      checksum of the attribute bytes; 0 when not computed
// Name, attributes and ACL follow as in a padded record: header plus name
// filled to 4, then easize + aclsize bytes filled to 4.  FormatFromMagic
// tells item records only and rejects "070716"; FormatFromAnyMagic and the
// decoder accept it as Format::kEaAcl.
//
// Everything here works on memory only and is thread-safe.
#ifndef TVU_ARCHIVE_CPIO_FORMAT_H
#define TVU_ARCHIVE_CPIO_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace cpio {

enum class Format {
  kOdc,          // "070707"
  kNewc,         // "070701"
  kExt,          // "070706" (and the padded kin listed above)
  kExtUnpadded,  // "070726"
  kEaAcl,        // "070716": extended-attribute / ACL record, not an item
};

// Magic values as numbers (the six octal digits read as octal).
constexpr uint32_t kMagicOdc = 070707;
constexpr uint32_t kMagicNewc = 070701;
constexpr uint32_t kMagicExt = 070706;
constexpr uint32_t kMagicExtUnpadded = 070726;
constexpr uint32_t kMagicExtCompressed = 070106;
constexpr uint32_t kMagicEaAcl = 070716;

// Record flags values that mark an encrypted record in the extended family.
constexpr uint64_t kFlagsEncrypted = 64;
constexpr uint64_t kFlagsEncryptedAlt = 576;

// Longest name a record may carry, including its NUL.  Catalog paths are at
// most 4094 characters, so a longer name can only come from a damaged header.
constexpr uint64_t kMaxNameSize = 4096;

// Name of the record that ends a stream.
constexpr const char kTrailerName[] = "TRAILER!!!";

// One record header.  Which fields a format carries:
//   odc:  dev, ino, mode, uid, gid, nlink, rdev, mtime, namesize, filesize;
//         when decoding, dev and rdev are also split into their low two
//         bytes as major (bits 8-15) and minor (bits 0-7).
//   newc: ino, mode, uid, gid, nlink, mtime, filesize, devmajor, devminor,
//         rdevmajor, rdevminor, namesize, check.
//   ext:  the newc fields, then flags and reserved.
//   ea_acl: ino, mode, uid, gid, nlink, mtime, easize, aclsize, devmajor,
//         devminor, namesize, check; the decoder sets filesize to
//         easize + aclsize (the bytes after the name), the encoder ignores it.
// Fields a format does not carry are ignored by the encoder and left 0 by the
// decoder (except the odc device split above).
struct Header {
  uint32_t magic = 0;  // decoder: the magic read; encoder: see EncodeRecordHeader
  Format format = Format::kNewc;  // set by DecodeHeader; the encoder takes its own
  uint64_t dev = 0, ino = 0, mode = 0, uid = 0, gid = 0, nlink = 0, rdev = 0;
  uint64_t mtime = 0, filesize = 0;
  uint64_t devmajor = 0, devminor = 0, rdevmajor = 0, rdevminor = 0;
  uint64_t namesize = 0;  // decoder: as read; encoder: always name.size() + 1
  uint64_t check = 0, flags = 0, reserved = 0;
  uint64_t easize = 0, aclsize = 0;  // ea_acl only
  std::string name;  // without the terminating NUL
};

// Reads six characters as an octal magic and tells its format.  Returns false
// for anything that is not one of the magics above (including non-digits).
bool FormatFromMagic(const char* six, Format* format);
// The same, and also "070716" as Format::kEaAcl.
bool FormatFromAnyMagic(const char* six, Format* format);

// The magic EncodeRecordHeader writes for a format by default.
uint32_t DefaultMagic(Format format);
// Short name for messages: "odc", "newc", "ext", "ext-unpadded", "ea_acl".
const char* FormatName(Format format);
// Bytes of the fixed header: 76, 110, 126 or (ea_acl) 102.
size_t HeaderSize(Format format);
// Fields of the fixed header, the magic included: 11 (odc), 14 (newc),
// 16 (ext) or 13 (ea_acl).
size_t FieldCount(Format format);
// True for the formats that fill header+name and data to multiples of 4.
bool IsPadded(Format format);

// Bytes from the start of a record to the start of its data: header, name,
// NUL and fill bytes.
uint64_t DataOffset(Format format, uint64_t nameSize);
// Fill bytes after dataSize bytes of data.
uint64_t DataPadding(Format format, uint64_t dataSize);
// Bytes of a whole record: DataOffset + data + DataPadding.
uint64_t RecordSpan(Format format, uint64_t nameSize, uint64_t dataSize);

// Appends header, name, NUL and fill bytes of one record to *out.  The magic
// written is header.magic when it is non-zero (it must belong to the format,
// so a test can write a "070106" record as kExt), else DefaultMagic(format).
// Returns false, with *out unchanged and the reason in *why (may be null),
// when a value does not fit its field, the name is empty, holds a NUL or is
// longer than kMaxNameSize - 1 bytes.
bool EncodeRecordHeader(Format format, const Header& header, std::string* out,
                        std::string* why);

// The complete end-of-stream record: name "TRAILER!!!", nlink 1, all else 0,
// with its fill bytes.
std::string TrailerRecord(Format format);

enum class DecodeResult {
  kOk,          // *header filled; *headerAndNameLen = DataOffset()
  kTruncated,   // more bytes needed; *headerAndNameLen = how many in all
  kCorrupt,     // not a valid header; *why says what and at which byte
  kCompressed,  // valid header of a compressed record (magic 070106)
  kEncrypted,   // valid header of an encrypted record (flags 64 or 576)
};

// Decodes the fixed part of the header at buf (magic and numeric fields, not
// the name), of which avail bytes are readable.  *fieldsRead (may be null)
// counts the fields, magic included, whose digits were valid before the first
// bad one, as sscanf counts its conversions (an unknown but octal magic
// counts as read, and header->magic holds it).  Results:
//   kOk: every field decoded, name size within 1..kMaxNameSize;
//   kTruncated: the fixed part reaches past avail;
//   kCorrupt: *why names the byte offset and the fault.
// Compressed and encrypted headers are kOk here: see DecodeHeader.
DecodeResult DecodeFixedHeader(const char* buf, size_t avail, Header* header,
                               size_t* fieldsRead, std::string* why);

// Decodes the record header at buf, of which avail bytes are readable.
// Every length is checked against its cap and against avail before use, so
// any byte content is safe to pass.  Results:
//   kOk: *header holds all fields and the name; *headerAndNameLen is the
//        distance from buf to the item's data (fill bytes included; they need
//        not be within avail).
//   kTruncated: the header or the name reaches past avail; *headerAndNameLen
//        is the number of bytes needed to decode this header; *why says what
//        did not fit.
//   kCorrupt: *why names the byte offset (relative to buf) and the fault.
//   kCompressed / kEncrypted: as kOk, and *why says so; the data cannot be
//        used by the caller.
// why may be null.
DecodeResult DecodeHeader(const char* buf, size_t avail, Header* header,
                          size_t* headerAndNameLen, std::string* why);

// "ok", "truncated", "corrupt", "compressed", "encrypted".
const char* DecodeResultName(DecodeResult result);

}  // namespace cpio

#endif  // TVU_ARCHIVE_CPIO_FORMAT_H
