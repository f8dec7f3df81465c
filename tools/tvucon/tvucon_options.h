// tvucon_options.h - the command line of the tvucon client.
#ifndef TVU_TOOLS_TVUCON_OPTIONS_H
#define TVU_TOOLS_TVUCON_OPTIONS_H

#include <cstdint>
#include <string>

struct TvuconOptions {
  std::string command;           // "consolidate" or "info"
  std::string module;            // module path; empty: the one beside tvucon
  std::string saveset;           // --saveset
  std::string ini;               // --ini: product INI file (sets TQ_INI)
  std::string output = "-";      // --output FILE or "-" for standard output
  std::string traceFile;         // --trace-file: where the trace hook writes
  uint32_t blockSize = 1u << 20; // --block-size
  int logLevel = 1500;           // --log-level: show log lines up to this level
  bool closeArchive = false;     // --close-archive
  bool quiet = false;            // --quiet: no progress line, no summary
  // Tree commands.
  std::string path = "/";        // tree path (ls, stat, cat, find, export) or mount point (mount)
  std::string destination;       // export: local folder
  bool buildCache = false;       // --build-cache: build the whole tree first
  std::string rules;             // --rules: mapper rules file
  bool rct = false;              // --rct: Hyper-V RCT disks instead of VMDK disks and rules
  bool foreground = false;       // mount --foreground
  bool debug = false;            // mount --debug
};

// Parses argv; on error returns false with a message in *error.
bool ParseTvuconOptions(int argc, char** argv, TvuconOptions* options, std::string* error);
const char* TvuconUsage();

#endif
