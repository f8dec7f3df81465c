// tvucon_options.cpp - command-line parsing of the tvucon client.
#include "tvucon/tvucon_options.h"

#include <cstdlib>
#include <cstring>

const char* TvuconUsage() {
  return "usage: tvucon consolidate --saveset NAME [--ini FILE] [--output FILE|-] [--block-size BYTES]\n"
         "                          [--close-archive] [--module PATH] [--trace-file FILE]\n"
         "                          [--log-level LEVEL] [--quiet]\n"
         "       tvucon info [--module PATH]\n"
         "       tvucon ls|stat|cat|find --saveset NAME [--ini FILE] [--rules FILE|--rct] [--build-cache] [PATH]\n"
         "       tvucon export --saveset NAME [--ini FILE] [--rules FILE|--rct] PATH FOLDER\n"
         "       tvucon mount --saveset NAME [--ini FILE] [--rules FILE|--rct] [--foreground] [--debug] MOUNTPOINT\n"
         "  tree paths: a catalog item a/b.txt is /a/b.txt; C:/x/y is /C/x/y\n";
}

static bool IsKnownCommand(const std::string& c) {
  return c == "consolidate" || c == "info" || c == "ls" || c == "stat" || c == "cat" || c == "find" ||
         c == "export" || c == "mount";
}

static bool ParseNumber(const char* text, unsigned long long max, unsigned long long* out) {
  if (!text || !*text) return false;
  char* end = nullptr;
  unsigned long long v = strtoull(text, &end, 10);
  if (*end != '\0' || v == 0 || v > max || text[0] == '-') return false;
  *out = v;
  return true;
}

bool ParseTvuconOptions(int argc, char** argv, TvuconOptions* o, std::string* error) {
  if (argc < 2) {
    *error = "missing command";
    return false;
  }
  o->command = argv[1];
  if (!IsKnownCommand(o->command)) {
    *error = "unknown command '" + o->command + "'";
    return false;
  }
  int positional = 0;
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) {
        *error = arg + " needs a value";
        return false;
      }
      *out = argv[++i];
      return true;
    };
    std::string v;
    if (arg == "--module") {
      if (!value(&o->module)) return false;
    } else if (arg == "--saveset") {
      if (!value(&o->saveset)) return false;
    } else if (arg == "--ini") {
      if (!value(&o->ini)) return false;
    } else if (arg == "--output") {
      if (!value(&o->output)) return false;
    } else if (arg == "--trace-file") {
      if (!value(&o->traceFile)) return false;
    } else if (arg == "--block-size") {
      unsigned long long n;
      if (!value(&v)) return false;
      // One read from a dedup store carries at most 64 MiB, and the module
      // serves each block with one read.
      if (!ParseNumber(v.c_str(), 64ull << 20, &n)) {
        *error = "--block-size must be a number of bytes from 1 to 67108864";
        return false;
      }
      o->blockSize = static_cast<uint32_t>(n);
    } else if (arg == "--log-level") {
      unsigned long long n;
      if (!value(&v)) return false;
      if (!ParseNumber(v.c_str(), 100000, &n)) {
        *error = "--log-level must be a positive number (1500 errors, 3500 progress, 4000 details)";
        return false;
      }
      o->logLevel = static_cast<int>(n);
    } else if (arg == "--close-archive") {
      o->closeArchive = true;
    } else if (arg == "--quiet") {
      o->quiet = true;
    } else if (arg == "--rules") {
      if (!value(&o->rules)) return false;
    } else if (arg == "--rct") {
      o->rct = true;
    } else if (arg == "--build-cache") {
      o->buildCache = true;
    } else if (arg == "--foreground") {
      o->foreground = true;
    } else if (arg == "--debug") {
      o->debug = true;
    } else if (arg.size() > 1 && arg[0] == '-' && arg[1] == '-') {
      *error = "unknown option '" + arg + "'";
      return false;
    } else if (o->command != "consolidate" && o->command != "info" && positional < 2) {
      (positional++ == 0 ? o->path : o->destination) = arg;
    } else {
      *error = "unknown option '" + arg + "'";
      return false;
    }
  }
  if (o->command != "info" && o->saveset.empty()) {
    *error = o->command + " needs --saveset NAME";
    return false;
  }
  if (o->command == "export" && positional != 2) {
    *error = "export needs a tree path and a local folder";
    return false;
  }
  if (o->command == "mount" && positional != 1) {
    *error = "mount needs a mount point";
    return false;
  }
  return true;
}
