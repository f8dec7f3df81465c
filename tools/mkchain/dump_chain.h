// dump_chain.h - a chain of UFS dump savesets with its catalogs and control
// files, made from dump files (Debian's dump) and their restore -t listings.
#ifndef MKCHAIN_DUMP_CHAIN_H
#define MKCHAIN_DUMP_CHAIN_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace mkchain {

// One item's records in a dump stream.
struct DumpItem {
  uint64_t offset = 0;  // its inode header (TS_INODE)
  uint64_t span = 0;    // header to the end of its last record
  uint16_t mode = 0;
  uint64_t size = 0;
  uint32_t mtime = 0, ctime = 0;
};

// Walks the header records of a dump stream: every inode header with the
// records that belong to it.  Records that are no header where one is due
// are skipped one by one until the next header (*skipped counts them).
bool ScanDumpStream(const std::string& file, std::map<uint32_t, DumpItem>* items, uint32_t* date,
                    uint64_t* skipped, std::string* error);

// Parses restore -t output: "INODE<tab>./path" lines; "." is left out.
std::vector<std::pair<uint32_t, std::string>> ParseRestoreListing(const std::string& text);

// "mkchain dump --out DIR [--restore PROGRAM] DUMP...": the chain of the dump
// files, oldest (the full backup) first.
int DumpChainMain(int argc, char** argv);

// "mkchain swapdump IN OUT": IN with every header record in the other byte
// order (data records unchanged).
int SwapDumpMain(int argc, char** argv);

}  // namespace mkchain

#endif
