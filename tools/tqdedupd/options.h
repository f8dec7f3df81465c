// options.h - the command line of tqdedupd.
#ifndef TQDEDUPD_OPTIONS_H
#define TQDEDUPD_OPTIONS_H

#include <cstdint>
#include <string>

namespace tqdedupd {

// Everything the command line can set.  Fault switches are 0 when off.
struct Options {
  std::string dir;                 // folder whose files are the objects
  std::string host = "127.0.0.1";  // address to listen on
  int port = 11701;                // 0: let the OS choose
  std::string portFile;            // where to write the actual port ("" = none)
  int maxSessions = 64;            // open sessions allowed at once, server-wide
  int32_t firstConid = 1;          // session id of the first session; 0 is a valid id
  std::string logFile;             // request log ("" = standard error)

  uint64_t failRecover = 0;      // the Nth recover call fails (1-based)
  uint64_t failSkip = 0;         // the Nth skip call fails (1-based)
  uint64_t closeAfterBytes = 0;  // drop a connection once it has sent this much
  bool closeAfterSet = false;    // --close-after-bytes given (0 is a valid limit)
  uint32_t delayMs = 0;          // pause before every reply
  uint32_t extraBytes = 0;       // recover returns up to this many bytes more
  bool probeOnly = false;        // accept one TCP connection, serve no Thrift
};

// Outcome of parsing: run, print the usage and exit 0, or fail with a message.
enum class ParseResult { kRun, kHelp, kError };

// Parses argv into *out; on kError *error says what is wrong.
ParseResult ParseOptions(int argc, char** argv, Options* out, std::string* error);

extern const char kUsage[];

}  // namespace tqdedupd

#endif
