// archive_test_util.h - small shell and text helpers of the archive tests,
// on top of the shared ones in support/test_util.h.
#ifndef TESTS_ARCHIVE_ARCHIVE_TEST_UTIL_H
#define TESTS_ARCHIVE_ARCHIVE_TEST_UTIL_H

#include <fstream>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace archive_test {

// Single-quotes a word for /bin/sh.
inline std::string Quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += (c == '\'') ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

inline bool HaveTool(const char* name) {
  return tvutest::Shell(std::string("command -v ") + name + " >/dev/null 2>&1") == 0;
}

inline std::vector<std::string> ReadLines(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace archive_test

#endif  // TESTS_ARCHIVE_ARCHIVE_TEST_UTIL_H
