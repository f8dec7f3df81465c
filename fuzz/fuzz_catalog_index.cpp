// fuzz_catalog_index.cpp - the catalog index: a consolidated catalog made of
// the input is indexed, then directories named by its own lines are listed.
#include <cstdio>
#include <string>

#include "fuzz_util.h"
#include "runtime/lis_search.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A new name each time: the index is kept per catalog file.
  static unsigned n = 0;
  const std::string path = tvufuzz::WriteScratch("index" + std::to_string(n++ % 2) + ".lsl", data, size);
  char why[256];
  if (korvo::INIT_LIS_LIB(path.c_str(), why, sizeof why) != 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const char* dirs[] = {"/", "d", "C:", "C:/x", "D", "d/sub"};
  for (const char* dir : dirs) {
    FILE* tmp = tmpfile();
    if (!tmp) return 0;
    long files = 0, folders = 0;
    korvo::iEXTRACT_DIR(path.c_str(), dir, tmp, &files, &folders);
    fclose(tmp);
  }
  size_t from = 0;
  while (from < text.size()) {
    size_t nl = text.find('\n', from);
    if (nl == std::string::npos) nl = text.size();
    const std::string line = text.substr(from, nl - from);
    if (line.find('\0') == std::string::npos) korvo::iIS_FILESYSTEM_FILE_OR_DIRECTORY(line.c_str());
    from = nl + 1;
  }
  return 0;
}
