// fuzz_catalog_line.cpp - catalog lines through the parser, in both modes,
// for every catalog family and data type and several admitted-type sets.
// The first input byte chooses the settings; the rest is the line.
#include <cstdint>
#include <string>

#include "fuzz_util.h"
#include "report/tvu_report.h"
#include "vfs/tq_vfs_catalog.h"
#include "vfs/tq_vfs_saveset.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  static bool once = [] {
    tvufuzz::AddFileSaveset(tvufuzz::WriteScratch("SF20261101020000.cpio", nullptr, 0));
    tvufuzz::AddFileSaveset(tvufuzz::WriteScratch("SI20261102020000.cpio", nullptr, 0));
    return true;
  }();
  (void)once;
  static const char* const kPaths[] = {"c.lis", "c.lsl", "c.lst", "c.lnd"};
  static const char* const kTypes[] = {"f", "d", "fd", "R", "fdR"};
  const uint8_t sel = data[0];
  CatalogSetPath(kPaths[sel & 3]);
  g_iCatalogType = (sel >> 2) % 5;
  CatalogSetLineByLine((sel & 0x20) != 0);
  CatalogSetSavesetType(1 + (sel >> 6));
  const std::string line(reinterpret_cast<const char*>(data + 1), size - 1);
  LIS_ENTRY e{};
  try {
    ParseSavesetEntry(&e, line.c_str(), kTypes[sel % 5]);
  } catch (const TvuFatalError&) {
    // A line the module refuses to go on with: a clean rejection.
  }
  return 0;
}
