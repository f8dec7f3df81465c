// Mount tests: a generated chain served read-only by `tvucon mount` (a real
// daemon over FUSE), compared with the chain's final state through the
// kernel: listings, contents, reads at odd offsets, attributes, refused
// writes, and the ways a mount ends.  Skipped where FUSE is not usable.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/test_util.h"

namespace {

namespace fs = std::filesystem;
using tvutest::BuiltProgram;
using tvutest::ProcessResult;
using tvutest::ReadFile;
using tvutest::RunProcess;
using tvutest::Shell;
using tvutest::TempDir;

// Why FUSE mounts cannot be tested here, or "".
std::string FuseUnavailable() {
  int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  if (fd < 0) return std::string("/dev/fuse cannot be opened: ") + strerror(errno);
  close(fd);
  if (Shell("command -v fusermount3 >/dev/null 2>&1") != 0) return "fusermount3 is not installed";
  return "";
}

bool WaitFor(const std::function<bool()>& done, int milliseconds) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// The tvucon mount processes serving `mountpoint` (the last argument).
std::vector<pid_t> Servers(const std::string& mountpoint) {
  std::vector<pid_t> pids;
  const std::string tail = '\0' + mountpoint + '\0';
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename(), cmd = ReadFile(entry.path() / "cmdline");
    if (name.find_first_not_of("0123456789") == std::string::npos &&
        cmd.find(std::string("tvucon\0mount\0", 13)) != std::string::npos && cmd.size() > tail.size() &&
        cmd.compare(cmd.size() - tail.size(), tail.size(), tail) == 0)
      pids.push_back(static_cast<pid_t>(std::stol(name)));
  }
  return pids;
}

bool Mounted(const std::string& mountpoint) {
  std::ifstream mounts("/proc/self/mounts");
  std::string device, dir, rest;
  while (mounts >> device >> dir && std::getline(mounts, rest))
    if (dir == mountpoint) return true;
  return false;
}

// A generated chain and a mount point for it.  Whatever a test leaves
// mounted or running is unmounted and ended when the object goes away.
class ChainMount {
 public:
  explicit ChainMount(int files, const std::string& totalBytes, const std::string& format = "newc")
      : mnt_(tmp_ / "mnt") {
    chain_ = tmp_ / "chain";
    ProcessResult r = RunProcess({BuiltProgram("mkchain"), "--out", chain_, "--files", std::to_string(files),
                                  "--total-bytes", totalBytes, "--seed", "11", "--format", format});
    EXPECT_EQ(0, r.exitCode) << r.err;
    std::ifstream f(chain_ + "/chain.txt");
    std::string line;
    while (std::getline(f, line)) {
      if (line.rfind("consolidate=", 0) == 0) saveset_ = line.substr(12);
      if (line.rfind("ini=", 0) == 0) ini_ = line.substr(4);
    }
    fs::create_directories(mnt_);
  }
  ~ChainMount() {
    if (Mounted(mnt_)) RunProcess({"fusermount3", "-u", "-z", mnt_}, {}, 10);
    for (pid_t pid : Servers(mnt_)) kill(pid, SIGKILL);
  }

  // Runs `tvucon mount` in daemon mode; returns once the parent has exited.
  ProcessResult Start(const std::string& mountpoint) {
    return RunProcess({BuiltProgram("tvucon"), "mount", "--saveset", saveset_, "--ini", ini_, mountpoint}, {}, 30);
  }
  // Starts the mount and waits (bounded) until the chain's top folder shows.
  bool StartAndWait() {
    ProcessResult r = Start(mnt_);
    EXPECT_EQ(0, r.exitCode) << r.err;
    return r.exitCode == 0 && WaitFor([&] { return fs::exists(mnt_ + "/demo"); }, 10000);
  }
  // Waits (bounded) until nothing is mounted and no server is left.
  bool WaitEnded() {
    return WaitFor([&] { return !Mounted(mnt_) && Servers(mnt_).empty(); }, 10000);
  }

  const TempDir& tmp() const { return tmp_; }
  std::string finalDir() const { return chain_ + "/final"; }
  std::string savesetDir() const { return chain_ + "/savesets"; }
  // The consolidated catalog (the generated chains have LSL catalogs).
  std::string catalog() const { return chain_ + "/tqslis/" + saveset_ + "_mnt/" + saveset_ + ".lsl"; }
  const std::string& mnt() const { return mnt_; }

 private:
  TempDir tmp_;
  std::string chain_, saveset_, ini_;
  std::string mnt_;
};

// Creation and modification time of every item of a consolidated catalog
// ("PATH" T CTIME MTIME ..., local times), by path.
std::map<std::string, std::pair<time_t, time_t>> CatalogTimes(const std::string& catalog) {
  std::map<std::string, std::pair<time_t, time_t>> times;
  std::ifstream f(catalog);
  std::string line;
  while (std::getline(f, line)) {
    if (line.empty() || line[0] != '"') continue;
    size_t close = line.find('"', 1);
    if (close == std::string::npos) continue;
    std::istringstream rest(line.substr(close + 1));
    std::string type;
    std::tm c{}, m{};
    rest >> type >> std::get_time(&c, "%Y-%m-%d %H:%M:%S") >> std::get_time(&m, "%Y-%m-%d %H:%M:%S");
    if (!rest) continue;
    c.tm_isdst = m.tm_isdst = -1;
    times[line.substr(1, close - 1)] = {mktime(&c), mktime(&m)};
  }
  return times;
}

std::string Quote(const std::string& s) { return "'" + s + "'"; }

#define SKIP_WITHOUT_FUSE()                                     \
  do {                                                          \
    std::string why = FuseUnavailable();                        \
    if (!why.empty()) GTEST_SKIP() << "FUSE unusable: " << why; \
  } while (0)

TEST(Mount, ServesTheFinalStateReadOnlyAndUnmounts) {
  SKIP_WITHOUT_FUSE();
  ChainMount m(200, "4000000");
  ASSERT_TRUE(m.StartAndWait()) << "the mount did not show demo/";
  ASSERT_EQ(1u, Servers(m.mnt()).size()) << "one detached server";

  // The largest file, read before anything else touches it.  O_DIRECT passes
  // the odd offsets and lengths to the file system as they are, so reads
  // that start and end inside the tree's chunks and run past the end of the
  // file are exercised, not the kernel's page-aligned ones.
  std::string big;
  uintmax_t bigSize = 0;
  for (const auto& e : fs::recursive_directory_iterator(m.finalDir()))
    if (e.is_regular_file() && e.file_size() > bigSize) {
      bigSize = e.file_size();
      big = fs::relative(e.path(), m.finalDir());
    }
  ASSERT_GT(bigSize, 300000u);
  struct Piece {
    uintmax_t skip, count, bs;
  };
  const Piece pieces[] = {{1, 1, 512},         {4095, 4099, 4096},        {131071, 300001, 300001},
                          {7, 200000, 65521},  {bigSize - 5, 1000, 1000}, {bigSize + 9, 10, 10}};
  for (const Piece& p : pieces) {
    std::string args = " skip=" + std::to_string(p.skip) + " count=" + std::to_string(p.count) +
                       " bs=" + std::to_string(p.bs) + " status=none iflag=skip_bytes,count_bytes";
    const std::string got = m.tmp() / "got", want = m.tmp() / "want";
    ASSERT_EQ(0, Shell("dd if=" + Quote(m.mnt() + "/" + big) + " of=" + Quote(got) + args + ",direct"));
    ASSERT_EQ(0, Shell("dd if=" + Quote(m.finalDir() + "/" + big) + " of=" + Quote(want) + args));
    EXPECT_TRUE(ReadFile(got) == ReadFile(want)) << "skip " << p.skip << " count " << p.count;
  }

  // Contents, every file compared by 8 readers at once (the server answers
  // on several threads), then names and structure.
  EXPECT_EQ(0, Shell("cd " + Quote(m.finalDir()) + " && find . -type f -print0 | xargs -0 -P 8 -I{} cmp {} " +
                     Quote(m.mnt()) + "/{}"));
  EXPECT_EQ(0, Shell("diff -r " + Quote(m.finalDir()) + " " + Quote(m.mnt())));

  // Attributes: read-only modes, the mounting user, sizes, and the times of
  // the catalog (the final folder's own times are those of its generation).
  const auto times = CatalogTimes(m.catalog());
  size_t checked = 0;
  for (const auto& e : fs::recursive_directory_iterator(m.finalDir())) {
    const std::string rel = fs::relative(e.path(), m.finalDir());
    struct stat want, got;
    ASSERT_EQ(0, lstat(e.path().c_str(), &want));
    ASSERT_EQ(0, lstat((m.mnt() + "/" + rel).c_str(), &got)) << rel;
    EXPECT_EQ(S_ISDIR(want.st_mode) ? (S_IFDIR | 0555u) : (S_IFREG | 0444u), got.st_mode) << rel;
    EXPECT_EQ(getuid(), got.st_uid) << rel;
    EXPECT_EQ(getgid(), got.st_gid) << rel;
    if (!S_ISDIR(want.st_mode)) {
      EXPECT_EQ(want.st_size, got.st_size) << rel;
    }
    auto t = times.find(rel);
    if (t != times.end()) {
      EXPECT_EQ(t->second.first, got.st_ctim.tv_sec) << rel;
      EXPECT_EQ(t->second.second, got.st_mtim.tv_sec) << rel;
      ++checked;
    }
  }
  EXPECT_GT(checked, 200u);

  // Nothing can change; paths that are not there fail with the tree's errno.
  const std::string file = m.mnt() + "/" + big, dir = m.mnt() + "/demo";
  struct stat st;
  const std::tuple<const char*, int, std::function<int()>> calls[] = {
      {"open to write", EROFS, [&] { return open(file.c_str(), O_WRONLY); }},
      {"create", EROFS, [&] { return open((dir + "/new.txt").c_str(), O_WRONLY | O_CREAT, 0644); }},
      {"mkdir", EROFS, [&] { return mkdir((dir + "/new").c_str(), 0755); }},
      {"unlink", EROFS, [&] { return unlink(file.c_str()); }},
      {"rename", EROFS, [&] { return rename(file.c_str(), (dir + "/moved").c_str()); }},
      {"truncate", EROFS, [&] { return truncate(file.c_str(), 0); }},
      {"stat missing", ENOENT, [&] { return stat((dir + "/no such file").c_str(), &st); }},
      {"stat below a file", ENOTDIR, [&] { return stat((file + "/x").c_str(), &st); }}};
  for (const auto& [what, err, call] : calls) {
    errno = 0;
    EXPECT_EQ(-1, call()) << what;
    EXPECT_EQ(err, errno) << what;
  }
  EXPECT_EQ(0, Shell("cmp -s " + Quote(m.finalDir() + "/" + big) + " " + Quote(file))) << "the file is unchanged";

  ProcessResult u = RunProcess({"fusermount3", "-u", m.mnt()}, {}, 10);
  EXPECT_EQ(0, u.exitCode) << u.err;
  EXPECT_TRUE(m.WaitEnded()) << "the server did not end after the unmount";
  EXPECT_FALSE(fs::exists(m.mnt() + "/demo"));
}

// The other header formats: every file of the mount equals the final state
// (diff -r compares every file's bytes).
class MountFormat : public ::testing::TestWithParam<std::string> {};

TEST_P(MountFormat, EveryFileMatchesTheFinalState) {
  SKIP_WITHOUT_FUSE();
  ChainMount m(150, "2500000", GetParam());
  ASSERT_TRUE(m.StartAndWait()) << "the mount did not show demo/";
  EXPECT_EQ(0, tvutest::Shell("diff -r '" + m.finalDir() + "' '" + m.mnt() + "'"));
}

INSTANTIATE_TEST_SUITE_P(Formats, MountFormat, ::testing::Values("odc", "ext", "mtf"));

// Reads a whole file through the kernel: its bytes, or the errno of the
// first failed call.
int ReadWhole(const std::string& path, std::string* bytes) {
  bytes->clear();
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  char buf[65536];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) bytes->append(buf, static_cast<size_t>(n));
  int err = n < 0 ? errno : 0;
  close(fd);
  return err;
}

// Savesets cut after the mount started: every file whose size is known
// reads back whole or fails with EIO; none comes out short as if it had
// ended.  Half of the files are looked up before the cut (the kernel then
// knows their sizes), the others, whose catalog lines give their size, only
// after it.
TEST(Mount, ReadsOfACutSavesetFailWithEIO) {
  SKIP_WITHOUT_FUSE();
  ChainMount m(60, "1500000");
  ASSERT_TRUE(m.StartAndWait()) << "the mount did not show demo/";
  const std::set<std::string> withOffset = tvutest::FilesWithDataOffset(m.catalog());
  std::vector<std::string> before, after;
  for (const auto& e : fs::recursive_directory_iterator(m.finalDir())) {
    if (!e.is_regular_file()) continue;
    const std::string rel = "/" + fs::relative(e.path(), m.finalDir()).string();
    if (before.size() <= after.size()) {
      struct stat st;
      ASSERT_EQ(0, stat((m.mnt() + rel).c_str(), &st)) << rel;
      before.push_back(rel);
    } else if (withOffset.count(rel)) {
      after.push_back(rel);
    }
  }
  for (const auto& e : fs::directory_iterator(m.savesetDir())) fs::resize_file(e.path(), e.file_size() / 2);

  size_t whole = 0;
  for (const auto* files : {&before, &after}) {
    size_t failed = 0;
    for (const std::string& rel : *files) {
      const std::string want = ReadFile(m.finalDir() + rel);
      std::string got;
      int err = ReadWhole(m.mnt() + rel, &got);
      if (err == 0) {
        EXPECT_TRUE(got == want) << rel << ": " << got.size() << " of " << want.size() << " bytes";
        ++whole;
      } else {
        EXPECT_EQ(EIO, err) << rel << ": " << strerror(err);
        ++failed;
      }
    }
    EXPECT_GT(failed, 0u) << (files == &before ? "looked up before the cut" : "looked up after the cut");
  }
  EXPECT_GT(whole, 0u);
}

TEST(Mount, SignalEndsTheServerAndUnmounts) {
  SKIP_WITHOUT_FUSE();
  ChainMount m(20, "200000");
  ASSERT_TRUE(m.StartAndWait());
  std::vector<pid_t> servers = Servers(m.mnt());
  ASSERT_EQ(1u, servers.size());
  ASSERT_EQ(0, kill(servers[0], SIGTERM));
  EXPECT_TRUE(m.WaitEnded()) << "SIGTERM left the mount or the server behind";
}

TEST(Mount, ReportsABadMountPointBeforeDetaching) {
  SKIP_WITHOUT_FUSE();
  ChainMount m(5, "20000");
  const std::string missing = m.tmp() / "missing";
  ProcessResult r = m.Start(missing);
  EXPECT_NE(0, r.exitCode);
  EXPECT_NE(std::string::npos, r.err.find(missing)) << r.err;
  EXPECT_TRUE(Servers(missing).empty());
  EXPECT_FALSE(Mounted(missing));
}

}  // namespace

namespace {

// What an operator sees of the mount as a whole: df gives the tree's data
// size, folders the catalog does not list carry the catalog's time (not
// 1970), and a second mount on the same point is refused.
TEST(Mount, FileSystemSizeFolderTimesAndASecondMountRefused) {
  SKIP_WITHOUT_FUSE();
  ChainMount m(40, "400000");
  ASSERT_TRUE(m.StartAndWait());
  uint64_t dataBytes = 0;
  for (const auto& e : fs::recursive_directory_iterator(m.finalDir()))
    if (e.is_regular_file()) dataBytes += e.file_size();
  struct statvfs sv;
  ASSERT_EQ(0, statvfs(m.mnt().c_str(), &sv));
  EXPECT_EQ((dataBytes + sv.f_frsize - 1) / sv.f_frsize, sv.f_blocks);
  EXPECT_EQ(0u, sv.f_bfree);

  struct stat top, catalog;
  ASSERT_EQ(0, stat(m.mnt().c_str(), &top));
  ASSERT_EQ(0, stat(m.catalog().c_str(), &catalog));
  EXPECT_EQ(catalog.st_mtime, top.st_mtime);

  ProcessResult r = m.Start(m.mnt());
  EXPECT_EQ(1, r.exitCode);
  EXPECT_NE(std::string::npos, r.err.find("is a mount point already")) << r.err;
  EXPECT_EQ(1u, Servers(m.mnt()).size());
  EXPECT_EQ(0, RunProcess({"fusermount3", "-u", m.mnt()}, {}, 10).exitCode);
  EXPECT_TRUE(m.WaitEnded());
}

}  // namespace
