// tvucon_progress.cpp - the progress bar and the plain progress lines.
#include "tvucon/tvucon_progress.h"

#include <cinttypes>
#include <cstdio>

#include "platform/platform.h"

namespace {
constexpr uint64_t kBarIntervalMs = 200;
constexpr uint64_t kPlainIntervalMs = 5000;
constexpr int kBarWidth = 24;
}  // namespace

Progress::Progress(const std::string& mode, const std::string& what, const std::string& unit, uint64_t total)
    : what_(what), unit_(unit), total_(total), start_(pf::TicksMs()) {
  if (mode == "bar" || (mode == "auto" && pf::IsTerminal(stderr))) mode_ = kBar;
  else if (mode == "plain") mode_ = kPlain;
  else mode_ = kNone;
  last_ = start_;
}

Progress::~Progress() { Done(); }

double Progress::Seconds() const { return (pf::TicksMs() - start_) / 1000.0; }

double Progress::Rate(uint64_t done) const {
  const double s = Seconds();
  if (s <= 0) return 0.0;
  return unit_ == "bytes" ? done / 1048576.0 / s : done / s;
}

std::string Progress::Size(uint64_t bytes) {
  const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
  double v = static_cast<double>(bytes);
  int u = 0;
  while (v >= 1024.0 && u < 5) {
    v /= 1024.0;
    ++u;
  }
  char text[32];
  snprintf(text, sizeof text, u == 0 ? "%.0f %s" : "%.1f %s", v, units[u]);
  return text;
}

std::string Progress::Line(uint64_t done) const {
  const bool bytes = unit_ == "bytes";
  std::string count = bytes ? Size(done) : std::to_string(done);
  if (total_ > 0) count += " of " + (bytes ? Size(total_) : std::to_string(total_) + " " + unit_);
  else if (!bytes) count += " " + unit_;
  char rate[48];
  snprintf(rate, sizeof rate, bytes ? "%.1f MiB/s" : "%.0f/s", Rate(done));
  std::string eta;
  const double s = Seconds();
  if (total_ > 0 && done > 0 && done < total_ && s > 0.5) {
    const uint64_t left = static_cast<uint64_t>(s * (total_ - done) / done);
    char text[32];
    snprintf(text, sizeof text, ", ETA %" PRIu64 ":%02" PRIu64 ":%02" PRIu64, left / 3600, left / 60 % 60, left % 60);
    eta = text;
  }
  return count + ", " + rate + eta;
}

void Progress::Update(uint64_t done) {
  lastDone_ = done;
  if (mode_ == kNone) return;
  const uint64_t now = pf::TicksMs();
  if (now - last_ < (mode_ == kBar ? kBarIntervalMs : kPlainIntervalMs)) return;
  last_ = now;
  if (mode_ == kPlain) {
    fprintf(stderr, "tvucon: %s: %s\n", what_.c_str(), Line(done).c_str());
    return;
  }
  std::string bar;
  if (total_ > 0) {
    const int filled = static_cast<int>(kBarWidth * (done > total_ ? 1.0 : static_cast<double>(done) / total_));
    bar = "[" + std::string(filled, '#') + std::string(kBarWidth - filled, ' ') + "] ";
    char pct[8];
    snprintf(pct, sizeof pct, "%3d%% ", static_cast<int>(100.0 * (done > total_ ? 1.0 : static_cast<double>(done) / total_)));
    bar += pct;
  }
  fprintf(stderr, "\r%s %s%s\033[K", what_.c_str(), bar.c_str(), Line(done).c_str());
  fflush(stderr);
  drawn_ = true;
}

void Progress::Done() {
  if (mode_ == kBar && drawn_) fprintf(stderr, "\r\033[K");
  if (mode_ == kPlain && Seconds() >= kPlainIntervalMs / 1000.0)
    fprintf(stderr, "tvucon: %s: %s\n", what_.c_str(), Line(lastDone_).c_str());
  drawn_ = false;
  mode_ = kNone;
}
