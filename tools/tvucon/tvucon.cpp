// tvucon.cpp - a client of the tvu_con module: loads it, drives one
// consolidation in the backup client's calling order and writes the stream.
//
// Exit status: 0 when DB_ReadBlock ended with DB_NUM_I_END and the whole
// stream was written (and, when asked, checked); 1 on any failure (the
// module itself also ends the process with 1 on unrecoverable conditions);
// 2 for a bad command line.
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "archive/cpio_format.h"
#include "platform/platform.h"
#include "tvu_con.h"
#include "tvucon/tvucon_check.h"
#include "tvucon/tvucon_options.h"
#include "tvucon/tvucon_progress.h"
#include "tvucon/tvucon_stream.h"
#include "tvucon/tvucon_tree.h"

namespace {

int g_logLevel = 1500;
FILE* g_traceFile = nullptr;

// The module's entry points, looked up in the loaded library.
struct Module {
  void* handle = nullptr;
  decltype(&DB_SetLog) SetLog;
  decltype(&DB_SetTrace) SetTrace;
  decltype(&DB_GetError) GetError;
  decltype(&DB_GetInfo) GetInfo;
  decltype(&DB_InitOperation) InitOperation;
  decltype(&DB_GetItem) GetItem;
  decltype(&DB_OpenItem) OpenItem;
  decltype(&DB_CloseItem) CloseItem;
  decltype(&DB_ReadBlock) ReadBlock;
  decltype(&DB_ItemFinishStatus) ItemFinishStatus;
  decltype(&DB_CloseOperation) CloseOperation;
};

template <class T>
bool Bind(void* lib, const char* name, T* out, std::string* missing) {
  *out = reinterpret_cast<T>(pf::LibrarySymbol(lib, name));
  if (!*out) *missing = name;
  return *out != nullptr;
}

bool LoadModule(const std::string& path, Module* m, std::string* error) {
  m->handle = pf::LibraryOpen(path.c_str(), error);
  if (!m->handle) return false;
  std::string missing;
  bool ok = Bind(m->handle, "DB_SetLog", &m->SetLog, &missing) &&
            Bind(m->handle, "DB_SetTrace", &m->SetTrace, &missing) &&
            Bind(m->handle, "DB_GetError", &m->GetError, &missing) &&
            Bind(m->handle, "DB_GetInfo", &m->GetInfo, &missing) &&
            Bind(m->handle, "DB_InitOperation", &m->InitOperation, &missing) &&
            Bind(m->handle, "DB_GetItem", &m->GetItem, &missing) &&
            Bind(m->handle, "DB_OpenItem", &m->OpenItem, &missing) &&
            Bind(m->handle, "DB_CloseItem", &m->CloseItem, &missing) &&
            Bind(m->handle, "DB_ReadBlock", &m->ReadBlock, &missing) &&
            Bind(m->handle, "DB_ItemFinishStatus", &m->ItemFinishStatus, &missing) &&
            Bind(m->handle, "DB_CloseOperation", &m->CloseOperation, &missing);
  if (!ok) *error = path + ": no entry point " + missing;
  return ok;
}

void FallbackLog(const char* text) { fprintf(stderr, "tvu_con: %s\n", text); }

void TraceHook(const char* text) {
  if (g_traceFile) {
    fprintf(g_traceFile, "%s\n", text);
    fflush(g_traceFile);
  }
}

std::string ModuleError(const Module& m) {
  DB_ERROR e;
  memset(&e, 0, sizeof e);
  m.GetError(&e);
  return e.szMessage;
}

int RunInfo(const Module& m, FILE* data) {
  DB_INFO info;
  memset(&info, 0, sizeof info);
  if (m.GetInfo(&info) != DB_NUM_I_OK) {
    fprintf(stderr, "tvucon: DB_GetInfo failed: %s\n", ModuleError(m).c_str());
    return 1;
  }
  fprintf(data, "description: %s\nversion: %s\nbuild: %s\nflag: %d\n", info.pszDescription, info.pszVersion,
          info.pszBuild, info.iFlag);
  return 0;
}

// Where the stream goes: standard output, a new file, or (resuming) the
// file a cut consolidation wrote, cut back to where it resumes.
FILE* OpenOutput(const TvuconOptions& o, FILE* data) {
  if (o.output == "-") return data;
  if (!o.resume) {
    FILE* out = pf::FOpen(o.output.c_str(), "wb");
    if (!out)
      fprintf(stderr, "tvucon: cannot create %s: %s\n", o.output.c_str(), pf::ErrorText(pf::LastError()).c_str());
    return out;
  }
  uint64_t size = 0;
  if (pf::FileSizeByPath(o.output.c_str(), &size) != 0) {
    fprintf(stderr, "tvucon: --resume-from: cannot read %s: %s\n", o.output.c_str(),
            pf::ErrorText(pf::LastError()).c_str());
    return nullptr;
  }
  if (size < o.resumeFrom) {
    fprintf(stderr, "tvucon: --resume-from %" PRIu64 ": %s holds only %" PRIu64 " bytes\n", o.resumeFrom,
            o.output.c_str(), size);
    return nullptr;
  }
  FILE* out = pf::FOpen(o.output.c_str(), "r+b");
  const int rc = out ? pf::StdioCutAt(out, o.resumeFrom) : pf::LastError();
  if (rc != 0) {
    fprintf(stderr, "tvucon: --resume-from: cannot cut %s at %" PRIu64 ": %s\n", o.output.c_str(), o.resumeFrom,
            pf::ErrorText(rc).c_str());
    if (out) fclose(out);
    return nullptr;
  }
  return out;
}

// The stream's bytes from one source: the module's blocks, or (resuming)
// the savesets read along the check's runs.
class StreamSource {
 public:
  virtual ~StreamSource() = default;
  // 1 with *len bytes, 0 at the end, -1 on failure (message printed).
  virtual int Next(char* buffer, uint32_t* len) = 0;
};

class ModuleSource : public StreamSource {
 public:
  explicit ModuleSource(const Module& m) : m_(m) {}
  int Next(char* buffer, uint32_t* len) override {
    const uint32_t capacity = *len;
    uint32_t rc = m_.ReadBlock(buffer, len, nullptr, nullptr);
    if (rc == DB_NUM_I_END) return 0;
    if (rc != DB_NUM_I_OK) {
      fprintf(stderr, "tvucon: DB_ReadBlock returned %u after %" PRIu64 " bytes: %s\n", rc, total_,
              ModuleError(m_).c_str());
      return -1;
    }
    if (*len > capacity) {
      fprintf(stderr, "tvucon: DB_ReadBlock delivered %u bytes into a %u-byte buffer\n", *len, capacity);
      return -1;
    }
    total_ += *len;
    return 1;
  }

 private:
  const Module& m_;
  uint64_t total_ = 0;
};

class PlanSource : public StreamSource {
 public:
  PlanSource(tvu::ChainPlan* plan, const tvu::CheckSummary& s, uint64_t from)
      : plan_(plan), runs_(s.runs), pos_(from), end_(s.streamBytes) {}
  int Next(char* buffer, uint32_t* len) override {
    if (pos_ >= end_) return 0;
    uint64_t got = 0;
    const uint64_t want = std::min<uint64_t>(*len, end_ - pos_);
    if (plan_->ReadStream(runs_, pos_, buffer, want, &got) != 0 || got != want) {
      fprintf(stderr, "tvucon: reading the stream at %" PRIu64 " failed: a saveset ends before its catalog says\n",
              pos_ + got);
      return -1;
    }
    pos_ += got;
    *len = static_cast<uint32_t>(got);
    return 1;
  }

 private:
  tvu::ChainPlan* plan_;
  const std::vector<tvu::PlanRun>& runs_;
  uint64_t pos_, end_;
};

int RunConsolidate(const TvuconOptions& o, FILE* data) {
  // The chain is checked (and its stream laid out) in this process first.
  const bool needPlan = !o.noCheck || o.resume || o.verify || !o.catalogOut.empty();
  tvu::ChainPlan plan;
  tvu::CheckSummary summary;
  if (needPlan) {
    TvuconOptions checkOptions = o;
    checkOptions.noRecords = o.noCheck;  // the layout alone when the check is not wanted
    const int checked = CheckChain(checkOptions, &plan, &summary, stderr);
    if (checked == 2) return 1;
    if (checked != 0 && !o.noCheck) {
      fprintf(stderr, "tvucon: not consolidating %s: its chain has %zu problem%s (--no-check streams anyway)\n",
              o.saveset.c_str(), summary.problems.size(), summary.problems.size() == 1 ? "" : "s");
      return 1;
    }
  } else {
    std::string metaDir, error;
    if (tvu::FindConsolidation(o.saveset, &metaDir, &error) != 0) {
      fprintf(stderr, "tvucon: %s\n", error.c_str());
      return 1;
    }
  }
  if (o.resume && o.resumeFrom > summary.streamBytes) {
    fprintf(stderr, "tvucon: --resume-from %" PRIu64 ": the stream of %s is only %" PRIu64 " bytes long\n",
            o.resumeFrom, o.saveset.c_str(), summary.streamBytes);
    return 1;
  }

  const bool follow = o.verify || !o.catalogOut.empty();
  // The chain stays loaded here only while the stream needs it (its layout
  // for the new catalog and the verification, its savesets for resuming).
  if (needPlan && !follow && !o.resume) plan.Close();

  Module m;
  std::unique_ptr<StreamSource> source;
  std::string error;
  if (o.resume) {
    source.reset(new PlanSource(&plan, summary, o.resumeFrom));
  } else {
    std::string path = o.module.empty() ? pf::ExecutableDir() + TVUCON_MODULE_FILE : o.module;
    if (!LoadModule(path, &m, &error)) {
      fprintf(stderr, "tvucon: cannot load module: %s\n", error.c_str());
      return 1;
    }
    m.SetLog(FallbackLog);
    m.SetTrace(TraceHook);
    DB_INFO info;
    memset(&info, 0, sizeof info);
    m.GetInfo(&info);
    std::string var = "DATABASE=CON:" + o.saveset;
    std::vector<char*> vars = {&var[0], nullptr};
    DB_OPERATION op{o.saveset.c_str()};
    uint32_t rc = m.InitOperation(DB_TYPE_BCK, 0, vars.data(), &op);
    if (rc != DB_NUM_I_OK) {
      fprintf(stderr, "tvucon: DB_InitOperation returned %u: %s\n", rc, ModuleError(m).c_str());
      return 1;
    }
    source.reset(new ModuleSource(m));
  }

  FILE* out = OpenOutput(o, data);
  if (!out) {
    if (!o.resume) m.CloseOperation();
    return 1;
  }
  // Blocks are as long as their run: a catalog of small items gives many
  // small blocks.  A buffer of the block size coalesces them into writes of
  // that size; a block that fills it is written straight through.
  // (The buffer outlives the stream, which main closes when out is the
  // data descriptor.)
  static std::unique_ptr<char[]> outBuffer;
  outBuffer.reset(new char[o.blockSize]);
  setvbuf(out, outBuffer.get(), _IOFBF, o.blockSize);

  StreamFollower follower(&plan, o.catalogOut, o.catalogName, o.verify, o.resume ? o.resumeFrom : 0);
  int status = 0;
  if (follow && follower.Start(&error) != 0) {
    fprintf(stderr, "tvucon: %s\n", error.c_str());
    status = 1;
  }

  if (!o.resume) {
    m.GetItem(o.saveset.c_str(), o.saveset.c_str(), o.saveset.c_str());
    m.OpenItem();
  }
  std::unique_ptr<char[]> buffer(new char[o.blockSize]);
  char magic[7] = "";
  uint64_t total = o.resume ? o.resumeFrom : 0, blocks = 0;
  Progress progress(o.progress, "consolidate", "bytes", needPlan ? summary.streamBytes : 0);
  while (status == 0) {
    uint32_t len = o.blockSize;
    const int got = source->Next(buffer.get(), &len);
    if (got == 0) break;
    if (got < 0) {
      status = 1;
      break;
    }
    if (len > 0 && fwrite(buffer.get(), 1, len, out) != len) {
      fprintf(stderr, "tvucon: writing %s failed: %s\n", o.output.c_str(), pf::ErrorText(pf::LastError()).c_str());
      status = 1;
      break;
    }
    if (follow) follower.Feed(buffer.get(), len);
    for (uint32_t i = 0; total + i < 6 && i < len; ++i) magic[total + i] = buffer[i];
    total += len;
    ++blocks;
    progress.Update(total);
  }
  progress.Done();

  if (status == 0 && follow && follower.Finish(total, &error) != 0) {
    fprintf(stderr, "tvucon: %s\n", error.c_str());
    status = 1;
  }
  if (status == 0 && !o.raw && total > 0) {
    // The catalog lists the items only; a trailer record in the stream's own
    // header format makes it one complete archive.  A stream that is no CPIO
    // stream (a dump) is complete as it is, unless the trailer was asked for.
    uint64_t got = 6;
    if (o.resume) plan.ReadStream(summary.runs, 0, magic, 6, &got);
    cpio::Format format;
    const bool known = total >= 6 && got == 6 && cpio::FormatFromMagic(magic, &format);
    if (known) {
      std::string trailer = cpio::TrailerRecord(format);
      if (fwrite(trailer.data(), 1, trailer.size(), out) != trailer.size()) {
        fprintf(stderr, "tvucon: writing %s failed: %s\n", o.output.c_str(), pf::ErrorText(pf::LastError()).c_str());
        status = 1;
      }
      total += trailer.size();
    } else if (o.closeArchive) {
      fprintf(stderr, "tvucon: --close-archive: the stream does not begin with a known CPIO header\n");
      status = 1;
    }
  }
  if (fflush(out) != 0 && status == 0) {
    fprintf(stderr, "tvucon: writing %s failed: %s\n", o.output.c_str(), pf::ErrorText(pf::LastError()).c_str());
    status = 1;
  }
  if (out != data && fclose(out) != 0 && status == 0) {
    fprintf(stderr, "tvucon: closing %s failed: %s\n", o.output.c_str(), pf::ErrorText(pf::LastError()).c_str());
    status = 1;
  }

  if (!o.resume) {
    m.CloseItem();
    // The item is finished and its data is out: tell the module, which waits
    // for this signal before it reports the item as processed.
    pf::EventSignalByName("FinishItemEvent");
    m.ItemFinishStatus();
    m.CloseOperation();
  }

  if (o.verify) {
    for (const std::string& p : follower.Problems()) fprintf(stderr, "tvucon: verify: %s\n", p.c_str());
    fprintf(stderr, "tvucon: verify: %" PRIu64 " records checked against their catalog lines, %zu problem%s\n",
            follower.RecordsVerified(), follower.Problems().size(), follower.Problems().size() == 1 ? "" : "s");
    if (!follower.Problems().empty()) status = 1;
  }
  if (status == 0 && !o.quiet) {
    fprintf(stderr, "tvucon: consolidated %s: %" PRIu64 " bytes in %" PRIu64 " blocks, %.2f s, %.1f MiB/s\n",
            o.saveset.c_str(), total, blocks, progress.Seconds(), progress.Rate(total - (o.resume ? o.resumeFrom : 0)));
  }
  return status;
}

// True when the command writes its result to standard output.
bool WritesToStandardOutput(const TvuconOptions& o) {
  if (o.command == "consolidate") return o.output == "-";
  if (o.command == "check") return true;
  return o.command != "mount" && o.command != "export";
}

// The module and this process's own copy of the library print notes with
// printf ("Building cache...", "ERROR path not found: ..."), and they must
// not end up inside the data a command writes to standard output.  The data
// keeps the original standard output on a descriptor of its own; descriptor
// 1 is then pointed at standard error, so the notes land there, line by line
// in their order with the other messages.  Returns the stream for the data,
// or null when `keepData` is false (a mount writes no data, and its server
// must not hold the caller's output open) or on failure (*error set).
FILE* SeparateDataOutput(bool keepData, std::string* error) {
  FILE* data = pf::SeparateStandardOutput(keepData, error);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  return data;
}

}  // namespace

// The host's log function, found by the module in this executable.
extern "C" TVU_EXPORT void vttvu_log(int32_t zero, int32_t level, const char* format, va_list args) {
  (void)zero;
  if (level > g_logLevel) return;
  char text[4096];
  vsnprintf(text, sizeof text, format, args);
  fprintf(stderr, "[%d] %s\n", level, text);
}

int main(int argc, char** argv) {
  TvuconOptions o;
  std::string error;
  const int parsed = ParseTvuconOptions(argc, argv, &o, &error);
  if (parsed == 2) fprintf(stderr, "tvucon: %s\nRun 'tvucon --help' (or 'tvucon COMMAND --help') for more.\n", error.c_str());
  if (parsed >= 0) return parsed;
  const bool writesData = WritesToStandardOutput(o);
  FILE* data = SeparateDataOutput(writesData, &error);
  if (writesData && !data) {
    fprintf(stderr, "tvucon: %s\n", error.c_str());
    return 1;
  }
  g_logLevel = o.logLevel;
  // Without TZ the C library looks at /etc/localtime again for every local
  // time it converts (two per item of a listing); naming the file it would
  // use anyway lets it read the zone once.
  std::string tz;
  if (!pf::GetEnv("TZ", &tz)) pf::SetEnv("TZ", ":/etc/localtime");
  if (!o.ini.empty()) pf::SetEnv("TQ_INI", o.ini.c_str());
  if (!o.traceFile.empty()) {
    g_traceFile = pf::FOpen(o.traceFile.c_str(), "a");
    if (!g_traceFile) {
      fprintf(stderr, "tvucon: cannot open trace file %s: %s\n", o.traceFile.c_str(),
              pf::ErrorText(pf::LastError()).c_str());
      return 1;
    }
  }

  // This process's own copy of the library (check, the chain's layout, the
  // tree) logs through vttvu_log like the module.
  DB_SetLog(nullptr);
  DB_SetTrace(TraceHook);
  int status;
  if (IsTreeCommand(o.command)) {
    status = RunTreeCommand(o, TraceHook, data);
  } else if (o.command == "check") {
    status = RunCheck(o, data);
  } else if (o.command == "consolidate") {
    status = RunConsolidate(o, data);
  } else {
    std::string path = o.module.empty() ? pf::ExecutableDir() + TVUCON_MODULE_FILE : o.module;
    Module m;
    if (!LoadModule(path, &m, &error)) {
      fprintf(stderr, "tvucon: cannot load module: %s\n", error.c_str());
      status = 1;
    } else {
      m.SetLog(FallbackLog);
      m.SetTrace(TraceHook);
      status = RunInfo(m, data);
    }
  }
  if (data && fclose(data) != 0 && status == 0) {
    fprintf(stderr, "tvucon: writing to standard output failed: %s\n", strerror(errno));
    status = 1;
  }
  if (g_traceFile) fclose(g_traceFile);
  return status;
}
