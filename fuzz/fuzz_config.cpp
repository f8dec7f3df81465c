// fuzz_config.cpp - the configuration the module reads before it starts:
// the product INI file with resolve_path, "consolidate.arg" and the saveset
// list's lines.  The first byte picks which; the rest is the file.
#include <cstdlib>
#include <string>

#include "fuzz_util.h"
#include "report/tvu_report.h"
#include "runtime/ini.h"
#include "vfs/tq_vfs_args.h"
#include "vfs/tq_vfs_chain.h"
#include "vfs/tq_vfs_saveset.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const std::string& dir = tvufuzz::ScratchDir();
  try {
    switch (data[0] % 3) {
      case 0: {
        const std::string ini = tvufuzz::WriteScratch("tq.ini", data + 1, size - 1);
        setenv("TQ_INI", ini.c_str(), 1);
        char value[4096], reason[256];
        korvo::i_READ_INI("TQ_INI", "[pathes]", "gv_rw_tqslis", value, sizeof value, reason, sizeof reason);
        korvo::i_GetPrivateProfileString("[DEDUP]", "http_type", value, 10, ini.c_str(), reason, sizeof reason);
        korvo::resolve_path(std::string("gv_rw_ini:xfpd_conf/"));
        korvo::resolve_path(std::string("gv_rw_tqslis:x/y"));
        break;
      }
      case 1: {
        tvufuzz::WriteScratch("consolidate.arg", data + 1, size - 1);
        ResetConsolidationArgs();
        ReadConsolidateArgs(ConsolidationArgs(), (dir + "/").c_str());
        break;
      }
      default: {
        // One saveset-list line at a time, as the list reader hands them over.
        std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
        size_t from = 0;
        while (from <= text.size()) {
          size_t nl = text.find('\n', from);
          if (nl == std::string::npos) nl = text.size();
          const std::string line = text.substr(from, nl - from);
          if (line.find('\0') == std::string::npos) ReadSavesetLine(g_iSavesetCount, line.c_str());
          from = nl + 1;
        }
        break;
      }
    }
  } catch (const TvuFatalError&) {
  }
  saveset_table_free();
  return 0;
}
