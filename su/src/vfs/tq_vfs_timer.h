// tq_vfs_timer.h - processor-time counters of the work done while a tree is
// built (entry updates by archive format, slice additions, the complete
// build), reported once the tree is up.
//
// Single-threaded: the counters are touched on the thread that builds.
#ifndef TVU_VFS_TIMER_H
#define TVU_VFS_TIMER_H

// Timing counters: groups 1 to 5 (group 0 unused), ticks in milliseconds.
enum VFS_TIMER : int { vtCPIO = 1, vtMTF = 2, vtDUMP = 3, vtSLICE = 4, vtTREE = 5 };
void VfsTimerStart(int group);
void VfsTimerStop(int group);
double VfsTimerSeconds(int group);
void VfsTimerReset();

#endif
