// tvucon_tree.cpp - the tree commands of tvucon.
#include "tvucon/tvucon_tree.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/platform.h"
#include "runtime/text.h"
#include "tvucon/tvucon_progress.h"
#include "vfs/tq_vfs_check.h"
#include "tvu_con.h"
#include "tvucon/tvucon_mount.h"
#include "vfs/tq_vfs_api.h"

namespace {

constexpr uint64_t kChunk = 1 << 20;

std::string TimeText(time_t t) {
  if (t == 0) return "-";
  char text[32];
  struct tm tm;
  pf::LocalTime(t, &tm);
  strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
  return text;
}

nlohmann::json EntryJson(const tvu::NodeInfo& e) {
  nlohmann::json j = {{"path", e.path}, {"name", e.name}, {"type", std::string(1, e.isDir && e.type != 'd' ? 'd' : e.type)},
                      {"size", e.size}, {"mtime", static_cast<int64_t>(e.mtime)}, {"ctime", static_cast<int64_t>(e.ctime)},
                      {"source", e.source}};
  if (!e.isDir) {
    j["saveset"] = e.saveset;
    j["saveset_index"] = e.savesetIdx;
    j["saveset_offset"] = e.savesetOffset;
    j["relative_offset"] = e.relOffset;
  }
  if (e.fileId) j["file_id"] = e.fileId;
  return j;
}

bool g_json = false;

// One line per entry: type, size, modification time, where the newest copy
// lies, name (or one JSON object).
void PrintEntry(FILE* out, const tvu::NodeInfo& e, const std::string& name) {
  if (g_json) {
    fprintf(out, "%s\n", EntryJson(e).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    return;
  }
  fprintf(out, "%c %12" PRIu64 " %s %-22s %10" PRIu64 " %8" PRId64 "  %s\n", e.isDir ? 'd' : e.type, e.size,
         TimeText(e.mtime).c_str(), e.saveset.empty() ? "-" : e.saveset.c_str(), e.savesetOffset, e.relOffset,
         name.c_str());
}

int Fail(const std::string& what, int err) {
  fprintf(stderr, "tvucon: %s: %s\n", what.c_str(), strerror(err));
  return 1;
}

int LsOne(const std::string& path, bool header, FILE* out) {
  tvu::NodeInfo self;
  int rc = tvu::Stat(path, &self);
  if (rc != 0) return Fail(path, rc);
  if (!self.isDir) {
    PrintEntry(out, self, self.path);
    return 0;
  }
  std::vector<tvu::NodeInfo> entries;
  rc = tvu::List(path, &entries);
  if (rc != 0) return Fail(path, rc);
  if (header && !g_json) fprintf(out, "%s:\n", path.c_str());
  for (const auto& e : entries) PrintEntry(out, e, e.name);
  return 0;
}

// Every path is served; a failing one does not stop the others, and makes
// the exit status 1.
int CmdLs(const TvuconOptions& o, FILE* out) {
  int status = 0;
  for (const std::string& p : o.paths) status |= LsOne(p, o.paths.size() > 1, out);
  return status;
}

int StatOne(const std::string& path, FILE* out) {
  tvu::NodeInfo n;
  int rc = tvu::Stat(path, &n);
  if (rc != 0) return Fail(path, rc);
  if (g_json) {
    fprintf(out, "%s\n", EntryJson(n).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    return 0;
  }
  fprintf(out, "path: %s\ntype: %c\nsize: %" PRIu64 "\nctime: %s\nmtime: %s\nsource: %" PRId64 "\n", n.path.c_str(),
         n.type, n.size, TimeText(n.ctime).c_str(), TimeText(n.mtime).c_str(), n.source);
  if (!n.isDir)
    fprintf(out, "saveset: %s (index %d)\nsaveset offset: %" PRIu64 "\nrelative offset: %" PRId64 "\n",
            n.saveset.c_str(), n.savesetIdx, n.savesetOffset, n.relOffset);
  if (n.fileId) fprintf(out, "file id: %" PRIu64 "\n", n.fileId);
  return 0;
}

int CmdStat(const TvuconOptions& o, FILE* out) {
  int status = 0;
  for (size_t i = 0; i < o.paths.size(); ++i) {
    if (i > 0 && !g_json) fputc('\n', out);
    status |= StatOne(o.paths[i], out);
  }
  return status;
}

// Copies a file's bytes to an open stream; the count must reach the size.
int CopyFile(LIS_NODE* node, const tvu::NodeInfo& info, FILE* out, const std::string& what) {
  // An item its stream does not hold is no empty file.
  if (info.unreadable) return Fail(what, EIO);
  std::unique_ptr<char[]> buf(new char[kChunk]);
  uint64_t done = 0;
  while (done < info.size) {
    int64_t got = tvu::Read(node, done, buf.get(), kChunk);
    if (got < 0) return Fail(what, static_cast<int>(-got));
    if (got == 0) {
      fprintf(stderr, "tvucon: %s: the saveset ended after %" PRIu64 " of %" PRIu64 " bytes\n", what.c_str(), done,
              info.size);
      return 1;
    }
    if (fwrite(buf.get(), 1, static_cast<size_t>(got), out) != static_cast<size_t>(got)) return Fail(what, errno);
    done += static_cast<uint64_t>(got);
  }
  return 0;
}

int CatOne(const std::string& path, FILE* out) {
  LIS_NODE* node = nullptr;
  int rc = tvu::Lookup(path, &node);
  if (rc != 0) return Fail(path, rc);
  tvu::NodeInfo info = tvu::Describe(node, path);
  if (info.isDir) return Fail(path, EISDIR);
  return CopyFile(node, info, out, path);
}

int CmdCat(const TvuconOptions& o, FILE* out) {
  setvbuf(out, nullptr, _IONBF, 0);
  int status = 0;
  for (const std::string& p : o.paths) status |= CatOne(p, out);
  return status;
}

int Walk(const std::string& path, int (*visit)(const tvu::NodeInfo&, const std::string&, void*), void* ctx) {
  std::vector<tvu::NodeInfo> entries;
  int rc = tvu::List(path, &entries);
  if (rc != 0) return Fail(path, rc);
  for (const auto& e : entries) {
    if (visit(e, e.path, ctx) != 0) return 1;
    if (e.isDir && Walk(e.path, visit, ctx) != 0) return 1;
  }
  return 0;
}

struct FindContext {
  FILE* out;
  bool paths;
  char end;
  uint64_t items = 0;
  Progress* progress;
};

int CmdFind(const TvuconOptions& o, FILE* out) {
  uint64_t lines = tvu::BuildAll();
  if (!o.quiet) fprintf(stderr, "tvucon: complete tree built from %" PRIu64 " catalog lines\n", lines);
  // Lines of the listing go out in large writes.
  static char buffer[1 << 16];
  setvbuf(out, buffer, _IOFBF, sizeof buffer);
  Progress progress(o.progress, "find", "items", 0);
  FindContext ctx{out, o.findPaths, o.nul ? '\0' : '\n', 0, &progress};
  int status = 0;
  for (const std::string& top : o.paths) {
    tvu::NodeInfo self;
    int rc = tvu::Stat(top, &self);
    if (rc != 0) {
      status = Fail(top, rc);
      continue;
    }
    // find(1) prints the starting point itself first.
    if (ctx.paths) {
      fputs(top.c_str(), out);
      fputc(ctx.end, out);
    }
    if (!self.isDir) {
      if (!ctx.paths) PrintEntry(out, self, self.path);
      continue;
    }
    status |= Walk(top, [](const tvu::NodeInfo& e, const std::string& p, void* c) {
      auto* x = static_cast<FindContext*>(c);
      if (x->paths) {
        fputs(p.c_str(), x->out);
        fputc(x->end, x->out);
      } else {
        PrintEntry(x->out, e, p);
      }
      x->progress->Update(++x->items);
      return 0;
    }, &ctx);
  }
  progress.Done();
  return status;
}

struct ExportContext {
  std::string from;
  std::string to;
  bool force = false;
  uint64_t files = 0, bytes = 0;
  Progress* progress = nullptr;
  std::vector<std::pair<std::string, time_t>> folderTimes;  // set last: their files change them
};

// The catalog's modification time on the copy (access time alike).
int SetTimes(const std::string& target, time_t mtime) {
  if (mtime == 0) return 0;
  return pf::SetFileTimes(target.c_str(), mtime);
}

int CmdExport(const TvuconOptions& o, uint64_t total) {
  Progress progress(o.progress, "export", "bytes", total);
  ExportContext ctx;
  ctx.from = o.path == "/" ? "" : o.path;
  ctx.to = o.destination;
  ctx.force = o.force;
  ctx.progress = &progress;
  if (pf::MakeDirs(o.destination.c_str()) != 0) return Fail(o.destination, errno);
  tvu::NodeInfo top;
  int rc = tvu::Stat(o.path, &top);
  if (rc != 0) return Fail(o.path, rc);
  auto visit = [](const tvu::NodeInfo& e, const std::string& p, void* c) {
    auto* x = static_cast<ExportContext*>(c);
    std::string target = x->to + p.substr(x->from.size());
    if (e.isDir) {
      if (pf::MakeDirs(target.c_str()) != 0) return Fail(target, errno);
      x->folderTimes.emplace_back(target, e.mtime);
      return 0;
    }
    if (!x->force && pf::PathExists(target.c_str())) {
      fprintf(stderr, "tvucon: %s exists; not overwriting it (--force does)\n", target.c_str());
      return 1;
    }
    LIS_NODE* node = nullptr;
    int err = tvu::Lookup(p, &node);
    if (err != 0) return Fail(p, err);
    FILE* out = pf::FOpen(target.c_str(), "wb");
    if (!out) return Fail(target, errno);
    int result = CopyFile(node, e, out, p);
    if (fclose(out) != 0 && result == 0) result = Fail(target, errno);
    if (result == 0 && (err = SetTimes(target, e.mtime)) != 0) result = Fail(target, err);
    ++x->files;
    x->bytes += e.size;
    x->progress->Update(x->bytes);
    return result;
  };
  if (!top.isDir) {
    ctx.from = top.path.substr(0, top.path.rfind('/'));
    return visit(top, top.path, &ctx);
  }
  ctx.folderTimes.emplace_back(o.destination, top.mtime);
  rc = Walk(o.path, visit, &ctx);
  // Folders get their times after their contents were written (deepest first).
  for (auto it = ctx.folderTimes.rbegin(); it != ctx.folderTimes.rend(); ++it) SetTimes(it->first, it->second);
  progress.Done();
  if (rc == 0 && !o.quiet)
    fprintf(stderr, "tvucon: exported %" PRIu64 " files, %" PRIu64 " bytes to %s\n", ctx.files, ctx.bytes,
            o.destination.c_str());
  return rc;
}

// Reads the rules file the way the tree will and warns, with file and line,
// about what the tree will pass over: unknown rules (the format ignores
// them) and rules without a source in double quotes.  False, with a message,
// when the file cannot be read at all.
bool LintRules(const std::string& path) {
  FILE* fp = pf::FOpen(path.c_str(), "r");
  if (!fp) {
    fprintf(stderr, "tvucon: cannot read the rules file %s: %s\n", path.c_str(), pf::ErrorText(pf::LastError()).c_str());
    return false;
  }
  static const char* const kRules[] = {"MAPTO", "LOCALFS", "SAVESET", "BITMERGE_FULL", "BITMERGE_INC",
                                       "SAVESET2VHD", "VHDXMERGE", "LIS", "BITMERGE_BITMAP"};
  std::string line;
  int lineNo = 0;
  while (korvo::read_line(fp, &line)) {
    ++lineNo;
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') continue;
    line.erase(0, first);
    const std::string token = line.substr(0, line.find(' '));
    bool known = false;
    for (const char* rule : kRules) known = known || token == rule;
    if (!known) {
      fprintf(stderr, "tvucon: %s:%d: warning: unknown rule \"%s\" is ignored\n", path.c_str(), lineNo, token.c_str());
    } else if (std::count(line.begin(), line.end(), '"') < 2) {
      fprintf(stderr, "tvucon: %s:%d: warning: %s rule without a %s in double quotes is ignored\n", path.c_str(),
              lineNo, token.c_str(), token == "MAPTO" ? "folder" : "source");
    }
  }
  fclose(fp);
  return true;
}

}  // namespace

bool IsTreeCommand(const std::string& c) {
  return c == "ls" || c == "stat" || c == "cat" || c == "find" || c == "export" || c == "mount";
}

int RunTreeCommand(const TvuconOptions& o, DB_TEXT_FN traceHook, FILE* out) {
  // The tree is read by this process's own copy of the library; its log
  // lines reach vttvu_log like the module's.
  DB_SetLog(nullptr);
  DB_SetTrace(traceHook);
  tvu::TreeOptions options;
  options.saveset = o.saveset;
  options.buildCache = o.buildCache;
  options.rulesFile = o.rules;
  options.rct = o.rct;
  std::string error;
  g_json = o.json;
  if (!o.rules.empty() && !LintRules(o.rules)) return 1;
  time_t folderTime = 0;
  uint64_t treeBytes = 0;
  {
    // Name what is missing (the consolidation, its catalog, a saveset)
    // rather than the tree's bare failure.
    tvu::ChainPlan plan;
    if (plan.Open(o.saveset, &error) != 0) {
      fprintf(stderr, "tvucon: %s\n", error.c_str());
      return 1;
    }
    const std::string missing = plan.Unreadable();
    if (!missing.empty()) {
      fprintf(stderr, "tvucon: cannot open the tree of %s: %s\n", o.saveset.c_str(), missing.c_str());
      return 1;
    }
    // The tree's data size: what df shows of a mount, and the total of an
    // export of the whole tree (known before its first byte).
    const bool wholeExport = o.command == "export" && o.path == "/" && o.progress != "none";
    if (o.command == "mount" || wholeExport) {
      time_t ctime = 0;
      pf::FileTimes(plan.CatalogPath().c_str(), &ctime, &folderTime);
      tvu::CheckSummary summary;
      if (plan.Check(false, &summary) == 0) treeBytes = summary.dataBytes;
    }
  }
  int rc = tvu::Open(options, &error);
  if (rc != 0) {
    fprintf(stderr, "tvucon: cannot open the tree of %s: %s\n", o.saveset.c_str(), error.c_str());
    return 1;
  }
  int status;
  if (o.command == "ls") status = CmdLs(o, out);
  else if (o.command == "stat") status = CmdStat(o, out);
  else if (o.command == "cat") status = CmdCat(o, out);
  else if (o.command == "find") status = CmdFind(o, out);
  else if (o.command == "export") status = CmdExport(o, o.path == "/" ? treeBytes : 0);
  else {
    status = TvuconMount(o.path, o.foreground, o.debug, folderTime, treeBytes, &error) == 0 ? 0 : 1;
    if (status != 0) fprintf(stderr, "tvucon: mount %s: %s\n", o.path.c_str(), error.c_str());
  }
  tvu::Close();
  return status;
}
