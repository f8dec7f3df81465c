// cpio_fixture.h - a small saveset for tests of item reads: filler bytes,
// then one newc record "d/item" whose 100 data bytes are "ABC...".
#ifndef TVU_TESTS_CPIO_FIXTURE_H
#define TVU_TESTS_CPIO_FIXTURE_H

#include <cstddef>
#include <string>

namespace tvutest {

struct OneRecordSaveset {
  std::string stream;  // the whole saveset
  std::string data;    // the record's data
  size_t recordAt;     // where the record starts in the stream
  size_t dataRel;      // where its data starts, relative to the record
};

// The saveset with `filler` bytes of "#" before the record.
OneRecordSaveset MakeOneRecordSaveset(size_t filler = 40);

}  // namespace tvutest

#endif
