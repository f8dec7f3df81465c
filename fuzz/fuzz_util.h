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

// A small chain for the targets that drive the module over a fuzzed file:
// two CPIO savesets (a full SF20261101020000 with "d", "d/a.txt",
// "d/b.bin"; an incremental SI20261102020000 with a newer "d/a.txt" and a
// changed-block file "vm/x.vmdk@0-512.cbt"), their saveset list,
// "consolidate.arg" and TQ_INI, all for the consolidation "CON".  Made once;
// returns the meta files folder (ending in '/'), where the target writes
// "CON.lsl", the consolidated catalog.
const std::string& SmallChainMetaDir();
// Writes the chain's consolidated catalog ("CON.lsl"), making the chain first.
void SetSmallChainCatalog(const uint8_t* data, size_t size);
// The consolidated catalog of that chain that names every item where it is.
std::string SmallChainCatalog();

// Opens the tree over the small chain (with the rules file when not empty),
// lists every folder and reads every file it can reach (at most maxNodes
// nodes and 64 KiB a file; local files of the rules are listed, not read, so
// a rule naming a device or a pipe cannot stall the run), then closes it.  A
// fatal report counts as a rejection: the state is reset for the next input.
void WalkSmallChainTree(const std::string& rulesFile, int maxNodes);

}  // namespace tvufuzz

#endif
