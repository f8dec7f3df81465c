// db_hooks.cpp - the hook entry points: DB_SetLog, DB_SetTrace, DB_SetError,
// DB_GetError, and the exported g_tq_log_ptr.
#include "plugin/db_hooks.h"

#include <cstdio>
#include <cstring>

#include "platform/platform.h"
#include "runtime/trace.h"

extern "C" {
TVU_EXPORT TQ_LOG_FN g_tq_log_ptr = nullptr;
}

namespace {

constexpr size_t kFormatBuffer = 2048;  // log texts: 2047 characters at most

// The module's own log function, published through g_tq_log_ptr.
void tq_log(int32_t level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  tvu_log_v(level, format, args);
  va_end(args);
}

// Fallback for g_tq_log_ptr: turns log lines into trace lines.
void tvu_log2trace(int32_t level, const char* format, ...) {
  char text[kFormatBuffer];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  korvo::write_trace(1, "[%d] %s", level, text);
}

}  // namespace

void tvu_hooks_reset_for_test() {
  tvu_report_reset();
  g_tq_log_ptr = nullptr;
}

// ---- exported hook functions -------------------------------------------------

extern "C" {

TVU_EXPORT uint32_t DB_SetLog(DB_TEXT_FN fn) {
  auto hostLog = reinterpret_cast<VTTVU_LOG_FN>(pf::HostSymbol("vttvu_log"));
  tvu_report_set_log(hostLog, hostLog ? nullptr : fn);
  g_tq_log_ptr = tq_log;
  korvo::trace("%l4 SetKorvoCommonLogFunction set g_tq_log_ptr %p", reinterpret_cast<void*>(g_tq_log_ptr));
  if (g_tq_log_ptr) {
    korvo::trace("%l4 SetKorvoCommonLogFunction got g_tq_log_ptr %p", reinterpret_cast<void*>(g_tq_log_ptr));
  } else {
    g_tq_log_ptr = tvu_log2trace;
    korvo::trace("%l4 SetKorvoCommonLogFunction did not get a log function -> set to tvu_log2trace() %p",
                 reinterpret_cast<void*>(g_tq_log_ptr));
  }
  tvu_log(TQ_LOG_DETAIL, "DB_SetLog");
  return hostLog ? DB_NUM_I_OK : DB_NUM_E_FAILED;
}

TVU_EXPORT uint32_t DB_SetTrace(DB_TEXT_FN fn) {
  if (!fn) return DB_NUM_E_FAILED;
  tvu_report_set_trace(fn);
  tvu_trace("DB_SetTrace");
  return DB_NUM_I_OK;
}

TVU_EXPORT uint32_t DB_SetError(uint32_t code, const char* format, ...) {
  tvu_trace("DB_SetError");
  va_list args;
  va_start(args, format);
  uint32_t n = tvu_set_error_v(code, format, args);
  va_end(args);
  return n;
}

TVU_EXPORT uint32_t DB_GetError(DB_ERROR* error) {
  tvu_trace("DB_GetError");
  if (!error) return DB_NUM_I_OK;
  memcpy(error, &tvu_error_record(), sizeof *error);
  if (error->szMessage[0] == '\0') snprintf(error->szMessage, sizeof error->szMessage, "%s", "tvu_con error");
  return DB_NUM_I_OK;
}

}  // extern "C"
