// vm_disk.h - a virtual machine disk saved with changed-block tracking.
//
// The disk is one full-disk item (catalog type "R", size = the disk size, no
// record of its own) and changed-block files: ordinary files in the disk's
// folder named "<disk base name>@<offset>-<length>.cbt", whose data is that
// byte range of the disk at the time of their backup.  A reader rebuilds the
// disk from zeros by laying the ranges over each other by change time, the
// newest winning each byte, so:
//   - the full backup holds the full-disk item, dated at the backup time, and
//     one file per used range, dated after it; these ranges do not overlap,
//     and the holes between them read as zeros;
//   - each incremental holds the ranges written since the previous backup:
//     whole earlier ranges again (a newer copy of the same name), parts of
//     earlier ranges, ranges running from used data into a hole, new ranges
//     in holes, and ranges that overlap each other inside the saveset;
//   - the changed-block files of one saveset are dated one second apart in
//     the order they were written, from the backup time + 1 s on, so every
//     overlap resolves by time whatever the order of the catalog lines; the
//     next backup is a day later, so its files are newer than all before.
// Ranges are multiples of 64 KiB at multiples of 64 KiB; the full backup's
// ranges are 64 KiB to 4 MiB (at most 1/16 of the disk), incrementals' half
// that.  The first and the last 64 KiB of the disk are always in use.
//
// The model is sparse: the list of writes and, for each used byte range, the
// write that last touched it.  Data is recomputed from the file's path and
// version, like every file of the chain.
#ifndef MKCHAIN_VM_DISK_H
#define MKCHAIN_VM_DISK_H

#include <cstdint>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "chain_model.h"

namespace mkchain {

class VmDisk {
 public:
  static constexpr uint64_t kBlock = 64 * 1024;
  static const char kPath[];      // the full-disk item: "vmstore/web01/web01-flat.vmdk"
  static const char kBaseName[];  // its last component: "web01-flat.vmdk"

  // An error text for a size the disk cannot have, else "".
  static std::string CheckSize(uint64_t size);

  VmDisk(uint64_t size, uint64_t seed);

  // Adds the disk's items of the full backup taken at t to the model and
  // returns their paths (folders, full-disk item, changed-block files).
  std::vector<std::string> Full(ChainModel* model, time_t t);
  // Adds the changed-block files of an incremental taken at t and returns
  // their paths and the folders above them.
  std::vector<std::string> Incremental(ChainModel* model, time_t t);

  // Writes the disk's current state as a raw image of its full size; only
  // used ranges are written, holes are left to the file system.
  bool WriteImage(const std::string& file, std::string* error) const;
  // Writes the mapper rules that show the disk as "/vm/web01.raw" and the
  // full backup's saveset as "/vm/full.cpio".
  static bool WriteRules(const std::string& file, const std::string& fullSaveset,
                         std::string* error);

  uint64_t size() const { return size_; }

 private:
  struct Write {
    uint64_t offset, length;
    std::string path;
    uint32_t version;
  };
  struct Extent {
    uint64_t end;
    size_t write;  // index in writes_
  };

  void BeginSaveset(ChainModel* model, time_t t);
  // Records a write of `blocks` blocks at block `first` (clipped to the
  // disk) as a changed-block file of the current saveset.  Returns false,
  // writing nothing, when this saveset already has a file of that range.
  bool Put(ChainModel* model, uint64_t first, uint64_t blocks);
  std::vector<std::string> EndSaveset();
  void Apply(uint64_t begin, uint64_t end, size_t write);
  // Unused ranges of the disk, in blocks: [first, end).
  std::vector<std::pair<uint64_t, uint64_t>> Holes() const;
  // Log-uniform in [1, most].
  uint64_t RandomBlocks(uint64_t most);

  uint64_t size_;
  uint64_t blocks_;     // size_ / kBlock
  uint64_t maxBlocks_;  // longest range of the full backup
  Rng rng_;
  std::vector<Write> writes_;           // every range written, oldest first
  std::map<uint64_t, Extent> extents_;  // start -> newest write of [start, end)
  time_t time_ = 0;                     // change time of the next file
  std::set<std::string> savesetPaths_;  // files of the current saveset
};

}  // namespace mkchain

#endif  // MKCHAIN_VM_DISK_H
