// dedup_handler.cpp - the service methods of tqdedupd and the per-connection
// bookkeeping around them.
#include "tqdedupd/dedup_handler.h"

#include <thrift/TApplicationException.h>
#include <thrift/transport/TSocket.h>

#include <algorithm>

namespace tqdedupd {

namespace {

using apache::thrift::TApplicationException;

template <class E>
[[noreturn]] void Throw(int32_t code, const std::string& message) {
  E e;
  e.__set_code(code);
  e.__set_message(message);
  throw e;
}

// Turns a store error into the service exception that the methods declare for
// it.  Each method can only meet the kinds that map to its own exceptions.
[[noreturn]] void ThrowFor(const StoreError& e) {
  switch (e.kind()) {
    case StoreError::kNoObject:
      Throw<n7dedup::ObjectNotFound>(kCodeObjectNotFound, e.what());
    case StoreError::kNoSession:
      Throw<n7dedup::SessionNotFound>(kCodeSessionNotFound, e.what());
    case StoreError::kTooManySessions:
      Throw<n7dedup::TooManySessionsException>(kCodeTooManySessions, e.what());
    case StoreError::kIoError:
      Throw<n7dedup::DataCorruptionException>(kCodeIoError, e.what());
    case StoreError::kBadArgument:
      break;
  }
  // No service exception fits a bad argument of skip; the client sees an
  // application exception with this message.
  throw TApplicationException(TApplicationException::UNKNOWN, e.what());
}

std::string Where(const SessionState& s) {
  return Format("object %s, position %lld of %lld", Quote(s.name).c_str(), static_cast<long long>(s.position),
                static_cast<long long>(s.size));
}

int64_t Chunks(int64_t bytes) { return (bytes + 65535) / 65536; }

}  // namespace

DedupHandler::DedupHandler(ObjectStore& store, Faults& faults, RequestLog& log, uint64_t connection,
                           std::shared_ptr<apache::thrift::transport::TTransport> transport)
    : store_(store), faults_(faults), log_(log), connection_(connection), transport_(std::move(transport)) {}

template <class Body>
void DedupHandler::Serve(const char* method, const std::string& args, Body body) {
  faults_.Delay();
  auto line = [&](const char* result) {
    log_.Printf("conn %llu: %s %s -> %s", static_cast<unsigned long long>(connection_), method, args.c_str(), result);
  };
  try {
    try {
      line(body().c_str());
    } catch (const StoreError& e) {
      ThrowFor(e);
    }
  } catch (const apache::thrift::TException& e) {
    line(e.what());
    throw;
  }
}

int32_t DedupHandler::startRecover(const std::string& filename) {
  int32_t conid = 0;
  Serve("startRecover", Quote(filename), [&] {
    SessionState s;
    conid = store_.Open(filename, connection_, &s);
    return Format("conid %d (%lld bytes)", conid, static_cast<long long>(s.size));
  });
  return conid;
}

void DedupHandler::recover(std::string& _return, int32_t conid, int32_t howManyBytes) {
  _return.clear();
  Serve("recover", Format("conid=%d bytes=%d", conid, howManyBytes), [&] {
    if (uint64_t n = faults_.RecoverCallFails())
      Throw<n7dedup::DataCorruptionException>(
          kCodeInjected, Format("injected failure of recover #%llu on conid %d", static_cast<unsigned long long>(n), conid));
    if (faults_.CloseConnection(sent_)) {
      // Closing the accepted socket makes the reply's write fail, so the
      // client sees the connection drop in the middle of the call.
      transport_->close();
      return Format("connection closed instead of replying, after %llu bytes",
                    static_cast<unsigned long long>(sent_));
    }
    if (howManyBytes < 0)
      Throw<n7dedup::DataCorruptionException>(
          kCodeBadArgument, Format("cannot recover a negative byte count (%d) on conid %d", howManyBytes, conid));
    size_t want = static_cast<size_t>(std::min(howManyBytes, kMaxRecoverBytes)) + faults_.ExtraBytes();
    SessionState s;
    store_.Read(conid, want, &_return, &s);
    sent_ += _return.size();
    return Format("%zu bytes, %s", _return.size(), Where(s).c_str());
  });
}

void DedupHandler::skip(int32_t conid, int64_t skipBytes) {
  Serve("skip", Format("conid=%d bytes=%lld", conid, static_cast<long long>(skipBytes)), [&] {
    if (uint64_t n = faults_.SkipCallFails())
      Throw<n7dedup::SessionNotFound>(
          kCodeInjected, Format("injected failure of skip #%llu on conid %d", static_cast<unsigned long long>(n), conid));
    SessionState s;
    store_.Skip(conid, skipBytes, &s);
    return "ok, " + Where(s);
  });
}

void DedupHandler::rewind(int32_t conid) {
  Serve("rewind", Format("conid=%d", conid), [&] {
    SessionState s;
    store_.Rewind(conid, &s);
    return "ok, " + Where(s);
  });
}

void DedupHandler::close(int32_t conid) {
  Serve("close", Format("conid=%d", conid), [&] {
    SessionState s;
    store_.Close(conid, &s);
    return "ok, " + Where(s);
  });
}

void DedupHandler::getObjectMetadata(n7dedup::ObjectMetadata& _return, const std::string& filename) {
  Serve("getObjectMetadata", Quote(filename), [&] {
    ObjectInfo info = store_.Stat(filename);
    n7dedup::ObjectMetadata m;
    m.__set_version(1);
    m.__set_totalBytes(info.size);
    // A fixed share of every object counts as new data, so that the
    // deduplicated and new figures differ and both are non-trivial.
    m.__set_newBytes(info.size - info.size / 3);
    m.__set_totalChunks(Chunks(info.size));
    m.__set_newChunks(Chunks(m.newBytes));
    m.__set_runtime(0);
    m.__set_ctime(static_cast<int32_t>(info.mtime));
    m.__set_softwareVersion("tqdedupd 1.0");
    m.__set_treeHash(std::string(20, '\0'));
    m.__set_treePageId(0);
    _return = m;
    return Format("%lld bytes, ctime %lld", static_cast<long long>(info.size), static_cast<long long>(info.mtime));
  });
}

HandlerFactory::HandlerFactory(ObjectStore& store, Faults& faults, RequestLog& log)
    : store_(store), faults_(faults), log_(log) {}

n7dedup::DedupServiceIf* HandlerFactory::getHandler(const apache::thrift::TConnectionInfo& connInfo) {
  uint64_t id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    id = nextConnection_++;
    live_[connInfo.input.get()] = id;
  }
  // The numeric address: getOrigin() would look the peer's name up.
  std::string peer = "?";
  if (auto* socket = dynamic_cast<apache::thrift::transport::TSocket*>(connInfo.transport.get()))
    peer = socket->getPeerAddress() + ":" + std::to_string(socket->getPeerPort());
  log_.Printf("conn %llu: opened from %s", static_cast<unsigned long long>(id), peer.c_str());
  return new DedupHandler(store_, faults_, log_, id, connInfo.transport);
}

void HandlerFactory::releaseHandler(n7dedup::DedupServiceIf* handler) { delete handler; }

void HandlerFactory::ConnectionEnded(const apache::thrift::protocol::TProtocol* input) {
  uint64_t id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = live_.find(input);
    if (it == live_.end()) return;
    id = it->second;
    live_.erase(it);
  }
  int closed = store_.CloseAllOf(id);
  log_.Printf("conn %llu: ended, %d open session(s) closed", static_cast<unsigned long long>(id), closed);
}

void ConnectionEvents::deleteContext(void*, std::shared_ptr<apache::thrift::protocol::TProtocol> input,
                                     std::shared_ptr<apache::thrift::protocol::TProtocol>) {
  factory_.ConnectionEnded(input.get());
}

}  // namespace tqdedupd
