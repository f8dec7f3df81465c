// platform_win32.cpp - the OS surface of platform.h for Windows (Win32 API).
//
// Files are Win32 handles (CreateFileA/ReadFile/SetFilePointerEx), so that a
// saveset of any size is read with 64-bit offsets and opened with the sharing
// the backup client expects.  Error numbers are GetLastError() values.
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
// <windows.h> names its ANSI functions through macros; this one would
// rename pf::SetVolumeLabel.
#undef SetVolumeLabel

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "platform/platform.h"

namespace pf {

struct File {
  HANDLE h;
};

struct Mutex {
  HANDLE h;
};

struct Event {
  HANDLE h;
};

std::string OsPath(const char* path) {
  std::string s(path ? path : "");
  for (char& c : s)
    if (c == '/') c = '\\';
  return s;
}

std::string ErrorText(int error) {
  char* text = nullptr;
  DWORD n = FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                           nullptr, static_cast<DWORD>(error), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                           reinterpret_cast<LPSTR>(&text), 0, nullptr);
  std::string s;
  if (n > 0 && text) {
    s.assign(text, n);
    // The system's texts end in ".\r\n"; messages put their own punctuation.
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ' || s.back() == '.')) s.pop_back();
  }
  if (text) LocalFree(text);
  if (s.empty()) s = "error " + std::to_string(error);
  return s;
}

int LastError() {
  DWORD e = GetLastError();
  // The C runtime's own failures (fopen of a bad mode, ...) leave only errno.
  return e != 0 ? static_cast<int>(e) : errno;
}

static int OpenWith(const char* path, DWORD access, DWORD disposition, DWORD flags, File** out) {
  *out = nullptr;
  std::string os = OsPath(path);
  HANDLE h = CreateFileA(os.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                         disposition, FILE_ATTRIBUTE_NORMAL | flags, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    DWORD e = GetLastError();
    // A directory opens as "access denied"; say what it is.
    DWORD attr = GetFileAttributesA(os.c_str());
    if (attr != INVALID_FILE_ATTRIBUTES && (attr & FILE_ATTRIBUTE_DIRECTORY)) return ERROR_DIRECTORY;
    return static_cast<int>(e);
  }
  *out = new File{h};
  return 0;
}

int FileOpenRead(const char* path, File** out) {
  // Savesets are mostly streamed front to back; ask for read-ahead.
  return OpenWith(path, GENERIC_READ, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, out);
}

int FileOpenWrite(const char* path, File** out) { return OpenWith(path, GENERIC_WRITE, CREATE_ALWAYS, 0, out); }

// ReadFile takes 32-bit counts: large requests go in pieces.
static constexpr DWORD kMaxPiece = DWORD(1) << 30;

int FileRead(File* f, void* buf, uint64_t n, uint64_t* got) {
  *got = 0;
  if (!f) return ERROR_INVALID_HANDLE;
  char* p = static_cast<char*>(buf);
  while (*got < n) {
    DWORD want = static_cast<DWORD>(std::min<uint64_t>(n - *got, kMaxPiece));
    DWORD r = 0;
    if (!ReadFile(f->h, p + *got, want, &r, nullptr)) {
      DWORD e = GetLastError();
      if (e == ERROR_HANDLE_EOF) break;
      return static_cast<int>(e);
    }
    if (r == 0) break;  // end of file
    *got += r;
  }
  return 0;
}

int FileReadAt(File* f, uint64_t offset, void* buf, uint64_t n, uint64_t* got) {
  *got = 0;
  if (!f) return ERROR_INVALID_HANDLE;
  char* p = static_cast<char*>(buf);
  // A read with an offset on a handle opened for synchronous I/O moves the
  // file pointer; it is put back so that positional reads leave it alone.
  LARGE_INTEGER zero{}, saved{};
  if (!SetFilePointerEx(f->h, zero, &saved, FILE_CURRENT)) return static_cast<int>(GetLastError());
  int rc = 0;
  while (*got < n) {
    DWORD want = static_cast<DWORD>(std::min<uint64_t>(n - *got, kMaxPiece));
    uint64_t at = offset + *got;
    OVERLAPPED ov{};
    ov.Offset = static_cast<DWORD>(at);
    ov.OffsetHigh = static_cast<DWORD>(at >> 32);
    DWORD r = 0;
    if (!ReadFile(f->h, p + *got, want, &r, &ov)) {
      DWORD e = GetLastError();
      if (e != ERROR_HANDLE_EOF) rc = static_cast<int>(e);
      break;
    }
    if (r == 0) break;
    *got += r;
  }
  SetFilePointerEx(f->h, saved, nullptr, FILE_BEGIN);
  return rc;
}

int FileWrite(File* f, const void* buf, uint64_t n) {
  if (!f) return ERROR_INVALID_HANDLE;
  const char* p = static_cast<const char*>(buf);
  uint64_t done = 0;
  while (done < n) {
    DWORD want = static_cast<DWORD>(std::min<uint64_t>(n - done, kMaxPiece));
    DWORD w = 0;
    if (!WriteFile(f->h, p + done, want, &w, nullptr)) return static_cast<int>(GetLastError());
    done += w;
  }
  return 0;
}

int FileSeek(File* f, int64_t offset, int whence, uint64_t* newPos) {
  if (!f) return ERROR_INVALID_HANDLE;
  DWORD method = whence == 0 ? FILE_BEGIN : whence == 1 ? FILE_CURRENT : FILE_END;
  LARGE_INTEGER dist, pos;
  dist.QuadPart = offset;
  if (!SetFilePointerEx(f->h, dist, &pos, method)) return static_cast<int>(GetLastError());
  if (newPos) *newPos = static_cast<uint64_t>(pos.QuadPart);
  return 0;
}

void FileClose(File* f) {
  if (!f) return;
  CloseHandle(f->h);
  delete f;
}

intptr_t FileNativeHandle(File* f) { return f ? reinterpret_cast<intptr_t>(f->h) : -1; }

FILE* FOpen(const char* path, const char* mode) {
  // Always binary: the module's files are byte streams and its text files
  // end their lines with "\n" on every system, so no newline translation.
  std::string m(mode ? mode : "r");
  if (m.find('b') == std::string::npos) m += 'b';
  return std::fopen(OsPath(path).c_str(), m.c_str());
}

static bool Attributes(const char* path, WIN32_FILE_ATTRIBUTE_DATA* data) {
  return GetFileAttributesExA(OsPath(path).c_str(), GetFileExInfoStandard, data) != 0;
}

// FILETIME (100 ns since 1601) -> time_t.
static time_t UnixTime(const FILETIME& ft) {
  uint64_t t = (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  return static_cast<time_t>(t / 10000000u) - static_cast<time_t>(11644473600LL);
}

int FileSizeByPath(const char* path, uint64_t* size) {
  WIN32_FILE_ATTRIBUTE_DATA d;
  if (!Attributes(path, &d)) return static_cast<int>(GetLastError());
  *size = (static_cast<uint64_t>(d.nFileSizeHigh) << 32) | d.nFileSizeLow;
  return 0;
}

int FileTimes(const char* path, time_t* ctime, time_t* mtime) {
  WIN32_FILE_ATTRIBUTE_DATA d;
  if (!Attributes(path, &d)) return static_cast<int>(GetLastError());
  // Windows keeps no status-change time; the creation time stands in, as in
  // the C runtime's stat().
  if (ctime) *ctime = UnixTime(d.ftCreationTime);
  if (mtime) *mtime = UnixTime(d.ftLastWriteTime);
  return 0;
}

bool PathExists(const char* path) { return GetFileAttributesA(OsPath(path).c_str()) != INVALID_FILE_ATTRIBUTES; }

int MakeDirs(const char* path) {
  std::string os = OsPath(path);
  // Skip the root: a drive ("C:\") or a UNC server and share ("\\srv\share\").
  size_t start = 1;
  if (os.size() >= 2 && os[1] == ':') {
    start = 3;
  } else if (os.compare(0, 2, "\\\\") == 0) {
    size_t share = os.find('\\', 2);
    start = share == std::string::npos ? os.size() : os.find('\\', share + 1);
    if (start == std::string::npos) start = os.size();
  }
  for (size_t i = start; i <= os.size(); ++i) {
    if (i == os.size() || os[i] == '\\') {
      std::string part = os.substr(0, i);
      if (part.empty() || part.back() == '\\') continue;
      if (!CreateDirectoryA(part.c_str(), nullptr)) {
        DWORD e = GetLastError();
        if (e != ERROR_ALREADY_EXISTS) return static_cast<int>(e);
      }
    }
  }
  return 0;
}

// A new file named after `base` with a random suffix, created exclusively.
static int CreateUnique(const std::string& base, DWORD flags, HANDLE* h, std::string* name) {
  static const char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
  static std::mutex lock;
  static uint64_t state = 0;
  for (int tries = 0; tries < 100; ++tries) {
    uint64_t r;
    {
      std::lock_guard<std::mutex> g(lock);
      if (state == 0) state = (GetTickCount64() << 20) ^ (GetCurrentProcessId() * 2654435761u) ^ 1;
      // xorshift64: different names for successive calls of one process.
      state ^= state << 13;
      state ^= state >> 7;
      state ^= state << 17;
      r = state;
    }
    std::string suffix;
    for (int i = 0; i < 6; ++i, r /= 36) suffix += kDigits[r % 36];
    *name = base + suffix;
    *h = CreateFileA(name->c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                     CREATE_NEW, FILE_ATTRIBUTE_NORMAL | flags, nullptr);
    if (*h != INVALID_HANDLE_VALUE) return 0;
    DWORD e = GetLastError();
    if (e != ERROR_FILE_EXISTS && e != ERROR_ALREADY_EXISTS) return static_cast<int>(e);
  }
  return ERROR_FILE_EXISTS;
}

FILE* TempFile(int* error) {
  char dir[MAX_PATH + 1];
  DWORD n = GetTempPathA(sizeof dir, dir);
  if (n == 0 || n > MAX_PATH) {
    if (error) *error = static_cast<int>(GetLastError());
    return nullptr;
  }
  HANDLE h;
  std::string name;
  int e = CreateUnique(std::string(dir) + "tvu", FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, &h, &name);
  if (e != 0) {
    if (error) *error = e;
    return nullptr;
  }
  int fd = _open_osfhandle(reinterpret_cast<intptr_t>(h), _O_RDWR | _O_BINARY);
  if (fd < 0) {
    CloseHandle(h);
    if (error) *error = errno;
    return nullptr;
  }
  FILE* fp = _fdopen(fd, "w+b");
  if (!fp) {
    if (error) *error = errno;
    _close(fd);
  }
  return fp;
}

int FileOpenAppend(const char* path, File** out) {
  // FILE_APPEND_DATA without FILE_WRITE_DATA: every write goes to the end.
  return OpenWith(path, FILE_APPEND_DATA | SYNCHRONIZE, OPEN_ALWAYS, 0, out);
}

int FileCreateTempBeside(const char* target, File** out, std::string* tempPath) {
  *out = nullptr;
  HANDLE h;
  std::string name;
  if (int e = CreateUnique(OsPath(target) + ".tmp", 0, &h, &name)) return e;
  *out = new File{h};
  *tempPath = name;
  return 0;
}

int FileSync(File* f) {
  if (!f) return ERROR_INVALID_HANDLE;
  return FlushFileBuffers(f->h) ? 0 : static_cast<int>(GetLastError());
}

int SetFileTimes(const char* path, time_t mtime) {
  HANDLE h = CreateFileA(OsPath(path).c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                         OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);  // folders too
  if (h == INVALID_HANDLE_VALUE) return static_cast<int>(GetLastError());
  // time_t -> FILETIME: 100 ns units since 1601.
  ULARGE_INTEGER u;
  u.QuadPart = (static_cast<uint64_t>(mtime) + 11644473600ull) * 10000000ull;
  FILETIME ft;
  ft.dwLowDateTime = u.LowPart;
  ft.dwHighDateTime = u.HighPart;
  const bool ok = SetFileTime(h, nullptr, &ft, &ft) != 0;
  const int error = ok ? 0 : static_cast<int>(GetLastError());
  CloseHandle(h);
  return error;
}

int StdioCutAt(FILE* stream, uint64_t size) {
  if (fflush(stream) != 0) return errno;
  const errno_t rc = _chsize_s(_fileno(stream), static_cast<__int64>(size));
  if (rc != 0) return rc;
  return _fseeki64(stream, static_cast<__int64>(size), SEEK_SET) == 0 ? 0 : errno;
}

int FileTruncate(File* f, uint64_t size) {
  if (!f) return ERROR_INVALID_HANDLE;
  FILE_END_OF_FILE_INFO info;
  info.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
  return SetFileInformationByHandle(f->h, FileEndOfFileInfo, &info, sizeof info) ? 0
                                                                                 : static_cast<int>(GetLastError());
}

int FileCopyPermissions(File* from, File* to) {
  if (!from || !to) return ERROR_INVALID_HANDLE;
  // A new file inherits its folder's access rights, which are those of the
  // file it replaces in the same folder; only the read-only flag is copied.
  FILE_BASIC_INFO src, dst;
  if (!GetFileInformationByHandleEx(from->h, FileBasicInfo, &src, sizeof src) ||
      !GetFileInformationByHandleEx(to->h, FileBasicInfo, &dst, sizeof dst))
    return static_cast<int>(GetLastError());
  if ((src.FileAttributes & FILE_ATTRIBUTE_READONLY) == (dst.FileAttributes & FILE_ATTRIBUTE_READONLY)) return 0;
  dst.FileAttributes = (dst.FileAttributes & ~FILE_ATTRIBUTE_READONLY) | (src.FileAttributes & FILE_ATTRIBUTE_READONLY);
  if (dst.FileAttributes == 0) dst.FileAttributes = FILE_ATTRIBUTE_NORMAL;
  return SetFileInformationByHandle(to->h, FileBasicInfo, &dst, sizeof dst) ? 0 : static_cast<int>(GetLastError());
}

int RenameFile(const char* from, const char* to) {
  return MoveFileExA(OsPath(from).c_str(), OsPath(to).c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)
             ? 0
             : static_cast<int>(GetLastError());
}

int RemoveFile(const char* path) {
  return DeleteFileA(OsPath(path).c_str()) ? 0 : static_cast<int>(GetLastError());
}

bool IsDirectory(const char* path) {
  DWORD a = GetFileAttributesA(OsPath(path).c_str());
  return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY);
}

bool IsExecutableFile(const char* path) {
  std::string os = OsPath(path);
  DWORD a = GetFileAttributesA(os.c_str());
  if (a == INVALID_FILE_ATTRIBUTES || (a & FILE_ATTRIBUTE_DIRECTORY)) return false;
  // Windows runs files by their extension.
  size_t dot = os.rfind('.');
  if (dot == std::string::npos || os.find('\\', dot) != std::string::npos) return false;
  std::string ext = os.substr(dot);
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext == ".exe" || ext == ".com" || ext == ".bat" || ext == ".cmd";
}

int CurrentDir(std::string* dir) {
  DWORD n = GetCurrentDirectoryA(0, nullptr);
  if (n == 0) return static_cast<int>(GetLastError());
  std::string buf(n, '\0');
  n = GetCurrentDirectoryA(n, &buf[0]);
  if (n == 0) return static_cast<int>(GetLastError());
  buf.resize(n);
  // A drive's root keeps its separator ("C:\"); other folders have none.
  if (buf.size() > 3 && buf.back() == '\\') buf.pop_back();
  *dir = buf;
  return 0;
}

int SetVolumeLabel(const char* volume, const char* label, std::string* why) {
  // The volume is named by its root folder ("C:\").
  std::string root = OsPath(volume);
  if (!root.empty() && root.back() != '\\') root += '\\';
  if (SetVolumeLabelA(root.c_str(), label)) return 0;
  int e = static_cast<int>(GetLastError());
  *why = "SetVolumeLabel " + root + ": " + ErrorText(e);
  return e;
}

int ListDirectory(const char* pattern, std::vector<std::string>* names) {
  names->clear();
  std::string os = OsPath(pattern);
  WIN32_FIND_DATAA fd;
  HANDLE h = FindFirstFileA(os.c_str(), &fd);
  if (h == INVALID_HANDLE_VALUE) {
    DWORD e = GetLastError();
    // A folder without matches is an empty listing, not an error.
    return e == ERROR_FILE_NOT_FOUND || e == ERROR_NO_MORE_FILES ? 0 : static_cast<int>(e);
  }
  do {
    names->push_back(fd.cFileName);
  } while (FindNextFileA(h, &fd));
  DWORD e = GetLastError();
  FindClose(h);
  if (e != ERROR_NO_MORE_FILES) return static_cast<int>(e);
  // Name order, whatever order the file system returns.
  std::sort(names->begin(), names->end());
  return 0;
}

// Shell-style matching as fnmatch(3) without flags: "*", "?", "[...]" with
// ranges and "!" or "^" negation, "\" quotes the next character.
static bool MatchFrom(const char* p, const char* n) {
  while (*p) {
    switch (*p) {
      case '*': {
        while (*p == '*') ++p;
        if (!*p) return true;
        for (const char* s = n; *s; ++s)
          if (MatchFrom(p, s)) return true;
        return MatchFrom(p, n + std::strlen(n));
      }
      case '?':
        if (!*n) return false;
        ++p;
        ++n;
        break;
      case '[': {
        if (!*n) return false;
        const char* q = p + 1;
        bool negate = *q == '!' || *q == '^';
        if (negate) ++q;
        bool found = false;
        const char* start = q;
        while (*q && (*q != ']' || q == start)) {
          unsigned char lo = static_cast<unsigned char>(*q), hi = lo;
          if (q[1] == '-' && q[2] && q[2] != ']') {
            hi = static_cast<unsigned char>(q[2]);
            q += 3;
          } else {
            ++q;
          }
          unsigned char c = static_cast<unsigned char>(*n);
          if (c >= lo && c <= hi) found = true;
        }
        if (*q != ']') {  // no closing bracket: "[" is an ordinary character
          if (*n != '[') return false;
          ++p;
          ++n;
          break;
        }
        if (found == negate) return false;
        p = q + 1;
        ++n;
        break;
      }
      case '\\':
        if (p[1]) ++p;
        [[fallthrough]];
      default:
        if (*p != *n) return false;
        ++p;
        ++n;
    }
  }
  return *n == '\0';
}

bool WildcardMatch(const char* pattern, const char* name) { return MatchFrom(pattern, name); }

// Unnamed kernel mutexes: ReleaseMutex by a thread that does not own one
// fails, as the interface asks.
int MutexCreate(Mutex** out) {
  *out = nullptr;
  HANDLE h = CreateMutexA(nullptr, FALSE, nullptr);
  if (!h) return static_cast<int>(GetLastError());
  *out = new Mutex{h};
  return 0;
}

int MutexLock(Mutex* m) {
  if (!m) return ERROR_INVALID_HANDLE;
  DWORD r = WaitForSingleObject(m->h, INFINITE);
  if (r == WAIT_OBJECT_0 || r == WAIT_ABANDONED) return 0;
  return static_cast<int>(GetLastError());
}

int MutexUnlock(Mutex* m) {
  if (!m) return ERROR_INVALID_HANDLE;
  return ReleaseMutex(m->h) ? 0 : static_cast<int>(GetLastError());
}

void MutexClose(Mutex* m) {
  if (!m) return;
  CloseHandle(m->h);
  delete m;
}

// Named events are kernel events in the session's namespace, auto-reset and
// initially non-signalled.
int EventCreate(const char* name, Event** out) {
  *out = nullptr;
  HANDLE h = CreateEventA(nullptr, FALSE, FALSE, name);
  if (!h) return static_cast<int>(GetLastError());
  *out = new Event{h};
  return 0;
}

int EventWait(Event* e, uint32_t milliseconds) {
  if (!e) return kWaitFailed;
  DWORD r = WaitForSingleObject(e->h, milliseconds == kWaitForever ? INFINITE : milliseconds);
  if (r == WAIT_OBJECT_0) return kWaitSignaled;
  return r == WAIT_TIMEOUT ? kWaitTimeout : kWaitFailed;
}

int EventSet(Event* e) {
  if (!e) return ERROR_INVALID_HANDLE;
  return SetEvent(e->h) ? 0 : static_cast<int>(GetLastError());
}

int EventReset(Event* e) {
  if (!e) return ERROR_INVALID_HANDLE;
  return ResetEvent(e->h) ? 0 : static_cast<int>(GetLastError());
}

void EventClose(Event* e) {
  if (!e) return;
  CloseHandle(e->h);
  delete e;
}

int EventSignalByName(const char* name) {
  HANDLE h = CreateEventA(nullptr, FALSE, FALSE, name);
  if (!h) return static_cast<int>(GetLastError());
  int rc = SetEvent(h) ? 0 : static_cast<int>(GetLastError());
  CloseHandle(h);
  return rc;
}

// Winsock is started once per process and stays started (the dedup client
// and Thrift use it for the whole life of the process).
static int WinsockStartup() {
  static int result = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data);
  }();
  return result;
}

int TcpProbe(const char* host, const char* port, int* error) {
  *error = 0;
  if (int e = WinsockStartup()) {
    *error = e;
    return kProbeStartup;
  }
  struct addrinfo hints;
  std::memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  struct addrinfo* res = nullptr;
  int rc = getaddrinfo(host, port, &hints, &res);
  if (rc != 0) {
    *error = rc;
    return kProbeResolve;
  }
  SOCKET s = ::socket(res->ai_family, res->ai_socktype, res->ai_protocol);
  if (s == INVALID_SOCKET) {
    *error = WSAGetLastError();
    freeaddrinfo(res);
    return kProbeSocket;
  }
  int stage = kProbeOk;
  if (::connect(s, res->ai_addr, static_cast<int>(res->ai_addrlen)) != 0) {
    *error = WSAGetLastError();
    stage = kProbeConnect;
  }
  freeaddrinfo(res);
  if (::closesocket(s) != 0 && stage == kProbeOk) {
    *error = WSAGetLastError();
    stage = kProbeClose;
  }
  return stage;
}

void SleepMs(uint32_t milliseconds) { Sleep(milliseconds); }

void* HostSymbol(const char* name) {
  HMODULE self = GetModuleHandleA(nullptr);
  return self ? reinterpret_cast<void*>(GetProcAddress(self, name)) : nullptr;
}

std::string LibraryFileName(const char* base) { return std::string(base) + ".dll"; }

void* LibraryOpen(const char* path, std::string* error) {
  HMODULE h = LoadLibraryA(OsPath(path).c_str());
  if (!h && error) *error = OsPath(path) + ": " + ErrorText(static_cast<int>(GetLastError()));
  return reinterpret_cast<void*>(h);
}

void* LibrarySymbol(void* library, const char* name) {
  return library ? reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name)) : nullptr;
}

void LibraryClose(void* library) {
  if (library) FreeLibrary(static_cast<HMODULE>(library));
}

int ProcessId() { return static_cast<int>(GetCurrentProcessId()); }

std::string ExecutableDir() {
  std::string buf(MAX_PATH, '\0');
  for (;;) {
    DWORD n = GetModuleFileNameA(nullptr, &buf[0], static_cast<DWORD>(buf.size()));
    if (n == 0) return "";
    if (n < buf.size()) {
      buf.resize(n);
      break;
    }
    buf.resize(buf.size() * 2);
  }
  size_t slash = buf.find_last_of("\\/");
  return slash == std::string::npos ? "" : buf.substr(0, slash + 1);
}

bool LocalTime(time_t t, struct tm* out) { return localtime_s(out, &t) == 0; }

uint64_t TicksMs() { return GetTickCount64(); }

uint64_t CpuTicksMs() {
  FILETIME created, exited, kernel, user;
  if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user)) return 0;
  auto ticks = [](const FILETIME& ft) { return (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime; };
  return (ticks(kernel) + ticks(user)) / 10000u;
}

bool GetEnv(const char* name, std::string* value) {
  const char* v = std::getenv(name);
  if (!v) return false;
  *value = v;
  return true;
}

int SetEnv(const char* name, const char* value) {
  // Both copies: the C runtime's (getenv) and the process's (child processes).
  if (_putenv_s(name, value) != 0) return errno;
  return SetEnvironmentVariableA(name, value) ? 0 : static_cast<int>(GetLastError());
}

int UnsetEnv(const char* name) {
  // An empty value removes a variable from the C runtime's environment.
  if (_putenv_s(name, "") != 0) return errno;
  if (SetEnvironmentVariableA(name, nullptr)) return 0;
  DWORD e = GetLastError();
  return e == ERROR_ENVVAR_NOT_FOUND ? 0 : static_cast<int>(e);
}

bool IsTerminal(FILE* stream) { return _isatty(_fileno(stream)) != 0; }

FILE* SeparateStandardOutput(bool keepData, std::string* error) {
  std::fflush(stdout);
  FILE* data = nullptr;
  if (keepData) {
    int fd = _dup(_fileno(stdout));
    if (fd < 0 || !(data = _fdopen(fd, "wb"))) {
      *error = "standard output: " + std::string(std::strerror(errno));
      if (fd >= 0) _close(fd);
      return nullptr;
    }
    _setmode(fd, _O_BINARY);
  }
  // Descriptor 1 (and the process's standard output handle, which child
  // processes get) must stay open whatever happens.
  if (_dup2(_fileno(stderr), _fileno(stdout)) != 0) {
    int null = _open("NUL", _O_WRONLY);
    if (null >= 0 && null != _fileno(stdout)) {
      _dup2(null, _fileno(stdout));
      _close(null);
    }
  }
  SetStdHandle(STD_OUTPUT_HANDLE, GetStdHandle(STD_ERROR_HANDLE));
  return data;
}

}  // namespace pf
