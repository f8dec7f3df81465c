// fuzz_tree.cpp - tree mode over a fuzzed consolidated catalog: the small
// chain's savesets are fixed, the catalog is the input.  Every folder is
// listed and every file read (its stream located first when the catalog
// does not say where its data lies), then the whole tree is enumerated.
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tvufuzz::SetSmallChainCatalog(data, size);
  tvufuzz::WalkSmallChainTree("", 2000);
  return 0;
}
