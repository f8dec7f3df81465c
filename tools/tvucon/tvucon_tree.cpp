// tvucon_tree.cpp - the tree commands of tvucon.
#include "tvucon/tvucon_tree.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "platform/platform.h"
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

// One line per entry: type, size, modification time, where the newest copy
// lies, name.
void PrintEntry(FILE* out, const tvu::NodeInfo& e, const std::string& name) {
  fprintf(out, "%c %12" PRIu64 " %s %-22s %10" PRIu64 " %8" PRId64 "  %s\n", e.isDir ? 'd' : e.type, e.size,
         TimeText(e.mtime).c_str(), e.saveset.empty() ? "-" : e.saveset.c_str(), e.savesetOffset, e.relOffset,
         name.c_str());
}

int Fail(const std::string& what, int err) {
  fprintf(stderr, "tvucon: %s: %s\n", what.c_str(), strerror(err));
  return 1;
}

int CmdLs(const TvuconOptions& o, FILE* out) {
  tvu::NodeInfo self;
  int rc = tvu::Stat(o.path, &self);
  if (rc != 0) return Fail(o.path, rc);
  if (!self.isDir) {
    PrintEntry(out, self, self.path);
    return 0;
  }
  std::vector<tvu::NodeInfo> entries;
  rc = tvu::List(o.path, &entries);
  if (rc != 0) return Fail(o.path, rc);
  for (const auto& e : entries) PrintEntry(out, e, e.name);
  return 0;
}

int CmdStat(const TvuconOptions& o, FILE* out) {
  tvu::NodeInfo n;
  int rc = tvu::Stat(o.path, &n);
  if (rc != 0) return Fail(o.path, rc);
  fprintf(out, "path: %s\ntype: %c\nsize: %" PRIu64 "\nctime: %s\nmtime: %s\nsource: %" PRId64 "\n", n.path.c_str(),
         n.type, n.size, TimeText(n.ctime).c_str(), TimeText(n.mtime).c_str(), n.source);
  if (!n.isDir)
    fprintf(out, "saveset: %s (index %d)\nsaveset offset: %" PRIu64 "\nrelative offset: %" PRId64 "\n",
            n.saveset.c_str(), n.savesetIdx, n.savesetOffset, n.relOffset);
  if (n.fileId) fprintf(out, "file id: %" PRIu64 "\n", n.fileId);
  return 0;
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

int CmdCat(const TvuconOptions& o, FILE* out) {
  LIS_NODE* node = nullptr;
  int rc = tvu::Lookup(o.path, &node);
  if (rc != 0) return Fail(o.path, rc);
  tvu::NodeInfo info = tvu::Describe(node, o.path);
  if (info.isDir) return Fail(o.path, EISDIR);
  setvbuf(out, nullptr, _IONBF, 0);
  return CopyFile(node, info, out, o.path);
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

int CmdFind(const TvuconOptions& o, FILE* out) {
  uint64_t lines = tvu::BuildAll();
  fprintf(stderr, "tvucon: complete tree built from %" PRIu64 " catalog lines\n", lines);
  return Walk(o.path, [](const tvu::NodeInfo& e, const std::string& p, void* ctx) {
    PrintEntry(static_cast<FILE*>(ctx), e, p);
    return 0;
  }, out);
}

struct ExportContext {
  std::string from;
  std::string to;
  uint64_t files = 0, bytes = 0;
};

int CmdExport(const TvuconOptions& o) {
  ExportContext ctx{o.path == "/" ? "" : o.path, o.destination};
  if (pf::MakeDirs(o.destination.c_str()) != 0) return Fail(o.destination, errno);
  tvu::NodeInfo top;
  int rc = tvu::Stat(o.path, &top);
  if (rc != 0) return Fail(o.path, rc);
  auto visit = [](const tvu::NodeInfo& e, const std::string& p, void* c) {
    auto* x = static_cast<ExportContext*>(c);
    std::string target = x->to + p.substr(x->from.size());
    if (e.isDir) return pf::MakeDirs(target.c_str()) == 0 ? 0 : Fail(target, errno);
    LIS_NODE* node = nullptr;
    int err = tvu::Lookup(p, &node);
    if (err != 0) return Fail(p, err);
    FILE* out = pf::FOpen(target.c_str(), "wb");
    if (!out) return Fail(target, errno);
    int result = CopyFile(node, e, out, p);
    if (fclose(out) != 0 && result == 0) result = Fail(target, errno);
    ++x->files;
    x->bytes += e.size;
    return result;
  };
  if (!top.isDir) {
    ctx.from = top.path.substr(0, top.path.rfind('/'));
    return visit(top, top.path, &ctx);
  }
  rc = Walk(o.path, visit, &ctx);
  if (rc == 0 && !o.quiet)
    fprintf(stderr, "tvucon: exported %" PRIu64 " files, %" PRIu64 " bytes to %s\n", ctx.files, ctx.bytes,
            o.destination.c_str());
  return rc;
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
  else if (o.command == "export") status = CmdExport(o);
  else {
    status = TvuconMount(o.path, o.foreground, o.debug, &error) == 0 ? 0 : 1;
    if (status != 0) fprintf(stderr, "tvucon: mount %s: %s\n", o.path.c_str(), error.c_str());
  }
  tvu::Close();
  return status;
}
