// tvucon_options.h - the command line of the tvucon client.
//
// tvucon COMMAND [OPTIONS] [ARGUMENTS]; the options shared by every command
// (--saveset/-s, --ini, --module, --log-level, --trace-file, --quiet,
// --progress) may stand before or after the command, every option also as
// --opt=value, and "--" ends the options.  --help/-h (also after a command)
// and --version print on standard output and exit with 0.
#ifndef TVU_TOOLS_TVUCON_OPTIONS_H
#define TVU_TOOLS_TVUCON_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

struct TvuconOptions {
  std::string command;           // consolidate, check, info, ls, stat, cat, find, export, mount
  std::string module;            // module path; empty: the one beside tvucon
  std::string saveset;           // --saveset/-s
  std::string ini;               // --ini: product INI file (sets TQ_INI)
  std::string traceFile;         // --trace-file: where the trace hook writes
  int logLevel = 1500;           // --log-level: show log lines up to this level
  bool quiet = false;            // --quiet: no progress, no summary
  std::string progress = "auto"; // --progress: auto (bar on a terminal), bar, plain, none
  // consolidate
  std::string output = "-";      // --output/-o FILE or "-" for standard output
  uint32_t blockSize = 1u << 20; // --block-size
  bool raw = false;              // --raw: the module's stream without the closing trailer
  bool closeArchive = false;     // --close-archive: the trailer is required (a failure when impossible)
  bool noCheck = false;          // --no-check: stream without checking the chain first
  std::string catalogOut;        // --catalog FILE: the new saveset's catalog
  std::string catalogName;       // --catalog-name: the new saveset's name in it (default: --saveset)
  bool verify = false;           // --verify: check the stream's records while streaming
  bool resume = false;           // --resume-from given
  uint64_t resumeFrom = 0;       // --resume-from BYTES
  // check, ls, stat, find
  bool json = false;             // --json: one JSON object per line
  bool noRecords = false;        // check --no-records: the catalog only
  // tree commands
  std::vector<std::string> paths;  // ls, stat, cat, find: tree paths ("/" when none)
  std::string path = "/";        // export: tree path; mount: mount point
  std::string destination;       // export: local folder
  bool force = false;            // export --force: overwrite existing files
  bool findPaths = false;        // find --paths: one path per line
  bool nul = false;              // find -0: paths end with NUL, not a line end
  bool buildCache = false;       // --build-cache: build the whole tree first
  std::string rules;             // --rules: mapper rules file
  bool rct = false;              // --rct: Hyper-V RCT disks instead of VMDK disks and rules
  bool foreground = false;       // mount --foreground/-f
  bool debug = false;            // mount --debug
};

// Parses argv.  Returns -1 when the command should run; otherwise the exit
// status to end with: 0 after --help or --version were printed, 2 for a bad
// command line (the message is in *error).
int ParseTvuconOptions(int argc, char** argv, TvuconOptions* options, std::string* error);

#endif
