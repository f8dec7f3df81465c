// test_util.cpp - temporary folders, files and child processes for the tests.
#include "support/test_util.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "platform/platform.h"

namespace fs = std::filesystem;

namespace tvutest {

namespace {

// The n-th folder made by the running test, named in the environment that a
// death test's new process inherits.
std::string SharedDirVariable(bool next) {
  static std::string test;
  static int serial = 0;
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = info ? std::string(info->test_suite_name()) + "." + info->name() : "";
  if (name != test) {
    test = name;
    serial = 0;
  }
  std::string var = "TVU_TEST_DIR_" + std::to_string(serial);
  if (next) ++serial;
  return var;
}

bool InDeathTestChild() { return !GTEST_FLAG_GET(internal_run_death_test).empty(); }

}  // namespace

TempDir::TempDir() {
  const std::string shared = SharedDirVariable(true);
  if (InDeathTestChild() && pf::GetEnv(shared.c_str(), &path_) && fs::is_directory(path_)) {
    owned_ = false;  // the test's own process removes it
    return;
  }
  std::string base;
  if (!pf::GetEnv("TMPDIR", &base) || base.empty()) base = fs::temp_directory_path().string();
  while (base.size() > 1 && (base.back() == '/' || base.back() == '\\')) base.pop_back();
  static std::mt19937_64 rng(std::random_device{}() ^ static_cast<uint64_t>(pf::ProcessId()) ^
                             static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
  static const char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  for (int tries = 0; tries < 100; ++tries) {
    std::string name = "tvu_test_";
    for (int i = 0; i < 8; ++i) name += kChars[rng() % 36];
    std::error_code ec;
    if (fs::create_directory(base + "/" + name, ec)) {
      path_ = base + "/" + name;
      pf::SetEnv(shared.c_str(), path_.c_str());
      return;
    }
    if (ec) throw std::runtime_error("cannot create a folder in " + base + ": " + ec.message());
  }
  throw std::runtime_error("cannot create a folder in " + base);
}

TempDir::~TempDir() {
  if (!owned_) return;
  std::error_code ec;
  fs::remove_all(path_, ec);
}

void WriteFile(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(content.data(), static_cast<std::streamsize>(content.size()));
  if (!f) throw std::runtime_error("cannot write " + path);
}

std::string ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream s;
  s << f.rdbuf();
  return s.str();
}

bool FileExists(const std::string& path) { return fs::exists(path); }

ProcessResult RunProcess(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                         int timeoutSeconds) {
  ProcessResult r;
  TempDir io;
  pf::ProcessSetup setup;
  setup.argv = argv;
  setup.in.mode = pf::kStdioNull;
  setup.out = {pf::kStdioTruncate, io / "out"};
  setup.err = {pf::kStdioTruncate, io / "err"};
  // The child inherits this process's environment: the extra variables are
  // set for the start and put back after it.
  std::map<std::string, std::pair<bool, std::string>> saved;
  for (const auto& kv : env) {
    std::string old;
    bool had = pf::GetEnv(kv.first.c_str(), &old);
    saved[kv.first] = {had, old};
    pf::SetEnv(kv.first.c_str(), kv.second.c_str());
  }
  pf::Process* proc = nullptr;
  std::string why;
  int rc = pf::ProcessStart(setup, &proc, &why);
  for (const auto& kv : saved) kv.second.first ? pf::SetEnv(kv.first.c_str(), kv.second.second.c_str()) : pf::UnsetEnv(kv.first.c_str());
  if (rc != 0) throw std::runtime_error(why + ": " + pf::ErrorText(rc));
  int state = -1;
  int w = pf::ProcessWait(proc, static_cast<uint32_t>(timeoutSeconds) * 1000u, &state);
  if (w == pf::kWaitTimeout) {
    pf::ProcessEnd(proc, 0, &state);
    r.timedOut = true;
  } else if (w == pf::kWaitSignaled) {
    // Shells report a process ended by signal N as 128 + N.
    if (state > 128 && state < 128 + 65) r.signal = state - 128;
    else r.exitCode = state;
  }
  pf::ProcessClose(proc);
  r.out = ReadFile(io / "out");
  r.err = ReadFile(io / "err");
  return r;
}

int Shell(const std::string& command) {
  pf::ProcessSetup setup;
  setup.argv = pf::ShellArgv(command);
  setup.newGroup = false;
  pf::Process* proc = nullptr;
  std::string why;
  if (pf::ProcessStart(setup, &proc, &why) != 0) return -1;
  int state = -1;
  if (pf::ProcessWait(proc, pf::kWaitForever, &state) != pf::kWaitSignaled) state = -1;
  pf::ProcessClose(proc);
  return state;
}

std::set<std::string> FilesWithDataOffset(const std::string& catalog) {
  std::set<std::string> files;
  std::ifstream f(catalog);
  std::string line;
  while (std::getline(f, line)) {
    size_t close = line[0] == '"' ? line.find('"', 1) : std::string::npos;
    if (close == std::string::npos) continue;
    // "PATH" TYPE CDATE CTIME MDATE MTIME SAVESET-OFFSET RELATIVE-OFFSET ...
    std::istringstream rest(line.substr(close + 1));
    std::string type, date, time;
    long long savesetOffset = 0, relOffset = 0;
    rest >> type >> date >> time >> date >> time >> savesetOffset >> relOffset;
    if (rest && type == "f" && relOffset >= 1) files.insert("/" + line.substr(1, close - 1));
  }
  return files;
}

std::string BuiltProgram(const std::string& name) { return std::string(TVU_BINARY_DIR) + "/" + name; }

}  // namespace tvutest
