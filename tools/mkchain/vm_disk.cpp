// vm_disk.cpp - the disk's ranges through the chain, its final image and its
// mapper rules.
#include "vm_disk.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <iterator>

#include "saveset_writer.h"

namespace mkchain {
namespace {

const char kStore[] = "vmstore";
const char kFolder[] = "vmstore/web01";
constexpr time_t kDay = 24 * 3600;

bool PWriteAll(int fd, const char* data, uint64_t n, uint64_t offset) {
  while (n > 0) {
    ssize_t done = ::pwrite(fd, data, static_cast<size_t>(n), static_cast<off_t>(offset));
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    data += done;
    n -= static_cast<uint64_t>(done);
    offset += static_cast<uint64_t>(done);
  }
  return true;
}

}  // namespace

const char VmDisk::kPath[] = "vmstore/web01/web01-flat.vmdk";
const char VmDisk::kBaseName[] = "web01-flat.vmdk";

std::string VmDisk::CheckSize(uint64_t size) {
  if (size < 16 * kBlock || size % kBlock != 0)
    return "--vm-disk needs a multiple of 65536 bytes, at least 1048576";
  return "";
}

VmDisk::VmDisk(uint64_t size, uint64_t seed)
    : size_(size),
      blocks_(size / kBlock),
      maxBlocks_(std::clamp<uint64_t>(size / kBlock / 16, 1, 64)),
      rng_(seed ^ 0x564D4449534Bull) {}  // a stream of its own: the tree's choices stay as they are

uint64_t VmDisk::RandomBlocks(uint64_t most) {
  const double b = std::exp(rng_.Unit() * std::log(static_cast<double>(most) + 1.0));
  return std::clamp<uint64_t>(static_cast<uint64_t>(b), 1, most);
}

void VmDisk::BeginSaveset(ChainModel* model, time_t t) {
  time_ = t + 1;
  savesetPaths_.clear();
  for (const char* folder : {kStore, kFolder}) {
    Node& n = model->Item(folder);
    if (!n.dir) {  // new: set up long before the chain began
      n.dir = true;
      n.mtime = n.ctime = t - 90 * kDay;
    }
  }
}

bool VmDisk::Put(ChainModel* model, uint64_t first, uint64_t blocks) {
  first = std::min(first, blocks_ - 1);
  blocks = std::clamp<uint64_t>(blocks, 1, blocks_ - first);
  const uint64_t offset = first * kBlock, length = blocks * kBlock;
  const std::string path =
      std::string(kPath) + "@" + std::to_string(offset) + "-" + std::to_string(length) + ".cbt";
  if (!savesetPaths_.insert(path).second) return false;

  const bool created = !model->nodes().count(path);
  Node& n = model->Item(path);
  n.size = length;
  ++n.version;
  n.mtime = n.ctime = time_++;
  if (created) {  // a new name changes the folder
    Node& folder = model->node(kFolder);
    folder.mtime = folder.ctime = n.ctime;
  }
  writes_.push_back(Write{offset, length, path, n.version});
  Apply(offset, offset + length, writes_.size() - 1);
  return true;
}

std::vector<std::string> VmDisk::EndSaveset() {
  std::vector<std::string> paths = {kStore, kFolder};
  paths.insert(paths.end(), savesetPaths_.begin(), savesetPaths_.end());
  std::sort(paths.begin(), paths.end());
  return paths;
}

void VmDisk::Apply(uint64_t begin, uint64_t end, size_t write) {
  // An extent that starts before the write keeps its part before it, and
  // its part after it when it reaches past the write.
  auto it = extents_.lower_bound(begin);
  if (it != extents_.begin()) {
    auto prev = std::prev(it);
    if (prev->second.end > begin) {
      const Extent old = prev->second;
      prev->second.end = begin;
      if (old.end > end) extents_[end] = old;
    }
  }
  // Extents that start inside the write keep only their part after it.
  for (it = extents_.lower_bound(begin); it != extents_.end() && it->first < end;) {
    if (it->second.end > end) extents_[end] = it->second;
    it = extents_.erase(it);
  }
  extents_[begin] = Extent{end, write};
}

std::vector<std::pair<uint64_t, uint64_t>> VmDisk::Holes() const {
  std::vector<std::pair<uint64_t, uint64_t>> holes;
  uint64_t pos = 0;
  for (const auto& kv : extents_) {
    if (kv.first > pos) holes.emplace_back(pos / kBlock, kv.first / kBlock);
    pos = kv.second.end;
  }
  if (pos < size_) holes.emplace_back(pos / kBlock, blocks_);
  return holes;
}

std::vector<std::string> VmDisk::Full(ChainModel* model, time_t t) {
  BeginSaveset(model, t);
  Node& disk = model->Item(kPath);
  disk.raw = true;
  disk.size = size_;
  disk.mtime = disk.ctime = t;  // before every changed-block file: the zeros under them

  // Used ranges alternate with holes; the last block (where a partition
  // table keeps its backup copy) is always used, the range before it may
  // end right at it.
  const uint64_t last = blocks_ - 1;
  for (uint64_t pos = 0; pos < last;) {
    const uint64_t n = std::min(RandomBlocks(maxBlocks_), last - pos);
    Put(model, pos, n);
    pos += n + RandomBlocks(2 * maxBlocks_);
  }
  Put(model, last, 1);

  std::vector<std::string> paths = EndSaveset();
  paths.push_back(kPath);
  std::sort(paths.begin(), paths.end());
  return paths;
}

std::vector<std::string> VmDisk::Incremental(ChainModel* model, time_t t) {
  BeginSaveset(model, t);
  const size_t earlier = writes_.size();
  const uint64_t most = std::max<uint64_t>(2, maxBlocks_ / 2);

  // An earlier range written again as a whole: a newer file of the same name.
  {
    const Write w = writes_[rng_.Range(0, earlier - 1)];
    Put(model, w.offset / kBlock, w.length / kBlock);
  }

  // A small range inside a big earlier one, which keeps its data around it.
  std::vector<size_t> big;
  for (size_t i = 0; i < earlier; ++i)
    if (writes_[i].length >= 4 * kBlock) big.push_back(i);
  if (!big.empty()) {
    const Write w = writes_[rng_.Pick(big)];
    const uint64_t first = w.offset / kBlock + rng_.Range(1, w.length / kBlock - 3);
    const uint64_t room = w.offset / kBlock + w.length / kBlock - 1 - first;  // blocks before its last
    Put(model, first, RandomBlocks(std::min(room, most)));
  }

  // A range from the end of used data on into the hole after it.
  std::vector<std::pair<uint64_t, uint64_t>> holes = Holes();
  holes.erase(std::remove_if(holes.begin(), holes.end(),
                             [](const std::pair<uint64_t, uint64_t>& h) { return h.first == 0; }),
              holes.end());
  if (!holes.empty()) {
    const auto h = rng_.Pick(holes);
    const uint64_t before = rng_.Range(1, std::min<uint64_t>(most, h.first));
    Put(model, h.first - before, before + RandomBlocks(std::min(most, h.second - h.first)));
  }

  // New data in holes.
  for (uint64_t k = rng_.Range(1, 3); k > 0; --k) {
    holes = Holes();
    if (holes.empty()) break;
    const auto h = rng_.Pick(holes);
    const uint64_t n = RandomBlocks(std::min(most, h.second - h.first));
    Put(model, h.first + rng_.Range(0, h.second - h.first - n), n);
  }

  // Ranges that overlap inside this saveset: one written after a range it
  // starts inside of and runs past the end of, one written after a range it
  // starts before and ends inside of.  The later write wins the overlap in
  // both, whichever comes first in path order.
  {
    const uint64_t a = std::max<uint64_t>(2, RandomBlocks(most));
    const uint64_t aFirst = rng_.Range(0, blocks_ - a - 1);
    const uint64_t bFirst = aFirst + rng_.Range(1, a - 1);
    Put(model, aFirst, a);
    Put(model, bFirst, aFirst + a - bFirst + RandomBlocks(most));
  }
  {
    const uint64_t c = std::max<uint64_t>(2, RandomBlocks(most));
    const uint64_t cFirst = rng_.Range(1, blocks_ - c);
    const uint64_t dFirst = cFirst - rng_.Range(1, std::min(cFirst, most));
    Put(model, cFirst, c);
    Put(model, dFirst, cFirst - dFirst + rng_.Range(1, c - 1));
  }

  // A few rewrites anywhere.
  for (uint64_t k = rng_.Range(2, 6); k > 0; --k) {
    const uint64_t n = RandomBlocks(most);
    Put(model, rng_.Range(0, blocks_ - n), n);
  }
  return EndSaveset();
}

bool VmDisk::WriteImage(const std::string& file, std::string* error) const {
  // Each write's data is made once, for all of its parts still visible.
  std::map<size_t, std::vector<std::pair<uint64_t, uint64_t>>> parts;
  for (const auto& kv : extents_) parts[kv.second.write].emplace_back(kv.first, kv.second.end);

  const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) {
    *error = "cannot create " + file + ": " + std::strerror(errno);
    return false;
  }
  std::vector<char> data;
  bool ok = true;
  for (const auto& kv : parts) {
    const Write& w = writes_[kv.first];
    data.resize(w.length);
    ContentStream(w.path, w.version).Fill(data.data(), w.length);
    for (const auto& p : kv.second)
      ok = ok && PWriteAll(fd, data.data() + (p.first - w.offset), p.second - p.first, p.first);
  }
  ok = ok && ::ftruncate(fd, static_cast<off_t>(size_)) == 0;
  const int saved = errno;
  if (::close(fd) != 0 || !ok) {
    *error = "cannot write " + file + ": " + std::strerror(ok ? errno : saved);
    return false;
  }
  return true;
}

bool VmDisk::WriteRules(const std::string& file, const std::string& fullSaveset,
                        std::string* error) {
  const std::string rules = "MAPTO \"/vm\"\n"
                            "LIS R \"" + std::string(kPath) + "\" \"web01.raw\"\n"
                            "SAVESET f \"" + fullSaveset + "\" \"full.cpio\"\n";
  OutFile out;
  if (!out.Open(file, error)) return false;
  out.Write(rules.data(), rules.size());
  return out.Close(error);
}

}  // namespace mkchain
