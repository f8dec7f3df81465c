// test_util.h - helpers shared by the tests: temporary folders, files, and
// child processes run with a bounded time.
#ifndef TVU_TESTS_TEST_UTIL_H
#define TVU_TESTS_TEST_UTIL_H

#include <map>
#include <set>
#include <string>
#include <vector>

namespace tvutest {

// A fresh folder under $TMPDIR (or the system's temporary folder), removed
// with everything in it when the object goes away.  path() ends without a
// separator.  Where death tests run the test again in a new process (systems
// without fork), that process gets the folders of the test's own process
// (in creation order), so that both see the same files.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
  bool owned_ = true;
};

void WriteFile(const std::string& path, const std::string& content);
std::string ReadFile(const std::string& path);
// True when needle occurs in haystack.
inline bool Contains(const std::string& haystack, const std::string& needle) {
  return haystack.find(needle) != std::string::npos;
}
bool FileExists(const std::string& path);

struct ProcessResult {
  int exitCode = -1;   // exit status, or -1 when killed by a signal or timed out
  int signal = 0;      // the signal that ended it, if any
  bool timedOut = false;
  std::string out;     // standard output
  std::string err;     // standard error
};

// Runs argv[0] with the given arguments and extra environment variables,
// standard input from /dev/null, and kills it after timeoutSeconds.
ProcessResult RunProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env = {}, int timeoutSeconds = 120);

// Runs a shell command line (for foreign tools such as cpio); returns its exit status.
int Shell(const std::string& command);

// The files of a consolidated catalog whose lines carry where their data
// starts (a relative offset of 1 or more), as tree paths ("/a/b.txt").  The
// others are located in their saveset stream when first needed.
std::set<std::string> FilesWithDataOffset(const std::string& catalog);

// Path of a program built into the build folder (mkchain, tvucon).
std::string BuiltProgram(const std::string& name);

}  // namespace tvutest

#endif
