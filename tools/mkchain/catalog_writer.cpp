// catalog_writer.cpp - catalog header, item lines and footer.
#include "catalog_writer.h"

namespace mkchain {

const char* CatalogKindName(CatalogKind kind) {
  switch (kind) {
    case CatalogKind::kLslV2: return "lslv2";
    case CatalogKind::kLslV1: return "lsl";
    case CatalogKind::kLisV2: return "lisv2";
    case CatalogKind::kLisV1: return "lis";
  }
  return "?";
}

const char* CatalogExtension(CatalogKind kind) { return IsLsl(kind) ? ".lsl" : ".lis"; }

bool IsLsl(CatalogKind kind) {
  return kind == CatalogKind::kLslV2 || kind == CatalogKind::kLslV1;
}

bool IsVersion2(CatalogKind kind) {
  return kind == CatalogKind::kLslV2 || kind == CatalogKind::kLisV2;
}

std::string CatalogTime(time_t t) {
  struct tm tm;
  char text[32];
  localtime_r(&t, &tm);
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
  return text;
}

std::string CatalogLine(CatalogKind kind, bool consolidated, const std::string& path,
                        const Node& node, const std::string& savesetName, bool mtf) {
  const Placement& p = node.newest;
  std::string line = "\"" + path + "\" " + (node.dir ? "d " : node.raw ? "R " : "f ");
  line += node.ctimeUnknown ? "0000-00-00 00:00:00" : CatalogTime(node.ctime);
  line += " " + CatalogTime(node.mtime);

  auto num = [&line](uint64_t v) { line += " " + std::to_string(v); };
  if (mtf) {
    num(p.start);
    num(0);
    num(p.span);
    num(0);
    num(0);
    num(0);
  } else if (IsVersion2(kind)) {
    num(p.start);
    // In the consolidated catalog every third file is left "not located"
    // (relative offset 0): a reader of the tree finds its data in the stream.
    num(consolidated && !node.dir && node.ino % 3 == 0 ? 0 : p.dataRel);
    num(p.span);
    num(p.size);
    num(node.ino);
    if (IsLsl(kind)) num(0);
  } else if (consolidated) {
    // The consumer streams [start, end) of each line in this layout.
    num(p.start);
    num(p.start + p.span);
    num(p.size);
  } else {
    num(node.ino);
    num(p.start);
    num(p.start + p.span);
  }
  if (IsLsl(kind)) line += " " + savesetName + " ";
  return line;
}

bool CatalogWriter::Open(const std::string& file, CatalogKind kind, bool consolidated,
                         const std::string& tapeName, std::string* error) {
  kind_ = kind;
  consolidated_ = consolidated;
  dataBytes_ = lastFile_ = lastDir_ = dirs_ = files_ = 0;
  if (!out_.Open(file, error)) return false;
  std::string header = "Tape ID: " + tapeName + " Tape Label: " + tapeName +
                       " Format: " + (mtf_ ? "MTF" : "CPIO") + " LIS: " + (IsVersion2(kind) ? "2.0" : "1.0") + "\n";
  out_.Write(header.data(), header.size());
  return true;
}

void CatalogWriter::Comment(const std::string& text) {
  std::string line = "# " + text + "\n";
  out_.Write(line.data(), line.size());
}

void CatalogWriter::Add(const std::string& path, const Node& node,
                        const std::string& savesetName, uint64_t streamPos) {
  std::string line = CatalogLine(kind_, consolidated_, path, node, savesetName, mtf_) + "\n";
  out_.Write(line.data(), line.size());
  if (node.raw) return;  // no record in the stream: the footer counts records
  if (node.dir) {
    ++dirs_;
    lastDir_ = streamPos;
  } else {
    ++files_;
    lastFile_ = streamPos;
    dataBytes_ += node.newest.size;
  }
}

bool CatalogWriter::Close(std::string* error) {
  std::string footer = "Total: " + std::to_string(dataBytes_) +
                       " Last File Offset: " + std::to_string(lastFile_) +
                       " Last Dir Offset: " + std::to_string(lastDir_) +
                       " Number of directories: " + std::to_string(dirs_) +
                       " Number of files: " + std::to_string(files_) + "\n";
  out_.Write(footer.data(), footer.size());
  return out_.Close(error);
}

}  // namespace mkchain
