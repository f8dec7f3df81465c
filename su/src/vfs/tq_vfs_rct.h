// tq_vfs_rct.h - Hyper-V disks saved with resilient change tracking (RCT).
//
// An incremental backup of such a disk saves pieces of the disk's VHDX file
// as it stood at that backup, as catalog items named after the disk:
//   <disk>@<first>-<last>                 changed bytes [first, last] of the file
//   <disk>@sectorbitmap{<first>-<last>}   sector-bitmap bytes [first, last]
//   <disk>.BAT                            the whole BAT region, at the BAT
//                                         offset of the full file's region table
//   <disk>.serialize                      the disk's serialized state (not read)
// where <disk> is the path of the full file (ending in .vhdx, .VHDX, .avhdx
// or .AVHDX).  init_vhdx_rct finds them in the consolidated catalog and
// rebuilds each disk's newest VHDX file as a sliced file: the full file, and
// every record over it in backup order (newer records win).  A rebuilt file
// that parses as a VHDX appears as /R/MAPPER/merge_result/<disk base name>.
//
// Thread safety: none; runs once while the VFS is initialised.
#ifndef TVU_VFS_RCT_H
#define TVU_VFS_RCT_H

#include <memory>
#include <string>
#include <vector>

struct CON_ARGS;

class RCTUtils {
 public:
  class Impl;
  RCTUtils();
  ~RCTUtils();
  Impl& impl() { return *impl_; }

 private:
  std::unique_ptr<Impl> impl_;
};

class RCTUtils::Impl {
 public:
  struct Disk;
  // Every whole line of the catalog that matches the PCRE pattern, in file order.
  static std::vector<std::string> FindAllRawRecordsInLslFileByRegex(const std::string& lslFile,
                                                                    const std::string& pattern);
  // Finds the disks of the catalog and their records.
  void GetDisksInfoFromInputFiles(const std::string& lslFile);
  // Rebuilds every disk found; the number placed in the tree.
  int BuildDisks();

  std::string resultPath = "/R/MAPPER/merge_result";
  std::vector<std::unique_ptr<Disk>> disks;
};

// Tree mode, RCT sources: finds and rebuilds the disks of the consolidated
// catalog.  0; a disk that cannot be rebuilt is traced and left out.
int init_vhdx_rct(const CON_ARGS* operation);
// The module's RCT object (null before init_vhdx_rct) and its release.
RCTUtils* rct_utils();
void rct_reset();

#endif
