// mtf_format.h - descriptor blocks and stream headers of Microsoft Tape
// Format media (the published MTF 1.00a layout), as MTF savesets hold them.
//
// A data set is a sequence of descriptor blocks (DBLKs): the tape header
// (TAPE) first on the medium, then per set the start of set (SSET), volume
// (VOLB), directory (DIRB) and file (FILE) blocks, and the end of set (ESET).
// Every DBLK starts on a format logical block boundary with a 52-byte common
// header; its type-specific fixed part and its strings follow, and at the
// header's "offset to first event" its streams begin.  A stream is a 22-byte
// stream header and the stream's data; the next stream header follows on the
// next 4-byte boundary.  A block's streams end with a pad stream (SPAD) that
// reaches the next logical block boundary, where the next DBLK starts (a
// block whose streams end on a boundary needs no pad).
//
// Both headers carry a checksum: the exclusive or of the 16-bit words before
// it (25 words in the common header, 10 in a stream header), so the words of
// a whole header including its checksum give 0.  All numbers are little
// endian.
//
// Everything here works on memory only and is thread-safe.
#ifndef TVU_ARCHIVE_MTF_FORMAT_H
#define TVU_ARCHIVE_MTF_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace mtf {

constexpr size_t kDblkHeaderSize = 52;    // common block header
constexpr size_t kStreamHeaderSize = 22;
constexpr size_t kStreamAlign = 4;        // streams start on 4-byte boundaries
// Fixed parts (common header included) of the blocks the module writes or reads.
constexpr size_t kTapeSize = 94;
constexpr size_t kSsetSize = 98;
constexpr size_t kVolbSize = 73;
constexpr size_t kDirbSize = 84;
constexpr size_t kFileSize = 88;
constexpr size_t kEsetSize = 85;

// Four-character identifiers as their bytes read as a little-endian number.
constexpr uint32_t Id(const char (&s)[5]) {
  return static_cast<uint32_t>(static_cast<uint8_t>(s[0])) | static_cast<uint32_t>(static_cast<uint8_t>(s[1])) << 8 |
         static_cast<uint32_t>(static_cast<uint8_t>(s[2])) << 16 |
         static_cast<uint32_t>(static_cast<uint8_t>(s[3])) << 24;
}
// Descriptor block types.
constexpr uint32_t kTape = Id("TAPE");
constexpr uint32_t kSset = Id("SSET");
constexpr uint32_t kVolb = Id("VOLB");
constexpr uint32_t kDirb = Id("DIRB");
constexpr uint32_t kFile = Id("FILE");
constexpr uint32_t kCfil = Id("CFIL");  // a file that could not be backed up
constexpr uint32_t kEspb = Id("ESPB");
constexpr uint32_t kEset = Id("ESET");
constexpr uint32_t kEotm = Id("EOTM");
constexpr uint32_t kSfmb = Id("SFMB");
// Stream identifiers.
constexpr uint32_t kStan = Id("STAN");  // the file's standard data
constexpr uint32_t kSpad = Id("SPAD");  // pad to the next logical block
constexpr uint32_t kCsum = Id("CSUM");  // checksum of the stream before it
constexpr uint32_t kNacl = Id("NACL");  // NT security data
constexpr uint32_t kSpar = Id("SPAR");  // sparse data
constexpr uint32_t kNted = Id("NTED");  // NT encrypted file data
constexpr uint32_t kFnam = Id("FNAM");  // a long file name kept in a stream

// Stream file system attributes.
constexpr uint16_t kStreamIsSparse = 0x0008;
// Stream media format attributes.
constexpr uint16_t kStreamContinue = 0x0001;
constexpr uint16_t kStreamVariable = 0x0002;
constexpr uint16_t kStreamVarEnd = 0x0004;
constexpr uint16_t kStreamEncrypted = 0x0008;
constexpr uint16_t kStreamCompressed = 0x0010;
constexpr uint16_t kStreamChecksummed = 0x0020;
// FILE attributes.
constexpr uint32_t kFileNameInStream = 0x00020000;
constexpr uint32_t kFileCorrupt = 0x00040000;

// String types of a DBLK.
constexpr uint8_t kStringAnsi = 1;
constexpr uint8_t kStringUnicode = 2;  // UTF-16, little endian

// Where a variable-length field of a DBLK lies, from the block's start.
struct TapeAddress {
  uint16_t size = 0;
  uint16_t offset = 0;
};

struct DblkHeader {
  uint32_t type = 0;
  uint32_t attributes = 0;
  uint16_t firstEvent = 0;  // offset of the first stream header from the block's start
  uint8_t osId = 0;
  uint8_t osVersion = 0;
  uint64_t displaySize = 0;
  uint64_t logicalAddress = 0;
  uint32_t controlBlockId = 0;
  TapeAddress osData;
  uint8_t stringType = 0;
  uint16_t checksum = 0;
};

struct StreamHeader {
  uint32_t id = 0;
  uint16_t fsAttributes = 0;
  uint16_t mediaAttributes = 0;
  uint64_t length = 0;
  uint16_t encryption = 0;   // data encryption algorithm, 0: none
  uint16_t compression = 0;  // data compression algorithm, 0: none
  uint16_t checksum = 0;
};

// The part of a FILE block the module needs.
struct FileBlock {
  uint32_t attributes = 0;
  uint8_t modified[5] = {};  // last modification date
  uint32_t directoryId = 0;
  uint32_t fileId = 0;
  TapeAddress name;
};

enum class Check {
  kOk,
  kShort,        // fewer bytes than the header needs
  kBadChecksum,  // the words do not give the checksum
};

// The exclusive or of `words` little-endian 16-bit words at p.
uint16_t WordXor(const uint8_t* p, size_t words);

// Decode the header at p of which avail bytes are readable.  Only kOk fills
// *h completely; kBadChecksum fills it as read (for messages).
Check DecodeDblkHeader(const uint8_t* p, size_t avail, DblkHeader* h);
Check DecodeStreamHeader(const uint8_t* p, size_t avail, StreamHeader* h);
// The FILE block's own fields; p is the block's start, avail at least kFileSize.
void DecodeFileBlock(const uint8_t* p, FileBlock* f);

// True for the block types of MTF 1.00a.
bool IsDblkType(uint32_t type);
// The four characters of an identifier, with '?' for bytes that are not
// printable ASCII.
std::string IdText(uint32_t id);

// Next multiple of 4 (streams) or of blockSize (descriptor blocks), or
// UINT64_MAX when that does not fit.
uint64_t AlignUp(uint64_t value, uint64_t alignment);

// A string of a DBLK as UTF-32/UCS-4 code points in a wide string: Unicode
// (UTF-16LE, surrogate pairs joined) or ANSI (each byte one character).
// false when the string type is neither or a Unicode string has an odd size.
bool DecodeString(const uint8_t* p, size_t size, uint8_t stringType, std::wstring* out);

// MTF_DATE_TIME: 14 bits year, 4 month, 5 day, 5 hour, 6 minute, 6 second,
// packed big-endian into 5 bytes.  The module reads and writes it as UTC.
// -1 for a date that is all zeros or out of range.
int64_t DateToEpoch(const uint8_t* date);
void EpochToDate(int64_t seconds, uint8_t* date);

// ---- writing (the project's own writer and the tests) ------------------------

void Store16(uint8_t* p, uint16_t v);
void Store32(uint8_t* p, uint32_t v);
void Store64(uint8_t* p, uint64_t v);
// Writes the common header fields of h into the first 52 bytes at p (the
// checksum is computed, h.checksum is ignored).
void EncodeDblkHeader(const DblkHeader& h, uint8_t* p);
// Writes h with its checksum computed into 22 bytes at p.
void EncodeStreamHeader(const StreamHeader& h, uint8_t* p);
// Recomputes the checksum of the common header at p.
void SetDblkChecksum(uint8_t* p);
// The data of a checksum stream for the given data: the exclusive or of its
// 32-bit little-endian words, the last one filled up with zeros.
uint32_t DataChecksum(const uint8_t* p, size_t n, uint32_t previous = 0, size_t offset = 0);

}  // namespace mtf

#endif  // TVU_ARCHIVE_MTF_FORMAT_H
