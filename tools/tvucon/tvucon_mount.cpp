// tvucon_mount.cpp - the tree of a chain as a read-only FUSE file system.
//
// Paths from the kernel are tree paths already ("/" the top, "/a/b.txt"), so
// every request goes straight to the tree API.  An open file keeps its tree
// node in the FUSE file handle: nodes live until the tree is closed, which
// happens only after the mount has ended, so reads need no path lookup.
#define FUSE_USE_VERSION 31

#include "tvucon/tvucon_mount.h"

#include <fcntl.h>
#include <fuse.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "vfs/tq_vfs_api.h"

namespace {

// The largest read the kernel is asked to send (and the block size files
// report, so that tools read in large pieces).
constexpr unsigned kMaxRead = 1u << 20;
// The tree cannot change while it is mounted: the kernel may keep what it
// learnt about names and attributes this long.
constexpr double kCacheSeconds = 3600.0;

uid_t g_uid = 0;
gid_t g_gid = 0;
// Folders the catalog does not list (made up to hold a path) have no times
// of their own: they show this one.
time_t g_folderTime = 0;
// The bytes of data of the whole tree, for statfs.
uint64_t g_treeBytes = 0;

// The one place where results become FUSE's convention (0 or -errno).  The
// tree API answers errno values; a negative value is taken as -errno already,
// and anything out of the errno range becomes EIO.
int FuseStatus(int err) {
  if (err < 0) err = -err;
  if (err > 4095) err = EIO;
  return -err;
}

// Runs a request's body; an exception (out of memory, or anything the tree
// throws) answers the request with an error instead of ending the process.
template <class Body>
int Serve(Body body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return FuseStatus(ENOMEM);
  } catch (...) {
    return FuseStatus(EIO);
  }
}

void FillStat(const tvu::NodeInfo& info, struct stat* st) {
  memset(st, 0, sizeof *st);
  if (info.isDir) {
    st->st_mode = S_IFDIR | 0555;
    // 1: the subdirectory count is not known (tools such as find then do not
    // infer it from the link count).
    st->st_nlink = 1;
  } else {
    st->st_mode = S_IFREG | 0444;
    st->st_nlink = 1;
    st->st_size = static_cast<off_t>(info.size);
    st->st_blocks = static_cast<blkcnt_t>((info.size + 511) / 512);
  }
  st->st_uid = g_uid;
  st->st_gid = g_gid;
  st->st_blksize = kMaxRead;
  const time_t mtime = info.mtime ? info.mtime : g_folderTime;
  st->st_mtim.tv_sec = mtime;
  st->st_ctim.tv_sec = info.ctime ? info.ctime : mtime;
  st->st_atim.tv_sec = mtime;
}

// Names the kernel could not take as one directory entry.
bool UsableName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

LIS_NODE* HandleNode(const fuse_file_info* fi) {
  return fi ? reinterpret_cast<LIS_NODE*>(static_cast<uintptr_t>(fi->fh)) : nullptr;
}

// ---- requests --------------------------------------------------------------

void* OnInit(fuse_conn_info* conn, fuse_config* cfg) {
  conn->max_read = kMaxRead;
  conn->max_readahead = kMaxRead;  // the kernel lowers it to what it supports
  // Listings always carry the entries' attributes (readdirplus), not only
  // the first one of a folder as the kernel's adaptive mode does: a cold
  // "ls -l" or find then needs no lookup per entry, and the kernel keeps
  // names and attributes for the time-outs below.
  if (conn->capable & FUSE_CAP_READDIRPLUS) conn->want |= FUSE_CAP_READDIRPLUS;
  conn->want &= ~FUSE_CAP_READDIRPLUS_AUTO;
  // Replies that carry a file region are spliced into the device.
  if (conn->capable & FUSE_CAP_SPLICE_WRITE) conn->want |= FUSE_CAP_SPLICE_WRITE;
  if (conn->capable & FUSE_CAP_SPLICE_MOVE) conn->want |= FUSE_CAP_SPLICE_MOVE;
  cfg->entry_timeout = kCacheSeconds;
  cfg->negative_timeout = kCacheSeconds;
  cfg->attr_timeout = kCacheSeconds;
  cfg->use_ino = 0;
  return nullptr;
}

int OnGetattr(const char* path, struct stat* st, fuse_file_info*) {
  return Serve([&] {
    tvu::NodeInfo info;
    int err = tvu::Stat(path, &info);
    if (err != 0) return FuseStatus(err);
    FillStat(info, st);
    return 0;
  });
}

// A folder's listing, taken once when it is opened and handed out page by
// page: the kernel asks again for each page, from the offset of the last
// entry it took.
struct DirListing {
  std::vector<tvu::NodeInfo> entries;
};

DirListing* HandleListing(const fuse_file_info* fi) {
  return fi ? reinterpret_cast<DirListing*>(static_cast<uintptr_t>(fi->fh)) : nullptr;
}

int OnOpendir(const char* path, fuse_file_info* fi) {
  return Serve([&] {
    auto listing = std::make_unique<DirListing>();
    int err = tvu::List(path, &listing->entries);
    if (err != 0) return FuseStatus(err);
    fi->fh = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(listing.release()));
    // The tree never changes while mounted: the kernel may keep the listing.
    fi->cache_readdir = 1;
    fi->keep_cache = 1;
    return 0;
  });
}

int OnReleasedir(const char*, fuse_file_info* fi) {
  delete HandleListing(fi);
  fi->fh = 0;
  return 0;
}

int OnReaddir(const char* path, void* buf, fuse_fill_dir_t filler, off_t offset, fuse_file_info* fi,
              fuse_readdir_flags flags) {
  return Serve([&] {
    DirListing own;
    const DirListing* listing = HandleListing(fi);
    if (!listing) {
      int err = tvu::List(path, &own.entries);
      if (err != 0) return FuseStatus(err);
      listing = &own;
    }
    // Every entry carries the offset of the next one (1 after ".", 2 after
    // "..", 3 + i after entry i), so libfuse hands each page straight to the
    // kernel and, with "plus", with the entry's node: the kernel then knows
    // names and attributes without a lookup per entry.
    const bool plus = (flags & FUSE_READDIR_PLUS) != 0;
    const auto fill = plus ? FUSE_FILL_DIR_PLUS : static_cast<fuse_fill_dir_flags>(0);
    if (offset < 1 && filler(buf, ".", nullptr, 1, static_cast<fuse_fill_dir_flags>(0))) return 0;
    if (offset < 2 && filler(buf, "..", nullptr, 2, static_cast<fuse_fill_dir_flags>(0))) return 0;
    for (size_t i = offset > 2 ? static_cast<size_t>(offset - 2) : 0; i < listing->entries.size(); ++i) {
      const tvu::NodeInfo& e = listing->entries[i];
      if (!UsableName(e.name)) continue;
      struct stat st;
      FillStat(e, &st);
      if (filler(buf, e.name.c_str(), &st, static_cast<off_t>(i + 3), fill)) break;
    }
    return 0;
  });
}

int OnOpen(const char* path, fuse_file_info* fi) {
  return Serve([&] {
    if ((fi->flags & O_ACCMODE) != O_RDONLY || (fi->flags & O_TRUNC)) return FuseStatus(EROFS);
    LIS_NODE* node = nullptr;
    int err = tvu::Lookup(path, &node);
    if (err != 0) return FuseStatus(err);
    if (!node) return FuseStatus(ENOENT);
    if (tvu::Describe(node, path).isDir) return FuseStatus(EISDIR);
    fi->fh = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(node));
    fi->keep_cache = 1;  // the bytes never change: pages of earlier opens stay valid
    return 0;
  });
}

int OnRead(const char* path, char* buf, size_t size, off_t offset, fuse_file_info* fi) {
  return Serve([&] {
    if (offset < 0) return FuseStatus(EINVAL);
    if (size > INT_MAX) size = INT_MAX;  // the count must fit the return value
    LIS_NODE* node = HandleNode(fi);
    if (!node) {
      int err = tvu::Lookup(path ? path : "", &node);
      if (err != 0) return FuseStatus(err);
      if (!node) return FuseStatus(ENOENT);
    }
    // A short answer means end of file to the kernel: keep reading until the
    // request is full or the file ends.  Nothing read before the file's end
    // is a failure (a saveset cut after the tree was built, an unreadable
    // stream), never an early end of file.
    size_t done = 0;
    while (done < size) {
      const uint64_t at = static_cast<uint64_t>(offset) + done;
      int64_t n = tvu::Read(node, at, buf + done, size - done);
      if (n < 0) return FuseStatus(static_cast<int>(n));
      if (n == 0) {
        if (at < tvu::Describe(node, path ? path : "").size) return FuseStatus(EIO);
        break;
      }
      done += static_cast<size_t>(n);
    }
    return static_cast<int>(done);
  });
}

// Reads that lie in one range of a saveset file are answered with that file
// region, which libfuse splices to the kernel without copying the bytes;
// every other read goes through OnRead into a buffer.  libfuse answers with
// whatever part of the region the file holds, so a file that no longer
// reaches the region's end fails the read here instead.
int OnReadBuf(const char* path, fuse_bufvec** bufp, size_t size, off_t offset, fuse_file_info* fi) {
  return Serve([&] {
    if (offset < 0) return FuseStatus(EINVAL);
    LIS_NODE* node = HandleNode(fi);
    intptr_t handle = -1;
    uint64_t position = 0, count = 0;
    if (node && tvu::MapToFile(node, static_cast<uint64_t>(offset), size, &handle, &position, &count) == 0) {
      struct stat st;
      if (fstat(static_cast<int>(handle), &st) != 0) return FuseStatus(errno);
      if (st.st_size < 0 || static_cast<uint64_t>(st.st_size) < position + count) return FuseStatus(EIO);
      auto* vec = static_cast<fuse_bufvec*>(malloc(sizeof(fuse_bufvec)));
      if (!vec) return FuseStatus(ENOMEM);
      *vec = FUSE_BUFVEC_INIT(static_cast<size_t>(count));
      vec->buf[0].flags = static_cast<fuse_buf_flags>(FUSE_BUF_IS_FD | FUSE_BUF_FD_SEEK);
      vec->buf[0].fd = static_cast<int>(handle);
      vec->buf[0].pos = static_cast<off_t>(position);
      *bufp = vec;
      return 0;
    }
    auto* vec = static_cast<fuse_bufvec*>(malloc(sizeof(fuse_bufvec)));
    char* mem = static_cast<char*>(malloc(size ? size : 1));
    if (!vec || !mem) {
      free(vec);
      free(mem);
      return FuseStatus(ENOMEM);
    }
    int n = OnRead(path, mem, size, offset, fi);
    if (n < 0) {
      free(vec);
      free(mem);
      return n;
    }
    *vec = FUSE_BUFVEC_INIT(static_cast<size_t>(n));
    vec->buf[0].mem = mem;
    *bufp = vec;
    return 0;
  });
}

int OnStatfs(const char*, struct statvfs* sv) {
  memset(sv, 0, sizeof *sv);
  sv->f_bsize = kMaxRead;
  sv->f_frsize = 4096;
  // The tree's size, all of it in use: df shows what the chain holds.
  sv->f_blocks = (g_treeBytes + sv->f_frsize - 1) / sv->f_frsize;
  sv->f_namemax = 255;
  sv->f_flag = ST_RDONLY | ST_NOSUID;
  return 0;
}

// Nothing is ever written, so there is nothing to flush.
int OnFsync(const char*, int, fuse_file_info*) { return 0; }

// Every operation that would change the tree.
int ReadOnly() { return FuseStatus(EROFS); }
int OnMknod(const char*, mode_t, dev_t) { return ReadOnly(); }
int OnMkdir(const char*, mode_t) { return ReadOnly(); }
int OnUnlink(const char*) { return ReadOnly(); }
int OnRmdir(const char*) { return ReadOnly(); }
int OnSymlink(const char*, const char*) { return ReadOnly(); }
int OnRename(const char*, const char*, unsigned int) { return ReadOnly(); }
int OnLink(const char*, const char*) { return ReadOnly(); }
int OnChmod(const char*, mode_t, fuse_file_info*) { return ReadOnly(); }
int OnChown(const char*, uid_t, gid_t, fuse_file_info*) { return ReadOnly(); }
int OnTruncate(const char*, off_t, fuse_file_info*) { return ReadOnly(); }
int OnWrite(const char*, const char*, size_t, off_t, fuse_file_info*) { return ReadOnly(); }
int OnSetxattr(const char*, const char*, const char*, size_t, int) { return ReadOnly(); }
int OnRemovexattr(const char*, const char*) { return ReadOnly(); }
int OnCreate(const char*, mode_t, fuse_file_info*) { return ReadOnly(); }
int OnUtimens(const char*, const struct timespec*, fuse_file_info*) { return ReadOnly(); }
int OnFallocate(const char*, int, off_t, off_t, fuse_file_info*) { return ReadOnly(); }
ssize_t OnCopyFileRange(const char*, fuse_file_info*, off_t, const char*, fuse_file_info*, off_t, size_t, int) {
  return ReadOnly();
}

fuse_operations MakeOperations() {
  fuse_operations ops;
  memset(&ops, 0, sizeof ops);
  ops.init = OnInit;
  ops.getattr = OnGetattr;
  ops.opendir = OnOpendir;
  ops.readdir = OnReaddir;
  ops.releasedir = OnReleasedir;
  ops.open = OnOpen;
  ops.read = OnRead;
  ops.read_buf = OnReadBuf;
  ops.statfs = OnStatfs;
  ops.fsync = OnFsync;
  ops.mknod = OnMknod;
  ops.mkdir = OnMkdir;
  ops.unlink = OnUnlink;
  ops.rmdir = OnRmdir;
  ops.symlink = OnSymlink;
  ops.rename = OnRename;
  ops.link = OnLink;
  ops.chmod = OnChmod;
  ops.chown = OnChown;
  ops.truncate = OnTruncate;
  ops.write = OnWrite;
  ops.setxattr = OnSetxattr;
  ops.removexattr = OnRemovexattr;
  ops.create = OnCreate;
  ops.utimens = OnUtimens;
  ops.fallocate = OnFallocate;
  ops.copy_file_range = OnCopyFileRange;
  return ops;
}

std::string ErrnoText(int err) { return strerror(err); }

// The mount point as an absolute path: the detached process works from "/",
// and unmounting at the end must still find it.  0 or an errno value.
int AbsoluteMountPoint(const std::string& mountpoint, std::string* absolute, std::string* error) {
  char* real = realpath(mountpoint.c_str(), nullptr);
  if (!real) {
    int err = errno;
    *error = ErrnoText(err);
    return err;
  }
  *absolute = real;
  free(real);
  struct stat st, parent;
  if (stat(absolute->c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    *error = "not a folder";
    return ENOTDIR;
  }
  // A folder on another device than its parent (or the root) is a mount
  // already: mounting over it would hide it.
  if (stat((*absolute + "/..").c_str(), &parent) == 0 &&
      (parent.st_dev != st.st_dev || parent.st_ino == st.st_ino)) {
    *error = "is a mount point already (fusermount3 -u " + *absolute + " ends that mount)";
    return EBUSY;
  }
  return 0;
}

// The tree reads the product INI (TQ_INI) again whenever it needs a path
// variable; the detached process works from "/", where a relative name would
// no longer lead to the file.
void AbsoluteIniPath() {
  const char* ini = getenv("TQ_INI");
  if (!ini || !*ini || *ini == '/') return;
  char* real = realpath(ini, nullptr);
  if (!real) return;
  setenv("TQ_INI", real, 1);
  free(real);
}

}  // namespace

int TvuconMount(const std::string& mountpoint, bool foreground, bool debug, time_t folderTime, uint64_t treeBytes,
                std::string* error) {
  g_folderTime = folderTime;
  g_treeBytes = treeBytes;
  if (!tvu::IsOpen()) {
    *error = "the tree is not open";
    return EINVAL;
  }
  std::string where;
  int err = AbsoluteMountPoint(mountpoint, &where, error);
  if (err != 0) return err;
  if (debug) foreground = true;  // the request log goes to standard error
  g_uid = getuid();
  g_gid = getgid();

  const std::string kernelOptions =
      "ro,default_permissions,fsname=tvucon,subtype=tvucon,max_read=" + std::to_string(kMaxRead);
  std::vector<std::string> argvText = {"tvucon", "-o", kernelOptions};
  if (debug) argvText.push_back("-d");
  std::vector<char*> argv;
  for (std::string& a : argvText) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  fuse_args args = FUSE_ARGS_INIT(static_cast<int>(argvText.size()), argv.data());

  const fuse_operations ops = MakeOperations();
  fuse* fs = fuse_new(&args, &ops, sizeof ops, nullptr);
  fuse_opt_free_args(&args);
  if (!fs) {
    *error = "cannot set up the FUSE file system";
    return EINVAL;
  }
  if (fuse_mount(fs, where.c_str()) != 0) {
    fuse_destroy(fs);
    *error = "the mount was refused (is /dev/fuse usable and fusermount3 installed?)";
    return EIO;
  }
  fuse_session* session = fuse_get_session(fs);
  if (fuse_set_signal_handlers(session) != 0) {
    fuse_unmount(fs);
    fuse_destroy(fs);
    *error = "cannot install the signal handlers";
    return EIO;
  }
  // Detach only now, so that every failure above reached the caller's
  // standard error and exit status.
  if (!foreground) AbsoluteIniPath();
  if (fuse_daemonize(foreground ? 1 : 0) != 0) {
    fuse_remove_signal_handlers(session);
    fuse_unmount(fs);
    fuse_destroy(fs);
    *error = "cannot run in the background";
    return EIO;
  }

  int rc = fuse_loop_mt(fs, 0);

  fuse_remove_signal_handlers(session);
  fuse_unmount(fs);
  fuse_destroy(fs);
  // A negative result is an error of the loop; a positive one is the signal
  // that ended it (SIGINT, SIGTERM, SIGHUP): a requested, clean end.
  if (rc < 0) {
    *error = "serving the mount failed: " + ErrnoText(-rc);
    return -rc;
  }
  return 0;
}
