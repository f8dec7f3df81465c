// ng_connection.cpp - the Thrift client side of one library connection.
#include "tq_dedup_ng/ng_connection.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include <thrift/TConfiguration.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include "n7dedup/DedupService.h"
#include "recover_into.h"
#include "tq_dedup_ng/ng_report.h"

namespace tqng {

using apache::thrift::TConfiguration;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TFramedTransport;
using apache::thrift::transport::TSocket;

namespace {
constexpr uint32_t kKeptFrameBuffer = 2u * kMaxFrameBytes;  // never released while connected
}  // namespace

NgConnection::NgConnection(std::string host, int port, std::string httpType, TQ_DEDUP_LOG_FN log)
    : host_(std::move(host)), port_(port), httpType_(std::move(httpType)), log_(log) {
  peer_ = host_ + ":" + std::to_string(port_);
}

NgConnection::~NgConnection() { Drop(); }

void NgConnection::Connect() {
  // The frame limit must admit the largest recover reply; the message limit
  // must be at least the frame limit, or a full frame is refused as well.
  constexpr int kDefaultMessage = TConfiguration::DEFAULT_MAX_MESSAGE_SIZE;
  constexpr int kMaxMessage = kDefaultMessage > kMaxFrameBytes ? kDefaultMessage : kMaxFrameBytes;
  auto config = std::make_shared<TConfiguration>(kMaxMessage, kMaxFrameBytes);
  auto socket = std::make_shared<TSocket>(host_, port_, config);
  socket->setConnTimeout(kConnectTimeoutMs);
  socket->setRecvTimeout(kIoTimeoutMs);
  socket->setSendTimeout(kIoTimeoutMs);
  socket_ = socket;
  // A connection stays open for a whole consolidation, one per saveset of
  // the chain, and reads with the caller's block size over and over: the
  // frame buffer keeps its storage from one reply to the next (about the
  // largest read per connection) rather than being allocated and faulted in
  // again for every block.
  constexpr uint32_t kWriteBuffer = TFramedTransport::DEFAULT_BUFFER_SIZE;
  transport_ = std::make_shared<TFramedTransport>(socket, kWriteBuffer, kKeptFrameBuffer, config);
  // Reply strings are at most one recover reply long and lists at most a
  // store's history: a length beyond them is refused before it is allocated.
  client_ = std::make_unique<n7dedup::DedupServiceClient>(
      std::make_shared<TBinaryProtocol>(transport_, kMaxRecoverBytes, 1 << 20, false, true));
  transport_->open();
}

void NgConnection::RequireOpen() const {
  if (!socket_ || !socket_->isOpen()) {
    throw UsageError("the connection to " + peer_ + " is closed after an earlier failure");
  }
}

void NgConnection::RequireSession() const {
  if (!started_) throw UsageError("no restore was started on this handle");
  RequireOpen();
}

void NgConnection::StartRestore(const std::string& name) {
  if (started_) throw UsageError(Format("a restore (session %d) is already running on this handle", conid_));
  RequireOpen();
  int32_t conid = client_->startRecover(name);
  if (conid < 0) throw UsageError(Format("the store returned the invalid session id %d", conid));
  conid_ = conid;
  started_ = true;
}

int64_t NgConnection::ObjectSize(const std::string& name) {
  RequireOpen();
  n7dedup::ObjectMetadata meta;
  client_->getObjectMetadata(meta, name);
  return meta.totalBytes;
}

int64_t NgConnection::Read(char* buffer, int64_t size) {
  RequireSession();
  int64_t got = 0;
  while (got < size) {
    int32_t ask = static_cast<int32_t>(std::min<int64_t>(size - got, kMaxRecoverBytes));
    // The reply's bytes go from the frame straight into the caller's buffer.
    const int64_t length = n7dedup::RecoverInto(*client_, conid_, ask, buffer + got, nullptr);
    // An empty reply is the end of the object.  A short one is not: the
    // store may answer in pieces, so only emptiness ends the loop.
    if (length == 0) break;
    int64_t n = length;
    if (n > ask) {
      // The store sent more than asked; the surplus cannot be handed to the
      // caller (whose buffer ends here) and is dropped.
      LogLine(log_, LogLevel::Warning,
              Format("recover on %s returned %lld bytes for %d asked; the surplus is dropped", peer_.c_str(),
                     static_cast<long long>(n), ask));
      n = ask;
    }
    got += n;
  }
  return got;
}

void NgConnection::Skip(int64_t bytes) {
  if (bytes < 0) throw UsageError(Format("cannot skip a negative count (%lld)", static_cast<long long>(bytes)));
  RequireSession();
  client_->skip(conid_, bytes);
}

void NgConnection::Rewind() {
  RequireSession();
  client_->rewind(conid_);
}

void NgConnection::Finish() {
  std::exception_ptr failure;
  if (started_ && socket_ && socket_->isOpen()) {
    try {
      client_->close(conid_);
    } catch (...) {
      failure = std::current_exception();
    }
  }
  started_ = false;
  Drop();
  if (failure) std::rethrow_exception(failure);
}

void NgConnection::Drop() {
  // Closing the socket itself, not the framed transport: that would first
  // try to send whatever a failed request left in its write buffer.
  if (socket_) socket_->close();
}

}  // namespace tqng
