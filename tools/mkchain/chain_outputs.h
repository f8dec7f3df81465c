// chain_outputs.h - the files around the savesets: consolidated catalog,
// saveset list, argument file, INI file, final tree, expected stream.
#ifndef MKCHAIN_CHAIN_OUTPUTS_H
#define MKCHAIN_CHAIN_OUTPUTS_H

#include <cstdint>
#include <string>
#include <vector>

#include "catalog_writer.h"
#include "chain_model.h"
#include "saveset_writer.h"

namespace mkchain {

// What the generator knows about a chain once its savesets are written.
struct Chain {
  std::string dir;                   // absolute output folder
  ChainFormat format = ChainFormat::kNewc;
  CatalogKind catalog = CatalogKind::kLslV2;
  std::vector<std::string> names;    // saveset names, oldest (the full) first
  std::vector<std::string> files;    // absolute paths of their .cpio files
  std::vector<uint64_t> bytes;       // their sizes
  std::string con;                   // name of the consolidation target
  uint64_t vmDiskSize = 0;           // size of the virtual machine disk, 0: none
  uint64_t hvDiskSize = 0;           // virtual size of the Hyper-V disk, 0: none

  std::string MountDir() const { return dir + "/tqslis/" + con + "_mnt"; }
  std::string VmFinal() const { return dir + "/vm/web01-flat.vmdk.final"; }
  std::string VmRules() const { return dir + "/vm/rules.map"; }
  std::string HvFinal() const { return dir + "/hv/web02.raw"; }
  std::string HvRules() const { return dir + "/hv/rules.map"; }
  std::string ConCatalog() const;
  // The expected consolidated stream: expected.cpio, or expected.mtf.
  std::string Expected() const { return dir + (format == ChainFormat::kMtf ? "/expected.mtf" : "/expected.cpio"); }
};

// The items of the final state in the order of the consolidated catalog:
// path order, or MTF order (mtf_writer.h) for MTF chains.
std::vector<std::string> ConsolidatedOrder(const Chain& chain, const ChainModel& model);

// Writes tqslis/<CON>_mnt/<CON>.lsl|.lis.  *streamBytes receives the size of
// the stream the catalog describes and *items its number of records (the
// lines other than full-disk lines).
bool WriteConsolidatedCatalog(const Chain& chain, const ChainModel& model,
                              uint64_t* streamBytes, uint64_t* items, std::string* error);

// Writes savesets.txt, consolidate.arg, tq.ini, the empty ini/xfpd_conf
// folder and chain.txt.  A chain with a virtual machine disk leaves the
// disk search on (no "no_vmdk_search=1" option) and names the disk's files
// in chain.txt.
bool WriteControlFiles(const Chain& chain, uint64_t streamBytes, uint64_t items,
                       std::string* error);

// Writes final/: the newest state of every item as a real tree; full-disk
// items, which the consolidated stream does not carry, are left out.
bool WriteFinalTree(const Chain& chain, const ChainModel& model, std::string* error);

// Writes Chain::Expected() by copying each item's newest record out of its
// saveset file, in consolidated-catalog order.  No trailer is appended.
bool WriteExpectedStream(const Chain& chain, const ChainModel& model, std::string* error);

}  // namespace mkchain

#endif  // MKCHAIN_CHAIN_OUTPUTS_H
