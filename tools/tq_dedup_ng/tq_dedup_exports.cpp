// tq_dedup_exports.cpp - the eight exported functions of libtq_dedup.so and
// the table of connections behind their handles.
//
// Every function catches everything: no exception leaves the library.  A
// failure sets the calling thread's last message to one line naming the
// exported function, the remote call, host:port and the exception's type,
// code and message, logs it at error level and returns the failure value of
// the function (see tq_dedup.h).  The caller serialises its calls; a mutex
// here serialises them as well, so that no caller can corrupt the table.
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tq_dedup.h"
#include "tq_dedup_ng/ng_connection.h"
#include "tq_dedup_ng/ng_report.h"

#define TQ_DEDUP_EXPORT extern "C" __attribute__((visibility("default")))

namespace tqng {
namespace {

std::mutex g_mutex;
// Index = handle; a null entry is a free handle.
std::vector<std::unique_ptr<NgConnection>> g_connections;
// The callback of the most recent dedup_init_v2 that gave one: used for
// messages that belong to no connection (an unknown handle).
TQ_DEDUP_LOG_FN g_processLog = nullptr;

int32_t AddConnection(std::unique_ptr<NgConnection> conn) {
  for (size_t i = 0; i < g_connections.size(); ++i) {
    if (!g_connections[i]) {
      g_connections[i] = std::move(conn);
      return static_cast<int32_t>(i);
    }
  }
  g_connections.push_back(std::move(conn));
  return static_cast<int32_t>(g_connections.size() - 1);
}

NgConnection* FindConnection(int32_t handle) {
  if (handle < 0 || static_cast<size_t>(handle) >= g_connections.size()) return nullptr;
  return g_connections[static_cast<size_t>(handle)].get();
}

// Runs fn on the connection of handle, turning every failure into the last
// message and failValue.  op names the remote call for the message.
template <typename R, typename Fn>
R OnConnection(const char* call, int32_t handle, const std::string& op, R failValue, Fn&& fn) {
  try {
    std::lock_guard<std::mutex> lock(g_mutex);
    NgConnection* conn = FindConnection(handle);
    if (!conn) {
      Fail(g_processLog, Format("%s: unknown handle %d", call, handle));
      return failValue;
    }
    try {
      return fn(*conn);
    } catch (const UsageError& e) {
      Fail(conn->Log(), Format("%s: %s on %s (handle %d) refused: %s", call, op.c_str(), conn->Peer().c_str(),
                               handle, e.what()));
    } catch (...) {
      ExceptionInfo info = DescribeCurrentException();
      if (info.connectionLost) conn->Drop();
      Fail(conn->Log(), Format("%s: %s on %s (handle %d) failed: %s%s", call, op.c_str(), conn->Peer().c_str(),
                               handle, info.text.c_str(),
                               info.connectionLost ? " (connection closed)" : ""));
    }
  } catch (...) {
    // Only memory exhaustion while reporting gets here; the result says enough.
  }
  return failValue;
}

std::string Quoted(const char* name) { return name ? "\"" + std::string(name) + "\"" : std::string("(null)"); }

}  // namespace
}  // namespace tqng

using namespace tqng;

TQ_DEDUP_EXPORT int32_t dedup_init_v2(const char* host, int32_t port, const char* httpType, TQ_DEDUP_LOG_FN log) {
  try {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (log) g_processLog = log;
    std::string peer = Format("%s:%d", host ? host : "(null)", port);
    if (!host || !*host || port <= 0 || port > 65535) {
      Fail(log, "dedup_init_v2: invalid store address " + peer);
      return -1;
    }
    auto conn = std::make_unique<NgConnection>(host, port, httpType ? httpType : "", log);
    try {
      conn->Connect();
    } catch (...) {
      Fail(log, "dedup_init_v2: connect to " + peer + " failed: " + DescribeCurrentException().text);
      return -1;
    }
    int32_t handle = AddConnection(std::move(conn));
    LogLine(log, LogLevel::Info,
            Format("dedup_init_v2: connected to %s (transfer type \"%s\"), handle %d", peer.c_str(),
                   httpType ? httpType : "", handle));
    return handle;
  } catch (...) {
    return -1;
  }
}

TQ_DEDUP_EXPORT int32_t dedup_start_restore(int32_t handle, const char* name) {
  return OnConnection<int32_t>("dedup_start_restore", handle, "startRecover(" + Quoted(name) + ")", -1,
                               [&](NgConnection& c) {
                                 if (!name) throw UsageError("no object name");
                                 c.StartRestore(name);
                                 LogLine(c.Log(), LogLevel::Info,
                                         Format("dedup_start_restore: handle %d object \"%s\" on %s: session %d",
                                                handle, name, c.Peer().c_str(), c.SessionId()));
                                 return 0;
                               });
}

TQ_DEDUP_EXPORT int64_t dedup_get_object_size(int32_t handle, const char* name) {
  return OnConnection<int64_t>("dedup_get_object_size", handle, "getObjectMetadata(" + Quoted(name) + ")", -1,
                               [&](NgConnection& c) {
                                 if (!name) throw UsageError("no object name");
                                 int64_t size = c.ObjectSize(name);
                                 LogLine(c.Log(), LogLevel::Trace,
                                         Format("dedup_get_object_size: handle %d object \"%s\": %lld bytes",
                                                handle, name, static_cast<long long>(size)));
                                 return size;
                               });
}

// Returns 0 both on failure and when nothing is left to read: the caller
// never asks beyond the object's size, so for it 0 always means failure.
TQ_DEDUP_EXPORT int64_t dedup_read_restore(int32_t handle, char* buffer, int64_t size) {
  return OnConnection<int64_t>(
      "dedup_read_restore", handle, Format("recover(%lld bytes)", static_cast<long long>(size)), 0,
      [&](NgConnection& c) {
        if (size <= 0 || !buffer) throw UsageError("no buffer or a size below 1");
        int64_t got = c.Read(buffer, size);
        LogLine(c.Log(), LogLevel::Trace,
                Format("dedup_read_restore: handle %d session %d asked %lld read %lld%s", handle, c.SessionId(),
                       static_cast<long long>(size), static_cast<long long>(got),
                       got < size ? " (end of object)" : ""));
        if (got == 0) SetLastMessage(Format("dedup_read_restore: handle %d: end of object, nothing read", handle));
        return got;
      });
}

TQ_DEDUP_EXPORT int32_t dedup_skip_restore(int32_t handle, int64_t bytes) {
  return OnConnection<int32_t>("dedup_skip_restore", handle,
                               Format("skip(%lld bytes)", static_cast<long long>(bytes)), -1, [&](NgConnection& c) {
                                 c.Skip(bytes);
                                 LogLine(c.Log(), LogLevel::Trace,
                                         Format("dedup_skip_restore: handle %d session %d skipped %lld", handle,
                                                c.SessionId(), static_cast<long long>(bytes)));
                                 return 0;
                               });
}

TQ_DEDUP_EXPORT int32_t dedup_rewind_restore(int32_t handle) {
  return OnConnection<int32_t>("dedup_rewind_restore", handle, "rewind", -1, [&](NgConnection& c) {
    c.Rewind();
    LogLine(c.Log(), LogLevel::Trace,
            Format("dedup_rewind_restore: handle %d session %d at offset 0", handle, c.SessionId()));
    return 0;
  });
}

// The handle is released even when closing the session fails; the result
// then reports that failure.  After a transport failure the session already
// ended with its connection, so finishing only releases the handle (0).
TQ_DEDUP_EXPORT int32_t dedup_finish_restore(int32_t handle) {
  int32_t result = OnConnection<int32_t>("dedup_finish_restore", handle, "close", -1, [&](NgConnection& c) {
    c.Finish();
    LogLine(c.Log(), LogLevel::Info, Format("dedup_finish_restore: handle %d on %s closed", handle, c.Peer().c_str()));
    return 0;
  });
  try {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (FindConnection(handle)) g_connections[static_cast<size_t>(handle)].reset();
  } catch (...) {
  }
  return result;
}

TQ_DEDUP_EXPORT const char* dedup_get_last_message(void) { return LastMessage(); }
