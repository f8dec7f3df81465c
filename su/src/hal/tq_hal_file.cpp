// tq_hal_file.cpp - local files and folders: atomic copy, append, working
// folder, folder creation, volume label, executable check.
#include <cerrno>
#include <string>
#include <vector>

#include "hal/tq_hal.h"
#include "platform/platform.h"
#include "runtime/strutil.h"
#include "runtime/trace.h"

namespace hal {
namespace {

constexpr uint64_t kCopyChunk = 1u << 20;

// Copies all of `from` to `to` from their current positions.
int CopyBytes(pf::File* from, pf::File* to) {
  std::vector<char> buf(kCopyChunk);
  for (;;) {
    uint64_t got = 0;
    if (int e = pf::FileRead(from, buf.data(), buf.size(), &got)) return e;
    if (got == 0) return 0;
    if (int e = pf::FileWrite(to, buf.data(), got)) return e;
    if (got < buf.size()) return 0;
  }
}

}  // namespace
}  // namespace hal

extern "C" {

TVU_EXPORT int32_t file_copy(const char* szFrom, const char* szTo) {
  if (!szFrom || !szTo || !*szFrom || !*szTo) return EINVAL;
  if (pf::IsDirectory(szTo)) return EISDIR;
  pf::File* from = nullptr;
  if (int e = pf::FileOpenRead(szFrom, &from)) return e;
  pf::File* to = nullptr;
  std::string temp;
  int e = pf::FileCreateTempBeside(szTo, &to, &temp);
  if (e == 0) {
    e = hal::CopyBytes(from, to);
    if (e == 0) e = pf::FileCopyPermissions(from, to);
    if (e == 0) e = pf::FileSync(to);
    pf::FileClose(to);
    if (e == 0) e = pf::RenameFile(temp.c_str(), szTo);
    if (e != 0) pf::RemoveFile(temp.c_str());
  }
  pf::FileClose(from);
  if (e != 0) WRITE_TRACE(1, "file_copy: %s -> %s: %s", szFrom, szTo, pf::ErrorText(e).c_str());
  return e;
}

TVU_EXPORT int32_t file_append(const char* szFrom, const char* szTo) {
  if (!szFrom || !szTo || !*szFrom || !*szTo) return EINVAL;
  pf::File* from = nullptr;
  if (int e = pf::FileOpenRead(szFrom, &from)) return e;
  pf::File* to = nullptr;
  int e = pf::FileOpenAppend(szTo, &to);
  if (e == 0) {
    uint64_t size = 0;
    e = pf::FileSeek(to, 0, 2, &size);
    if (e == 0) {
      e = hal::CopyBytes(from, to);
      if (e != 0) pf::FileTruncate(to, size);  // no half-appended tail
    }
    pf::FileClose(to);
  }
  pf::FileClose(from);
  if (e != 0) WRITE_TRACE(1, "file_append: %s -> %s: %s", szFrom, szTo, pf::ErrorText(e).c_str());
  return e;
}

TVU_EXPORT int32_t i_GET_DIR(char* szDir, int32_t iDirSize) {
  if (!szDir || iDirSize <= 0) return EINVAL;
  szDir[0] = '\0';
  std::string dir;
  if (int e = pf::CurrentDir(&dir)) return e;
  if (dir.size() >= static_cast<size_t>(iDirSize)) return ERANGE;
  korvo::detail::CopyCut(dir, szDir, static_cast<size_t>(iDirSize));
  return 0;
}

TVU_EXPORT int32_t i_MKDIR(const char* szPath) {
  if (!szPath || !*szPath) return EINVAL;
  int e = pf::MakeDirs(szPath);
  if (e == 0 && !pf::IsDirectory(szPath)) e = ENOTDIR;
  if (e != 0) WRITE_TRACE(1, "i_MKDIR: %s: %s", szPath, pf::ErrorText(e).c_str());
  return e;
}

TVU_EXPORT int32_t i_SET_VOLUME_LABEL(const char* szVolume, const char* szLabel, char* szMsg, int32_t iMsgSize) {
  std::string why;
  int e = !szVolume || !szLabel || !*szVolume ? EINVAL : pf::SetVolumeLabel(szVolume, szLabel, &why);
  if (e == EINVAL && why.empty()) why = "no volume or label given";
  if (szMsg && iMsgSize > 0) korvo::detail::CopyCut(why, szMsg, static_cast<size_t>(iMsgSize));
  if (e != 0) WRITE_TRACE(1, "i_SET_VOLUME_LABEL: %s", why.c_str());
  return e;
}

TVU_EXPORT int32_t bIsFileExecutable(const char* szPath) { return szPath && pf::IsExecutableFile(szPath) ? 1 : 0; }

}  // extern "C"
