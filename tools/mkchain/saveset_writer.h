// saveset_writer.h - writes one saveset of the chain as a CPIO stream.
#ifndef MKCHAIN_SAVESET_WRITER_H
#define MKCHAIN_SAVESET_WRITER_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "archive/cpio_format.h"
#include "chain_model.h"

namespace mkchain {

// The header format of a whole chain.  kExt writes "070706" records with an
// unpadded "070726" record in every fifth place, as the client does.  kMtf
// chains hold MTF data sets instead (mtf_writer.h).
enum class ChainFormat { kNewc, kOdc, kExt, kMtf };

const char* ChainFormatName(ChainFormat format);
// Format of the record with the given 0-based index in a saveset.
cpio::Format RecordFormat(ChainFormat format, size_t recordIndex);

// Buffered output file that counts the bytes written.
class OutFile {
 public:
  OutFile() = default;
  OutFile(const OutFile&) = delete;
  OutFile& operator=(const OutFile&) = delete;
  ~OutFile();
  bool Open(const std::string& path, std::string* error);
  bool Write(const void* data, size_t n);
  // Writes size bytes of the given file version's content.
  bool WriteContent(const std::string& path, uint32_t version, uint64_t size);
  bool Close(std::string* error);
  uint64_t pos() const { return pos_; }
  // From StartChecksum on, every byte written is folded into the checksum of
  // an MTF checksum stream, which StopChecksum returns.
  void StartChecksum() {
    sumOn_ = true;
    sum_ = 0;
    sumBytes_ = 0;
  }
  uint32_t StopChecksum() {
    sumOn_ = false;
    return sum_;
  }

 private:
  std::FILE* f_ = nullptr;
  std::string path_;
  uint64_t pos_ = 0;
  bool failed_ = false;
  bool sumOn_ = false;
  uint32_t sum_ = 0;
  uint64_t sumBytes_ = 0;
};

// Items whose bytes come from elsewhere (a disk image written by another
// generator): the hook writes them and sets *handled; every other item gets
// its generated content.
using ContentHook = std::function<bool(const std::string& path, uint64_t size, OutFile* out, bool* handled)>;
void SetContentHook(ContentHook hook);

// Called after each record with the item's path and node; node.newest
// describes the record just written.
using RecordCallback = std::function<void(const std::string& path, const Node& node)>;

// Writes saveset number `index` of the chain to `file`: one record per path,
// in the order given, then the trailer.  Sets each node's newest placement.
// Records carry mode 040755 or 0100644, uid and gid 1000, nlink 2 or 1.
// A full-disk item (Node::raw) gets no record: its placement spans the disk
// from offset 0 and onRecord is still called, for its catalog line.
bool WriteSaveset(ChainModel* model, int index, const std::vector<std::string>& paths,
                  ChainFormat format, const std::string& file, const RecordCallback& onRecord,
                  uint64_t* bytes, std::string* error);

}  // namespace mkchain

#endif  // MKCHAIN_SAVESET_WRITER_H
