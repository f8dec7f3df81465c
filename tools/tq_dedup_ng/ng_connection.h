// ng_connection.h - one connection of the next-generation dedup library to
// the store: the Thrift client and the restore session running on it.
//
// The methods throw whatever the transport or the service throws; the
// exported C functions catch it and turn it into the last failure message.
#ifndef TQ_DEDUP_NG_CONNECTION_H
#define TQ_DEDUP_NG_CONNECTION_H

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "tq_dedup.h"

namespace apache::thrift::transport {
class TTransport;
}
namespace n7dedup {
class DedupServiceClient;
}

namespace tqng {

// A failure found by the library itself (bad argument, wrong state), as
// opposed to one reported by the transport or the service.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The largest amount asked of the service in one recover call, and the frame
// size the transport accepts: one full reply plus room for its envelope.
constexpr int32_t kMaxRecoverBytes = 64 * 1024 * 1024;
constexpr int32_t kMaxFrameBytes = kMaxRecoverBytes + 1024 * 1024;

// Socket time-outs in milliseconds.
constexpr int kConnectTimeoutMs = 30 * 1000;
constexpr int kIoTimeoutMs = 120 * 1000;

class NgConnection {
 public:
  NgConnection(std::string host, int port, std::string httpType, TQ_DEDUP_LOG_FN log);
  ~NgConnection();
  NgConnection(const NgConnection&) = delete;
  NgConnection& operator=(const NgConnection&) = delete;

  // Opens the TCP connection.
  void Connect();

  // Opens a restore session on the object; only one per connection.
  void StartRestore(const std::string& name);

  // totalBytes of the object's metadata; needs no restore session.
  int64_t ObjectSize(const std::string& name);

  // Reads up to size bytes of the restore stream, asking the service for at
  // most kMaxRecoverBytes at a time, until size bytes arrived or the service
  // returns an empty reply (the end of the object).  Returns the count.
  int64_t Read(char* buffer, int64_t size);

  void Skip(int64_t bytes);
  void Rewind();

  // Closes the restore session (if one was started) and the connection.
  // The connection is closed even when closing the session fails; that
  // failure is thrown afterwards.
  void Finish();

  // Drops the connection after a transport failure: later calls fail at
  // once instead of reading a reply that belongs to an earlier request.
  void Drop();

  // "host:port", for messages.
  const std::string& Peer() const { return peer_; }
  const std::string& HttpType() const { return httpType_; }
  TQ_DEDUP_LOG_FN Log() const { return log_; }
  bool Started() const { return started_; }
  int32_t SessionId() const { return conid_; }

 private:
  void RequireOpen() const;
  void RequireSession() const;

  std::string host_;
  int port_;
  std::string peer_;
  std::string httpType_;
  TQ_DEDUP_LOG_FN log_;
  std::shared_ptr<apache::thrift::transport::TTransport> socket_;     // the TCP socket
  std::shared_ptr<apache::thrift::transport::TTransport> transport_;  // the framed transport over it
  std::unique_ptr<n7dedup::DedupServiceClient> client_;
  bool started_ = false;
  int32_t conid_ = -1;
};

}  // namespace tqng

#endif
