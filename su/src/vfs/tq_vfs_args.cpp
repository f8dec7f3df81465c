// tq_vfs_args.cpp - reading "consolidate.arg" and the saveset list.
#include "vfs/tq_vfs_args.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "report/tvu_report.h"
#include "runtime/ini.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "vfs/tq_vfs_common.h"

namespace {

void CopyCut(char* dst, size_t cap, const std::string& src) {
  size_t n = src.size() < cap - 1 ? src.size() : cap - 1;
  memcpy(dst, src.data(), n);
  dst[n] = '\0';
}

int32_t DataTypeFromText(const std::string& value, int32_t current) {
  if (value == "mtf") return sdtMTF;
  if (value == "cpio") return sdtCPIO;
  if (value == "dump") return sdtDUMP;
  if (value == "none") return sdtNONE;
  return current;  // any other value leaves the type as it was
}

// A malformed saveset line: reported in the status file, the trace and on the
// standard error stream, then the process ends.
[[noreturn]] void SavesetLineFatal(const char* what, const char* line) {
  char message[2048];
  snprintf(message, sizeof message, "%s [%s]", what, line);
  WRITE_TRACE(1, "ERROR: %s", message);
  fprintf(stderr, "ERROR: %s\n", message);
  tvu_fatal("%s", message);
}

}  // namespace

int ReadConsolidateArgs(CON_ARGS* args, const char* metaDir) {
  std::string path = std::string(metaDir) + "consolidate.arg";
  FILE* fp = pf::FOpen(path.c_str(), "r");
  if (!fp) {
    tvu_log_error("Cannot read from [%s]", path.c_str());
    return 1;
  }
  std::string key, value;
  // Line pairs: a key line whose second character names the argument, then
  // its value line.  A key line without a value line is ignored.
  while (korvo::read_line(fp, &key)) {
    if (!korvo::read_line(fp, &value)) break;
    char name = key.size() >= 2 ? key[1] : '\0';
    switch (name) {
      case 'f':
        CopyCut(args->szSavesetList, sizeof args->szSavesetList, value);
        args->bSavesetList = 1;
        break;
      case 'l':
        CopyCut(args->pszCatalogPath, args->uiCatalogPathCap + 1, korvo::resolve_path(value));
        args->bCatalogPath = 1;
        break;
      case 'o':
        // The two options are exclusive; "fullcbt=1" wins.
        if (value.find("fullcbt=1") != std::string::npos) {
          gVOPTIONS.iFullCbt = 0;
        } else if (value.find("no_vmdk_search=1") != std::string::npos) {
          gVOPTIONS.iNo_vmdk_search = 1;
          tvu_log(TQ_LOG_PROGRESS, "SET gVOPTIONS.iNo_vmdk_search");
        }
        break;
      case 'r':
        CopyCut(args->szRootPath, sizeof args->szRootPath, korvo::resolve_path(value));
        args->bRootPath = 1;
        break;
      case 't':
        args->iSavesetType = DataTypeFromText(value, args->iSavesetType);
        args->bSavesetType = 1;
        break;
      default:
        break;  // unknown keys are read and ignored with their value line
    }
  }
  fclose(fp);
  return 0;
}

void ReadTransferType(uint32_t port, char* out) {
  std::string dir = korvo::resolve_path("gv_rw_ini:xfpd_conf/");
  char suffix[32];
  snprintf(suffix, sizeof suffix, "_%d.ini", static_cast<int>(port) - 11701);

  // The first entry whose name holds the suffix, cut right after it; when no
  // entry does, the last one examined.
  std::vector<std::string> names;
  std::string chosen;
  if (pf::ListDirectory((dir + "*.*").c_str(), &names) != 0) {
    printf("ERROR path not found: %s\n", dir.c_str());
  }
  for (const std::string& name : names) {
    chosen = name;
    size_t at = name.find(suffix);
    if (at != std::string::npos) {
      chosen = name.substr(0, at + strlen(suffix));
      break;
    }
  }
  std::string ini = dir + chosen;
  WRITE_TRACE(1, "Reading from INI: %s ", ini.c_str());
  char value[10] = "";
  char error[1024] = "";
  int rc = korvo::i_GetPrivateProfileString("[DEDUP]", "http_type", value, sizeof value, ini.c_str(), error,
                                            sizeof error);
  snprintf(out, 10, "%s", rc == 1 ? value : "hyper");
}

void ReadSavesetLine(int32_t iIndex, const char* rawLine) {
  std::string line(rawLine);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  WRITE_TRACE(1, "extractSaveset %s", line.c_str());

  SAVESET entry;
  memset(&entry, 0, sizeof entry);
  entry.iDedupHandle = -1;

  if (line.find("vk4:") != std::string::npos || line.find("vk4ng:") != std::string::npos) {
    std::vector<std::string> fields;
    size_t start = 0;
    for (;;) {
      size_t colon = line.find(':', start);
      fields.push_back(line.substr(start, colon == std::string::npos ? std::string::npos : colon - start));
      if (colon == std::string::npos) break;
      start = colon + 1;
    }
    entry.uiMediaType = fields[0].compare(0, 5, "vk4ng") == 0 ? smVK4NG : smVK4;
    if (fields.size() < 2 || fields[1].empty()) SavesetLineFatal("Missing VK4/VK4NG saveset name", line.c_str());
    if (fields.size() < 3 || fields[2].empty())
      SavesetLineFatal("Missing VK4/VK4NG saveset dedup hostname", line.c_str());
    if (fields.size() < 4 || fields[3].empty())
      SavesetLineFatal("Missing VK4/VK4NG saveset dedup hostname port", line.c_str());
    entry.szName = safe_strdup(fields[1].c_str());
    entry.szDedupHost = safe_strdup(fields[2].c_str());
    entry.uiDedupPort = static_cast<uint32_t>(atoi(fields[3].c_str()));
    ReadTransferType(entry.uiDedupPort, entry.szHttpType);
    // The wording is chosen by the port field, which never holds "vk4ng:".
    if (fields[3].find("vk4ng:") == std::string::npos)
      WRITE_TRACE(1, "vk4 dedup saveset: %s", entry.szName);
    else
      WRITE_TRACE(1, "vk4ng dedup saveset: %s", entry.szName);
  } else if (line.find("hpe:") != std::string::npos) {
    WRITE_TRACE(1, "Built without CATALYST_STORE support");
    fprintf(stderr, "ERROR: Built without CATALYST_STORE support\n");
    tvu_fatal("Built without CATALYST_STORE support");
  } else {
    entry.uiMediaType = smFILE;
    entry.szName = safe_strdup(line.c_str());
    korvo::szPath2Dos(entry.szName);
    WRITE_TRACE(1, "filesystem saveset: %s", entry.szName);
  }
  (void)iIndex;
  saveset_append(entry);
}
