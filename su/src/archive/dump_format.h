// dump_format.h - the header record of a UFS dump stream (the BSD dump
// format as Debian's dump and restore write and read it).
//
// A dump stream is a sequence of 1024-byte records.  Header records start
// every section of the stream: the volume (TS_TAPE), the inode maps (TS_CLRI,
// TS_BITS, each followed by c_count records of the map), each file (TS_INODE,
// then its data records), continuations of a file's address list (TS_ADDR,
// then more data records) and the end (TS_END).  A file's data follows its
// header: one record for each c_addr flag that is not 0, in address order; an
// address whose flag is 0 is a hole of the file and has no record.
//
// The header is written in the byte order of the machine that wrote the dump.
// Its checksum makes the sum of its 256 32-bit words 84446.  A reader on the
// other byte order recognises the magic only after swapping it and swaps the
// fields by the layout kSwapLayout; the checksum is the sum of the record's
// words each swapped as a 32-bit word.
//
// Everything here works on memory only and is thread-safe.
#ifndef TVU_ARCHIVE_DUMP_FORMAT_H
#define TVU_ARCHIVE_DUMP_FORMAT_H

#include <cstddef>
#include <cstdint>

namespace dump {

constexpr size_t kRecordSize = 1024;  // TP_BSIZE: every record, header or data
constexpr uint32_t kChecksum = 84446;  // CHECKSUM: the sum of a header's words
constexpr uint32_t kMagicNfs = 60012;  // NFS_MAGIC: the format dump writes today
constexpr uint32_t kMagicOld = 60011;  // OFS_MAGIC: the old format, read as 60012
constexpr uint32_t kMagicUfs2 = 0x19540119;  // FS_UFS2_MAGIC
constexpr size_t kMaxAddr = 512;       // c_addr flags in one header (TP_NINDIR)
constexpr uint32_t kFlagCompressed = 0x80;  // c_flags of the first header: dump -z

// Header types (c_type).
enum RecordType : int32_t {
  kTsTape = 1,   // volume header
  kTsInode = 2,  // a file's first header
  kTsBits = 3,   // map of the inodes in the dump
  kTsAddr = 4,   // continuation of a file's address list
  kTsEnd = 5,    // end of the dump
  kTsClri = 6,   // map of the inodes deleted since the base dump
};

// Where a field lies in the record (bytes).
struct Field {
  size_t off, len;
};
constexpr Field kType{0, 4};
constexpr Field kDate{4, 4};       // seconds since 1970 of this dump
constexpr Field kDdate{8, 4};      // ... and of the dump it is based on
constexpr Field kVolume{12, 4};
constexpr Field kTapea{16, 4};     // the record's number in the dump
constexpr Field kInumber{20, 4};
constexpr Field kMagic{24, 4};
constexpr Field kCheck{28, 4};
constexpr Field kDinode{32, 128};  // the file's inode, of which:
constexpr Field kMode{32, 2};      //   di_mode
constexpr Field kSize{40, 8};      //   di_size, 64-bit
constexpr Field kCount{160, 4};    // address flags used, at most kMaxAddr
constexpr Field kAddr{164, 512};   // one flag byte per 1 KiB block
constexpr Field kLabel{676, 16};
constexpr Field kLevel{692, 4};
constexpr Field kFlags{888, 4};
constexpr Field kFirstrec{892, 4};
constexpr Field kNtrec{896, 4};

// The fields a byte-order swap turns, in record order: counts of 32-bit
// words (i), 16-bit words (s), 64-bit words (l) and bytes left as they are
// (b).  What follows the last field (the spare bytes) is not swapped.
constexpr const char kSwapLayout[] = "8i4s1l29i528bi192b4i";

// A decoded header, in host order.
struct Header {
  int32_t type = 0;
  uint32_t date = 0;
  uint32_t ddate = 0;
  uint32_t tapea = 0;
  uint32_t inumber = 0;
  uint32_t magic = 0;  // kMagicOld is reported as kMagicNfs
  uint16_t mode = 0;
  uint64_t size = 0;
  int32_t count = 0;   // 0 .. kMaxAddr
  int32_t level = 0;
  uint32_t flags = 0;
  bool swapped = false;  // written on a machine of the other byte order
  uint8_t addr[kMaxAddr] = {};

  // Data records that follow the header (flags set among the first count).
  uint32_t DataRecords() const;
};

enum class Check {
  kOk,
  kBadMagic,     // no dump magic in either byte order
  kBadChecksum,  // the magic is there but the words do not sum up
  kBadCount,     // c_count out of range
};
const char* CheckText(Check c);

// Decodes the 1024 bytes at rec.  Only kOk fills *h completely.
Check DecodeHeader(const uint8_t* rec, Header* h);

// The sum of the record's 256 words, read in the given byte order (swapped:
// the other one than the host's).
uint32_t WordSum(const uint8_t* rec, bool swapped);

// Swaps the record's fields in place by kSwapLayout.
void SwapFields(uint8_t* rec);

// Turns a valid header record into the header a machine of the other byte
// order would have written: fields swapped and the checksum made anew for
// that order.  false (record unchanged) when rec is no valid header.
bool ConvertByteOrder(uint8_t* rec);

// Makes the checksum of a header record written in the host's order (for
// tests and tools that build records).
void SetChecksum(uint8_t* rec);

}  // namespace dump

#endif  // TVU_ARCHIVE_DUMP_FORMAT_H
