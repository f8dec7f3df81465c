// Tests of the dump header record: the checks before any field is trusted,
// the three magics, and the byte-order conversion against a reader of the
// other order (the swapped fixture is read end to end in dump_test).
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "archive/dump_format.h"
#include "support/dump_fixture.h"

namespace {

using tvutest::DumpHeader;

const uint8_t* Bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }
uint8_t* Bytes(std::string* s) { return reinterpret_cast<uint8_t*>(&(*s)[0]); }

TEST(DumpFormat, ChecksBeforeTrustingAField) {
  dump::Header h;
  for (uint32_t magic : {dump::kMagicNfs, dump::kMagicOld, dump::kMagicUfs2}) {
    ASSERT_EQ(dump::Check::kOk, dump::DecodeHeader(Bytes(DumpHeader(2, 7, {1}, 10, 0, magic)), &h)) << magic;
    EXPECT_EQ(magic == dump::kMagicOld ? dump::kMagicNfs : magic, h.magic);
    EXPECT_FALSE(h.swapped);
  }
  std::string rec = DumpHeader(2, 7, {1, 0, 1}, 3000);
  rec[200] ^= 1;  // one flag byte changed: the words no longer sum up
  EXPECT_EQ(dump::Check::kBadChecksum, dump::DecodeHeader(Bytes(rec), &h));
  EXPECT_EQ(dump::Check::kBadMagic, dump::DecodeHeader(Bytes(std::string(1024, '\0')), &h));
  EXPECT_EQ(dump::Check::kBadMagic, dump::DecodeHeader(Bytes(DumpHeader(2, 7, {}, 0, 0, 60013)), &h));
  // c_count is an index limit for c_addr: more than 512 is refused.
  rec = DumpHeader(2, 7, {}, 0);
  rec[160] = 0x01;
  rec[161] = 0x02;  // 513
  dump::SetChecksum(Bytes(&rec));
  EXPECT_EQ(dump::Check::kBadCount, dump::DecodeHeader(Bytes(rec), &h));
}

TEST(DumpFormat, OtherByteOrderReadsTheSameFields) {
  // A size beyond 4 GiB shows that di_size is swapped as one 64-bit field.
  const std::string native = DumpHeader(4, 70000, {1, 0, 0, 1, 1}, 0x123456789abull, 0x80);
  std::string other = native;
  ASSERT_TRUE(dump::ConvertByteOrder(Bytes(&other)));
  EXPECT_NE(native, other);
  EXPECT_EQ(dump::kChecksum, dump::WordSum(Bytes(other), true));
  dump::Header a, b;
  ASSERT_EQ(dump::Check::kOk, dump::DecodeHeader(Bytes(native), &a));
  ASSERT_EQ(dump::Check::kOk, dump::DecodeHeader(Bytes(other), &b));
  EXPECT_TRUE(b.swapped);
  EXPECT_EQ(a.type, b.type);
  EXPECT_EQ(a.inumber, b.inumber);
  EXPECT_EQ(a.size, b.size);
  EXPECT_EQ(a.mode, b.mode);
  EXPECT_EQ(a.count, b.count);
  EXPECT_EQ(a.flags, b.flags);
  EXPECT_EQ(0, memcmp(a.addr, b.addr, sizeof a.addr));
  ASSERT_TRUE(dump::ConvertByteOrder(Bytes(&other)));
  EXPECT_EQ(native, other);  // back again
  std::string junk(1024, 'x');
  EXPECT_FALSE(dump::ConvertByteOrder(Bytes(&junk)));
  EXPECT_EQ(std::string(1024, 'x'), junk);
}

}  // namespace
