// recover_into.cpp - recover with its reply read into the caller's buffer.
#include "recover_into.h"

#include <thrift/TApplicationException.h>
#include <thrift/protocol/TProtocol.h>
#include <thrift/protocol/TProtocolException.h>
#include <thrift/transport/TTransport.h>

#include <vector>

namespace n7dedup {

using apache::thrift::TApplicationException;
using apache::thrift::protocol::TMessageType;
using apache::thrift::protocol::TProtocol;
using apache::thrift::protocol::TProtocolException;
using apache::thrift::protocol::TType;

namespace {

// Reads a binary field's bytes as readBinary would (length, its checks),
// the first `room` of them into buffer and the rest into *surplus.
int64_t ReadBinaryInto(TProtocol* iprot, char* buffer, int32_t room, std::string* surplus) {
  int32_t size = 0;
  iprot->readI32(size);
  if (size < 0) throw TProtocolException(TProtocolException::NEGATIVE_SIZE);
  if (size == 0) return 0;
  auto* transport = iprot->getTransport().get();
  transport->checkReadBytesAvailable(size);
  if (room < 0) room = 0;
  const int32_t direct = size < room ? size : room;
  if (direct > 0) transport->readAll(reinterpret_cast<uint8_t*>(buffer), static_cast<uint32_t>(direct));
  const int32_t rest = size - direct;
  if (rest > 0) {
    std::vector<uint8_t> tail(static_cast<size_t>(rest));
    transport->readAll(tail.data(), static_cast<uint32_t>(rest));
    if (surplus != nullptr) surplus->assign(reinterpret_cast<const char*>(tail.data()), tail.size());
  }
  return size;
}

}  // namespace

int64_t RecoverInto(DedupServiceClient& client, int32_t conid, int32_t ask, char* buffer, std::string* surplus) {
  if (surplus != nullptr) surplus->clear();
  client.send_recover(conid, ask);
  TProtocol* iprot = client.getInputProtocol().get();

  // The message envelope, as the generated recv_recover reads it.
  int32_t rseqid = 0;
  std::string fname;
  TMessageType mtype;
  iprot->readMessageBegin(fname, mtype, rseqid);
  if (mtype == apache::thrift::protocol::T_EXCEPTION) {
    TApplicationException x;
    x.read(iprot);
    iprot->readMessageEnd();
    iprot->getTransport()->readEnd();
    throw x;
  }
  if (mtype != apache::thrift::protocol::T_REPLY) {
    iprot->skip(apache::thrift::protocol::T_STRUCT);
    iprot->readMessageEnd();
    iprot->getTransport()->readEnd();
  }
  if (fname.compare("recover") != 0) {
    iprot->skip(apache::thrift::protocol::T_STRUCT);
    iprot->readMessageEnd();
    iprot->getTransport()->readEnd();
  }

  // The result struct, field by field as DedupService_recover_presult::read.
  apache::thrift::protocol::TInputRecursionTracker tracker(*iprot);
  bool haveSuccess = false, haveSnf = false, haveDce = false;
  int64_t length = 0;
  SessionNotFound snf;
  DataCorruptionException dce;
  TType ftype;
  int16_t fid;
  iprot->readStructBegin(fname);
  for (;;) {
    iprot->readFieldBegin(fname, ftype, fid);
    if (ftype == apache::thrift::protocol::T_STOP) break;
    if (fid == 0 && ftype == apache::thrift::protocol::T_STRING) {
      length = ReadBinaryInto(iprot, buffer, ask, surplus);
      haveSuccess = true;
    } else if (fid == 1 && ftype == apache::thrift::protocol::T_STRUCT) {
      snf.read(iprot);
      haveSnf = true;
    } else if (fid == 2 && ftype == apache::thrift::protocol::T_STRUCT) {
      dce.read(iprot);
      haveDce = true;
    } else {
      iprot->skip(ftype);
    }
    iprot->readFieldEnd();
  }
  iprot->readStructEnd();
  iprot->readMessageEnd();
  iprot->getTransport()->readEnd();

  if (haveSuccess) return length;
  if (haveSnf) throw snf;
  if (haveDce) throw dce;
  throw TApplicationException(TApplicationException::MISSING_RESULT, "recover failed: unknown result");
}

}  // namespace n7dedup
