// ng_report.cpp - last failure message, log lines and exception texts.
#include "tq_dedup_ng/ng_report.h"

#include <cxxabi.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <typeinfo>
#include <vector>

#include <thrift/TApplicationException.h>
#include <thrift/protocol/TProtocolException.h>
#include <thrift/transport/TTransportException.h>

#include "n7dedup/n7dedup_types.h"

namespace tqng {

namespace {

// The caller formats callback lines into a buffer of a little over 9 KiB;
// texts are cut well below that so that the level word it adds still fits.
constexpr size_t kMaxLineText = 8000;

thread_local std::string t_lastMessage;

std::string OneLine(const std::string& text) {
  std::string line = text.substr(0, kMaxLineText);
  for (char& c : line) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
  }
  return line;
}

// The class name of a caught exception without its namespace, so texts read
// "ObjectNotFound" rather than "n7dedup::ObjectNotFound".
std::string TypeName(const std::type_info& type) {
  int status = 0;
  char* demangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
  std::string name = (status == 0 && demangled) ? demangled : type.name();
  std::free(demangled);
  size_t colon = name.rfind("::");
  return colon == std::string::npos ? name : name.substr(colon + 2);
}

std::string CodeText(const std::string& type, long code, const std::string& message) {
  return Format("%s (code %ld): %s", type.c_str(), code, message.c_str());
}

// Every exception the service declares carries a code and a message; this
// matches the caught exception against the list of them.
template <typename E>
bool DescribeIfService(const apache::thrift::TException& e, std::string& out) {
  const E* s = dynamic_cast<const E*>(&e);
  if (!s) return false;
  out = CodeText(TypeName(typeid(*s)), s->code, s->message);
  return true;
}

template <typename... E>
bool DescribeService(const apache::thrift::TException& e, std::string& out) {
  return (DescribeIfService<E>(e, out) || ...);
}

}  // namespace

std::string Format(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list copy;
  va_copy(copy, ap);
  int n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  std::string out;
  if (n > 0) {
    std::vector<char> buf(static_cast<size_t>(n) + 1);
    std::vsnprintf(buf.data(), buf.size(), fmt, ap);
    out.assign(buf.data(), static_cast<size_t>(n));
  }
  va_end(ap);
  return out;
}

void LogLine(TQ_DEDUP_LOG_FN log, LogLevel level, const std::string& text) {
  if (!log) return;
  std::string line = Format("%%l%d ", static_cast<int>(level)) + OneLine(text);
  log(line.c_str());
}

void SetLastMessage(const std::string& text) { t_lastMessage = OneLine(text); }

const char* LastMessage() { return t_lastMessage.c_str(); }

void Fail(TQ_DEDUP_LOG_FN log, const std::string& text) {
  SetLastMessage(text);
  LogLine(log, LogLevel::Error, text);
}

ExceptionInfo DescribeCurrentException() {
  using apache::thrift::TApplicationException;
  using apache::thrift::TException;
  using apache::thrift::protocol::TProtocolException;
  using apache::thrift::transport::TTransportException;
  ExceptionInfo info;
  try {
    throw;
  } catch (const TTransportException& e) {
    info.text = CodeText("TTransportException", e.getType(), e.what());
    info.connectionLost = true;
  } catch (const TProtocolException& e) {
    info.text = CodeText("TProtocolException", e.getType(), e.what());
    info.connectionLost = true;
  } catch (const TApplicationException& e) {
    // The reply was read completely, so the connection is still usable.
    info.text = CodeText("TApplicationException", e.getType(), e.what());
  } catch (const TException& e) {
    using namespace n7dedup;
    if (!DescribeService<ObjectNotFound, SessionNotFound, TooManySessionsException, DataCorruptionException,
                         ObjectExistsException, PageFileNotFoundException, UnsupportedLogMessageLevel,
                         ReplicationSessionNotFoundException, TooManyLogMessages, Issue246Exception,
                         RetryLaterException, ChunkNotFoundException, Vk4EmergencyStateException,
                         CouldNotStartSnapshotException, ServerInShutdownException, S3IllegalStateException>(
            e, info.text)) {
      info.text = TypeName(typeid(e)) + ": " + e.what();
      info.connectionLost = true;
    }
  } catch (const std::exception& e) {
    info.text = TypeName(typeid(e)) + ": " + e.what();
    info.connectionLost = true;
  } catch (...) {
    info.text = "unknown exception";
    info.connectionLost = true;
  }
  return info;
}

}  // namespace tqng
