// platform_posix.cpp - the OS surface of platform.h for Linux and other POSIX systems.
#include "platform/platform.h"

#include <dirent.h>
#include <netdb.h>
#include <sys/socket.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#ifdef __linux__
#include <linux/fs.h>
#endif

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace pf {

struct File {
  int fd;
};

struct Mutex {
  pthread_mutex_t m;
};

struct Event {
  sem_t* sem;
  std::string name;
};

std::string OsPath(const char* path) {
  std::string s(path ? path : "");
  for (char& c : s)
    if (c == '\\') c = '/';
  return s;
}

std::string ErrorText(int error) {
  char buf[256];
  // GNU strerror_r returns the text, which may not be buf.
  const char* text = strerror_r(error, buf, sizeof buf);
  return text ? text : "unknown error";
}

int LastError() { return errno; }

static int OpenWith(const char* path, int flags, File** out) {
  *out = nullptr;
  std::string os = OsPath(path);
  int fd;
  do {
    fd = ::open(os.c_str(), flags | O_CLOEXEC, 0644);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno;
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
    ::close(fd);
    return EISDIR;
  }
  *out = new File{fd};
  return 0;
}

int FileOpenRead(const char* path, File** out) {
  int rc = OpenWith(path, O_RDONLY, out);
#ifdef POSIX_FADV_SEQUENTIAL
  // Savesets are mostly streamed front to back; ask for read-ahead.
  if (rc == 0) (void)posix_fadvise((*out)->fd, 0, 0, POSIX_FADV_SEQUENTIAL);
#endif
  return rc;
}

int FileOpenWrite(const char* path, File** out) { return OpenWith(path, O_WRONLY | O_CREAT | O_TRUNC, out); }

int FileRead(File* f, void* buf, uint64_t n, uint64_t* got) {
  *got = 0;
  if (!f) return EBADF;
  char* p = static_cast<char*>(buf);
  while (*got < n) {
    size_t want = static_cast<size_t>(n - *got);
    if (want > (size_t(1) << 30)) want = size_t(1) << 30;
    ssize_t r = ::read(f->fd, p + *got, want);
    if (r < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (r == 0) break;  // end of file
    *got += static_cast<uint64_t>(r);
  }
  return 0;
}

int FileReadAt(File* f, uint64_t offset, void* buf, uint64_t n, uint64_t* got) {
  *got = 0;
  if (!f) return EBADF;
  char* p = static_cast<char*>(buf);
  while (*got < n) {
    size_t want = static_cast<size_t>(n - *got);
    if (want > (size_t(1) << 30)) want = size_t(1) << 30;
    ssize_t r = ::pread(f->fd, p + *got, want, static_cast<off_t>(offset + *got));
    if (r < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (r == 0) break;  // end of file
    *got += static_cast<uint64_t>(r);
  }
  return 0;
}

int FileWrite(File* f, const void* buf, uint64_t n) {
  if (!f) return EBADF;
  const char* p = static_cast<const char*>(buf);
  uint64_t done = 0;
  while (done < n) {
    size_t want = static_cast<size_t>(n - done);
    if (want > (size_t(1) << 30)) want = size_t(1) << 30;
    ssize_t r = ::write(f->fd, p + done, want);
    if (r < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    done += static_cast<uint64_t>(r);
  }
  return 0;
}

int FileSeek(File* f, int64_t offset, int whence, uint64_t* newPos) {
  if (!f) return EBADF;
  int w = whence == 0 ? SEEK_SET : whence == 1 ? SEEK_CUR : SEEK_END;
  off_t r = ::lseek(f->fd, static_cast<off_t>(offset), w);
  if (r < 0) return errno;
  if (newPos) *newPos = static_cast<uint64_t>(r);
  return 0;
}

void FileClose(File* f) {
  if (!f) return;
  ::close(f->fd);
  delete f;
}

intptr_t FileNativeHandle(File* f) { return f ? f->fd : -1; }

FILE* FOpen(const char* path, const char* mode) {
  std::string os = OsPath(path);
  FILE* fp = std::fopen(os.c_str(), mode);
  if (fp) {
    struct stat st;
    if (fstat(fileno(fp), &st) == 0 && S_ISDIR(st.st_mode)) {
      std::fclose(fp);
      errno = EISDIR;
      return nullptr;
    }
  }
  return fp;
}

int FileSizeByPath(const char* path, uint64_t* size) {
  struct stat st;
  if (::stat(OsPath(path).c_str(), &st) != 0) return errno;
  *size = static_cast<uint64_t>(st.st_size);
  return 0;
}

int FileTimes(const char* path, time_t* ctime, time_t* mtime) {
  struct stat st;
  if (::stat(OsPath(path).c_str(), &st) != 0) return errno;
  if (ctime) *ctime = st.st_ctime;
  if (mtime) *mtime = st.st_mtime;
  return 0;
}

bool PathExists(const char* path) {
  struct stat st;
  return ::stat(OsPath(path).c_str(), &st) == 0;
}

int MakeDirs(const char* path) {
  std::string os = OsPath(path);
  for (size_t i = 1; i <= os.size(); ++i) {
    if (i == os.size() || os[i] == '/') {
      std::string part = os.substr(0, i);
      if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return errno;
    }
  }
  return 0;
}

FILE* TempFile(int* error) {
  FILE* fp = std::tmpfile();
  if (!fp && error) *error = errno;
  return fp;
}

int FileOpenAppend(const char* path, File** out) { return OpenWith(path, O_WRONLY | O_CREAT | O_APPEND, out); }

int FileCreateTempBeside(const char* target, File** out, std::string* tempPath) {
  *out = nullptr;
  std::string os = OsPath(target) + ".tmpXXXXXX";
  int fd = ::mkostemp(&os[0], O_CLOEXEC);
  if (fd < 0) return errno;
  *out = new File{fd};
  *tempPath = os;
  return 0;
}

int FileSync(File* f) {
  if (!f) return EBADF;
  return ::fsync(f->fd) == 0 ? 0 : errno;
}

int SetFileTimes(const char* path, time_t mtime) {
  struct timespec times[2];
  times[0].tv_sec = times[1].tv_sec = mtime;
  times[0].tv_nsec = times[1].tv_nsec = 0;
  return ::utimensat(AT_FDCWD, path, times, 0) == 0 ? 0 : errno;
}

int StdioCutAt(FILE* stream, uint64_t size) {
  if (fflush(stream) != 0 || ::ftruncate(fileno(stream), static_cast<off_t>(size)) != 0 ||
      fseeko(stream, static_cast<off_t>(size), SEEK_SET) != 0)
    return errno;
  return 0;
}

int FileTruncate(File* f, uint64_t size) {
  if (!f) return EBADF;
  int rc;
  do {
    rc = ::ftruncate(f->fd, static_cast<off_t>(size));
  } while (rc != 0 && errno == EINTR);
  return rc == 0 ? 0 : errno;
}

int FileCopyPermissions(File* from, File* to) {
  if (!from || !to) return EBADF;
  struct stat st;
  if (::fstat(from->fd, &st) != 0) return errno;
  return ::fchmod(to->fd, st.st_mode & 07777) == 0 ? 0 : errno;
}

int RenameFile(const char* from, const char* to) {
  return ::rename(OsPath(from).c_str(), OsPath(to).c_str()) == 0 ? 0 : errno;
}

int RemoveFile(const char* path) { return ::unlink(OsPath(path).c_str()) == 0 ? 0 : errno; }

bool IsDirectory(const char* path) {
  struct stat st;
  return ::stat(OsPath(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool IsExecutableFile(const char* path) {
  std::string os = OsPath(path);
  struct stat st;
  return ::stat(os.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(os.c_str(), X_OK) == 0;
}

int CurrentDir(std::string* dir) {
  std::vector<char> buf(4096);
  for (int tries = 0; tries < 8; ++tries) {
    if (::getcwd(buf.data(), buf.size())) {
      *dir = buf.data();
      return 0;
    }
    if (errno != ERANGE) return errno;
    buf.resize(buf.size() * 2);
  }
  return ERANGE;
}

int SetVolumeLabel(const char* volume, const char* label, std::string* why) {
#if defined(__linux__) && defined(FS_IOC_SETFSLABEL)
  // Linux sets labels per file system through its mount point; only some file
  // systems (btrfs, ext4, xfs, ...) take them this way.
  std::string os = OsPath(volume);
  if (std::strlen(label) >= FSLABEL_MAX) {
    *why = "label longer than " + std::to_string(FSLABEL_MAX - 1) + " characters";
    return ENAMETOOLONG;
  }
  int fd = ::open(os.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    int e = errno;
    *why = "open " + os + ": " + ErrorText(e);
    return e;
  }
  char buf[FSLABEL_MAX] = {};
  std::strncpy(buf, label, sizeof buf - 1);
  int rc = ::ioctl(fd, FS_IOC_SETFSLABEL, buf);
  int e = rc == 0 ? 0 : errno;
  ::close(fd);
  if (e == ENOTTY || e == EOPNOTSUPP || e == EINVAL)
    *why = "the file system at " + os + " has no label that can be set while mounted";
  else if (e != 0)
    *why = "set the label of " + os + ": " + ErrorText(e);
  return e;
#else
  *why = "this system has no call that sets a volume label";
  return ENOTSUP;
#endif
}

int ListDirectory(const char* pattern, std::vector<std::string>* names) {
  names->clear();
  std::string os = OsPath(pattern);
  size_t slash = os.rfind('/');
  std::string dir = slash == std::string::npos ? "." : os.substr(0, slash == 0 ? 1 : slash);
  std::string glob = slash == std::string::npos ? os : os.substr(slash + 1);
  if (glob.empty() || glob == "*.*") glob = "*";
  DIR* d = ::opendir(dir.c_str());
  if (!d) return errno;
  while (struct dirent* e = ::readdir(d)) {
    if (::fnmatch(glob.c_str(), e->d_name, 0) == 0) names->push_back(e->d_name);
  }
  ::closedir(d);
  // Name order, as the file systems of the original platform return them.
  std::sort(names->begin(), names->end());
  return 0;
}

bool WildcardMatch(const char* pattern, const char* name) { return ::fnmatch(pattern, name, 0) == 0; }

int MutexCreate(Mutex** out) {
  *out = nullptr;
  auto* m = new Mutex;
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  // Error checking, so that a release by a thread that does not own the
  // mutex fails instead of corrupting it.
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
  int rc = pthread_mutex_init(&m->m, &attr);
  pthread_mutexattr_destroy(&attr);
  if (rc != 0) {
    delete m;
    return rc;
  }
  *out = m;
  return 0;
}

int MutexLock(Mutex* m) { return m ? pthread_mutex_lock(&m->m) : EINVAL; }
int MutexUnlock(Mutex* m) { return m ? pthread_mutex_unlock(&m->m) : EINVAL; }

void MutexClose(Mutex* m) {
  if (!m) return;
  pthread_mutex_destroy(&m->m);
  delete m;
}

// Named events are POSIX named semaphores, one name per user so that users do
// not disturb each other: a post is a signal, a wait consumes it (auto-reset).
static std::string SemName(const char* name) {
  std::string s = "/";
  for (const char* p = name; *p; ++p) s += (*p == '/' || *p == '\\') ? '_' : *p;
  s += "." + std::to_string(static_cast<unsigned>(getuid()));
  return s;
}

int EventCreate(const char* name, Event** out) {
  *out = nullptr;
  std::string sn = SemName(name);
  sem_t* s = sem_open(sn.c_str(), O_CREAT, 0600, 0);
  if (s == SEM_FAILED) return errno;
  *out = new Event{s, sn};
  return 0;
}

int EventWait(Event* e, uint32_t milliseconds) {
  if (!e) return kWaitFailed;
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  ts.tv_sec += milliseconds / 1000;
  ts.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
  if (ts.tv_nsec >= 1000000000L) {
    ts.tv_sec += 1;
    ts.tv_nsec -= 1000000000L;
  }
  for (;;) {
    if (sem_timedwait(e->sem, &ts) == 0) return kWaitSignaled;
    if (errno == EINTR) continue;
    return errno == ETIMEDOUT ? kWaitTimeout : kWaitFailed;
  }
}

int EventSet(Event* e) { return e && sem_post(e->sem) == 0 ? 0 : errno; }

int EventReset(Event* e) {
  if (!e) return EINVAL;
  while (sem_trywait(e->sem) == 0) {
  }
  return 0;
}

void EventClose(Event* e) {
  if (!e) return;
  sem_close(e->sem);
  sem_unlink(e->name.c_str());
  delete e;
}

int EventSignalByName(const char* name) {
  sem_t* s = sem_open(SemName(name).c_str(), O_CREAT, 0600, 0);
  if (s == SEM_FAILED) return errno;
  int rc = sem_post(s) == 0 ? 0 : errno;
  sem_close(s);
  return rc;
}

int TcpProbe(const char* host, const char* port, int* error) {
  *error = 0;
  struct addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  struct addrinfo* res = nullptr;
  int rc = getaddrinfo(host, port, &hints, &res);
  if (rc != 0) {
    *error = rc;
    return kProbeResolve;
  }
  int fd = ::socket(res->ai_family, res->ai_socktype | SOCK_CLOEXEC, res->ai_protocol);
  if (fd < 0) {
    *error = errno;
    freeaddrinfo(res);
    return kProbeSocket;
  }
  int stage = kProbeOk;
  do {
    rc = ::connect(fd, res->ai_addr, res->ai_addrlen);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    *error = errno;
    stage = kProbeConnect;
  }
  freeaddrinfo(res);
  if (::close(fd) != 0 && stage == kProbeOk) {
    *error = errno;
    stage = kProbeClose;
  }
  return stage;
}

void SleepMs(uint32_t milliseconds) {
  struct timespec ts{static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

void* HostSymbol(const char* name) {
  void* self = dlopen(nullptr, RTLD_NOW);
  if (!self) return nullptr;
  void* sym = dlsym(self, name);
  dlclose(self);
  return sym;
}

std::string LibraryFileName(const char* base) { return std::string("lib") + base + ".so"; }

void* LibraryOpen(const char* path, std::string* error) {
  void* h = dlopen(OsPath(path).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!h && error) {
    const char* e = dlerror();
    *error = e ? e : "unknown error";
  }
  return h;
}

void* LibrarySymbol(void* library, const char* name) { return library ? dlsym(library, name) : nullptr; }

void LibraryClose(void* library) {
  if (library) dlclose(library);
}

int ProcessId() { return static_cast<int>(getpid()); }

std::string ExecutableDir() {
  char buf[4096];
  ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return "";
  std::string path(buf, static_cast<size_t>(n));
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash + 1);
}

bool LocalTime(time_t t, struct tm* out) { return localtime_r(&t, out) != nullptr; }

uint64_t TicksMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

uint64_t CpuTicksMs() {
  struct timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

bool GetEnv(const char* name, std::string* value) {
  const char* v = std::getenv(name);
  if (!v) return false;
  *value = v;
  return true;
}

int SetEnv(const char* name, const char* value) { return ::setenv(name, value, 1) == 0 ? 0 : errno; }

int UnsetEnv(const char* name) { return ::unsetenv(name) == 0 ? 0 : errno; }

bool IsTerminal(FILE* stream) { return ::isatty(fileno(stream)) == 1; }

FILE* SeparateStandardOutput(bool keepData, std::string* error) {
  FILE* data = nullptr;
  if (keepData) {
    int fd = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (fd < 0 || !(data = ::fdopen(fd, "wb"))) {
      *error = "standard output: " + ErrorText(errno);
      if (fd >= 0) ::close(fd);
      return nullptr;
    }
  }
  // Descriptor 1 must stay open whatever happens: a file opened later would
  // otherwise get it and receive the notes.
  if (::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
    int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0 && null != STDOUT_FILENO) {
      ::dup2(null, STDOUT_FILENO);
      ::close(null);
    }
  }
  return data;
}

}  // namespace pf
