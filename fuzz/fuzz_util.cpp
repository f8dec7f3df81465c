// fuzz_util.cpp - scratch files and the saveset table for the fuzz targets.
#include "fuzz_util.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <vector>

#include "platform/platform.h"
#include "report/tvu_report.h"
#include "vfs/tq_vfs_api.h"
#include "vfs/tq_vfs_cache.h"
#include "vfs/tq_vfs_init.h"
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

namespace {

// A newc CPIO record of a regular file (or, for data "", a folder-less empty
// file: the walker goes by the catalog's type, not the mode).
std::string Record(const std::string& name, const std::string& data) {
  char head[111];
  const std::string n = name + '\0';
  snprintf(head, sizeof head, "070701%08X%08X%08X%08X%08X%08X%08zX%08X%08X%08X%08X%08zX%08X", 1u, 0100644u, 0u, 0u,
           1u, 0u, data.size(), 0u, 0u, 0u, 0u, n.size(), 0u);
  std::string r = std::string(head, 110) + n;
  while (r.size() % 4) r += '\0';
  r += data;
  while (r.size() % 4) r += '\0';
  return r;
}

std::string WriteText(const std::string& name, const std::string& text) {
  return WriteScratch(name, reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

}  // namespace

const std::string& SmallChainMetaDir() {
  static const std::string meta = [] {
    const std::string& dir = ScratchDir();
    const std::string made = dir + "/tqslis/CON_mnt/";
    const std::string mk = "mkdir -p '" + made + "'";
    if (system(mk.c_str()) != 0) abort();
    const std::string full = Record("d", "") + Record("d/a.txt", "hello") + Record("d/b.bin", std::string(3000, 'b'));
    const std::string incr = Record("d/a.txt", "hello again") + Record("vm/x.vmdk@0-512.cbt", std::string(512, 'v'));
    const std::string f = WriteText("SF20261101020000.cpio", full);
    const std::string i = WriteText("SI20261102020000.cpio", incr);
    setenv("TQ_INI", WriteText("tq.ini", "[pathes]\ngv_rw_tqslis=" + dir + "/tqslis/\n").c_str(), 1);
    WriteText("tqslis/CON_mnt/list.txt", f + "\n" + i + "\n");
    WriteText("tqslis/CON_mnt/consolidate.arg", "-f\n" + made + "list.txt\n-l\n" + made + "CON.lsl\n-t\ncpio\n");
    return made;
  }();
  return meta;
}

void SetSmallChainCatalog(const uint8_t* data, size_t size) {
  SmallChainMetaDir();
  WriteScratch("tqslis/CON_mnt/CON.lsl", data, size);
}

std::string SmallChainCatalog() {
  const char* times = "2026-11-01 01:59:00 2026-11-01 01:58:30";
  std::string c = "Tape ID: CON Tape Label: CON Format: CPIO LIS: 2.0\n";
  auto line = [&](const char* path, char type, const char* nums, const char* saveset) {
    c += std::string("\"") + path + "\" " + type + " " + times + " " + nums + " " + saveset + " \n";
  };
  line("d", 'd', "0 112 112 0 7 0", "SF20261101020000");
  line("d/a.txt", 'f', "0 120 132 11 7 0", "SI20261102020000");
  line("d/b.bin", 'f', "240 120 3120 3000 7 0", "SF20261101020000");
  line("vm/x.vmdk", 'R', "0 0 512 512 7 0", "SF20261101020000");
  line("vm/x.vmdk@0-512.cbt", 'f', "132 132 644 512 7 0", "SI20261102020000");
  return c;
}

void WalkSmallChainTree(const std::string& rulesFile, int maxNodes) {
  SmallChainMetaDir();
  tvu::TreeOptions options;
  options.saveset = "CON";
  options.rulesFile = rulesFile;
  static std::vector<char> buffer(64 * 1024);
  try {
    std::string error;
    if (tvu::Open(options, &error) == 0) {
      std::vector<std::string> todo{"/"};
      int seen = 0;
      while (!todo.empty() && seen < maxNodes) {
        const std::string dir = todo.back();
        todo.pop_back();
        std::vector<tvu::NodeInfo> entries;
        if (tvu::List(dir, &entries) != 0) continue;
        for (const tvu::NodeInfo& e : entries) {
          if (++seen > maxNodes) break;
          if (e.isDir) {
            todo.push_back(e.path);
            continue;
          }
          LIS_NODE* node;
          if (e.source == nsMAPPER || tvu::Lookup(e.path, &node) != 0) continue;
          const int64_t got = tvu::Read(node, 0, buffer.data(), buffer.size());
          if (got > static_cast<int64_t>(buffer.size())) abort();
        }
      }
      tvu::BuildAll();
    }
    tvu::Close();
  } catch (const TvuFatalError&) {
    // A fatal report in the middle of opening or reading: tear down what
    // stands, as the process end would have.
    TerminateVFS();
    ResetSavesets();
    tvu::Close();
  }
}

}  // namespace tvufuzz
