// tq_vfs_timer.cpp - processor-time counters of the tree build.
#include "vfs/tq_vfs_timer.h"

#include <cstdint>
#include <cstring>

#include "platform/platform.h"

namespace {

struct TIMER {
  int32_t iStart;
  int32_t iEnd;
  int32_t iTotal;
};
TIMER s_timers[6];

}  // namespace

void VfsTimerStart(int group) { s_timers[group].iStart = static_cast<int32_t>(pf::CpuTicksMs()); }

void VfsTimerStop(int group) {
  s_timers[group].iEnd = static_cast<int32_t>(pf::CpuTicksMs());
  s_timers[group].iTotal += s_timers[group].iEnd - s_timers[group].iStart;
}

double VfsTimerSeconds(int group) { return s_timers[group].iTotal / 1000.0; }

void VfsTimerReset() { memset(s_timers, 0, sizeof s_timers); }
