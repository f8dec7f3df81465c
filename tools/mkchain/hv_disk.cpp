// hv_disk.cpp - the Hyper-V disk's files through the chain, its final image
// and its rules.
#include "hv_disk.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace mkchain {
namespace {

const char kStore[] = "hvstore";
const char kFolder[] = "hvstore/web02";
constexpr uint64_t kMiB = 1ull << 20;
constexpr uint32_t kHeadBlock = 32 * kMiB;
constexpr uint32_t kTailBlock = 2 * kMiB;
constexpr uint32_t kSector = 512;
constexpr time_t kDay = 24 * 3600;

std::vector<uint8_t> Bytes(Rng* rng, size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; i += 8) {
    const uint64_t x = rng->Next();
    std::memcpy(v.data() + i, &x, std::min<size_t>(8, n - i));
  }
  return v;
}

// A catalog path in the Windows form a parent locator holds.
std::string Win32(std::string path) {
  std::replace(path.begin(), path.end(), '/', '\\');
  return path;
}

}  // namespace

const char HvDisk::kHeadPath[] = "hvstore/web02/web02.vhdx";

std::string HvDisk::CheckSize(uint64_t size) {
  if (size < 64 * kMiB || size % kHeadBlock != 0) return "--hv-disk needs a multiple of 32 MiB, at least 64 MiB";
  return "";
}

HvDisk::HvDisk(uint64_t size, uint64_t seed) : rng_(seed ^ 0x48564449534Bull) {
  head_.virtualSize = size;
  head_.blockSize = kHeadBlock;
  head_.logicalSector = kSector;
  head_.dataWriteGuid = mkvhdx::GuidFromText("{5C1E0B2A-7D3F-4E61-9A80-3B2C1D0E9F47}");
  head_.virtualDiskId = mkvhdx::GuidFromText("{0F9E8D7C-6B5A-4938-8271-605F4E3D2C1B}");
}

std::vector<std::string> HvDisk::Add(ChainModel* model, time_t t, const std::string& path,
                                     const mkvhdx::ImageDesc& desc) {
  for (const char* folder : {kStore, kFolder}) {
    Node& n = model->Item(folder);
    if (!n.dir) {
      n.dir = true;
      n.mtime = n.ctime = t - 90 * kDay;
    }
  }
  images_[path] = mkvhdx::Write(desc);
  Node& n = model->Item(path);
  n.size = images_[path].size;
  ++n.version;
  n.mtime = n.ctime = t + 1;
  Node& folder = model->node(kFolder);
  folder.mtime = folder.ctime = n.ctime;
  paths_.push_back(path);
  // The disk's state: the file's data over what was there.
  const uint64_t bs = desc.blockSize;
  for (const auto& [index, block] : desc.blocks) {
    if (block.state != 6 && block.state != 7) continue;
    for (uint64_t at = 0; at < bs; at += kTailBlock) {
      const uint64_t disk = index * bs + at;
      if (disk >= desc.virtualSize) break;
      std::vector<uint8_t>& piece = state_[disk];
      if (piece.empty()) piece.assign(kTailBlock, 0);
      for (uint64_t i = 0; i < kTailBlock; ++i) {
        if (block.state == 6 || block.sectors[(at + i) / kSector]) piece[i] = block.data[at + i];
      }
    }
  }
  return {kStore, kFolder, path};
}

std::vector<std::string> HvDisk::Full(ChainModel* model, time_t t) {
  const uint64_t blocks = head_.virtualSize / kHeadBlock;
  // The first and the last block, and one in the middle.
  for (uint64_t b : {uint64_t{0}, blocks / 2, blocks - 1}) {
    head_.blocks[b] = mkvhdx::Block{6, Bytes(&rng_, kHeadBlock), {}};
  }
  head_.blocks[1] = mkvhdx::Block{2, {}, {}};  // an explicit zero block
  return Add(model, t, kHeadPath, head_);
}

std::vector<std::string> HvDisk::Incremental(ChainModel* model, time_t t) {
  const int n = static_cast<int>(paths_.size());
  mkvhdx::ImageDesc tail = head_;
  tail.blocks.clear();
  tail.blockSize = kTailBlock;
  tail.differencing = true;
  tail.parentLinkage = mkvhdx::GuidText(head_.dataWriteGuid);
  tail.parentPath = Win32(paths_.back());
  tail.dataWriteGuid[15] = static_cast<uint8_t>(n);
  const uint64_t blocks = head_.virtualSize / kTailBlock;
  for (int i = 0; i < 12; ++i) {
    // Half of them in the head's first 32 MiB, where the head has data.
    const uint64_t b = i % 2 ? rng_.Range(0, kHeadBlock / kTailBlock - 1) : rng_.Range(0, blocks - 1);
    mkvhdx::Block block{6, Bytes(&rng_, kTailBlock), {}};
    if (rng_.Chance(1, 2)) {
      block.state = 7;
      block.sectors.assign(kTailBlock / kSector, false);
      for (int run = 0; run < 4; ++run) {
        const uint64_t from = rng_.Range(0, kTailBlock / kSector - 1), len = rng_.Range(1, 600);
        for (uint64_t s = from; s < std::min<uint64_t>(from + len, kTailBlock / kSector); ++s) block.sectors[s] = true;
      }
    }
    tail.blocks[b] = std::move(block);
  }
  return Add(model, t, std::string(kFolder) + "/web02_" + std::to_string(n) + ".avhdx", tail);
}

bool HvDisk::Content(const std::string& path, uint64_t size, OutFile* out, bool* handled) const {
  const auto it = images_.find(path);
  *handled = it != images_.end();
  if (!*handled) return true;
  const mkvhdx::Image& image = it->second;
  static const std::vector<char> zeros(kMiB, 0);
  uint64_t pos = 0;
  auto zeroTo = [&](uint64_t end) {
    while (pos < end) {
      const size_t n = static_cast<size_t>(std::min<uint64_t>(end - pos, zeros.size()));
      if (!out->Write(zeros.data(), n)) return false;
      pos += n;
    }
    return true;
  };
  for (const auto& [off, bytes] : image.pieces) {
    if (off >= size) break;
    if (!zeroTo(off)) return false;
    const uint64_t n = std::min<uint64_t>(bytes.size(), size - off);
    if (!out->Write(bytes.data(), static_cast<size_t>(n))) return false;
    pos = off + n;
  }
  return zeroTo(size);
}

bool HvDisk::WriteImage(const std::string& file, std::string* error) const {
  const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  bool ok = fd >= 0 && ::ftruncate(fd, static_cast<off_t>(head_.virtualSize)) == 0;
  for (const auto& [off, bytes] : state_) {
    if (ok) ok = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(off)) == static_cast<ssize_t>(bytes.size());
  }
  if (fd >= 0 && ::close(fd) != 0) ok = false;
  if (!ok) *error = "cannot write " + file;
  return ok;
}

bool HvDisk::WriteRules(const std::string& rulesFile, const std::string& catalogFile, std::string* error) {
  std::ifstream in(catalogFile);
  std::string line, head;
  std::map<int, std::string> tails;  // by number: web02_1, web02_2, ... in chain order
  const std::string prefix = std::string("\"") + kFolder + "/";
  while (std::getline(in, line)) {
    if (line.compare(0, prefix.size(), prefix) != 0) continue;
    const size_t n = line.find("/web02_");
    if (line.find(".avhdx\"") != std::string::npos && n != std::string::npos) tails[std::atoi(line.c_str() + n + 7)] = line;
    else if (line.find(".vhdx\"") != std::string::npos) head = line;
  }
  // Each line ends in the input's node name: the blank before it ends the
  // line's saveset name, which trimming the line would otherwise leave bare.
  auto rule = [](const std::string& catalogLine) {
    std::string path = catalogLine.substr(1, catalogLine.find('"', 1) - 1);
    return "VHDXMERGE f " + catalogLine.substr(0, catalogLine.find_last_not_of(' ') + 1) + " \"" +
           path.substr(path.rfind('/') + 1) + "\"\n";
  };
  std::ofstream out(rulesFile);
  out << "MAPTO \"/hv\"\n" << rule(head);
  for (const auto& kv : tails) out << rule(kv.second);
  if (head.empty() || !out.good()) {
    *error = "cannot write the Hyper-V rules " + rulesFile;
    return false;
  }
  return true;
}

}  // namespace mkchain
