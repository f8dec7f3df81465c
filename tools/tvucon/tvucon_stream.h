// tvucon_stream.h - follows a consolidation's stream item by item: writes
// the new saveset's catalog as the stream is produced and, when asked,
// checks every record of the stream against its catalog line.
//
// The items and their stream offsets come from the chain's catalog
// (tvu::ChainPlan::Next); the bytes come in stream order through Feed().
#ifndef TVU_TOOLS_TVUCON_STREAM_H
#define TVU_TOOLS_TVUCON_STREAM_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "vfs/tq_vfs_check.h"

class StreamFollower {
 public:
  // catalog: the new catalog's path (empty: none); name: the new saveset's
  // name in it; verify: check the records.  Bytes before `from` are not
  // fed (a resumed stream): their items are written to the catalog unchecked.
  StreamFollower(tvu::ChainPlan* plan, const std::string& catalog, const std::string& name, bool verify,
                 uint64_t from);
  ~StreamFollower();
  // 0, or 1 with *error (the catalog cannot be created).
  int Start(std::string* error);
  // The next n stream bytes.
  void Feed(const char* data, size_t n);
  // After the stream's last byte: the catalog's footer.  0, or 1 with *error.
  int Finish(uint64_t streamBytes, std::string* error);

  uint64_t RecordsVerified() const { return verified_; }
  const std::vector<std::string>& Problems() const { return problems_; }

 private:
  void WriteLine(const tvu::PlanItem& item);
  void Verify(const tvu::PlanItem& item);
  void VerifyMtf(const tvu::PlanItem& item, const std::string& where);

  tvu::ChainPlan* plan_;
  std::string catalogPath_, name_;
  bool verify_;
  uint64_t from_, pos_ = 0;
  FILE* catalog_ = nullptr;
  tvu::PlanItem cur_;
  bool haveCur_ = false, curChecked_ = false, exhausted_ = false;
  std::string probe_;
  uint64_t verified_ = 0;
  std::vector<std::string> problems_;
  uint64_t dataBytes_ = 0, lastFile_ = 0, lastDir_ = 0, dirs_ = 0, files_ = 0;
};

#endif
