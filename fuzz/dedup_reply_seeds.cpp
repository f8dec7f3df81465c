// dedup_reply_seeds.cpp - writes the seed corpus of fuzz_dedup_reply: what a
// store sends back for one session, each reply a frame of the binary
// protocol.  Usage: dedup_reply_seeds FOLDER
#include <cstdio>
#include <memory>
#include <string>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include "n7dedup/DedupService.h"

namespace {

using apache::thrift::protocol::T_EXCEPTION;
using apache::thrift::protocol::T_REPLY;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TMemoryBuffer;

// One framed reply message holding `result`.
template <class Result>
std::string Frame(const char* name, const Result& result) {
  auto buffer = std::make_shared<TMemoryBuffer>();
  TBinaryProtocol proto(buffer);
  proto.writeMessageBegin(name, T_REPLY, 0);
  result.write(&proto);
  proto.writeMessageEnd();
  const std::string body = buffer->getBufferAsString();
  std::string frame(4, '\0');
  for (int i = 0; i < 4; ++i) frame[i] = static_cast<char>(body.size() >> (24 - 8 * i));
  return frame + body;
}

std::string StartReply(int32_t conid) {
  n7dedup::DedupService_startRecover_result r;
  r.success = conid;
  r.__isset.success = true;
  return Frame("startRecover", r);
}

std::string RecoverReply(const std::string& bytes) {
  n7dedup::DedupService_recover_result r;
  r.success = bytes;
  r.__isset.success = true;
  return Frame("recover", r);
}

std::string SessionNotFoundReply(const char* name) {
  n7dedup::DedupService_recover_result r;
  r.snf.code = 3;
  r.snf.message = "no such session";
  r.__isset.snf = true;
  return Frame(name, r);
}

template <class Result>
std::string VoidReply(const char* name) {
  Result r;
  return Frame(name, r);
}

std::string MetadataReply() {
  n7dedup::DedupService_getObjectMetadata_result r;
  r.success.totalChunks = 10;
  r.success.newChunks = 4;
  r.success.totalBytes = 1 << 20;
  r.success.newBytes = 1 << 18;
  r.success.softwareVersion = "7.1";
  r.success.__isset.softwareVersion = true;
  r.success.replicationRequest.host = "127.0.0.1";
  r.success.replicationRequest.port = 9090;
  r.success.__isset.replicationRequest = true;
  r.__isset.success = true;
  return Frame("getObjectMetadata", r);
}

void Write(const std::string& folder, const char* name, const std::string& bytes) {
  const std::string path = folder + "/" + name;
  FILE* fp = fopen(path.c_str(), "wb");
  if (!fp || fwrite(bytes.data(), 1, bytes.size(), fp) != bytes.size() || fclose(fp) != 0) {
    fprintf(stderr, "dedup_reply_seeds: cannot write %s\n", path.c_str());
    exit(1);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: dedup_reply_seeds FOLDER\n");
    return 2;
  }
  const std::string tail = VoidReply<n7dedup::DedupService_skip_result>("skip") +
                           VoidReply<n7dedup::DedupService_rewind_result>("rewind") + MetadataReply() +
                           VoidReply<n7dedup::DedupService_close_result>("close");
  // A whole session with replies of the asked sizes.
  Write(argv[1], "session", StartReply(0) + RecoverReply(std::string(16, 'a')) + RecoverReply("b") +
                                RecoverReply(std::string(4096, 'c')) + RecoverReply(std::string(100, 'd')) + tail);
  // Replies longer than asked, and an empty one.
  Write(argv[1], "long", StartReply(7) + RecoverReply(std::string(40, 'a')) + RecoverReply("bb") +
                             RecoverReply("") + RecoverReply(std::string(60000, 'e')) + tail);
  // The store forgets the session.
  Write(argv[1], "lost", StartReply(1) + SessionNotFoundReply("recover"));
  return 0;
}
