// runtime_test_util.h - temporary files and environment for the runtime tests.
#ifndef TVU_TESTS_RUNTIME_TEST_UTIL_H
#define TVU_TESTS_RUNTIME_TEST_UTIL_H

#include <gtest/gtest.h>

#include "platform/platform.h"
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace runtime_test {

// A fresh directory under the build tree, removed with its contents.
class TempDir {
 public:
  TempDir() {
    static int serial = 0;
    std::string base = std::string(TVU_BINARY_DIR) + "/runtime_test_" + std::to_string(pf::ProcessId()) + "_";
    for (int tries = 0; tries < 1000; ++tries) {
      path_ = base + std::to_string(serial++);
      if (std::filesystem::create_directory(path_)) return;
    }
    ADD_FAILURE() << "cannot create a folder named " << base << "N";
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  std::string File(const std::string& name) const { return path_ + "/" + name; }
  // Writes the bytes exactly as given and returns the file's path.
  std::string Write(const std::string& name, const std::string& content) const {
    std::ofstream(File(name), std::ios::binary) << content;
    return File(name);
  }

 private:
  std::string path_;
};

inline std::string ReadAll(const std::string& path) {
  std::ostringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}

// Sets (nullopt: unsets) an environment variable for one scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = getenv(name)) old_ = old;
    value ? pf::SetEnv(name, value->c_str()) : pf::UnsetEnv(name);
  }
  ~ScopedEnv() { old_ ? pf::SetEnv(name_.c_str(), old_->c_str()) : pf::UnsetEnv(name_.c_str()); }

 private:
  std::string name_;
  std::optional<std::string> old_;
};

}  // namespace runtime_test

#endif
