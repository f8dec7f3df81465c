// fuzz_util.h - what the fuzz targets share: a scratch folder of their own,
// a file saveset made from the input, and the reset between inputs.
#ifndef TVU_FUZZ_UTIL_H
#define TVU_FUZZ_UTIL_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace tvufuzz {

// A folder of this process's own, made once.
const std::string& ScratchDir();
// Writes bytes to ScratchDir()/name and returns the path.
std::string WriteScratch(const std::string& name, const uint8_t* data, size_t size);
// Appends a file saveset for path to the table, initialised and opened;
// returns its index.
int32_t AddFileSaveset(const std::string& path);
// Closes and frees the saveset table, releasing operation mutexes that a
// rejected input left held.
void ResetSavesets();

}  // namespace tvufuzz

#endif
