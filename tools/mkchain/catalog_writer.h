// catalog_writer.h - the per-saveset and consolidated catalogs of a chain.
//
// A catalog is a text file: a header line, one line per item in record order,
// and a footer line.  Item lines have the fields, split by single blanks:
//
//   "PATH" T CTIME MTIME NUMBERS [SAVESETNAME ]
//
// T is "d" for a folder, "f" for a file and "R" for a virtual machine's full
// disk; CTIME and MTIME are local times "%Y-%m-%d %H:%M:%S" (CTIME is
// "0000-00-00 00:00:00" for items whose change time is unknown).  LSL catalogs end the line with the saveset name and a
// blank after it (readers take the name up to the next blank); LIS catalogs
// name no saveset.  The numbers, with R the item's record:
//
//   version 2 (LSL and LIS), every catalog:
//     R's start offset, data offset relative to the start, R's span (header
//     to next header), data size, inode number, 0 (the 0 only in LSL)
//   version 1, per-saveset catalog:   inode number, R's start, R's end
//   version 1, consolidated catalog:  R's start, R's end, data size
//
// In a version-2 consolidated catalog every third file (inode divisible by 3)
// carries the relative offset 0, "not located": a tree reader then finds the
// item's data by walking its stream from R's start.
//
// The consolidated catalog lists every item of the final state once, and R
// is the item's newest record in the saveset the line names.
//
// Catalogs of MTF savesets (version-2 LSL only) give R's descriptor block,
// 0 ("not located": the tree reader finds the data stream), R's span (the
// block to the next block) and three zeros.
//
// A full-disk line has no record of its own (the disk's data is in its
// changed-block files, see vm_disk.h): its numbers describe a record that
// starts at 0 and spans the disk, and the footer does not count it.
#ifndef MKCHAIN_CATALOG_WRITER_H
#define MKCHAIN_CATALOG_WRITER_H

#include <cstdint>
#include <ctime>
#include <string>

#include "chain_model.h"
#include "saveset_writer.h"

namespace mkchain {

enum class CatalogKind { kLslV2, kLslV1, kLisV2, kLisV1 };

const char* CatalogKindName(CatalogKind kind);  // "lslv2", "lsl", "lisv2", "lis"
const char* CatalogExtension(CatalogKind kind);  // ".lsl" or ".lis"
bool IsLsl(CatalogKind kind);
bool IsVersion2(CatalogKind kind);

// "%Y-%m-%d %H:%M:%S" in local time.
std::string CatalogTime(time_t t);

// One item line, without its line end; the placement is node.newest.
std::string CatalogLine(CatalogKind kind, bool consolidated, const std::string& path,
                        const Node& node, const std::string& savesetName, bool mtf = false);

class CatalogWriter {
 public:
  // Creates the catalog and writes its header line naming tapeName.
  // consolidated selects the version-1 number layout of consolidated catalogs.
  bool Open(const std::string& file, CatalogKind kind, bool consolidated,
            const std::string& tapeName, std::string* error);
  // Lines and header of an MTF saveset's catalog; call before Open.
  void SetMtf(bool mtf) { mtf_ = mtf; }
  // A comment line ("# " and text); readers skip it.
  void Comment(const std::string& text);
  // One item line.  streamPos is where the item's record lies in the stream
  // the catalog describes (its saveset, or the consolidated stream); the
  // footer reports the last of these per kind.
  void Add(const std::string& path, const Node& node, const std::string& savesetName,
           uint64_t streamPos);
  // Writes the footer and closes the file.
  bool Close(std::string* error);

 private:
  OutFile out_;
  CatalogKind kind_ = CatalogKind::kLslV2;
  bool consolidated_ = false;
  bool mtf_ = false;
  uint64_t dataBytes_ = 0, lastFile_ = 0, lastDir_ = 0, dirs_ = 0, files_ = 0;
};

}  // namespace mkchain

#endif  // MKCHAIN_CATALOG_WRITER_H
