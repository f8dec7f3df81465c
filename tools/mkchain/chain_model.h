// chain_model.h - the evolving directory tree behind a generated chain.
//
// The model holds every item of the backed-up tree under its relative path
// ("demo", "demo/sub/file.txt") in a std::map, whose order is the byte-wise
// path order that saveset records and catalog lines follow (std::string
// compares as unsigned bytes, and a folder's path is a prefix of its
// contents' paths, so a folder always precedes its contents).
//
// All choices come from one seeded generator, so a seed fixes the whole chain.
// File contents are not stored: they are recomputed from (path, version).
#ifndef MKCHAIN_CHAIN_MODEL_H
#define MKCHAIN_CHAIN_MODEL_H

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

namespace mkchain {

// xorshift64* generator: fast, deterministic, good enough for test data.
class Rng {
 public:
  explicit Rng(uint64_t seed);
  uint64_t Next();
  // Uniform in [lo, hi]; lo <= hi.
  uint64_t Range(uint64_t lo, uint64_t hi);
  // True with probability num/den.
  bool Chance(uint64_t num, uint64_t den) { return Range(1, den) <= num; }
  // Uniform in [0, 1).
  double Unit();
  template <typename T>
  const T& Pick(const std::vector<T>& v) { return v[Range(0, v.size() - 1)]; }

 private:
  uint64_t state_;
};

// Pseudo-random bytes of one version of one file, produced in order.
class ContentStream {
 public:
  ContentStream(const std::string& path, uint32_t version);
  // Appends the next n bytes of the content to out.
  void Fill(char* out, size_t n);

 private:
  uint64_t state_;
  uint64_t spare_ = 0;    // bytes of the last word not yet handed out
  unsigned spareLen_ = 0;
};

// Where one record of an item lies in its saveset.
struct Placement {
  int saveset = -1;      // index in the chain, 0 = full
  uint64_t start = 0;    // offset of the record's header
  uint64_t dataRel = 0;  // data start relative to start (header+name+fill)
  uint64_t span = 0;     // header to next header
  uint64_t size = 0;     // data bytes
};

struct Node {
  bool dir = false;
  bool raw = false;           // a full-disk item ("R"): a catalog line, no record
  bool noFiles = false;       // a folder that is kept empty
  bool ctimeUnknown = false;  // catalog lines give "0000-00-00 00:00:00"
  uint64_t ino = 0;
  uint64_t size = 0;          // data bytes (0 for folders)
  uint32_t version = 0;       // content version, raised by every change
  time_t mtime = 0;
  time_t ctime = 0;
  Placement newest;           // the record written last for this item
};

struct ModelOptions {
  uint64_t seed = 1;
  uint64_t files = 1200;        // at least this many files in the full backup
  uint64_t totalBytes = 24ull << 20;  // approximate file data of the full
};

class ChainModel {
 public:
  explicit ChainModel(const ModelOptions& options);

  // Creates the tree of the full backup taken at time t; returns the paths
  // of all its items in record order.
  std::vector<std::string> BuildFull(time_t t);
  // Applies the changes of an incremental backup taken at time t and returns
  // the paths it records: every changed or added item and every folder on
  // the way to one, in record order.
  std::vector<std::string> Evolve(time_t t);

  const std::map<std::string, Node>& nodes() const { return nodes_; }
  Node& node(const std::string& path) { return nodes_.at(path); }
  // The item at path, created with the next inode number when missing.  For
  // items that the random changes above never pick (a virtual machine
  // disk's): they are in no list of candidates for change.
  Node& Item(const std::string& path);

 private:
  std::string AddFolder(const std::string& parent, const std::string& base, time_t t);
  std::string AddFile(const std::string& parent, const std::string& name, uint64_t size,
                      time_t t);
  std::string UniquePath(const std::string& parent, const std::string& stem,
                         const std::string& ext) const;
  std::string RandomFileName();
  std::string RandomFolderName();
  std::string RandomFolderForFiles();
  uint64_t RandomSmallSize(double scale);
  void Touch(Node* n, time_t t, time_t minAge, time_t maxAge);
  void ChangeFile(const std::string& path, time_t t);

  ModelOptions opt_;
  Rng rng_;
  uint64_t nextIno_ = 1000;
  double smallScale_ = 1.0;  // bytes per unit of small-file weight
  std::map<std::string, Node> nodes_;
  std::vector<std::string> folders_;  // folders that may receive files
  std::vector<std::string> files_;
};

}  // namespace mkchain

#endif  // MKCHAIN_CHAIN_MODEL_H
