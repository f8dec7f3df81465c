// tq_vfs_vhdx_merge.cpp - merges a full VHDX image (the head) with its
// differencing tails into one VHDX image of the newest state, as a MERGE
// file: slices into the head's and the tails' bytes, plus the BAT and the
// sector bitmaps made or changed, held in memory.  No disk data is copied.
//
// Data rule: every sector a tail supplies (its fully present blocks and the
// set sectors of its partially present ones) replaces the parent's; sectors
// it does not supply keep the parent's data.  Tails are filed in a tree by
// their parent and merged from the deepest level up, so along a chain the
// newest tail wins.
//
// Every slice is cut at the tail's and at the head's block borders, so any
// pair of block sizes merges correctly.  A head block that holds no data
// gets a new block at the end of the result, first filled with zeros, and
// then takes the tail's data like a present block: on a non-differencing
// head the sectors no tail supplies read as zeros, on a differencing head
// their sector-bitmap bits stay clear.
#include <algorithm>
#include <cstdio>
#include <cwctype>
#include <map>
#include <new>
#include <sstream>
#include <string>

#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_vfile.h"
#include "vfs/tq_vfs_vhdx.h"

namespace {

using ull = unsigned long long;
constexpr uint64_t k1M = 0x100000;
constexpr uint64_t kLow20 = k1M - 1;

int s_mergeCounter = 0;

std::string Utf8(const std::wstring& w) { return korvo::wcstombs_utf8(w.c_str()); }

// "[VHDX] ..." progress lines: standard output and the trace.
void Console(const std::string& text) {
  WRITE_TRACE(1, "%s", text.c_str());
  std::fprintf(stdout, "%s\n", text.c_str());
  std::fflush(stdout);
}

std::string ImageLine(const VhdxImage& image) {
  std::wostringstream os;
  os << image;
  return Utf8(os.str());
}

uint64_t RoundUp(uint64_t v, uint64_t to) { return (v + to - 1) / to * to; }

// Paths compare with every '/' as '\' and without regard to case.
std::wstring NormalisedPath(const std::wstring& path) {
  std::wstring out = path;
  for (wchar_t& c : out) c = c == L'/' ? L'\\' : static_cast<wchar_t>(std::towlower(c));
  return out;
}

// Whether tail's parent is image: by GUID for a non-differencing image, by
// path for a differencing one.
bool IsParentOf(const VhdxImage& image, const VhdxImage& tail) {
  if (!image.differencing()) return tail.parent_guid == image.guid;
  return NormalisedPath(tail.parent_path) == NormalisedPath(image.source.name);
}

void Insert(VhdxImage* node, const VhdxImagePtr& tail) {
  for (const VhdxImagePtr& child : node->children) {
    if (IsParentOf(*child, *tail)) {
      Insert(child.get(), tail);
      return;
    }
  }
  node->children.push_back(tail);
}

void PrintTree(const VhdxImage& node, int depth) {
  Console("[VHDX] " + std::string(2 * static_cast<size_t>(depth), ' ') + Utf8(node.source.name) + " " +
          ImageLine(node));
  for (const VhdxImagePtr& child : node.children) PrintTree(*child, depth + 1);
}

// The result under construction: slices numbered in order (a later slice
// wins), the working BAT and the sector-bitmap blocks made or changed.
class Builder {
 public:
  Builder(const VhdxImage& head, const std::wstring& name)
      : head_(head), file_(new tq_vfs_vfile(name, name)), bat_(head.bat) {
    next_ = RoundUp(head.file_size, k1M);
    AddSource(head.source, 0, head.file_size, 0);  // a byte-for-byte view of the head
  }

  void AddSource(const VhdxSource& src, uint64_t target, uint64_t length, uint64_t sourceOffset) {
    tq_vfs_slice s;
    s.mTime = ++sliceNo_;
    s.miIntervalStart = static_cast<int64_t>(target);
    s.miIntervalEnd = static_cast<int64_t>(target + length);
    if (src.iSavesetIdx >= 0) {
      s.iType = stSAVESET;
      s.miSavesetIdx = src.iSavesetIdx;
      s.miSavesetOffset = src.ullSavesetOffset + sourceOffset;
    } else {
      s.iType = stMERGE;
      s.ullMergeHandle = static_cast<uint64_t>(src.iMergeHandle);
      s.ullMergeOffset = sourceOffset;
    }
    file_->add_slice(s);
  }

  void AddMemory(uint64_t target, std::shared_ptr<std::vector<unsigned char>> buffer) {
    tq_vfs_slice s;
    s.mTime = ++sliceNo_;
    s.iType = stMEMORY;
    s.miIntervalStart = static_cast<int64_t>(target);
    s.miIntervalEnd = static_cast<int64_t>(target + buffer->size());
    s.pBuffer = std::move(buffer);
    file_->add_slice(s);
  }

  // A new zero-filled stretch at the end of the result; its offset.
  uint64_t Append(uint64_t length) {
    const uint64_t at = next_;
    tq_vfs_slice s;
    s.mTime = ++sliceNo_;
    s.iType = stFILL;
    s.miIntervalStart = static_cast<int64_t>(at);
    s.miIntervalEnd = static_cast<int64_t>(at + length);
    file_->add_slice(s);
    next_ += RoundUp(length, k1M);
    return at;
  }

  // The sector-bitmap block of a BAT position, made when it has none.
  std::vector<unsigned char>& Bitmap(uint64_t sbIndex) {
    auto it = bitmaps_.find(sbIndex);
    if (it != bitmaps_.end()) return *it->second.second;
    uint64_t& entry = bat_.at(sbIndex);
    const uint8_t state = entry & 7;
    auto buf = std::make_shared<std::vector<unsigned char>>(k1M, 0);
    if (state == 6) {
      ReadHead(entry & ~kLow20, buf.get());
    } else {
      if (state != 0) WRITE_TRACE(1, "Unexpected SB entry %llu state %d", static_cast<ull>(sbIndex), state);
      const uint64_t at = Append(k1M);
      entry = at | (entry & (kLow20 & ~7ull)) | 6u;
    }
    bitmaps_[sbIndex] = {entry & ~kLow20, buf};
    return *buf;
  }

  void SetBits(std::vector<unsigned char>* bitmap, uint64_t firstSector, uint64_t count) {
    for (uint64_t s = firstSector; s < firstSector + count && s / 8 < bitmap->size(); ++s) {
      (*bitmap)[s / 8] |= static_cast<unsigned char>(1u << (s % 8));
    }
  }

  std::vector<uint64_t>& bat() { return bat_; }

  // Lays the working BAT and the bitmaps over the result; its MERGE handle.
  int32_t Finish() {
    auto batBytes = std::make_shared<std::vector<unsigned char>>(head_.bat_length, 0);
    for (size_t i = 0; i < bat_.size() && 8 * i + 8 <= batBytes->size(); ++i) {
      for (int b = 0; b < 8; ++b) (*batBytes)[8 * i + b] = static_cast<unsigned char>(bat_[i] >> (8 * b));
    }
    AddMemory(head_.bat_offset, batBytes);
    for (auto& [index, bitmap] : bitmaps_) AddMemory(bitmap.first, bitmap.second);
    return vfile_table_MERGE_push(std::move(file_));
  }

 private:
  void ReadHead(uint64_t offset, std::vector<unsigned char>* out) {
    tq_vfs_vfile* f = head_.source.pFile;
    pf::MutexLock(f->hMutex);
    f->m_fpos = static_cast<int64_t>(offset);
    f->read(out->data(), out->size());
    pf::MutexUnlock(f->hMutex);
  }

  const VhdxImage& head_;
  std::unique_ptr<tq_vfs_vfile> file_;
  std::vector<uint64_t> bat_;
  std::map<uint64_t, std::pair<uint64_t, std::shared_ptr<std::vector<unsigned char>>>> bitmaps_;
  uint64_t next_ = 0;
  int64_t sliceNo_ = 0;
};

[[noreturn]] void UnexpectedPayload() {
  WRITE_TRACE(1, "Unexpected PB type during merge");
  std::fputs("Unexpected PB type during merge\n", stdout);
  std::fflush(stdout);
  tvu_fatal("Unexpected PB type during merge");
}

}  // namespace

void vhdx_merge_reset_counter() { s_mergeCounter = 0; }

int32_t vhdx_merge_block(const VhdxImage& tail, const VhdxImage& head, std::wstring* resultName) {
  const std::wstring name = L"merge_" + std::to_wstring(s_mergeCounter++) + L".vhdx";
  if (resultName) *resultName = name;
  WRITE_TRACE(1, "Merging source %ls and target %ls resulting in %ls", tail.source.name.c_str(),
              head.source.name.c_str(), name.c_str());
  Console("[VHDX] Merging source " + Utf8(tail.source.name) + " and target " + Utf8(head.source.name) +
          " resulting in " + Utf8(name));

  Builder out(head, name);
  const uint64_t hbs = head.block_size, tbs = tail.block_size;
  const uint64_t ratio = head.chunk_ratio;
  const uint64_t ss = head.logical_sector_size;
  const bool diffHead = head.differencing();
  if (hbs != tbs) {
    WRITE_TRACE(1, "String to fit tail block (size = %llu) into head (size = %llu)", static_cast<ull>(tbs),
                static_cast<ull>(hbs));
  }
  for (const VhdxBlock& block : tail.blocks) {
    for (const auto& iv : block.ranges) {
      uint64_t p = 0, to = 0;
      vhdx_half_open(iv, &p, &to);
      WRITE_TRACE(2, " tail_sector_from %lu tail_sector_to %lu", static_cast<unsigned long>(p),
                  static_cast<unsigned long>(to));
      if (to > head.virtual_disk_size) {
        WRITE_TRACE(1, "tail range [%llu, %llu) beyond the head's virtual size %llu - cut", static_cast<ull>(p),
                    static_cast<ull>(to), static_cast<ull>(head.virtual_disk_size));
        to = head.virtual_disk_size;
      }
      while (p < to) {
        const uint64_t chunk = p / (ratio * hbs);
        const uint64_t pbIndex = p / hbs + chunk;
        const uint64_t sbIndex = (ratio + 1) * chunk + ratio;
        uint64_t& entry = out.bat().at(pbIndex);
        const uint8_t state = entry & 7;
        if (state == 4 || state == 5) UnexpectedPayload();
        if (state <= 3) {
          WRITE_TRACE(2, "Append new block");
          const uint64_t at = out.Append(hbs);
          entry = at | (entry & (kLow20 & ~7ull)) | (diffHead ? 7u : 6u);
        }
        const uint64_t inHead = p % hbs, inTail = p % tbs;
        const uint64_t length = std::min({tbs - inTail, hbs - inHead, to - p});
        out.AddSource(tail.source, (entry & ~kLow20) + inHead, length, block.file_offset_mb * k1M + inTail);
        if (diffHead) {
          const uint64_t firstSector = (p % (ratio * hbs)) / ss;
          out.SetBits(&out.Bitmap(sbIndex), firstSector, (length + ss - 1) / ss);
        }
        p += length;
      }
    }
  }
  return out.Finish();
}

VhdxMerge::VhdxMerge(VhdxImagePtr head) : head_(std::move(head)) {}

bool VhdxMerge::add_tail(const VhdxSource& source) {
  VhdxImagePtr tail = parse_vhdx(source);
  if (!tail) {
    WRITE_TRACE(1, "Error parsing VHDX file %ls. Not a child of %ls", source.name.c_str(), head_->source.name.c_str());
    Console("[VHDX] Error parsing VHDX file " + Utf8(source.name) + " not a child of " + Utf8(head_->source.name));
    return false;
  }
  Console("[VHDX] Parsed VHDX tail: [" + Utf8(source.name) + "] " + ImageLine(*tail));
  if (!IsParentOf(*head_, *tail)) {
    WRITE_TRACE(1, "VHDX tail %ls does not belong to %ls - left out", source.name.c_str(), head_->source.name.c_str());
    return false;
  }
  Insert(head_.get(), tail);
  return true;
}

VhdxImagePtr VhdxMerge::merge_tails(const VhdxImagePtr& node, int depth) {
  Console("[VHDX] " + std::string(2 * static_cast<size_t>(depth), ' ') + "Merging tails for: [" +
          Utf8(node->source.name) + "]");
  VhdxImagePtr current = node;
  for (const VhdxImagePtr& child : node->children) {
    const VhdxImagePtr childState = merge_tails(child, depth + 1);
    std::wstring name;
    const int32_t handle = vhdx_merge_block(*childState, *current, &name);
    VhdxSource src;
    src.pFile = vfile_get_MERGE(handle);
    src.name = name;
    src.iMergeHandle = handle;
    VhdxImagePtr merged = parse_vhdx(src);
    if (!merged) {
      WRITE_TRACE(1, "Error parsing merged VHDX file %ls", name.c_str());
      Console("Error parsing merged VHDX file: " + Utf8(name));
      continue;
    }
    current = merged;
  }
  return current;
}

VhdxImagePtr VhdxMerge::merge_all_tails() {
  Console("[VHDX] Merging all tails for head: [" + Utf8(head_->source.name) + "]");
  PrintTree(*head_, 0);
  return merge_tails(head_, 0);
}

int32_t VhdxMerge::finalize(const VhdxImagePtr& result, const std::wstring& target) {
  WRITE_TRACE(1, "Finalizing [%ls] to [%ls]", result->source.name.c_str(), target.c_str());
  Console("[VHDX] Finalizing " + Utf8(result->source.name) + " " + Utf8(target));
  if (!parse_vhdx(result->source)) {
    WRITE_TRACE(1, "Error parsing VHDX file %ls", result->source.name.c_str());
    return -1;
  }
  WRITE_TRACE(1, "End parsing VHDX file %ls", result->source.name.c_str());
  return result->source.iMergeHandle;
}
