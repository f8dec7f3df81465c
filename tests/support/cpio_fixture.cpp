// cpio_fixture.cpp - the one-record saveset of the item-read tests.
#include "support/cpio_fixture.h"

#include <stdexcept>

#include "archive/cpio_format.h"

namespace tvutest {

OneRecordSaveset MakeOneRecordSaveset(size_t filler) {
  OneRecordSaveset s;
  for (int i = 0; i < 100; ++i) s.data += static_cast<char>('A' + i % 26);
  cpio::Header h{};
  h.mode = 0100644;
  h.nlink = 1;
  h.filesize = s.data.size();
  h.name = "d/item";
  std::string record, why;
  if (!cpio::EncodeRecordHeader(cpio::Format::kNewc, h, &record, &why)) throw std::runtime_error(why);
  s.recordAt = filler;
  s.dataRel = record.size();
  s.stream = std::string(filler, '#') + record + s.data;
  return s;
}

}  // namespace tvutest
