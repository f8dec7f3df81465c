// mtf_writer.cpp - MTF descriptor blocks, streams and saveset chains.
#include "mtf_writer.h"

#include <algorithm>
#include <cstring>
#include <tuple>

#include "archive/mtf_format.h"

namespace mkchain {
namespace {

constexpr uint8_t kOsWindowsNt = 14;
constexpr uint16_t kFormatMajor = 1;
constexpr int8_t kNoTimeZone = 127;  // the set's dates carry no time zone

void Date(uint8_t* p, time_t when) { mtf::EpochToDate(static_cast<int64_t>(when), p); }

std::string BaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Parent(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

}  // namespace

std::string Utf16le(const std::string& utf8) {
  std::string out;
  auto unit = [&out](uint32_t u) {
    out.push_back(static_cast<char>(u & 0xFF));
    out.push_back(static_cast<char>(u >> 8));
  };
  for (size_t i = 0; i < utf8.size();) {
    const unsigned char c = static_cast<unsigned char>(utf8[i]);
    uint32_t cp = c;
    size_t len = 1;
    if (c >= 0xC0 && c < 0xE0) len = 2, cp = c & 0x1F;
    else if (c >= 0xE0 && c < 0xF0) len = 3, cp = c & 0x0F;
    else if (c >= 0xF0 && c < 0xF8) len = 4, cp = c & 0x07;
    bool valid = len == 1 ? c < 0x80 : i + len <= utf8.size();
    for (size_t k = 1; valid && k < len; ++k) {
      const unsigned char t = static_cast<unsigned char>(utf8[i + k]);
      valid = (t & 0xC0) == 0x80;
      cp = cp << 6 | (t & 0x3F);
    }
    if (!valid) {
      cp = c;
      len = 1;
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      unit(0xD800 + (cp >> 10));
      unit(0xDC00 + (cp & 0x3FF));
    } else {
      unit(cp);
    }
    i += len;
  }
  return out;
}

bool MtfWriter::Align4() {
  static const char kZeros[4] = {};
  return out_->Write(kZeros, static_cast<size_t>(mtf::AlignUp(pos(), 4) - pos()));
}

bool MtfWriter::WriteStream(uint32_t id, const std::string& data, uint16_t fsAttributes) {
  mtf::StreamHeader s;
  s.id = id;
  s.fsAttributes = fsAttributes;
  s.length = data.size();
  uint8_t h[mtf::kStreamHeaderSize];
  mtf::EncodeStreamHeader(s, h);
  return out_->Write(h, sizeof h) && out_->Write(data.data(), data.size()) && Align4();
}

bool MtfWriter::Block(uint32_t type, std::vector<uint8_t> fixed,
                      const std::vector<std::pair<size_t, std::string>>& strings, uint64_t displaySize,
                      const std::function<bool()>& streams) {
  const uint64_t start = pos();
  for (const auto& s : strings) {
    mtf::Store16(&fixed[s.first], static_cast<uint16_t>(s.second.size()));
    mtf::Store16(&fixed[s.first + 2], static_cast<uint16_t>(fixed.size()));
    fixed.insert(fixed.end(), s.second.begin(), s.second.end());
  }
  fixed.resize(static_cast<size_t>(mtf::AlignUp(fixed.size(), mtf::kStreamAlign)), 0);
  mtf::DblkHeader h;
  h.type = type;
  h.firstEvent = static_cast<uint16_t>(fixed.size());
  h.osId = kOsWindowsNt;
  h.displaySize = displaySize;
  h.logicalAddress = (start - setStart_) / blockSize_;
  h.controlBlockId = controlId_++;
  h.stringType = mtf::kStringUnicode;
  uint8_t common[mtf::kDblkHeaderSize];
  mtf::EncodeDblkHeader(h, common);
  std::memcpy(fixed.data(), common, sizeof common);
  if (!out_->Write(fixed.data(), fixed.size())) return false;
  if (streams && !streams()) return false;
  if (pos() % blockSize_ == 0) return true;
  // The pad: its header and its data reach the next boundary at which a
  // whole header fits before it.
  const uint64_t next = mtf::AlignUp(pos() + mtf::kStreamHeaderSize, blockSize_);
  return WriteStream(mtf::kSpad, std::string(static_cast<size_t>(next - pos() - mtf::kStreamHeaderSize), '\0'));
}

bool MtfWriter::Tape(const std::string& mediaName, time_t when) {
  std::vector<uint8_t> f(mtf::kTapeSize, 0);
  mtf::Store32(&f[52], 0x4D544631);  // media family
  mtf::Store16(&f[60], 1);           // media sequence number
  mtf::Store16(&f[84], static_cast<uint16_t>(blockSize_));
  Date(&f[88], when);
  f[93] = kFormatMajor;
  return Block(mtf::kTape, f, {{68, Utf16le(mediaName)}, {80, Utf16le("tvu_con mkchain")}}, 0, nullptr);
}

bool MtfWriter::StartSet(uint16_t setNumber, const std::string& name, time_t when) {
  setStart_ = pos();
  std::vector<uint8_t> f(mtf::kSsetSize, 0);
  mtf::Store16(&f[62], setNumber);
  mtf::Store64(&f[80], pos() / blockSize_);  // physical block address
  Date(&f[88], when);
  f[93] = 1;  // software version 1.0
  f[95] = static_cast<uint8_t>(kNoTimeZone);
  return Block(mtf::kSset, f, {{64, Utf16le(name)}, {76, Utf16le("backup")}}, 0, nullptr);
}

bool MtfWriter::Volume(const std::string& device, time_t when) {
  std::vector<uint8_t> f(mtf::kVolbSize, 0);
  Date(&f[68], when);
  return Block(mtf::kVolb, f, {{56, Utf16le(device)}, {60, Utf16le(device)}, {64, Utf16le("mkchain")}}, 0, nullptr);
}

bool MtfWriter::Directory(const std::string& path, time_t when) {
  std::vector<uint8_t> f(mtf::kDirbSize, 0);
  for (size_t d : {56, 61, 66, 71}) Date(&f[d], when);
  mtf::Store32(&f[76], ++dirId_);
  // The path's components each end with a NUL; the root is a NUL alone.
  std::string name;
  for (size_t i = 0; i <= path.size();) {
    const size_t slash = std::min(path.find('/', i), path.size());
    name += Utf16le(path.substr(i, slash - i)) + std::string(2, '\0');
    i = slash + 1;
  }
  return Block(mtf::kDirb, f, {{80, name}}, 0, nullptr);
}

bool MtfWriter::File(const std::string& name, time_t modified, const FileData& d) {
  std::vector<uint8_t> f(mtf::kFileSize, 0);
  for (size_t at : {56, 61, 66, 71}) Date(&f[at], modified);
  mtf::Store32(&f[76], dirId_);
  mtf::Store32(&f[80], ++fileId_);
  lastData_ = 0;
  auto streams = [&]() -> bool {
    for (const Stream& s : d.before)
      if (!WriteStream(s.id, s.data)) return false;
    if (d.present) {
      mtf::StreamHeader s;
      s.id = mtf::kStan;
      s.fsAttributes = d.fsAttributes;
      s.mediaAttributes = static_cast<uint16_t>(d.mediaAttributes | (d.checksum ? mtf::kStreamChecksummed : 0));
      s.compression = d.compression;
      s.encryption = d.encryption;
      s.length = d.size;
      uint8_t h[mtf::kStreamHeaderSize];
      mtf::EncodeStreamHeader(s, h);
      if (!out_->Write(h, sizeof h)) return false;
      lastData_ = pos();
      out_->StartChecksum();
      bool ok = true;
      if (d.write) {
        ok = d.write(out_);
      } else {
        const std::string zeros(64 * 1024, '\0');
        for (uint64_t left = d.size; ok && left > 0;) {
          const size_t n = static_cast<size_t>(std::min<uint64_t>(left, zeros.size()));
          ok = out_->Write(zeros.data(), n);
          left -= n;
        }
      }
      const uint32_t sum = out_->StopChecksum();
      if (!ok || pos() != lastData_ + d.size || !Align4()) return false;
      if (d.checksum) {
        std::string csum(4, '\0');
        mtf::Store32(reinterpret_cast<uint8_t*>(&csum[0]), sum);
        if (!WriteStream(mtf::kCsum, csum)) return false;
      }
    }
    for (const Stream& s : d.after)
      if (!WriteStream(s.id, s.data)) return false;
    return true;
  };
  return Block(mtf::kFile, f, {{84, Utf16le(name)}}, d.present ? d.size : 0, streams);
}

bool MtfWriter::EndSet(time_t when) {
  std::vector<uint8_t> f(mtf::kEsetSize, 0);
  mtf::Store16(&f[76], 1);  // media sequence number
  Date(&f[80], when);
  return Block(mtf::kEset, f, {}, 0, nullptr);
}

void SortMtfOrder(const ChainModel& model, std::vector<std::string>* paths) {
  // Each path as its components; a file's last component sorts before every
  // folder of the same folder.
  auto key = [&model](const std::string& path) {
    std::vector<std::pair<int, std::string>> k;
    for (size_t i = 0; i <= path.size();) {
      const size_t slash = std::min(path.find('/', i), path.size());
      k.emplace_back(1, path.substr(i, slash - i));
      i = slash + 1;
    }
    const auto it = model.nodes().find(path);
    if (it != model.nodes().end() && !it->second.dir) k.back().first = 0;
    return k;
  };
  std::vector<std::pair<std::vector<std::pair<int, std::string>>, std::string>> keyed;
  keyed.reserve(paths->size());
  for (const std::string& p : *paths) keyed.emplace_back(key(p), p);
  std::sort(keyed.begin(), keyed.end());
  for (size_t i = 0; i < keyed.size(); ++i) (*paths)[i] = keyed[i].second;
}

bool WriteMtfSaveset(ChainModel* model, int index, std::vector<std::string> paths, time_t when,
                     const std::string& setName, const std::string& file, const RecordCallback& onRecord,
                     uint64_t* bytes, std::string* error) {
  SortMtfOrder(*model, &paths);
  OutFile out;
  if (!out.Open(file, error)) return false;
  MtfWriter w(&out);
  bool ok = w.Tape(setName, when) && w.StartSet(static_cast<uint16_t>(index + 1), setName, when) &&
            w.Volume("C:", when) && w.Directory("", when);
  std::string current;  // the folder of the last directory block
  for (size_t i = 0; ok && i < paths.size(); ++i) {
    const std::string& path = paths[i];
    Node& node = model->node(path);
    Placement& p = node.newest;
    if (node.raw) {
      p = Placement{index, 0, 0, node.size, node.size};
      onRecord(path, node);
      continue;
    }
    if (!node.dir && Parent(path) != current) {
      // A file whose folder's block is not the last one gets that block again
      // (no catalog line points at it).
      current = Parent(path);
      ok = w.Directory(current, node.mtime);
    }
    p.saveset = index;
    p.start = w.pos();
    if (node.dir) {
      current = path;
      ok = ok && w.Directory(path, node.mtime);
      p.dataRel = 0;
      p.size = 0;
    } else {
      MtfWriter::FileData d;
      d.size = node.size;
      d.present = node.size > 0;
      d.write = [&path, &node](OutFile* o) { return o->WriteContent(path, node.version, node.size); };
      ok = ok && w.File(BaseName(path), node.mtime, d);
      p.dataRel = d.present ? w.lastDataPos() - p.start : 0;
      p.size = node.size;
    }
    p.span = w.pos() - p.start;
    if (ok) onRecord(path, node);
  }
  ok = ok && w.EndSet(when);
  *bytes = out.pos();
  if (!out.Close(error)) return false;
  if (!ok) *error = "cannot write the MTF saveset " + file;
  return ok;
}

}  // namespace mkchain
