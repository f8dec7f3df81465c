// lis_search.cpp - catalog search: an index of a catalog's item lines by the
// directory they belong to, and the extraction of one directory's lines.
//
// Directories are matched without regard to ASCII letter case, as the tree
// that asks for them matches names without regard to case: a directory spelt
// "Demo" by one saveset and "demo" by another is one directory, whichever
// spelling the search uses.  (Other letters are matched as written: the
// runtime never consults the locale.)
//
// The index is built in one pass over the catalog.  It keeps, per directory
// (in tree form), where the item lines of its direct entries lie in the file,
// in catalog order; extracting a directory re-reads just those lines.  A
// catalog of a million items costs about 8 bytes an item plus one key string
// per directory.
#include "runtime/lis_search.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/platform.h"
#include "runtime/strutil.h"
#include "runtime/text.h"

namespace korvo {
namespace {

// A line's place in the catalog in 64 bits: the byte offset in the high 44
// bits (catalogs up to 16 TiB), the length without its line end in the low 20
// bits.  A line of 1 MiB or more keeps length 0 and is re-read up to its line
// end (no valid item line is that long; the field is there for safety).
constexpr unsigned kLenBits = 20;
constexpr uint64_t kLenMask = (uint64_t{1} << kLenBits) - 1;
constexpr uint64_t kOffsetLimit = uint64_t{1} << (64 - kLenBits);

inline uint64_t Pack(uint64_t offset, size_t len) { return (offset << kLenBits) | (len <= kLenMask ? len : 0); }
inline uint64_t OffsetOf(uint64_t packed) { return packed >> kLenBits; }
inline size_t LengthOf(uint64_t packed) { return static_cast<size_t>(packed & kLenMask); }

// Extraction reads neighbouring lines of one directory in one piece when the
// gap between them is small, up to this much at a time.
constexpr uint64_t kMaxGap = 16 * 1024;
constexpr uint64_t kMaxRun = 1024 * 1024;
// Bytes of each end of the file that go into the change fingerprint.
constexpr size_t kFingerprintBytes = 4096;

struct CatalogIndex {
  bool bValid = false;
  std::string sPath;
  uint64_t ullSize = 0;
  uint64_t ullFingerprint = 0;
  std::unordered_map<std::string, std::vector<uint64_t>> dirs;
};

std::mutex s_mutex;
CatalogIndex s_index;

void SetError(char* error, size_t errorSize, const std::string& text) { detail::CopyCut(text, error, errorSize); }

std::string OpenError(const char* path, int error) {
  return std::string("cannot read catalog ") + path + ": " + pf::ErrorText(error);
}

std::string& AsciiFold(std::string& s) {
  for (char& c : s) c = detail::AsciiLower(c);
  return s;
}

// Tree form of a path: its non-empty components joined with "/".
std::string TreeForm(std::string_view path) {
  std::string out;
  size_t i = 0;
  while (i < path.size()) {
    while (i < path.size() && path[i] == '/') ++i;
    size_t j = i;
    while (j < path.size() && path[j] != '/') ++j;
    if (j > i) {
      if (!out.empty()) out += '/';
      out.append(path.data() + i, j - i);
    }
    i = j;
  }
  return out;
}

// The path of an item line, or false for lines that are not items: an item
// line is a quoted path, a blank and a type field.  The catalog's header forms
// that look like items (device, ESET, IMAP, SSET and TAPE lines) are not.
bool ItemPath(std::string_view line, std::string_view* path) {
  if (line.size() < 4 || line[0] != '"') return false;
  const size_t close = line.find('"', 1);
  if (close == std::string_view::npos || close + 2 >= line.size() || line[close + 1] != ' ') return false;
  const char type = line[close + 2];
  if (type == ' ') return false;
  const std::string_view p = line.substr(1, close - 1);
  auto startsWith = [&p](std::string_view prefix) { return p.substr(0, prefix.size()) == prefix; };
  if (startsWith("ESET") || startsWith("SSET") || p == "TAPE") return false;
  if (startsWith("Device=") && type == 'v') return false;
  if (startsWith("IMAP:") && (type == 'D' || type == 'd') && close + 3 < line.size() &&
      (line[close + 3] == 'b' || line[close + 3] == 'B')) {
    return false;
  }
  *path = p;
  return true;
}

// The tree-form directory of a catalog path ("a/b/c.txt" -> "a/b", "top" ->
// ""), or false for a path with no component at all.
bool DirectoryOf(std::string_view path, std::string* dir) {
  // Most catalog paths are already in tree form: cut at the last "/".
  const bool plain = !path.empty() && path.front() != '/' && path.back() != '/' &&
                     path.find("//") == std::string_view::npos;
  if (plain) {
    const size_t slash = path.rfind('/');
    dir->assign(slash == std::string_view::npos ? std::string_view() : path.substr(0, slash));
    return true;
  }
  std::string tree = TreeForm(path);
  if (tree.empty()) return false;
  const size_t slash = tree.rfind('/');
  tree.resize(slash == std::string::npos ? 0 : slash);
  *dir = std::move(tree);
  return true;
}

// Size and a hash of both ends of the file: enough to notice a catalog that
// was rewritten or appended to.  (The platform layer offers no modification
// time; a rewrite that keeps the size and both ends is not noticed.)
int Fingerprint(const char* path, uint64_t* size, uint64_t* hash) {
  FILE* fp = pf::FOpen(path, "rb");
  if (fp == nullptr) return pf::LastError();
  char buf[2 * kFingerprintBytes];
  size_t n = std::fread(buf, 1, kFingerprintBytes, fp);
  uint64_t total = 0;
  if (fseeko(fp, 0, SEEK_END) == 0) total = static_cast<uint64_t>(ftello(fp));
  if (total > kFingerprintBytes) {
    const uint64_t tail = std::min<uint64_t>(kFingerprintBytes, total - kFingerprintBytes);
    if (fseeko(fp, static_cast<off_t>(total - tail), SEEK_SET) == 0) n += std::fread(buf + n, 1, tail, fp);
  }
  std::fclose(fp);
  uint64_t h = 1469598103934665603ull ^ total;
  for (size_t i = 0; i < n; ++i) h = (h ^ static_cast<unsigned char>(buf[i])) * 1099511628211ull;
  *size = total;
  *hash = h;
  return 0;
}

// Builds the index of the catalog at path into idx.
int BuildIndex(const char* path, CatalogIndex* idx, std::string* why) {
  FILE* fp = pf::FOpen(path, "rb");
  if (fp == nullptr) {
    *why = OpenError(path, pf::LastError());
    return -1;
  }
  std::vector<char> buf(1 << 20);
  std::string carry;         // a line that runs over the end of the buffer
  uint64_t carryStart = 0;
  uint64_t pos = 0;          // file offset of buf[0]
  std::string dir;
  std::string lastDir;
  std::vector<uint64_t>* lastLines = nullptr;
  bool tooLarge = false;

  auto addLine = [&](const char* text, size_t len, uint64_t offset) {
    if (len > 0 && text[len - 1] == '\r') --len;
    std::string_view itemPath;
    if (!ItemPath(std::string_view(text, len), &itemPath) || !DirectoryOf(itemPath, &dir)) return;
    if (offset >= kOffsetLimit) {
      tooLarge = true;
      return;
    }
    // Consecutive lines mostly share their directory.
    if (lastLines == nullptr || dir != lastDir) {
      lastDir = dir;
      lastLines = &idx->dirs[AsciiFold(dir)];
    }
    lastLines->push_back(Pack(offset, len));
  };

  size_t n;
  while ((n = std::fread(buf.data(), 1, buf.size(), fp)) > 0) {
    size_t i = 0;
    while (i < n) {
      const char* nl = static_cast<const char*>(std::memchr(buf.data() + i, '\n', n - i));
      if (nl == nullptr) {
        if (carry.empty()) carryStart = pos + i;
        carry.append(buf.data() + i, n - i);
        break;
      }
      const size_t end = static_cast<size_t>(nl - buf.data());
      if (!carry.empty()) {
        carry.append(buf.data() + i, end - i);
        addLine(carry.data(), carry.size(), carryStart);
        carry.clear();
      } else {
        addLine(buf.data() + i, end - i, pos + i);
      }
      i = end + 1;
    }
    pos += n;
  }
  const bool readError = std::ferror(fp) != 0;
  const int error = errno;
  std::fclose(fp);
  if (!carry.empty()) addLine(carry.data(), carry.size(), carryStart);  // last line without line end
  if (readError) {
    *why = OpenError(path, error);
    return -1;
  }
  if (tooLarge) {
    *why = std::string("catalog ") + path + " is larger than 16 TiB";
    return -1;
  }
  return 0;
}

int EnsureIndexLocked(const char* path, std::string* why) {
  uint64_t size = 0, hash = 0;
  const int error = Fingerprint(path, &size, &hash);
  if (error != 0) {
    *why = OpenError(path, error);
    return -1;
  }
  if (s_index.bValid && s_index.sPath == path && s_index.ullSize == size && s_index.ullFingerprint == hash) {
    return 0;
  }
  CatalogIndex fresh;
  s_index = CatalogIndex();  // free the old index before building the new one
  if (BuildIndex(path, &fresh, why) != 0) return -1;
  fresh.bValid = true;
  fresh.sPath = path;
  fresh.ullSize = size;
  fresh.ullFingerprint = hash;
  s_index = std::move(fresh);
  return 0;
}

// Writes one line and counts it by its type field ("d" directories, anything
// else files).  False when the bytes are not an item line any more (the
// catalog changed under the index).
bool EmitLine(std::string_view line, FILE* out, long* files, long* dirs) {
  std::string_view path;
  if (!ItemPath(line, &path)) return false;
  const std::string_view type = line.substr(path.size() + 3);
  const bool isDir = type.size() == 1 ? type[0] == 'd' : (type[0] == 'd' && type[1] == ' ');
  if (isDir) {
    if (dirs) ++*dirs;
  } else if (files) {
    ++*files;
  }
  std::fwrite(line.data(), 1, line.size(), out);
  std::fputc('\n', out);
  return true;
}

bool ReadAt(FILE* fp, uint64_t offset, size_t n, std::string* buf) {
  buf->resize(n);
  if (fseeko(fp, static_cast<off_t>(offset), SEEK_SET) != 0) return false;
  return std::fread(&(*buf)[0], 1, n, fp) == n;
}

}  // namespace

int INIT_LIS_LIB(const char* catalogPath, char* error, size_t errorSize) {
  if (catalogPath == nullptr || *catalogPath == '\0') {
    SetError(error, errorSize, "no catalog path");
    return -1;
  }
  std::lock_guard<std::mutex> g(s_mutex);
  std::string why;
  if (EnsureIndexLocked(catalogPath, &why) != 0) {
    SetError(error, errorSize, why);
    return -1;
  }
  SetError(error, errorSize, "");
  return 0;
}

int iEXTRACT_DIR(const char* catalogPath, const char* dirTreePath, FILE* out, long* files, long* dirs) {
  if (files) *files = 0;
  if (dirs) *dirs = 0;
  if (catalogPath == nullptr || out == nullptr) return -1;
  std::lock_guard<std::mutex> g(s_mutex);
  std::string why;
  if (!(s_index.bValid && s_index.sPath == catalogPath) && EnsureIndexLocked(catalogPath, &why) != 0) return -1;
  std::string key = TreeForm(dirTreePath ? dirTreePath : "");
  const auto it = s_index.dirs.find(AsciiFold(key));
  if (it == s_index.dirs.end()) return 0;
  const std::vector<uint64_t>& lines = it->second;

  FILE* fp = pf::FOpen(catalogPath, "rb");
  if (fp == nullptr) return -1;
  std::string buf;
  int rc = 0;
  for (size_t i = 0; i < lines.size() && rc == 0;) {
    const uint64_t start = OffsetOf(lines[i]);
    if (LengthOf(lines[i]) == 0) {  // an overlong line: up to its line end
      std::string line;
      if (fseeko(fp, static_cast<off_t>(start), SEEK_SET) != 0 || !read_line(fp, &line) ||
          !EmitLine(line, out, files, dirs)) {
        rc = -1;
      }
      ++i;
      continue;
    }
    // One read for this line and the close neighbours after it.
    uint64_t end = start + LengthOf(lines[i]);
    size_t j = i + 1;
    for (; j < lines.size() && LengthOf(lines[j]) != 0; ++j) {
      const uint64_t o = OffsetOf(lines[j]);
      const uint64_t e = o + LengthOf(lines[j]);
      if (o < end || o - end > kMaxGap || e - start > kMaxRun) break;
      end = e;
    }
    if (!ReadAt(fp, start, static_cast<size_t>(end - start), &buf)) {
      rc = -1;
      break;
    }
    for (; i < j; ++i) {
      const std::string_view line(buf.data() + (OffsetOf(lines[i]) - start), LengthOf(lines[i]));
      if (!EmitLine(line, out, files, dirs)) {
        rc = -1;
        break;
      }
    }
  }
  std::fclose(fp);
  return rc;
}

int iIS_FILESYSTEM_FILE_OR_DIRECTORY(const char* line) {
  if (line == nullptr || line[0] != '"') return 0;
  const char* close = std::strchr(line + 1, '"');
  if (close == nullptr || close[1] != ' ') return 0;
  const char type = close[2];
  if (type != 'f' && type != 'd') return 0;
  const char after = close[3];
  return (after == ' ' || after == '\0' || after == '\r' || after == '\n') ? 1 : 0;
}

}  // namespace korvo
