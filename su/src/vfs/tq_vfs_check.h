// tq_vfs_check.h - the chain of one consolidation examined before a byte of
// it is streamed, and the stream's layout worked out from its catalog.
//
// A consolidation streams, run by run, the byte ranges its consolidated
// catalog names: consecutive lines of one saveset form one run, from the
// first line's offset to the last line's end.  ChainPlan loads the same
// chain in this process (configuration, "consolidate.arg", saveset list,
// catalog type) and reads the catalog with the same parser and the same run
// rule, so that:
//   - Check() lists every problem the stream would suffer from: lines that
//     do not parse or name no known saveset, lines that run backward or
//     shorten their run, ranges past a saveset's end, records at an item's
//     offset that are not the item the line names (CPIO, dump and MTF savesets),
//     a catalog without items;
//   - Next() hands out the catalog's items one by one with the offset each
//     gets in the stream (what a catalog of the new saveset says);
//   - ReadStream() reads the stream at any offset straight from the
//     savesets, for resuming a consolidation that was cut.
//
// One ChainPlan per process and no tree at the same time: the chain lives
// in the module-wide tables.  Single-threaded.
#ifndef TVU_VFS_CHECK_H
#define TVU_VFS_CHECK_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace tvu {

struct CheckProblem {
  std::string file;   // the catalog (or a saveset), as an OS path
  uint64_t line = 0;  // 1-based catalog line; 0 when the problem is not a line's
  std::string what;
};

// One run of the stream.
struct PlanRun {
  int32_t saveset = -1;
  uint64_t start = 0, end = 0;  // bytes [start, end) of the saveset
  uint64_t streamOffset = 0;    // where the run begins in the stream
};

// One item line of the catalog as the stream places it.
struct PlanItem {
  uint64_t line = 0;
  std::string path;            // as written in the catalog
  char type = 0;               // 'f' or 'd'
  std::string ctime, mtime;    // as written ("YYYY-MM-DD HH:MM:SS")
  int32_t saveset = -1;
  uint64_t offset = 0;         // the item's record in its saveset
  // The numbers after the offset as a version-2 line writes them (a
  // version-1 line gives relOffset 0 and inode 0).
  int64_t relOffset = 0;       // data start relative to the record (0 or less: not located)
  uint64_t span = 0;           // record bytes the line covers
  uint64_t dataSize = 0;       // the item's data bytes (CPIO savesets)
  uint64_t inode = 0;
  uint64_t streamOffset = 0;   // the record's offset in the stream
};

struct CheckSummary {
  uint64_t lines = 0;          // catalog lines read
  uint64_t items = 0;          // item lines streamed (types f and d)
  uint64_t recordsChecked = 0; // records read at items' offsets
  uint64_t streamBytes = 0;    // the stream's length (without a trailer)
  uint64_t dataBytes = 0;      // the files' data bytes (dump savesets: their records' bytes)
  std::vector<PlanRun> runs;
  std::vector<CheckProblem> problems;
};

// Called now and then with the catalog bytes read so far and the catalog's size.
using CheckProgress = std::function<void(uint64_t done, uint64_t total)>;

// The meta files folder of the consolidation of `saveset` (OS path, ending
// in "/"), found through TQ_INI.  0, or ENOENT with *error saying that no
// consolidation of that name exists and where it was looked for.
int FindConsolidation(const std::string& saveset, std::string* metaDir, std::string* error);

class ChainPlan {
 public:
  ChainPlan() = default;
  ~ChainPlan();
  ChainPlan(const ChainPlan&) = delete;
  ChainPlan& operator=(const ChainPlan&) = delete;

  // Loads the chain of `saveset` (through TQ_INI) and opens its savesets.
  // 0, or an errno value with *error saying what is missing and where it was
  // looked for (OS paths).
  int Open(const std::string& saveset, std::string* error);
  void Close();

  // The consolidated catalog and the meta files folder, as OS paths.
  const std::string& CatalogPath() const { return catalog_; }
  const std::string& MetaDir() const { return metaDir_; }
  // The saveset names of the chain, as the catalog names them (base names).
  std::vector<std::string> SavesetNames() const;
  // True when the savesets hold CPIO item streams (records can be checked).
  bool IsCpio() const;
  bool IsMtf() const;
  bool IsDump() const;
  // What of the chain cannot be read (the catalog, savesets), as one
  // sentence; empty when everything opens.
  std::string Unreadable() const;

  // One pass over the whole catalog; `records` also reads the record at
  // every item's offset.  0, or an errno value when the catalog cannot be
  // read at all (*summary then holds that as its one problem).
  int Check(bool records, CheckSummary* summary, const CheckProgress& progress = nullptr);

  // Item by item, in catalog order, with their stream offsets (the run rule
  // applied as the consolidation applies it).  Rewind starts over; Next
  // returns false at the end.  Lines that cannot be parsed are passed over.
  int Rewind(std::string* error);
  bool Next(PlanItem* item);

  // Reads n bytes of the stream at `offset` with the runs of a Check() pass;
  // 0 and *got (less than n only at the stream's end), or an errno value.
  int ReadStream(const std::vector<PlanRun>& runs, uint64_t offset, char* buffer, uint64_t n, uint64_t* got);

 private:
  bool ReadLine(std::string* line);
  // Reads one line as the consolidation does (strictly: a line that would
  // be read in any other way than its catalog's type says is a problem); 1
  // for an item of type f or d, 0 for a line passed over, -1 for a problem
  // (*why set).
  int ParseLine(const std::string& line, PlanItem* item, std::string* why);

  bool open_ = false;
  std::string catalog_, metaDir_;
  int32_t catalogType_ = 0;
  std::unordered_map<std::string, int32_t> names_;  // saveset names looked up
  std::vector<bool> readable_;    // per saveset: opened
  std::vector<uint64_t> sizes_;   // per saveset: size in bytes
  FILE* fp_ = nullptr;
  uint64_t lineNo_ = 0;
  // The run being collected by Next().
  int32_t runSaveset_ = -1;
  uint64_t runStart_ = 0, runEnd_ = 0, runStream_ = 0, streamEnd_ = 0;
};

}  // namespace tvu

#endif
