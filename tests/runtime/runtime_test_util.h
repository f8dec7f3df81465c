// runtime_test_util.h - temporary directories, files and environment for the runtime tests.
#ifndef TVU_TESTS_RUNTIME_TEST_UTIL_H
#define TVU_TESTS_RUNTIME_TEST_UTIL_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace runtime_test {

// A fresh directory under the build tree, removed with everything in it.
class TempDir {
 public:
  TempDir() {
    std::string pattern = std::string(TVU_BINARY_DIR) + "/runtime_test_XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) ADD_FAILURE() << "mkdtemp failed for " << pattern;
    path_ = buf.data();
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

  // Writes the bytes exactly as given (no line-end translation).
  std::string Write(const std::string& name, const std::string& content) const {
    std::string p = File(name);
    std::ofstream(p, std::ios::binary) << content;
    return p;
  }

 private:
  std::string path_;
};

inline std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// Sets (or, with nullopt, unsets) an environment variable for one scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = getenv(name)) old_ = old;
    if (value) {
      setenv(name, value->c_str(), 1);
    } else {
      unsetenv(name);
    }
  }
  ~ScopedEnv() {
    if (old_) {
      setenv(name_.c_str(), old_->c_str(), 1);
    } else {
      unsetenv(name_.c_str());
    }
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::optional<std::string> old_;
};

}  // namespace runtime_test

#endif
