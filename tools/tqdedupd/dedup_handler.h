// dedup_handler.h - the DedupService of tqdedupd: one handler per client
// connection over the shared object store, the factory that makes them, and
// the server events that release a connection's sessions when it ends.
#ifndef TQDEDUPD_DEDUP_HANDLER_H
#define TQDEDUPD_DEDUP_HANDLER_H

#include <thrift/server/TServer.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "n7dedup/DedupService.h"
#include "tqdedupd/faults.h"
#include "tqdedupd/object_store.h"
#include "tqdedupd/request_log.h"

namespace tqdedupd {

// The numeric codes carried by the service exceptions this server throws.
enum ErrorCode : int32_t {
  kCodeObjectNotFound = 1,
  kCodeSessionNotFound = 2,
  kCodeTooManySessions = 3,
  kCodeBadArgument = 4,
  kCodeIoError = 5,
  kCodeInjected = 99,  // a failure asked for by a fault switch
};

// Largest reply recover gives (before --extra-bytes); a larger request is
// answered short, which clients accept.
constexpr int32_t kMaxRecoverBytes = 64 * 1024 * 1024;

class DedupHandler : public n7dedup::DedupServiceIf {
 public:
  DedupHandler(ObjectStore& store, Faults& faults, RequestLog& log, uint64_t connection,
               std::shared_ptr<apache::thrift::transport::TTransport> transport);

  int32_t startRecover(const std::string& filename) override;
  void recover(std::string& _return, int32_t conid, int32_t howManyBytes) override;
  void skip(int32_t conid, int64_t skipBytes) override;
  void rewind(int32_t conid) override;
  void close(int32_t conid) override;
  void getObjectMetadata(n7dedup::ObjectMetadata& _return, const std::string& filename) override;

 private:
  // Waits the reply delay, runs body (which returns the result text for the
  // log), logs one line, and turns store errors into service exceptions.
  template <class Body>
  void Serve(const char* method, const std::string& args, Body body);

  ObjectStore& store_;
  Faults& faults_;
  RequestLog& log_;
  const uint64_t connection_;
  // The accepted socket, closed by --close-after-bytes.
  std::shared_ptr<apache::thrift::transport::TTransport> transport_;
  uint64_t sent_ = 0;  // recover data sent on this connection
};

// Makes one handler per accepted connection and keeps track of the live
// connections so that their sessions can be released when they end.
class HandlerFactory : public n7dedup::DedupServiceIfFactory {
 public:
  HandlerFactory(ObjectStore& store, Faults& faults, RequestLog& log);

  n7dedup::DedupServiceIf* getHandler(const apache::thrift::TConnectionInfo& connInfo) override;
  void releaseHandler(n7dedup::DedupServiceIf* handler) override;

  // Closes the sessions of the connection whose input protocol is given.
  void ConnectionEnded(const apache::thrift::protocol::TProtocol* input);

 private:
  ObjectStore& store_;
  Faults& faults_;
  RequestLog& log_;
  std::mutex mutex_;  // guards the two below
  std::map<const apache::thrift::protocol::TProtocol*, uint64_t> live_;
  uint64_t nextConnection_ = 1;
};

// Server events: the listening callback, and connection ends.  The threaded
// server keeps a finished connection's handler alive until a later
// connection ends, so the end is taken from deleteContext, which runs as soon
// as the client's thread stops serving it.
class ConnectionEvents : public apache::thrift::server::TServerEventHandler {
 public:
  ConnectionEvents(HandlerFactory& factory, std::function<void()> onListening)
      : factory_(factory), onListening_(std::move(onListening)) {}

  void preServe() override { onListening_(); }
  void deleteContext(void* serverContext, std::shared_ptr<apache::thrift::protocol::TProtocol> input,
                     std::shared_ptr<apache::thrift::protocol::TProtocol> output) override;

 private:
  HandlerFactory& factory_;
  std::function<void()> onListening_;
};

}  // namespace tqdedupd

#endif
