// tvucon_mount_none.cpp - the mount command where the system has no FUSE.
#include <cerrno>

#include "tvucon/tvucon_mount.h"

int TvuconMount(const std::string& mountpoint, bool foreground, bool debug, time_t folderTime, uint64_t treeBytes,
                std::string* error) {
  (void)mountpoint;
  (void)foreground;
  (void)debug;
  (void)folderTime;
  (void)treeBytes;
  *error = "this system cannot mount file systems in user space (no FUSE)";
  return ENOSYS;
}
