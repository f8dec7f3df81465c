// tq_vfs_vhdx.h - VHDX images (format version 1): the parsed image record,
// the parser and the merge of a full image with its differencing tails.
//
// parse_vhdx reads an image through a sliced virtual file (positioned reads;
// it never writes) and records the chosen header's identity, the metadata
// items, the BAT walked into per-block records, and which byte ranges of the
// virtual disk the file holds data for.  GUIDs are kept in canonical byte
// order (as their braced text reads), converted from the on-disk mixed-endian
// form as soon as they are read.
//
// Two conditions end the process (exit status 1): no valid header, and an
// active log (the parser does not replay logs).  A bad region table or a
// region offset that is not a MiB multiple of at least 1 MiB gives an empty
// result.  Reserved and misplaced BAT states are traced and skipped.
//
// Thread safety: none; parsing and merging run on the thread that initialises
// the VFS.  Images are shared by reference counting.
#ifndef TVU_VFS_VHDX_H
#define TVU_VFS_VHDX_H

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <boost/icl/interval_set.hpp>

class tq_vfs_vfile;

using VhdxGuid = std::array<uint8_t, 16>;  // canonical byte order
using VhdxRanges = boost::icl::interval_set<uint64_t>;

// GUID helpers: braced upper-case text, text to GUID (throws on malformed
// text), and the on-disk to canonical byte-order swap.
std::string vhdx_guid_text(const VhdxGuid& g);
VhdxGuid vhdx_guid_from_text(const std::string& text);
VhdxGuid vhdx_guid_from_disk(const uint8_t* disk);
bool vhdx_guid_is_zero(const VhdxGuid& g);

// Turns an interval (whatever its bound kinds) into a half-open [first, end).
void vhdx_half_open(const VhdxRanges::interval_type& iv, uint64_t* first, uint64_t* end);

// BAT states (3 bits).
enum VhdxBatState : uint8_t {
  vbsNotPresent = 0, vbsUndefined = 1, vbsZero = 2, vbsUnmapped = 3,
  vbsFullyPresent = 6, vbsPartiallyPresent = 7,  // payload; for a sector-bitmap entry 6 = present
};

struct VhdxBlock {
  uint8_t state = 0;            // 0-3, 6 or 7
  uint64_t file_offset_mb = 0;  // BAT entry >> 20
  VhdxRanges ranges;            // virtual-disk bytes this block supplies
};

// Where an image's bytes lie: a saveset stretch (the file starts at
// ullSavesetOffset of saveset iSavesetIdx) or a MERGE file (a merge result).
// Slices that refer to the image take the saveset stretch when there is one
// (one level less to read through), else the MERGE file.
struct VhdxSource {
  tq_vfs_vfile* pFile = nullptr;   // the file parsed (not owned)
  std::wstring name;               // for messages and the parent-path test
  int32_t iSavesetIdx = -1;        // >= 0: the file is this saveset's stretch
  uint64_t ullSavesetOffset = 0;
  int32_t iMergeHandle = -1;       // pFile's handle in the MERGE table
};

class VhdxImage {
 public:
  VhdxSource source;
  VhdxGuid guid{};          // header 1's DataWriteGuid, whichever header is used
  VhdxGuid parent_guid{};   // "parent_linkage"; zero: not differencing
  std::wstring parent_path; // "absolute_win32_path"
  uint64_t virtual_disk_size = 0;
  uint32_t block_size = 0;
  bool leave_block_allocated = false;
  bool has_parent = false;
  uint32_t logical_sector_size = 0;
  uint32_t physical_sector_size = 0;
  VhdxGuid virtual_disk_id{};
  std::map<std::wstring, std::wstring> parent_locator;
  std::vector<VhdxBlock> blocks;
  VhdxRanges present_ranges;
  VhdxRanges bitmap_ranges;

  // The chosen header and the BAT as read (the merge works on a copy).
  uint64_t sequence_number = 0;
  VhdxGuid log_guid{};
  uint64_t log_offset = 0;
  uint32_t log_length = 0;
  uint64_t bat_offset = 0;
  uint32_t bat_length = 0;
  std::vector<uint64_t> bat;
  uint64_t chunk_ratio = 0;
  uint64_t file_size = 0;

  bool differencing() const { return !vhdx_guid_is_zero(parent_guid); }
  // Children in the merge tree, in insertion order.
  std::vector<std::shared_ptr<VhdxImage>> children;
};

using VhdxImagePtr = std::shared_ptr<VhdxImage>;

// "GUID:<guid> parent GUID:<guid> parent filename: [<path>]"
std::wostream& operator<<(std::wostream& os, const VhdxImage& image);

// Parses the image that `source.pFile` holds; empty on a bad region table or
// region offset.
VhdxImagePtr parse_vhdx(const VhdxSource& source);

// ---- merge --------------------------------------------------------------
// One disk: the head and its tails in the order given.  The result of the
// merge is a MERGE file (handle in the MERGE table) of the newest state.
class VhdxMerge {
 public:
  explicit VhdxMerge(VhdxImagePtr head);
  const VhdxImagePtr& head() const { return head_; }
  // Parses a tail and files it under its parent; false when it was left out.
  bool add_tail(const VhdxSource& source);
  // Merges every tail; the image of the newest state (the head itself when
  // there are no tails).
  VhdxImagePtr merge_all_tails();
  // Parses the newest state once more and returns its MERGE handle, under
  // which the caller shows it as `target`; -1 when it does not parse.
  int32_t finalize(const VhdxImagePtr& result, const std::wstring& target);

 private:
  VhdxImagePtr merge_tails(const VhdxImagePtr& node, int depth);
  VhdxImagePtr head_;
};

// Merges one tail into its parent image: a new MERGE file; its handle.
int32_t vhdx_merge_block(const VhdxImage& tail, const VhdxImage& head, std::wstring* resultName);
// The counter that numbers merge results (merge_0.vhdx, ...).
void vhdx_merge_reset_counter();

#endif
