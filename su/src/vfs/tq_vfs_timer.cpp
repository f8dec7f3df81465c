// tq_vfs_timer.cpp - processor-time counters of the tree build.
#include "vfs/tq_vfs_timer.h"

#include <cstdint>
#include <cstring>

#include "platform/platform.h"
#include "runtime/trace.h"

namespace {

struct TIMER {
  int32_t iStart;
  int32_t iEnd;
  int32_t iTotal;
};
TIMER s_timers[6];

// Reading the processor time is a system call.  The per-item counters are
// read by the trace alone, so they run only while it is on; the whole
// build's counter is also printed, and is read twice per build anyway.
inline bool Counting(int group) { return group == vtTREE || korvo::trace_level() >= 1; }

}  // namespace

void VfsTimerStart(int group) {
  if (!Counting(group)) return;
  s_timers[group].iStart = static_cast<int32_t>(pf::CpuTicksMs());
}

void VfsTimerStop(int group) {
  if (!Counting(group)) return;
  s_timers[group].iEnd = static_cast<int32_t>(pf::CpuTicksMs());
  s_timers[group].iTotal += s_timers[group].iEnd - s_timers[group].iStart;
}

double VfsTimerSeconds(int group) { return s_timers[group].iTotal / 1000.0; }

void VfsTimerReset() { memset(s_timers, 0, sizeof s_timers); }
