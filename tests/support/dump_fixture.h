// dump_fixture.h - UFS dump records made in memory, and the committed dump
// fixtures (tests/fixtures/dump/, made by scripts/make_dump_fixtures.sh).
#ifndef TVU_TESTS_DUMP_FIXTURE_H
#define TVU_TESTS_DUMP_FIXTURE_H

#include <cstdint>
#include <string>
#include <vector>

namespace tvutest {

// A header record in the host's byte order with a valid checksum: type, inode
// number, the address flags (c_count is their number), di_size and c_flags.
std::string DumpHeader(int32_t type, uint32_t inode, const std::vector<uint8_t>& flags, uint64_t size,
                       uint32_t cflags = 0, uint32_t magic = 60012);
// A data record: 1024 bytes that differ from every other seed's.
std::string DumpData(int seed);
// The path of a committed fixture.
std::string DumpFixture(const std::string& name);

}  // namespace tvutest

#endif
