// hal_test_util.h - the host helper tests' fixture: stand-in rsh, ssh, tq_ssh
// and tq_ctrlc first on PATH, a product INI, a protocol file, a trace context
// and readers for what the stand-ins recorded.
#ifndef TVU_TESTS_HAL_TEST_UTIL_H
#define TVU_TESTS_HAL_TEST_UTIL_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/test_util.h"
#include "tvu_host.h"

namespace haltest {

// Every stand-in records its arguments (each followed by a NUL) in
// $HAL_STANDIN_DIR/<its name>.args, then, as the variables ask: copies its
// input to its output, writes a line to its output and to its errors, waits
// for a background "sleep" (whose pid it records in sleep.pid), and exits
// with $HAL_STANDIN_EXIT.
constexpr const char* kStandIn = R"(#!/bin/sh
me=$(basename "$0")
for a in "$@"; do printf '%s\0' "$a"; done > "$HAL_STANDIN_DIR/$me.args"
if [ -n "$HAL_STANDIN_CAT" ]; then cat; fi
if [ -n "$HAL_STANDIN_OUT" ]; then printf '%s\n' "$HAL_STANDIN_OUT"; fi
if [ -n "$HAL_STANDIN_ERR" ]; then printf '%s\n' "$HAL_STANDIN_ERR" >&2; fi
if [ -n "$HAL_STANDIN_SLEEP" ]; then sleep "$HAL_STANDIN_SLEEP" & echo $! > "$HAL_STANDIN_DIR/sleep.pid"; wait; fi
exit "${HAL_STANDIN_EXIT:-0}"
)";

class HalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string bin = dir_ / "bin";
    mkdir(bin.c_str(), 0755);
    for (const char* name : {"rsh", "ssh", "tq_ssh", "tq_ctrlc"}) {
      tvutest::WriteFile(bin + "/" + name, kStandIn);
      chmod((bin + "/" + name).c_str(), 0755);
    }
    Env("PATH", bin + ":" + (getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin"));
    Env("HAL_STANDIN_DIR", dir_.path());
    Env("TQ_PROT_FILE", dir_ / "prot.txt");
    Env("TQ_INI", dir_ / "tq.ini");
    Ini("");
    for (const char* v : {"HAL_STANDIN_CAT", "HAL_STANDIN_OUT", "HAL_STANDIN_ERR", "HAL_STANDIN_SLEEP", "HAL_STANDIN_EXIT"})
      Env(v, std::nullopt);
    trace_.iTraceLevel = 2;
    std::snprintf(trace_.szTraceFile, sizeof trace_.szTraceFile, "%s", (dir_ / "trace.trc").c_str());
  }
  void TearDown() override {
    for (auto it = saved_.rbegin(); it != saved_.rend(); ++it)
      it->second ? setenv(it->first.c_str(), it->second->c_str(), 1) : unsetenv(it->first.c_str());
  }

  // Sets (nullopt: unsets) an environment variable until the test ends.
  void Env(const std::string& name, std::optional<std::string> value) {
    const char* old = getenv(name.c_str());
    saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
    value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
  }
  void Ini(const std::string& text) { tvutest::WriteFile(dir_ / "tq.ini", text); }

  // A record for `command` on node "node1" as user "bob".
  static TVU_RCMD Rec(const std::string& command, const std::string& platform = "WNT",
                      const std::string& options = "") {
    TVU_RCMD r;
    std::memset(&r, 0, sizeof r);
    std::snprintf(r.szNode, sizeof r.szNode, "node1");
    std::snprintf(r.szUser, sizeof r.szUser, "bob");
    std::snprintf(r.szPlatform, sizeof r.szPlatform, "%s", platform.c_str());
    std::snprintf(r.szAccessOptions, sizeof r.szAccessOptions, "%s", options.c_str());
    std::snprintf(r.szCommand, sizeof r.szCommand, "%s", command.c_str());
    return r;
  }
  void SetFile(char (&field)[4096], const std::string& name) {
    std::snprintf(field, sizeof field, "%s", (dir_ / name).c_str());
  }

  // The arguments a stand-in received last; none when it did not run.
  std::optional<std::vector<std::string>> Args(const std::string& program) {
    std::string path = dir_ / (program + ".args");
    if (!tvutest::FileExists(path)) return std::nullopt;
    std::vector<std::string> args;
    std::string all = tvutest::ReadFile(path);
    for (size_t at = 0; at < all.size();) {
      size_t end = all.find('\0', at);
      args.push_back(all.substr(at, end - at));
      at = end + 1;
    }
    remove(path.c_str());
    return args;
  }

  // The texts of the trace file's lines (after the time and pid), then emptied.
  std::vector<std::string> Traced() { return Lines(dir_ / "trace.trc"); }
  std::vector<std::string> Lines(const std::string& path) {
    std::vector<std::string> texts;
    if (!tvutest::FileExists(path)) return texts;
    std::string all = tvutest::ReadFile(path);
    for (size_t at = 0; at < all.size();) {
      size_t end = all.find('\n', at);
      std::string line = all.substr(at, end - at);
      size_t text = line.find("] ");
      texts.push_back(text == std::string::npos ? line : line.substr(text + 2));
      at = end == std::string::npos ? all.size() : end + 1;
    }
    remove(path.c_str());
    return texts;
  }
  static bool Has(const std::vector<std::string>& lines, const std::string& line) {
    for (const std::string& l : lines)
      if (l == line) return true;
    return false;
  }

  tvutest::TempDir dir_;
  TVU_TRACE trace_{};

 private:
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

}  // namespace haltest

#endif
