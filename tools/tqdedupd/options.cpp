// options.cpp - parses the command line of tqdedupd.
#include "tqdedupd/options.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace tqdedupd {

const char kUsage[] =
    "usage: tqdedupd --dir DIR [--port P] [--host ADDR] [--port-file FILE]\n"
    "                [--max-sessions N] [--first-conid N] [--log FILE]\n"
    "                [--fail-recover N] [--fail-skip N] [--close-after-bytes N]\n"
    "                [--delay-ms N] [--extra-bytes N] [--probe-only]\n"
    "\n"
    "Serves the files of DIR as dedup store objects (Thrift, framed, binary).\n"
    "  --port P               port to listen on (default 11701; 0 = any free port)\n"
    "  --host ADDR            address to listen on (default 127.0.0.1)\n"
    "  --port-file FILE       write the port actually used to FILE once listening\n"
    "  --max-sessions N       open recover sessions allowed at once (default 64)\n"
    "  --first-conid N        session id of the first session, counting up from it\n"
    "                         (default 1)\n"
    "  --log FILE             append the request log to FILE (default: standard error)\n"
    "  --fail-recover N       the Nth recover call fails with DataCorruptionException\n"
    "  --fail-skip N          the Nth skip call fails with SessionNotFound\n"
    "  --close-after-bytes N  close a connection instead of replying once it has\n"
    "                         sent N bytes of recover data\n"
    "  --delay-ms N           wait N milliseconds before every reply\n"
    "  --extra-bytes N        recover returns up to N bytes more than asked\n"
    "  --probe-only           accept one TCP connection, close it, stop listening\n"
    "                         and wait for SIGTERM (no Thrift service)\n";

namespace {

// Parses a decimal number in [min, max]; false on anything else.
bool ParseNumber(const char* text, uint64_t min, uint64_t max, uint64_t* out) {
  if (!text || !*text || *text == '-' || *text == '+') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long v = strtoull(text, &end, 10);
  if (errno != 0 || *end != '\0' || v < min || v > max) return false;
  *out = v;
  return true;
}

}  // namespace

ParseResult ParseOptions(int argc, char** argv, Options* out, std::string* error) {
  Options o;
  const uint64_t kIntMax = static_cast<uint64_t>(std::numeric_limits<int32_t>::max());
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") return ParseResult::kHelp;
    if (arg == "--probe-only") {
      o.probeOnly = true;
      continue;
    }
    if (arg.rfind("--", 0) != 0) {
      *error = "unexpected argument '" + arg + "'";
      return ParseResult::kError;
    }
    if (i + 1 >= argc) {
      *error = "option " + arg + " needs a value";
      return ParseResult::kError;
    }
    const char* value = argv[++i];
    uint64_t n = 0;
    // Checks and stores a numeric option; false (with *error set) when bad.
    auto number = [&](uint64_t min, uint64_t max) {
      if (ParseNumber(value, min, max, &n)) return true;
      *error = "bad value '" + std::string(value) + "' for " + arg + " (a number from " + std::to_string(min) +
               " to " + std::to_string(max) + ")";
      return false;
    };
    if (arg == "--dir") {
      o.dir = value;
    } else if (arg == "--host") {
      o.host = value;
    } else if (arg == "--port-file") {
      o.portFile = value;
    } else if (arg == "--log") {
      o.logFile = value;
    } else if (arg == "--port") {
      if (!number(0, 65535)) return ParseResult::kError;
      o.port = static_cast<int>(n);
    } else if (arg == "--max-sessions") {
      if (!number(1, kIntMax)) return ParseResult::kError;
      o.maxSessions = static_cast<int>(n);
    } else if (arg == "--first-conid") {
      // The last id is the store's "exhausted" mark, so at least one is left.
      if (!number(0, kIntMax - 1)) return ParseResult::kError;
      o.firstConid = static_cast<int32_t>(n);
    } else if (arg == "--fail-recover") {
      if (!number(1, UINT64_MAX)) return ParseResult::kError;
      o.failRecover = n;
    } else if (arg == "--fail-skip") {
      if (!number(1, UINT64_MAX)) return ParseResult::kError;
      o.failSkip = n;
    } else if (arg == "--close-after-bytes") {
      if (!number(0, UINT64_MAX)) return ParseResult::kError;
      o.closeAfterBytes = n;
      o.closeAfterSet = true;
    } else if (arg == "--delay-ms") {
      if (!number(0, 3600 * 1000)) return ParseResult::kError;
      o.delayMs = static_cast<uint32_t>(n);
    } else if (arg == "--extra-bytes") {
      // The client accepts frames up to 1 MiB above the largest reply.
      if (!number(0, 1024 * 1024)) return ParseResult::kError;
      o.extraBytes = static_cast<uint32_t>(n);
    } else {
      *error = "unknown option " + arg;
      return ParseResult::kError;
    }
  }
  if (o.dir.empty()) {
    *error = "--dir is required";
    return ParseResult::kError;
  }
  struct stat st;
  if (stat(o.dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    *error = "--dir " + o.dir + " is not a folder";
    return ParseResult::kError;
  }
  if (o.host.empty()) {
    *error = "--host must not be empty";
    return ParseResult::kError;
  }
  *out = o;
  return ParseResult::kRun;
}

}  // namespace tqdedupd
