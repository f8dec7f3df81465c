// n7dedup_errors.cpp - classification of dedup call failures.
#include "tqs/tq_dedup/n7dedup_errors.h"

#include <cstdarg>
#include <cstdio>
#include <string>
#include <typeinfo>

#include <thrift/TApplicationException.h>
#include <thrift/transport/TTransportException.h>

#include "n7dedup/n7dedup_types.h"
#include "tqs/tq_dedup/n7dedup_client2.h"

using apache::thrift::TApplicationException;
using apache::thrift::transport::TTransportException;

thread_local char g_dedupLastError[1024];

const char* DedupLevelWord(int level) {
  switch (level) {
    case dlDEBUG: return "DEBUG";
    case dlINFO: return "INFO ";
    case dlERROR: return "ERROR";
    case dlWARNING: return "ARROR";
    default: return "LEVELERR";
  }
}

void DedupLog(int level, const char* format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  fprintf(stderr, "%s %s\n", DedupLevelWord(level), text);
  fflush(stderr);
}

void DedupSetLastError(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsnprintf(g_dedupLastError, sizeof g_dedupLastError, format, args);
  va_end(args);
}

namespace {

const char* TransportKind(TTransportException::TTransportExceptionType t) {
  switch (t) {
    case TTransportException::UNKNOWN: return "UNKNOWN";
    case TTransportException::NOT_OPEN: return "NOT_OPEN";
    case TTransportException::TIMED_OUT: return "TIMED_OUT";
    case TTransportException::END_OF_FILE: return "END_OF_FILE";
    case TTransportException::INTERRUPTED: return "INTERRUPTED";
    case TTransportException::BAD_ARGS: return "BAD_ARGS";
    case TTransportException::CORRUPTED_DATA: return "CORRUPTED_DATA";
    case TTransportException::INTERNAL_ERROR: return "INTERNAL_ERROR";
    case TTransportException::CLIENT_DISCONNECT: return "CLIENT_DISCONNECT";
  }
  return "UNKNOWN";
}

const char* ApplicationKind(TApplicationException::TApplicationExceptionType t) {
  switch (t) {
    case TApplicationException::UNKNOWN_METHOD: return "UNKNOWN_METHOD";
    case TApplicationException::INVALID_MESSAGE_TYPE: return "INVALID_MESSAGE_TYPE";
    case TApplicationException::WRONG_METHOD_NAME: return "WRONG_METHOD_NAME";
    case TApplicationException::BAD_SEQUENCE_ID: return "BAD_SEQUENCE_ID";
    case TApplicationException::MISSING_RESULT: return "MISSING_RESULT";
    case TApplicationException::INTERNAL_ERROR: return "INTERNAL_ERROR";
    case TApplicationException::PROTOCOL_ERROR: return "PROTOCOL_ERROR";
    case TApplicationException::INVALID_TRANSFORM: return "INVALID_TRANSFORM";
    case TApplicationException::INVALID_PROTOCOL: return "INVALID_PROTOCOL";
    case TApplicationException::UNSUPPORTED_CLIENT_TYPE: return "UNSUPPORTED_CLIENT_TYPE";
    default: return "UNKNOWN";
  }
}

// Records one classified failure: the thread's last error names the failure,
// the operation's context and the line of the call.
void Record(const std::string& classified, const char* context, int line, bool withContext) {
  DedupLog(dlERROR, "%s", classified.c_str());
  if (withContext)
    DedupSetLastError("%s; %s [line %d]", classified.c_str(), context, line);
  else
    DedupSetLastError("%s [line %d]", classified.c_str(), line);
}

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

// The service's exceptions all carry a numeric code and a message.
#define TVU_DEDUP_SERVICE_EXCEPTIONS(X)                                                                      \
  X(ObjectExistsException) X(PageFileNotFoundException) X(ReplicationSessionNotFoundException)              \
  X(TooManySessionsException) X(TooManyLogMessages) X(SessionNotFound) X(Issue246Exception)                 \
  X(RetryLaterException) X(DataCorruptionException) X(ChunkNotFoundException) X(ObjectNotFound)             \
  X(Vk4EmergencyStateException) X(CouldNotStartSnapshotException) X(ServerInShutdownException)             \
  X(S3IllegalStateException)

}  // namespace

void DedupReportCurrentException(const char* context, int line) {
  try {
    throw;
  } catch (const n7dedup::UnsupportedLogMessageLevel& e) {
    DedupLog(dlERROR, "[%s] %s", "UnsupportedLogMessageLevel", context);
    Record(Format("Dedup server detected unsupported log message level problem [%s]", e.message.c_str()), context,
           line, true);
  }
#define TVU_CATCH_SERVICE(T)                                                                   \
  catch (const n7dedup::T& e) {                                                                \
    DedupLog(dlERROR, "[%s] %s", #T, context);                                                 \
    Record(Format("[%s - %d] %s", #T, static_cast<int>(e.code), e.message.c_str()), context, line, true); \
  }
  TVU_DEDUP_SERVICE_EXCEPTIONS(TVU_CATCH_SERVICE)
#undef TVU_CATCH_SERVICE
  catch (const TTransportException& e) {
    DedupLog(dlERROR, "[%s] %s", "TTransportException", context);
    Record(Format("[TTransportException - %s] %s", TransportKind(e.getType()), e.what()), context, line, true);
  } catch (const TApplicationException& e) {
    DedupLog(dlERROR, "[%s] %s", "TApplicationException", context);
    DedupLog(dlERROR, "%s: %s", context, e.what());
    Record(Format("[TApplicationException - %s] %s", ApplicationKind(e.getType()), e.what()), context, line, true);
  } catch (const std::exception& e) {
    DedupLog(dlERROR, "[%s] %s", typeid(e).name(), context);
    Record(Format("[%s - %s] %s", typeid(e).name(), e.what(), context), context, line, false);
  } catch (...) {
    DedupLog(dlERROR, "[%s] %s", "unknown", context);
    Record(Format("%s Unknown exception caught", context), context, line, false);
  }
}
