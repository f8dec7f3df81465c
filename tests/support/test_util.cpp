// test_util.cpp - temporary folders, files and child processes for the tests.
#include "support/test_util.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

namespace tvutest {

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string tmpl = std::string(base && *base ? base : "/tmp") + "/tvu_test_XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed");
  path_ = buf.data();
}

TempDir::~TempDir() {
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
  std::string outPath = io / "out", errPath = io / "err";
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    int in = open("/dev/null", O_RDONLY);
    int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    for (const auto& kv : env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
  for (;;) {
    pid_t w = waitpid(pid, &status, WNOHANG);
    if (w == pid) break;
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      r.timedOut = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (!r.timedOut && WIFEXITED(status)) r.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) r.signal = WTERMSIG(status);
  r.out = ReadFile(outPath);
  r.err = ReadFile(errPath);
  return r;
}

int Shell(const std::string& command) {
  int rc = system(command.c_str());
  return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
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
