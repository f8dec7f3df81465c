// saveset_writer.cpp - record headers, content and trailer of one saveset.
#include "saveset_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "archive/mtf_format.h"

namespace mkchain {
namespace {

constexpr size_t kChunk = 1 << 20;  // content is generated and written in 1 MiB pieces

}  // namespace

const char* ChainFormatName(ChainFormat format) {
  switch (format) {
    case ChainFormat::kNewc: return "newc";
    case ChainFormat::kOdc: return "odc";
    case ChainFormat::kExt: return "ext";
    case ChainFormat::kMtf: return "mtf";
  }
  return "?";
}

cpio::Format RecordFormat(ChainFormat format, size_t recordIndex) {
  switch (format) {
    case ChainFormat::kNewc: return cpio::Format::kNewc;
    case ChainFormat::kOdc: return cpio::Format::kOdc;
    case ChainFormat::kExt:
      return recordIndex % 5 == 4 ? cpio::Format::kExtUnpadded : cpio::Format::kExt;
    case ChainFormat::kMtf: break;
  }
  return cpio::Format::kNewc;
}

OutFile::~OutFile() {
  if (f_) std::fclose(f_);
}

bool OutFile::Open(const std::string& path, std::string* error) {
  path_ = path;
  pos_ = 0;
  failed_ = false;
  f_ = std::fopen(path.c_str(), "wb");
  if (!f_) {
    *error = "cannot create " + path + ": " + std::strerror(errno);
    return false;
  }
  std::setvbuf(f_, nullptr, _IOFBF, kChunk);
  return true;
}

bool OutFile::Write(const void* data, size_t n) {
  if (failed_ || std::fwrite(data, 1, n, f_) != n) failed_ = true;
  if (sumOn_) {
    sum_ = mtf::DataChecksum(static_cast<const uint8_t*>(data), n, sum_, static_cast<size_t>(sumBytes_ % 4));
    sumBytes_ += n;
  }
  pos_ += n;
  return !failed_;
}

namespace {
ContentHook s_contentHook;
}  // namespace

void SetContentHook(ContentHook hook) { s_contentHook = std::move(hook); }

bool OutFile::WriteContent(const std::string& path, uint32_t version, uint64_t size) {
  bool handled = false;
  if (s_contentHook) {
    const bool ok = s_contentHook(path, size, this, &handled);
    if (handled) return ok;
  }
  thread_local std::vector<char> buf(kChunk);
  ContentStream content(path, version);
  while (size > 0) {
    size_t n = static_cast<size_t>(std::min<uint64_t>(size, kChunk));
    content.Fill(buf.data(), n);
    if (!Write(buf.data(), n)) return false;
    size -= n;
  }
  return true;
}

bool OutFile::Close(std::string* error) {
  int saved = 0;
  if (f_ && std::fclose(f_) != 0) saved = errno;
  f_ = nullptr;
  if (failed_ || saved) {
    *error = "cannot write " + path_ + ": " + std::strerror(saved ? saved : EIO);
    return false;
  }
  return true;
}

bool WriteSaveset(ChainModel* model, int index, const std::vector<std::string>& paths,
                  ChainFormat format, const std::string& file, const RecordCallback& onRecord,
                  uint64_t* bytes, std::string* error) {
  OutFile out;
  if (!out.Open(file, error)) return false;
  std::string header;
  size_t records = 0;
  for (const std::string& path : paths) {
    Node& node = model->node(path);
    if (node.raw) {
      // A full-disk item is described by its catalog line alone: the line
      // spans the whole disk, and the disk's data is in its changed-block
      // files.
      node.newest = Placement{index, 0, 0, node.size, node.size};
      onRecord(path, node);
      continue;
    }
    const cpio::Format rf = RecordFormat(format, records++);

    cpio::Header h;
    h.ino = node.ino;
    h.mode = node.dir ? 040755 : 0100644;
    h.uid = h.gid = 1000;
    h.nlink = node.dir ? 2 : 1;
    h.mtime = static_cast<uint64_t>(node.mtime);
    h.filesize = node.dir ? 0 : node.size;
    h.dev = 0x0801;  // odc: one device number; the others: major 8, minor 1
    h.devmajor = 8;
    h.devminor = 1;
    h.name = path;
    header.clear();
    std::string why;
    if (!cpio::EncodeRecordHeader(rf, h, &header, &why)) {
      *error = "cannot encode the record of " + path + ": " + why;
      return false;
    }

    Placement& p = node.newest;
    p.saveset = index;
    p.start = out.pos();
    p.dataRel = header.size();
    p.size = h.filesize;
    p.span = cpio::RecordSpan(rf, path.size() + 1, p.size);

    static const char kZeros[4] = {0, 0, 0, 0};
    if (!out.Write(header.data(), header.size()) ||
        !out.WriteContent(path, node.version, p.size) ||
        !out.Write(kZeros, cpio::DataPadding(rf, p.size))) {
      break;  // Close() reports the error
    }
    if (out.pos() != p.start + p.span) {  // the catalogs rely on the computed span
      *error = "record of " + path + " is " + std::to_string(out.pos() - p.start) +
               " bytes, computed " + std::to_string(p.span);
      return false;
    }
    onRecord(path, node);
  }
  const std::string trailer = cpio::TrailerRecord(RecordFormat(format, records));
  out.Write(trailer.data(), trailer.size());
  *bytes = out.pos();
  return out.Close(error);
}

}  // namespace mkchain
