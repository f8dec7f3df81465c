// dump_fixture.cpp - UFS dump records made in memory.
#include "support/dump_fixture.h"

#include <cstring>

#include "archive/dump_format.h"

namespace tvutest {
namespace {

void Put(std::string* rec, dump::Field f, uint64_t v) {
  for (size_t i = 0; i < f.len; ++i) {  // the host is little-endian
    (*rec)[f.off + i] = static_cast<char>(v & 0xff);
    v >>= 8;
  }
}

}  // namespace

std::string DumpHeader(int32_t type, uint32_t inode, const std::vector<uint8_t>& flags, uint64_t size,
                       uint32_t cflags, uint32_t magic) {
  std::string rec(dump::kRecordSize, '\0');
  Put(&rec, dump::kType, static_cast<uint32_t>(type));
  Put(&rec, dump::kDate, 1795000000);
  Put(&rec, dump::kInumber, inode);
  Put(&rec, dump::kMagic, magic);
  Put(&rec, dump::kMode, 0100644);
  Put(&rec, dump::kSize, size);
  Put(&rec, dump::kCount, flags.size());
  for (size_t i = 0; i < flags.size() && i < dump::kMaxAddr; ++i) rec[dump::kAddr.off + i] = static_cast<char>(flags[i]);
  Put(&rec, dump::kFlags, cflags);
  dump::SetChecksum(reinterpret_cast<uint8_t*>(&rec[0]));
  return rec;
}

std::string DumpData(int seed) {
  std::string rec(dump::kRecordSize, '\0');
  uint32_t x = 2463534242u + static_cast<uint32_t>(seed) * 7919u;
  for (char& c : rec) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    c = static_cast<char>(x | 1);  // never a zero byte: a hole read as data would show
  }
  return rec;
}

std::string DumpFixture(const std::string& name) { return std::string(TVU_SOURCE_DIR) + "/tests/fixtures/dump/" + name; }

}  // namespace tvutest
