// tvucon_mount.h - the open tree of a chain mounted read-only with FUSE.
//
// TvuconMount serves the tree that tvu::Open brought up (it must be open)
// at a folder of the local file system until the mount ends:
//   - directories have mode 0555, every other item 0444; owner and group are
//     those of the process that mounts; sizes and times come from the tree;
//     directories report one link (their subdirectory count is unknown
//     before they are listed), files one.
//   - listings show ".", ".." and the tree's entries in the tree's order; a
//     folder is listed once when opened and paged from that listing, each
//     page with the entries' attributes and nodes (readdirplus), so a cold
//     listing needs no lookup per entry; the kernel may cache listings.
//   - opening for writing, and every operation that would change the tree
//     (create, write, truncate, mkdir, unlink, rename, chmod, ...), fail with
//     EROFS; a path that is not in the tree fails with the tree's errno
//     (ENOENT, ENOTDIR, ...); internal failures become EIO, and so does a
//     read that finds fewer bytes than the file's size promises (a saveset
//     cut after the mount started): never a short file.  No path, good or
//     bad, ends the process.
//   - the kernel mount is "ro,default_permissions,fsname=tvucon" of type
//     fuse.tvucon with reads of up to 1 MiB; since the tree cannot change
//     while mounted, the kernel keeps file pages, attributes and names cached
//     across opens.  Requests are served by several threads.
//
// Errors found before the mount is up (a mount point that is not a folder or
// is a mount point already,
// no FUSE device, a refused mount) are returned at once with a message; the
// process is still in the foreground then.  Without `foreground` the process
// then detaches (the caller's parent process returns with status 0 as soon
// as the mount is usable; standard streams go to /dev/null; the working
// folder becomes "/", so a relative TQ_INI is made absolute first) and the
// call returns in the detached process once the mount ends.
//
// The mount ends with `fusermount3 -u MOUNTPOINT` (or umount) or with
// SIGINT, SIGTERM or SIGHUP to the serving process, which then unmounts
// cleanly; either way the call returns 0.  `debug` logs every request on
// standard error and implies `foreground`.
#ifndef TVU_TOOLS_TVUCON_MOUNT_H
#define TVU_TOOLS_TVUCON_MOUNT_H

#include <cstdint>
#include <ctime>
#include <string>

// 0 after a clean end of the mount, else an errno value with a message in
// *error (the caller names the mount point).  Call once per process, from one thread, with the tree open.
// Folders without times of their own show folderTime; statfs reports
// treeBytes as the file system's size, all in use.
int TvuconMount(const std::string& mountpoint, bool foreground, bool debug, time_t folderTime, uint64_t treeBytes,
                std::string* error);

#endif
