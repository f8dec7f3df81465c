// mtf_writer.h - writes MTF media (Microsoft Tape Format 1.00a): the tape
// header, one data set of start-of-set, volume, directory and file blocks
// with their streams, and the end of set; and chains of MTF savesets.
//
// Every descriptor block starts on a logical block boundary (blockSize
// bytes, 1024 by default).  A block's strings follow its fixed part, its
// first stream follows them on a 4-byte boundary, each further stream the
// one before it on the next 4-byte boundary, and a pad stream (SPAD) fills
// up to the next block boundary; where the streams end on a boundary no pad
// is written.  Strings are UTF-16LE.  Dates are written as UTC.
#ifndef MKCHAIN_MTF_WRITER_H
#define MKCHAIN_MTF_WRITER_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "chain_model.h"
#include "saveset_writer.h"

namespace mkchain {

class MtfWriter {
 public:
  explicit MtfWriter(OutFile* out, uint32_t blockSize = 1024) : out_(out), blockSize_(blockSize) {}

  // A stream written as it stands (security data, alternate data, ...).
  struct Stream {
    uint32_t id = 0;
    std::string data;
  };
  // The data of a FILE block.
  struct FileData {
    bool present = true;  // false: no data stream (an empty file)
    uint64_t size = 0;
    // Writes exactly size bytes to the file; null writes size zero bytes.
    std::function<bool(OutFile*)> write;
    bool checksum = true;  // a CSUM stream follows the data
    uint16_t fsAttributes = 0, mediaAttributes = 0, compression = 0, encryption = 0;
    std::vector<Stream> before;  // streams ahead of the data stream
    std::vector<Stream> after;   // streams after it (and its checksum)
  };

  bool Tape(const std::string& mediaName, time_t when);
  bool StartSet(uint16_t setNumber, const std::string& name, time_t when);
  bool Volume(const std::string& device, time_t when);
  // A directory: path components joined with "/", "" for the volume's root.
  bool Directory(const std::string& path, time_t when);
  bool File(const std::string& name, time_t modified, const FileData& data);
  bool EndSet(time_t when);

  uint64_t pos() const { return out_->pos(); }
  // The offset of the last data stream's data (0: the file had none).
  uint64_t lastDataPos() const { return lastData_; }

 private:
  // Writes a block whose fixed part (common header left to fill) is fixed,
  // whose strings are appended behind it and whose TapeAddress fields are at
  // the given places, then its streams (written by streams) and the pad.
  bool Block(uint32_t type, std::vector<uint8_t> fixed, const std::vector<std::pair<size_t, std::string>>& strings,
             uint64_t displaySize, const std::function<bool()>& streams);
  bool WriteStream(uint32_t id, const std::string& data, uint16_t fsAttributes = 0);
  bool Align4();

  OutFile* out_;
  uint32_t blockSize_;
  uint64_t setStart_ = 0;
  uint32_t controlId_ = 0;
  uint32_t dirId_ = 0, fileId_ = 0;
  uint64_t lastData_ = 0;
};

// UTF-16LE bytes of a UTF-8 text (invalid bytes are taken as ISO-8859-1).
std::string Utf16le(const std::string& utf8);

// The record order of an MTF data set: a folder, its files, then its
// subfolders, each in byte order.
void SortMtfOrder(const ChainModel& model, std::vector<std::string>* paths);

// Writes saveset number `index` of the chain to `file` as a tape header and
// one data set with a directory block per folder and a file block per file,
// in MTF order (the paths are sorted so).  Sets each node's newest
// placement: start is its block, span reaches the next block, dataRel is its
// data's offset from the block (0 for folders).  A full-disk item gets no
// block, as in WriteSaveset.
bool WriteMtfSaveset(ChainModel* model, int index, std::vector<std::string> paths, time_t when,
                     const std::string& setName, const std::string& file, const RecordCallback& onRecord,
                     uint64_t* bytes, std::string* error);

}  // namespace mkchain

#endif  // MKCHAIN_MTF_WRITER_H
