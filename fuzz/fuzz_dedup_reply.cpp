// fuzz_dedup_reply.cpp - the dedup store client over fuzzed replies: the
// input is what the store sends back (frames of the binary protocol), read
// from memory, while the client's requests go nowhere.  One session's calls
// in the module's order: start, reads of several sizes, skip, rewind, the
// object's metadata, close.  A read must never report more bytes than asked.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include <thrift/transport/TTransportException.h>
#include <thrift/transport/TVirtualTransport.h>

#include "tqs/tq_dedup/n7dedup_client2.h"

namespace {

using apache::thrift::transport::TTransportException;

// Reads come from the fuzz input, writes are dropped.
class ReplyTransport : public apache::thrift::transport::TVirtualTransport<ReplyTransport> {
 public:
  ReplyTransport(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool isOpen() const override { return true; }
  uint32_t read(uint8_t* buf, uint32_t len) {
    const size_t n = std::min<size_t>(len, size_ - pos_);
    memcpy(buf, data_ + pos_, n);
    pos_ += n;
    return static_cast<uint32_t>(n);
  }
  void write(const uint8_t*, uint32_t) {}

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  DedupClientStruct client;
  if (client.ConnectTransport(std::make_shared<ReplyTransport>(data, size)) != 0) abort();
  static std::vector<char> buffer(1 << 16);
  const int conid = client.startRecv_h("SF20261101020000");
  for (int32_t ask : {16, 1, 4096, 65536}) {
    int32_t got = -1;
    if (client.fread_h(conid, buffer.data(), ask, &got) == 0 && (got < 0 || got > ask)) abort();
    if (got > 0 && client.lastReplyBytes() < got) abort();
  }
  client.skip_h(conid, 1 << 20);
  client.rewind_h(conid);
  DEDUP_OBJECT_INFO info;
  if (client.GetObjectInfo("SF20261101020000", &info) == 0 &&
      (memchr(info.szSoftwareId, 0, sizeof info.szSoftwareId) == nullptr ||
       memchr(info.szReplication, 0, sizeof info.szReplication) == nullptr))
    abort();
  client.Close();
  return 0;
}
