// Tests of the dedup client against replies held in memory: what a store
// sends back is checked before the client trusts a length in it.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include <thrift/transport/TBufferTransports.h>

#include "tqs/tq_dedup/n7dedup_client2.h"

namespace {

using apache::thrift::transport::TMemoryBuffer;

// A frame: its length, big-endian, then the body.
std::string Frame(const std::string& body) {
  std::string frame(4, '\0');
  for (int i = 0; i < 4; ++i) frame[i] = static_cast<char>(body.size() >> (24 - 8 * i));
  return frame + body;
}

std::string Be32(uint32_t v) {
  std::string s(4, '\0');
  for (int i = 0; i < 4; ++i) s[i] = static_cast<char>(v >> (24 - 8 * i));
  return s;
}

// A reply message header of the binary protocol (strict form).
std::string ReplyHead(const std::string& name) { return Be32(0x80010002u) + Be32(name.size()) + name + Be32(0); }

// The replies go into the buffer first; the client's requests are appended
// after them and never read, as long as the client reads only its replies.
std::shared_ptr<TMemoryBuffer> Replies(const std::string& bytes) {
  auto buffer = std::make_shared<TMemoryBuffer>();
  buffer->write(reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size()));
  return buffer;
}

TEST(DedupReply, StartAndReadFromMemory) {
  // startRecover -> conid 5; recover -> 40 bytes for 16 asked.
  const std::string start = ReplyHead("startRecover") + "\x08" + std::string("\0\0", 2) + Be32(5) + '\0';
  const std::string data(40, 'x');
  const std::string recover = ReplyHead("recover") + "\x0b" + std::string("\0\0", 2) + Be32(40) + data + '\0';
  DedupClientStruct client;
  ASSERT_EQ(client.ConnectTransport(Replies(Frame(start) + Frame(recover))), 0);
  EXPECT_EQ(client.startRecv_h("SF20261101020000"), 5);
  char buffer[16];
  int32_t got = -1;
  ASSERT_EQ(client.fread_h(5, buffer, sizeof buffer, &got), 0);
  EXPECT_EQ(got, 16);
  EXPECT_EQ(client.lastReplyBytes(), 40);
  EXPECT_EQ(std::string(buffer, 16), data.substr(0, 16));
}

TEST(DedupReply, LengthsBeyondAnyReplyAreRefusedBeforeAllocating) {
  // A message name and a binary field that claim about 1.9 GB in a frame of
  // a few bytes: refused by a limit, not allocated and then found short.
  const std::string hugeName = Be32(0x80010002u) + Be32(0x72657300u) + "rec";
  const std::string hugeBinary = ReplyHead("recover") + "\x0b" + std::string("\0\0", 2) + Be32(0x72657300u) + "xyz";
  for (const std::string& body : {hugeName, hugeBinary}) {
    DedupClientStruct client;
    ASSERT_EQ(client.ConnectTransport(Replies(Frame(body))), 0);
    char buffer[16];
    int32_t got = -1;
    EXPECT_EQ(client.fread_h(1, buffer, sizeof buffer, &got), -1);
    EXPECT_EQ(got, 0);
  }
}

}  // namespace
