// tvucon_progress.h - progress of a long command on standard error.
//
// "bar": one line redrawn in place (bytes done of the total, rate, time
// left), for a terminal; "plain": a full line every few seconds, for logs;
// "none": nothing.  "auto" is "bar" on a terminal and "none" otherwise.
#ifndef TVU_TOOLS_TVUCON_PROGRESS_H
#define TVU_TOOLS_TVUCON_PROGRESS_H

#include <cstdint>
#include <string>

class Progress {
 public:
  // `what` names the work ("consolidate", "check"); `unit` what is counted
  // ("bytes", "items").  A total of 0 means unknown.
  Progress(const std::string& mode, const std::string& what, const std::string& unit, uint64_t total);
  ~Progress();
  void SetTotal(uint64_t total) { total_ = total; }
  void Update(uint64_t done);
  // Clears the bar (a plain log gets its last line).
  void Done();
  double Seconds() const;
  // done per second, in MiB for bytes.
  double Rate(uint64_t done) const;
  // "1.5 GiB" style sizes.
  static std::string Size(uint64_t bytes);

 private:
  std::string Line(uint64_t done) const;
  enum { kNone, kBar, kPlain } mode_;
  std::string what_, unit_;
  uint64_t total_, start_, last_ = 0, lastDone_ = 0;
  bool drawn_ = false;
};

#endif
