// tvucon.cpp - a client of the tvu_con module: loads it, drives one
// consolidation in the backup client's calling order and writes the stream.
//
// Exit status: 0 when DB_ReadBlock ended with DB_NUM_I_END and the whole
// stream was written; 1 on any failure (the module itself also ends the
// process with 1 on unrecoverable conditions); 2 for a bad command line.
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
#include "tvucon/tvucon_options.h"
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

class Progress {
 public:
  explicit Progress(bool show) : show_(show && pf::IsTerminal(stderr)), start_(pf::TicksMs()) {}
  void Update(uint64_t bytes) {
    if (!show_) return;
    uint64_t now = pf::TicksMs();
    if (now - last_ < 250) return;
    last_ = now;
    fprintf(stderr, "\r%" PRIu64 " bytes  %.1f MiB/s   ", bytes, Rate(bytes));
  }
  void Done() {
    if (show_) fprintf(stderr, "\r%*s\r", 60, "");
  }
  double Seconds() const { return (pf::TicksMs() - start_) / 1000.0; }
  double Rate(uint64_t bytes) const {
    double s = Seconds();
    return s > 0 ? bytes / 1048576.0 / s : 0.0;
  }

 private:
  bool show_;
  uint64_t start_;
  uint64_t last_ = 0;
};

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

int RunConsolidate(const Module& m, const TvuconOptions& o, FILE* data) {
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

  FILE* out = o.output == "-" ? data : pf::FOpen(o.output.c_str(), "wb");
  if (!out) {
    fprintf(stderr, "tvucon: cannot create %s: %s\n", o.output.c_str(), pf::ErrorText(pf::LastError()).c_str());
    m.CloseOperation();
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

  m.GetItem(o.saveset.c_str(), o.saveset.c_str(), o.saveset.c_str());
  m.OpenItem();

  std::unique_ptr<char[]> buffer(new char[o.blockSize]);
  char magic[7] = "";
  uint64_t total = 0, blocks = 0;
  Progress progress(!o.quiet);
  int status = 0;
  for (;;) {
    uint32_t len = o.blockSize;
    rc = m.ReadBlock(buffer.get(), &len, nullptr, nullptr);
    if (rc == DB_NUM_I_END) break;
    if (rc != DB_NUM_I_OK) {
      progress.Done();
      fprintf(stderr, "tvucon: DB_ReadBlock returned %u after %" PRIu64 " bytes: %s\n", rc, total,
              ModuleError(m).c_str());
      status = 1;
      break;
    }
    if (len > o.blockSize) {
      fprintf(stderr, "tvucon: DB_ReadBlock delivered %u bytes into a %u-byte buffer\n", len, o.blockSize);
      status = 1;
      break;
    }
    for (uint32_t i = 0; total + i < 6 && i < len; ++i) magic[total + i] = buffer[i];
    if (len > 0 && fwrite(buffer.get(), 1, len, out) != len) {
      fprintf(stderr, "tvucon: writing %s failed: %s\n", o.output.c_str(), pf::ErrorText(pf::LastError()).c_str());
      status = 1;
      break;
    }
    total += len;
    ++blocks;
    progress.Update(total);
  }
  progress.Done();

  if (status == 0 && o.closeArchive && total > 0) {
    // The catalog lists the items only; a trailer record in the stream's own
    // header format makes it one complete archive.
    cpio::Format format;
    if (total < 6 || !cpio::FormatFromMagic(magic, &format)) {
      fprintf(stderr, "tvucon: --close-archive: the stream does not begin with a known CPIO header\n");
      status = 1;
    } else {
      std::string trailer = cpio::TrailerRecord(format);
      if (fwrite(trailer.data(), 1, trailer.size(), out) != trailer.size()) {
        fprintf(stderr, "tvucon: writing %s failed: %s\n", o.output.c_str(), pf::ErrorText(pf::LastError()).c_str());
        status = 1;
      }
      total += trailer.size();
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

  m.CloseItem();
  // The item is finished and its data is out: tell the module, which waits
  // for this signal before it reports the item as processed.
  pf::EventSignalByName("FinishItemEvent");
  m.ItemFinishStatus();
  m.CloseOperation();

  if (status == 0 && !o.quiet) {
    fprintf(stderr, "tvucon: consolidated %s: %" PRIu64 " bytes in %" PRIu64 " blocks, %.2f s, %.1f MiB/s\n",
            o.saveset.c_str(), total, blocks, progress.Seconds(), progress.Rate(total));
  }
  return status;
}

// True when the command writes its result to standard output.
bool WritesToStandardOutput(const TvuconOptions& o) {
  if (o.command == "consolidate") return o.output == "-";
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
  if (!ParseTvuconOptions(argc, argv, &o, &error)) {
    fprintf(stderr, "tvucon: %s\n%s", error.c_str(), TvuconUsage());
    return 2;
  }
  const bool writesData = WritesToStandardOutput(o);
  FILE* data = SeparateDataOutput(writesData, &error);
  if (writesData && !data) {
    fprintf(stderr, "tvucon: %s\n", error.c_str());
    return 1;
  }
  g_logLevel = o.logLevel;
  if (!o.ini.empty()) pf::SetEnv("TQ_INI", o.ini.c_str());
  if (!o.traceFile.empty()) {
    g_traceFile = pf::FOpen(o.traceFile.c_str(), "a");
    if (!g_traceFile) {
      fprintf(stderr, "tvucon: cannot open trace file %s: %s\n", o.traceFile.c_str(),
              pf::ErrorText(pf::LastError()).c_str());
      return 1;
    }
  }

  int status;
  if (IsTreeCommand(o.command)) {
    status = RunTreeCommand(o, TraceHook, data);
  } else {
    std::string path = o.module.empty() ? pf::ExecutableDir() + TVUCON_MODULE_FILE : o.module;
    Module m;
    if (!LoadModule(path, &m, &error)) {
      fprintf(stderr, "tvucon: cannot load module: %s\n", error.c_str());
      status = 1;
    } else {
      m.SetLog(FallbackLog);
      m.SetTrace(TraceHook);
      status = o.command == "info" ? RunInfo(m, data) : RunConsolidate(m, o, data);
    }
  }
  if (data && fclose(data) != 0 && status == 0) {
    fprintf(stderr, "tvucon: writing to standard output failed: %s\n", strerror(errno));
    status = 1;
  }
  if (g_traceFile) fclose(g_traceFile);
  return status;
}
