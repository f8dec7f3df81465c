// Tests of the local process and file helpers, and of the module's export list.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <set>

#include "hal_test_util.h"

namespace {

using haltest::HalTest;

bool WaitGone(int pid) {
  for (int i = 0; i < 100 && pid_exist(pid); ++i) usleep(20000);
  return !pid_exist(pid);
}

// Names in the folder besides the expected ones (left-over temporary files).
std::set<std::string> Names(const std::string& dir) {
  std::set<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir)) names.insert(e.path().filename().string());
  return names;
}

TEST_F(HalTest, StartSystemAndTee) {
  char msg[128];
  EXPECT_EQ(start_system("exit 5", 0, msg, sizeof msg), 5);
  EXPECT_STREQ(msg, "exit status 5");
  EXPECT_EQ(start_system("kill -9 $$", 0, msg, sizeof msg), 137);
  EXPECT_STREQ(msg, "ended by signal 9");
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(start_system("sleep 30", 1, msg, sizeof msg), 124);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
  EXPECT_STREQ(msg, "timed out after 1 s");

  // Output and errors go to our output and to the end of the file.
  std::string tee = dir_ / "tee.log";
  tvutest::WriteFile(tee, "before\n");
  testing::internal::CaptureStdout();
  EXPECT_EQ(start_system_tee("echo one; echo two >&2; exit 3", tee.c_str(), 0, msg, sizeof msg), 3);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "one\ntwo\n");
  EXPECT_EQ(tvutest::ReadFile(tee), "before\none\ntwo\n");
  // A child left in the background with the output open does not hold it up.
  start = std::chrono::steady_clock::now();
  std::string bg = "sleep 30 & echo $! > " + (dir_ / "bg.pid") + "; echo bg";
  EXPECT_EQ(start_system_tee(bg.c_str(), tee.c_str(), 0, msg, sizeof msg), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  EXPECT_EQ(i_KILL_TVU(std::stoi(tvutest::ReadFile(dir_ / "bg.pid"))), 0);
  EXPECT_EQ(start_system_tee("sleep 30", tee.c_str(), 1, msg, sizeof msg), 124);
  EXPECT_EQ(start_system_tee("true", (dir_ / "no/such/dir/x").c_str(), 0, msg, sizeof msg), -1);
}

TEST_F(HalTest, StartProcPidExistAndKill) {
  int32_t pid = 0;
  std::string out = dir_ / "proc.out";
  ASSERT_EQ(start_proc("echo started; exec sleep 30", out.c_str(), &pid), 0);
  ASSERT_GT(pid, 0);
  EXPECT_EQ(pid_exist(pid), 1);
  for (int i = 0; i < 100 && tvutest::ReadFile(out).empty(); ++i) usleep(20000);
  EXPECT_EQ(i_KILL_TVU(pid), 0);
  EXPECT_EQ(pid_exist(pid), 0);
  EXPECT_EQ(tvutest::ReadFile(out), "started\n");
  EXPECT_EQ(i_KILL_TVU(pid), ESRCH);

  // One that ignores the request to end is ended by force.
  ASSERT_EQ(start_proc("trap '' TERM; exec sleep 30", nullptr, &pid), 0);
  usleep(100000);  // let the shell set the trap
  EXPECT_EQ(i_KILL_TVU(pid), 0);
  EXPECT_TRUE(WaitGone(pid));

  // Never a group, "all processes" or ourselves.
  for (int32_t bad : {0, -1, -pid, static_cast<int32_t>(getpid())}) EXPECT_EQ(i_KILL_TVU(bad), EINVAL) << bad;
  EXPECT_EQ(pid_exist(0), 0);
  EXPECT_EQ(pid_exist(-1), 0);
  EXPECT_EQ(pid_exist(getpid()), 1);
}

TEST_F(HalTest, FileCopyIsAtomic) {
  std::string from = dir_ / "from.bin", to = dir_ / "to.bin";
  std::string data(3u << 20, '\0');  // more than one copy chunk
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 4096);
  tvutest::WriteFile(from, data);
  chmod(from.c_str(), 0750);
  tvutest::WriteFile(to, "old");
  EXPECT_EQ(file_copy(from.c_str(), to.c_str()), 0);
  EXPECT_EQ(tvutest::ReadFile(to), data);
  struct stat st;
  ASSERT_EQ(stat(to.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0750u);

  // Failures leave the target as it was and no temporary file.
  const std::set<std::string> before = Names(dir_.path());
  tvutest::WriteFile(to, "old");
  EXPECT_EQ(file_copy((dir_ / "missing").c_str(), to.c_str()), ENOENT);
  EXPECT_EQ(file_copy(from.c_str(), dir_.path().c_str()), EISDIR);
  EXPECT_EQ(file_copy(from.c_str(), (dir_ / "no/such/x").c_str()), ENOENT);
  EXPECT_EQ(tvutest::ReadFile(to), "old");
  EXPECT_EQ(Names(dir_.path()), before);
}

TEST_F(HalTest, FileAppendAndFolders) {
  std::string from = dir_ / "part", to = dir_ / "whole";
  tvutest::WriteFile(from, "tail\n");
  EXPECT_EQ(file_append(from.c_str(), to.c_str()), 0);
  EXPECT_EQ(file_append(from.c_str(), to.c_str()), 0);
  EXPECT_EQ(tvutest::ReadFile(to), "tail\ntail\n");
  EXPECT_EQ(file_append((dir_ / "missing").c_str(), to.c_str()), ENOENT);
  EXPECT_EQ(tvutest::ReadFile(to), "tail\ntail\n");

  std::string deep = dir_ / "a/b/c";
  EXPECT_EQ(i_MKDIR(deep.c_str()), 0);
  EXPECT_EQ(i_MKDIR(deep.c_str()), 0);
  EXPECT_TRUE(std::filesystem::is_directory(deep));
  EXPECT_EQ(i_MKDIR(to.c_str()), ENOTDIR);
  EXPECT_EQ(i_MKDIR((to + "/sub").c_str()), ENOTDIR);

  char cwd[4096], dir[4096];
  ASSERT_TRUE(getcwd(cwd, sizeof cwd));
  EXPECT_EQ(i_GET_DIR(dir, sizeof dir), 0);
  EXPECT_STREQ(dir, cwd);
  EXPECT_EQ(i_GET_DIR(dir, static_cast<int32_t>(strlen(cwd))), ERANGE);
  EXPECT_STREQ(dir, "");

  std::string script = dir_ / "run.sh";
  tvutest::WriteFile(script, "#!/bin/sh\n");
  chmod(script.c_str(), 0755);
  EXPECT_EQ(bIsFileExecutable(script.c_str()), 1);
  chmod(script.c_str(), 0644);
  EXPECT_EQ(bIsFileExecutable(script.c_str()), 0);
  EXPECT_EQ(bIsFileExecutable(dir_.path().c_str()), 0);
  EXPECT_EQ(bIsFileExecutable((dir_ / "missing").c_str()), 0);

  // Only refusals: a test must never relabel the file system it runs on.
  char msg[256] = "";
  EXPECT_EQ(i_SET_VOLUME_LABEL((dir_ / "missing").c_str(), "BACKUP", msg, sizeof msg), ENOENT);
  EXPECT_EQ(std::string(msg), "open " + (dir_ / "missing") + ": No such file or directory");
  EXPECT_EQ(i_SET_VOLUME_LABEL(dir_.path().c_str(), std::string(300, 'L').c_str(), msg, sizeof msg), ENAMETOOLONG);
  EXPECT_STREQ(msg, "label longer than 255 characters");
}

TEST(HalExports, ModuleExportsExactlyItsInterface) {
  FILE* p = popen("nm -D --defined-only " TVU_BINARY_DIR "/libtvu_con.so", "r");
  ASSERT_TRUE(p);
  std::set<std::string> names;
  char type, name[256];
  unsigned long long value;
  char line[512];
  while (fgets(line, sizeof line, p))
    if (sscanf(line, "%llx %c %255s", &value, &type, name) == 3) names.insert(name);
  pclose(p);
  std::set<std::string> expected = {
      "g_tq_log_ptr", "iRshAccess", "iSshAccess", "iTqSshAccess", "iCtrldAccess", "i_ASYNC_RCMD", "i_RCMD_GetExit",
      "start_proc", "start_system", "start_system_tee", "pid_exist", "i_KILL_TVU", "file_copy", "file_append",
      "i_GET_DIR", "i_MKDIR", "i_SET_VOLUME_LABEL", "bIsFileExecutable"};
  for (const char* db : {"CloseItem", "CloseOperation", "DirItem", "GetError", "GetInfo", "GetItem", "InitOperation",
                         "ItemFinishStatus", "OpenItem", "ReadBlock", "Results", "SetError", "SetItem", "SetLog",
                         "SetTrace", "WriteBlock"})
    expected.insert(std::string("DB_") + db);
  EXPECT_EQ(names, expected);
}

}  // namespace
