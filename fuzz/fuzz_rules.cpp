// fuzz_rules.cpp - the mapper rules file over the small chain: its catalog
// names every item where it lies, the rules file is the input.  The tree is
// opened with the rules, every folder listed and every file read.
#include <string>

#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool once = [] {
    const std::string catalog = tvufuzz::SmallChainCatalog();
    tvufuzz::SetSmallChainCatalog(reinterpret_cast<const uint8_t*>(catalog.data()), catalog.size());
    return true;
  }();
  (void)once;
  const std::string rules = tvufuzz::WriteScratch("rules.map", data, size);
  tvufuzz::WalkSmallChainTree(rules, 2000);
  return 0;
}
