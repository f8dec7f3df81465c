// hv_disk.h - a Hyper-V virtual machine disk: one full VHDX file (the head)
// in the full backup and one differencing AVHDX file (a tail) in each
// incremental, each tail the child of the one before.
//
// The head has 32 MiB blocks, a few of them present; each tail has 2 MiB
// blocks: whole blocks and partially present ones (runs of set sectors),
// some over the head's data, some over its holes.  The files are written by
// the project's VHDX writer; their bytes stand in for the content of their
// items in the savesets.  The disk's final state is kept as a sparse list
// of written stretches.
#ifndef MKCHAIN_HV_DISK_H
#define MKCHAIN_HV_DISK_H

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "chain_model.h"
#include "mkvhdx/vhdx_writer.h"
#include "saveset_writer.h"

namespace mkchain {

class HvDisk {
 public:
  static const char kHeadPath[];  // "hvstore/web02/web02.vhdx"

  // An error text for a virtual size the disk cannot have, else "".
  static std::string CheckSize(uint64_t size);
  HvDisk(uint64_t size, uint64_t seed);

  // The head (full backup) or the next tail (incremental) taken at t: adds
  // its item to the model and returns its path and the folders above it.
  std::vector<std::string> Full(ChainModel* model, time_t t);
  std::vector<std::string> Incremental(ChainModel* model, time_t t);

  // Writes the item's bytes when path names one of the disk's files.
  bool Content(const std::string& path, uint64_t size, OutFile* out, bool* handled) const;
  // The final state as a raw image (sparse).
  bool WriteImage(const std::string& file, std::string* error) const;
  // The rules that merge the disk into "/hv/web02.vhdx": one VHDXMERGE line
  // per file, the catalog's own lines of the disk's files, head first.
  static bool WriteRules(const std::string& rulesFile, const std::string& catalogFile, std::string* error);

 private:
  std::vector<std::string> Add(ChainModel* model, time_t t, const std::string& path, const mkvhdx::ImageDesc& desc);

  mkvhdx::ImageDesc head_;
  std::vector<std::string> paths_;                 // head, then the tails
  std::map<std::string, mkvhdx::Image> images_;    // by path
  std::map<uint64_t, std::vector<uint8_t>> state_;  // disk offset -> bytes written there (2 MiB pieces)
  Rng rng_;
};

}  // namespace mkchain

#endif  // MKCHAIN_HV_DISK_H
