// platform.h - the whole OS surface of tvu_con.
//
// Every call the module, its runtime and its tools make into the operating
// system goes through this header.  There is one implementation per OS
// (platform_posix*.cpp for Linux, platform_win32*.cpp for Windows) and CMake
// picks it.  Callers never test the OS and never hold a file descriptor.
//
// Paths: callers pass paths in the module's own form, where "\" and "/" both
// separate components (saveset names and the meta files directory use "\").
// The separator is converted to the OS's here, in OsPath(), and nowhere else.
//
// Errors: functions return 0 on success or the OS error number (errno here,
// GetLastError() on Windows), so that messages can print "error = %d" as the
// module's texts ask.  ErrorText() turns such a number into words.
//
// Thread safety: every function may be called from any thread; a handle is
// used by one thread at a time unless its comment says otherwise.
#ifndef TVU_PLATFORM_H
#define TVU_PLATFORM_H

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

namespace pf {

// ---- paths -----------------------------------------------------------------
// Module form -> OS form (on POSIX every "\" becomes "/").
std::string OsPath(const char* path);
// Text for an OS error number.
std::string ErrorText(int error);
// The calling thread's last OS error number.
int LastError();

// ---- files -----------------------------------------------------------------
struct File;  // opaque; one open file with a file pointer

// Opens an existing file for reading (shared read, random access).
int FileOpenRead(const char* path, File** out);
// Creates or truncates a file for writing.
int FileOpenWrite(const char* path, File** out);
// Reads up to n bytes at the file pointer and advances it.  Retries
// interrupted calls and keeps reading after partial reads, so *got < n only
// at end of file (or on error, when the result is non-zero and *got holds what
// was read before the error).
int FileRead(File* f, void* buf, uint64_t n, uint64_t* got);
// Reads up to n bytes at offset without using or moving the file pointer
// (several threads may read one file this way); *got < n only at end of file.
int FileReadAt(File* f, uint64_t offset, void* buf, uint64_t n, uint64_t* got);
// Writes all n bytes at the file pointer (retrying partial writes).
int FileWrite(File* f, const void* buf, uint64_t n);
// Moves the file pointer.  whence: 0 from start, 1 from current, 2 from end.
int FileSeek(File* f, int64_t offset, int whence, uint64_t* newPos);
// Closes the file; null is allowed.
void FileClose(File* f);
// The OS's own handle of an open file (a descriptor here), for facilities
// that move data between handles without copying it (the FUSE mount's
// splice).  Reading through it must be positional: it shares no position.
intptr_t FileNativeHandle(File* f);
// Opens a stdio stream with the path converted to OS form.
FILE* FOpen(const char* path, const char* mode);
// Size of a file by path; non-zero when it cannot be learnt.
int FileSizeByPath(const char* path, uint64_t* size);
// Status-change and modification times of a file by path (either pointer may
// be null); non-zero when they cannot be learnt.
int FileTimes(const char* path, time_t* ctime, time_t* mtime);
// 1 when path names an existing regular file or directory.
bool PathExists(const char* path);
// Sets a file's modification and access times to `mtime`; 0 or an errno value.
int SetFileTimes(const char* path, time_t mtime);
// Cuts the file of an open stream at `size` bytes and puts the stream's
// position there (resuming a partly written output); 0 or an errno value.
int StdioCutAt(FILE* stream, uint64_t size);
// Creates a directory and any missing parents.
int MakeDirs(const char* path);
// Creates an anonymous temporary file opened for update ("w+"), deleted at close.
FILE* TempFile(int* error);
// Opens a file for appending (created when missing); every write goes to its end.
int FileOpenAppend(const char* path, File** out);
// Creates a new, empty file in the folder of `target`, named after it with a
// random suffix, readable and writable by the owner only; *tempPath receives
// its name in module form.  For writing a file whole and renaming it into place.
int FileCreateTempBeside(const char* target, File** out, std::string* tempPath);
// Flushes the file's data to the storage device.
int FileSync(File* f);
// Cuts or extends the file to `size` bytes.
int FileTruncate(File* f, uint64_t size);
// Gives `to` the permission bits of `from`.
int FileCopyPermissions(File* from, File* to);
// Renames a file, replacing `to` when it exists (in one step where the OS can).
int RenameFile(const char* from, const char* to);
// Removes a file (not a directory).
int RemoveFile(const char* path);
// True when path names a directory.
bool IsDirectory(const char* path);
// True when path names a regular file the calling process may execute.
bool IsExecutableFile(const char* path);
// The process's working directory, without a trailing separator.
int CurrentDir(std::string* dir);
// Sets the label of the file system mounted at `volume`.  Where the OS or the
// file system has no label that can be set this way, the result is non-zero
// and *why says so; *why also names the failing call on other errors.
int SetVolumeLabel(const char* volume, const char* label, std::string* why);

// ---- directory search ------------------------------------------------------
// Lists the names (not paths) of the entries of a directory that match a
// shell-style pattern, in name order.  The pattern is the
// directory followed by a file pattern, as "dir\*.*"; "*.*" also matches
// names without a dot, as on the original platform.
int ListDirectory(const char* pattern, std::vector<std::string>* names);

// ---- shell-style wildcard match -------------------------------------------
// Matches a name against "*", "?" and "[...]" patterns; true on a match.
bool WildcardMatch(const char* pattern, const char* name);

// ---- synchronisation -------------------------------------------------------
struct Mutex;  // unnamed, recursive-free, owned by the thread that locks it
int MutexCreate(Mutex** out);
int MutexLock(Mutex* m);    // waits without time-out
int MutexUnlock(Mutex* m);  // fails when the caller does not own it
void MutexClose(Mutex* m);

// Named, auto-reset, initially non-signalled event, visible to other
// processes of the same user under its name.
struct Event;
int EventCreate(const char* name, Event** out);
enum WaitResult : int { kWaitSignaled = 0, kWaitTimeout = 258, kWaitFailed = -1 };
int EventWait(Event* e, uint32_t milliseconds);
int EventSet(Event* e);
int EventReset(Event* e);
void EventClose(Event* e);
// Signals the named event from a process that did not create it (creates it
// when it does not exist yet).
int EventSignalByName(const char* name);

void SleepMs(uint32_t milliseconds);
// Waits without limit (for the waits that take a time in milliseconds).
constexpr uint32_t kWaitForever = 0xFFFFFFFFu;

// ---- threads ---------------------------------------------------------------
// A thread started by ThreadStart, polled for its end without waiting.
struct Thread;
// Starts fn(arg) on a new thread; its result becomes the thread's exit code.
int ThreadStart(int (*fn)(void*), void* arg, Thread** out);
// Without waiting: kWaitSignaled when the thread has finished (*exitCode then
// holds its result), kWaitTimeout while it runs, kWaitFailed when its end
// cannot be collected (*error then holds the OS error).
int ThreadPoll(Thread* t, int* exitCode, int* error);
// Releases a thread that ThreadPoll reported finished (or that failed).
// REQUIRES: ThreadPoll returned something other than kWaitTimeout.
void ThreadClose(Thread* t);
// The OS's own number of the calling thread (the kernel's thread id here).
int ThreadId();

// ---- child processes -------------------------------------------------------
// Where one standard stream of a started process goes.
enum StdioMode : int {
  kStdioInherit = 0,  // the caller's own stream
  kStdioNull,         // the null device
  kStdioRead,         // standard input only: the existing file `path`
  kStdioTruncate,     // output streams: the file `path`, created or emptied
  kStdioAppend,       // output streams: the file `path`, created or appended to
  kStdioPipe,         // standard output only: a pipe read with ProcessReadOutput
  kStdioToOut,        // standard error only: wherever standard output goes
};
struct StdioSetup {
  StdioMode mode = kStdioInherit;
  std::string path;
};
struct ProcessSetup {
  // The program and its arguments; a program name without a separator is
  // looked up on PATH.
  std::vector<std::string> argv;
  StdioSetup in, out, err;
  // The process leads a process group of its own, so that ProcessEnd ends
  // everything it started too (a job object on Windows).
  bool newGroup = true;
};
// The program and arguments that run a command line through the system's
// shell ("/bin/sh -c" here, "cmd.exe /c" on Windows).
std::vector<std::string> ShellArgv(const std::string& cmdLine);
struct Process;  // opaque; one started child process
// Starts a process.  On failure returns the OS error and *why names the step
// that failed ("open output file X", "start sh").  Signals the caller ignores
// or blocks are restored to their defaults in the child.
int ProcessStart(const ProcessSetup& setup, Process** out, std::string* why);
int64_t ProcessPid(const Process* p);
// Waits up to `milliseconds` (kWaitForever: without limit) for the process to
// end: kWaitSignaled with *exitState set, kWaitTimeout, or kWaitFailed.  The
// exit state is the exit code, or 128 plus the signal number when a signal
// ended the process (as the shells report it).
int ProcessWait(Process* p, uint32_t milliseconds, int* exitState);
// Ends the process (with its group when it leads one): asks it to end, waits
// up to graceMs, then ends what is left by force and collects the process.
int ProcessEnd(Process* p, uint32_t graceMs, int* exitState);
// Reads the kStdioPipe output: waits up to `milliseconds` for data.  Returns 0
// with *got > 0 for data, 0 with *got == 0 at the end of the output,
// kWaitTimeout when nothing came, or an OS error.
int ProcessReadOutput(Process* p, void* buf, size_t n, uint32_t milliseconds, size_t* got);
// Releases the handle.  A process still running goes on running and is not
// collected here (pid_exist-style checks by id collect it later).
void ProcessClose(Process* p);

// Processes by id.  True when the process exists; a finished child of this
// process is collected by the check and counts as gone, as does a process
// that has ended but not yet been collected by its parent.
bool ProcessExists(int64_t pid);
// Asks the process (that process alone) to end; force: ends it at once.
int ProcessSignalEnd(int64_t pid, bool force);

// ---- network ---------------------------------------------------------------
// Checks that a TCP server accepts connections at host:port: resolves the
// host, creates a socket of the resolved family, connects and closes it.
// Returns 0, or the stage that failed with its error number in *error.
enum ProbeStage : int { kProbeOk = 0, kProbeStartup, kProbeResolve, kProbeSocket, kProbeConnect, kProbeClose };
int TcpProbe(const char* host, const char* port, int* error);

// ---- process and time ------------------------------------------------------
// Looks up an exported symbol of the main executable of this process.
void* HostSymbol(const char* name);
// The file name of the dynamic library `base` ("libBASE.so" here, "BASE.dll"
// on Windows).
std::string LibraryFileName(const char* base);
// Dynamic libraries: null on failure with the reason in *error.
void* LibraryOpen(const char* path, std::string* error);
void* LibrarySymbol(void* library, const char* name);
void LibraryClose(void* library);

int ProcessId();
// Folder of the running executable, with a trailing separator ("" if unknown).
std::string ExecutableDir();
bool LocalTime(time_t t, struct tm* out);
// Milliseconds of a monotonic clock, and of processor time used.
uint64_t TicksMs();
uint64_t CpuTicksMs();
// Environment.
bool GetEnv(const char* name, std::string* value);
int SetEnv(const char* name, const char* value);
int UnsetEnv(const char* name);
// True when the stream is a terminal.
bool IsTerminal(FILE* stream);
// Keeps the data a program writes to standard output apart from the notes
// that code inside it prints with printf: with `keepData`, returns a new
// binary stream over the original standard output (null with *error set on
// failure); either way the standard output then goes to the standard error
// (or, failing that, to the null device), so that it always stays open.
FILE* SeparateStandardOutput(bool keepData, std::string* error);

}  // namespace pf

#endif  // TVU_PLATFORM_H
