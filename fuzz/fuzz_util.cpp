// fuzz_util.cpp - scratch files and the saveset table for the fuzz targets.
#include "fuzz_util.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"
#include "vfs/tq_vfs_saveset.h"

namespace tvufuzz {

const std::string& ScratchDir() {
  static const std::string dir = [] {
    char tmpl[] = "/tmp/tvu_fuzz_XXXXXX";
    const char* made = mkdtemp(tmpl);
    if (!made) abort();
    return std::string(made);
  }();
  return dir;
}

std::string WriteScratch(const std::string& name, const uint8_t* data, size_t size) {
  const std::string path = ScratchDir() + "/" + name;
  FILE* fp = fopen(path.c_str(), "wb");
  if (!fp) abort();
  if (size > 0 && fwrite(data, 1, size, fp) != size) abort();
  fclose(fp);
  return path;
}

int32_t AddFileSaveset(const std::string& path) {
  SAVESET s;
  memset(&s, 0, sizeof s);
  s.uiMediaType = smFILE;
  s.szName = strdup(path.c_str());
  s.iDedupHandle = -1;
  const int32_t idx = saveset_append(s);
  saveset_init(idx);
  saveset_open(idx);
  return idx;
}

void ResetSavesets() {
  for (int32_t i = 0; i < g_iSavesetCount; ++i) {
    // A rejection may leave the operation mutex held; releasing one that is
    // not held fails harmlessly (error-checking mutexes).
    pf::MutexUnlock(g_psSavesets[i].hOpMutex);
    saveset_close(i);
  }
  saveset_table_free();
}

}  // namespace tvufuzz
