// chain_model.cpp - builds the full backup's tree and evolves it through the
// incrementals.
#include "chain_model.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace mkchain {
namespace {

// Files are kept below 4 GiB so that every size fits the 8 hex digits of the
// newc and extended headers.
constexpr uint64_t kMaxFileSize = 3ull << 30;
constexpr uint64_t kGiB = 1ull << 30;
constexpr time_t kDay = 24 * 3600;

// Names mix ASCII, blanks and non-ASCII UTF-8, and never hold a double
// quote, a backslash or a line end (catalog lines quote paths with '"').
const std::vector<std::string> kFolderWords = {
    "docs", "src", "projects", "Projekte", "photos 2024", "Urlaub", "reports",
    "archive", "misc", "build", "assets", "music", "Übersicht", "日本語", "résumés",
    "data", "old stuff", "backup notes", "mañana", "Ελληνικά", "notes", "2025",
    "clients", "Мои документы", "tmp", "drafts", "invoices", "källor"};
const std::vector<std::string> kFileWords = {
    "report", "notes", "budget", "image", "draft", "readme", "Protokoll", "Grüße",
    "résumé", "config", "letter", "plan", "summary", "invoice", "data", "log",
    "todo", "Ångström", "naïve", "smörgåsbord", "写真", "ファイル", "meeting notes",
    "Q3 report", "année", "scan"};
const std::vector<std::string> kExtensions = {
    ".txt", ".doc", ".pdf", ".jpg", ".csv", ".log", ".bin", ".dat", ".xml", ".md", ""};
const std::vector<std::string> kLargeNames = {
    "disk image", "video clip", "database dump", "Archiv 2024", "VM snapshot"};

uint64_t SplitMix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

uint64_t XorShiftStar(uint64_t* s) {
  uint64_t x = *s;
  x ^= x >> 12;
  x ^= x << 25;
  x ^= x >> 27;
  *s = x;
  return x * 0x2545F4914F6CDD1Dull;
}

size_t Depth(const std::string& path) { return std::count(path.begin(), path.end(), '/'); }

std::string Parent(const std::string& path) { return path.substr(0, path.rfind('/')); }

}  // namespace

Rng::Rng(uint64_t seed) : state_(SplitMix(seed) | 1) {}
uint64_t Rng::Next() { return XorShiftStar(&state_); }
uint64_t Rng::Range(uint64_t lo, uint64_t hi) {
  uint64_t width = hi - lo + 1;
  return width == 0 ? Next() : lo + Next() % width;
}
double Rng::Unit() { return static_cast<double>(Next() >> 11) * (1.0 / 9007199254740992.0); }

ContentStream::ContentStream(const std::string& path, uint32_t version) {
  uint64_t h = 0xcbf29ce484222325ull;  // FNV-1a over the path, then the version mixed in
  for (unsigned char c : path) h = (h ^ c) * 0x100000001b3ull;
  state_ = SplitMix(h ^ SplitMix(version)) | 1;
}

void ContentStream::Fill(char* out, size_t n) {
  for (; n > 0 && spareLen_ > 0; --n, --spareLen_, spare_ >>= 8) *out++ = static_cast<char>(spare_);
  for (; n >= 8; n -= 8, out += 8) {
    uint64_t w = XorShiftStar(&state_);
    for (int i = 0; i < 8; ++i) out[i] = static_cast<char>(w >> (8 * i));  // little-endian
  }
  if (n > 0) {
    uint64_t w = XorShiftStar(&state_);
    for (size_t i = 0; i < n; ++i, w >>= 8) out[i] = static_cast<char>(w);
    spare_ = w;
    spareLen_ = static_cast<unsigned>(8 - n);
  }
}

ChainModel::ChainModel(const ModelOptions& options) : opt_(options), rng_(options.seed) {}

Node& ChainModel::Item(const std::string& path) {
  auto it = nodes_.find(path);
  if (it == nodes_.end()) {
    it = nodes_.emplace(path, Node()).first;
    it->second.ino = nextIno_++;
  }
  return it->second;
}

void ChainModel::Touch(Node* n, time_t t, time_t minAge, time_t maxAge) {
  n->mtime = t - static_cast<time_t>(rng_.Range(minAge, maxAge));
  n->ctime = n->mtime + static_cast<time_t>(rng_.Range(0, 120));
}

std::string ChainModel::UniquePath(const std::string& parent, const std::string& stem,
                                   const std::string& ext) const {
  std::string path = parent + "/" + stem + ext;
  for (int k = 2; nodes_.count(path); ++k) path = parent + "/" + stem + "_" + std::to_string(k) + ext;
  return path;
}

std::string ChainModel::AddFolder(const std::string& parent, const std::string& base,
                                  time_t mtime) {
  std::string path = parent.empty() ? base : UniquePath(parent, base, "");
  Node n;
  n.dir = true;
  n.ino = nextIno_++;
  n.mtime = mtime;
  n.ctime = mtime + static_cast<time_t>(rng_.Range(0, 60));
  n.ctimeUnknown = rng_.Chance(1, 40);
  nodes_[path] = n;
  if (!parent.empty()) {
    Node& p = nodes_.at(parent);
    p.mtime = std::max(p.mtime, mtime);
    p.ctime = std::max(p.ctime, n.ctime);
  }
  return path;
}

std::string ChainModel::AddFile(const std::string& parent, const std::string& name,
                                uint64_t size, time_t mtime) {
  std::string::size_type dot = name.rfind('.');
  std::string path = (dot == std::string::npos || dot == 0)
                         ? UniquePath(parent, name, "")
                         : UniquePath(parent, name.substr(0, dot), name.substr(dot));
  Node n;
  n.ino = nextIno_++;
  n.size = std::min(size, kMaxFileSize);
  n.version = 1;
  n.mtime = mtime;
  n.ctime = mtime + static_cast<time_t>(rng_.Range(0, 120));
  n.ctimeUnknown = rng_.Chance(1, 40);
  nodes_[path] = n;
  files_.push_back(path);
  Node& p = nodes_.at(parent);
  p.mtime = std::max(p.mtime, mtime);
  p.ctime = std::max(p.ctime, n.ctime);
  return path;
}

std::string ChainModel::RandomFileName() {
  std::string stem = rng_.Pick(kFileWords);
  if (rng_.Chance(1, 4)) stem += " " + rng_.Pick(kFileWords);
  if (rng_.Chance(1, 2)) stem += "_" + std::to_string(rng_.Range(1, 999));
  return stem + rng_.Pick(kExtensions);
}

std::string ChainModel::RandomFolderName() {
  std::string name = rng_.Pick(kFolderWords);
  if (rng_.Chance(1, 3)) name += " " + std::to_string(rng_.Range(1, 99));
  return name;
}

// Half of the picks come from the newest quarter of the folders, which are
// the deepest ones, so that the tree grows several levels deep.
std::string ChainModel::RandomFolderForFiles() {
  if (folders_.size() > 4 && rng_.Chance(1, 2))
    return folders_[rng_.Range(folders_.size() * 3 / 4, folders_.size() - 1)];
  return rng_.Pick(folders_);
}

// Log-uniform weight between 1 and 1000 times the scale: mostly small files,
// some of tens of KiB at the default size.
uint64_t ChainModel::RandomSmallSize(double scale) {
  return static_cast<uint64_t>(std::exp(rng_.Unit() * std::log(1000.0)) * scale);
}

std::vector<std::string> ChainModel::BuildFull(time_t t) {
  auto old = [&] { return t - static_cast<time_t>(rng_.Range(kDay, 400 * kDay)); };
  folders_.push_back(AddFolder("", "demo", old()));

  // Folders: each below a random folder, at most eight levels deep.
  const uint64_t nFolders = std::max<uint64_t>(12, opt_.files / 12);
  folders_.push_back(AddFolder("demo", "café", old()));
  while (folders_.size() < nFolders) {
    std::string parent = RandomFolderForFiles();
    if (Depth(parent) < 8) folders_.push_back(AddFolder(parent, RandomFolderName(), old()));
  }
  // A few folders stay empty for good; they never receive files or folders.
  AddFolder("demo", "empty folder", old());
  for (uint64_t i = 0; i < std::max<uint64_t>(2, nFolders / 30); ++i)
    nodes_.at(AddFolder(rng_.Pick(folders_), "leer", old())).noFiles = true;
  nodes_.at("demo/empty folder").noFiles = true;

  // Fixed names that exercise UTF-8 and blanks in every chain.
  nodes_.at(AddFile("demo", "Grüße.txt", 1234, old())).ctimeUnknown = true;
  AddFile("demo", "日本語 ファイル.txt", 4321, old());
  AddFile("demo/café", "naïve résumé.doc", 20001, old());
  AddFile("demo", "empty.txt", 0, old());

  // Half of the data goes into a few large files, each below 1.3 GiB.
  const uint64_t largeBudget = opt_.totalBytes / 2;
  const uint64_t nLarge = std::max<uint64_t>(3, (largeBudget + kGiB - 1) / kGiB);
  for (uint64_t i = 0; i < nLarge; ++i) {
    double share = (0.7 + 0.6 * rng_.Unit()) / static_cast<double>(nLarge);
    AddFile(RandomFolderForFiles(), rng_.Pick(kLargeNames) + ".bin",
            static_cast<uint64_t>(share * static_cast<double>(largeBudget)), old());
  }

  // The other half over the remaining files, by log-uniform weights; about
  // one file in 30 is empty.
  const uint64_t placed = files_.size();
  const uint64_t nSmall = opt_.files > placed ? opt_.files - placed : 0;
  std::vector<double> weights(nSmall);
  double sum = 0;
  for (double& w : weights) {
    w = rng_.Chance(1, 30) ? 0.0 : std::exp(rng_.Unit() * std::log(1000.0));
    sum += w;
  }
  const double budget = static_cast<double>(opt_.totalBytes - largeBudget);
  smallScale_ = sum > 0 ? budget / sum : 1.0;
  for (double w : weights)
    AddFile(RandomFolderForFiles(), RandomFileName(), static_cast<uint64_t>(w * smallScale_),
            old());

  std::vector<std::string> paths;
  for (const auto& kv : nodes_) paths.push_back(kv.first);
  return paths;
}

void ChainModel::ChangeFile(const std::string& path, time_t t) {
  Node& n = nodes_.at(path);
  const uint64_t r = rng_.Range(0, 99);
  if (n.size == 0) {
    n.size = RandomSmallSize(smallScale_) + 1;  // an empty file gets content
  } else if (r < 35) {
    // same size, new content
  } else if (r < 65) {
    // large files grow by at most a tenth, so incrementals stay incremental
    uint64_t most = n.size > (1u << 20) ? n.size / 10 : n.size / 2 + 100;
    n.size = std::min(kMaxFileSize, n.size + rng_.Range(1, most));
  } else if (r < 90) {
    if (n.size > 1) n.size = rng_.Range(1, n.size - 1);
  } else {
    n.size = 0;  // truncated to empty
  }
  ++n.version;
  Touch(&n, t, 600, 20 * 3600);
}

// No item is ever deleted.  The consumer of the consolidated catalog merges
// consecutive lines that name the same saveset into one contiguous byte run of
// that saveset; a deleted item whose record lies between two kept items of one
// saveset would be carried into the new backup along with them.  Without
// deletions every record between two such items is itself listed between them.
std::vector<std::string> ChainModel::Evolve(time_t t) {
  std::set<std::string> changed;
  auto recent = [&] { return t - static_cast<time_t>(rng_.Range(600, 20 * 3600)); };

  // 5 to 10 percent of the files change: same size, grown, shrunk, emptied.
  std::vector<std::string> pool = files_;
  const uint64_t nChange = std::max<uint64_t>(1, pool.size() * rng_.Range(5, 10) / 100);
  for (uint64_t i = 0; i < nChange && i < pool.size(); ++i) {
    std::swap(pool[i], pool[rng_.Range(i, pool.size() - 1)]);
    ChangeFile(pool[i], t);
    changed.insert(pool[i]);
  }

  // New files in existing folders.
  const uint64_t nNew = std::max<uint64_t>(1, files_.size() / 50);
  for (uint64_t i = 0; i < nNew; ++i)
    changed.insert(AddFile(RandomFolderForFiles(), RandomFileName(),
                           RandomSmallSize(smallScale_), recent()));

  // One or two new folders, sometimes with a subfolder, each with files.
  for (uint64_t i = rng_.Range(1, 2); i > 0; --i) {
    std::string folder = AddFolder(RandomFolderForFiles(), RandomFolderName(), recent());
    folders_.push_back(folder);
    if (rng_.Chance(1, 2)) {
      folder = AddFolder(folder, RandomFolderName(), recent());
      folders_.push_back(folder);
    }
    for (uint64_t k = rng_.Range(2, 5); k > 0; --k)
      changed.insert(AddFile(folder, RandomFileName(), RandomSmallSize(smallScale_), recent()));
  }

  // Every folder on the way to a changed item is recorded as well.
  std::set<std::string> recorded = changed;
  for (const std::string& path : changed)
    for (std::string p = path; p.find('/') != std::string::npos;) {
      p = Parent(p);
      recorded.insert(p);
    }
  return std::vector<std::string>(recorded.begin(), recorded.end());
}

}  // namespace mkchain
