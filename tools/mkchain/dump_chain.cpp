// dump_chain.cpp - chains of UFS dump savesets for the demo and the tests.
//
// The chain's layout is that of a CPIO chain (see chain_outputs.h): the
// savesets (links to the dump files, named SF/SI<dump date>.dump), one
// version-2 LSL catalog per saveset, the consolidated catalog, savesets.txt,
// consolidate.arg ("-t dump"), tq.ini and chain.txt.  Catalog lines:
//
//   "PATH" T CTIME MTIME OFFSET -1 SPAN INODE 0 0 SAVESET
//
// OFFSET is the item's inode header in the dump, -1 says it is not located
// yet, SPAN reaches from the header to the end of the item's last record and
// INODE is the item's inode number.  The paths and inode numbers come from
// restore -t; the records from the dump itself.  The consolidated catalog
// holds every path of the chain once, with its newest copy, in saveset and
// offset order.  Paths never leave a chain between two dumps (the fixtures
// delete nothing), so the union of the listings is the final state.
#include "dump_chain.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

#include "archive/dump_format.h"
#include "catalog_writer.h"

namespace mkchain {
namespace {
namespace fs = std::filesystem;

constexpr dump::Field kMtime{56, 4};  // di_mtime seconds, in the inode
constexpr dump::Field kCtime{64, 4};  // di_ctime seconds

uint32_t Le32(const uint8_t* p, bool swapped) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return swapped ? __builtin_bswap32(v) : v;
}

bool WriteFile(const std::string& path, const std::string& text, std::string* error) {
  std::ofstream out(path, std::ios::binary);
  out << text;
  out.close();
  if (!out) *error = "cannot write " + path;
  return static_cast<bool>(out);
}

std::string SavesetName(bool full, uint32_t date) {
  char text[32];
  time_t t = date;
  struct tm tm;
  localtime_r(&t, &tm);
  std::strftime(text, sizeof text, "%Y%m%d%H%M%S", &tm);
  return std::string(full ? "SF" : "SI") + text;
}

struct Placed {
  size_t saveset;
  bool dir;
  uint32_t inode;
  DumpItem item;
};

std::string Line(const std::string& path, const Placed& p, const std::string& saveset) {
  return "\"" + path + "\" " + (p.dir ? "d" : "f") + " " + CatalogTime(p.item.ctime) + " " +
         CatalogTime(p.item.mtime) + " " + std::to_string(p.item.offset) + " -1 " + std::to_string(p.item.span) +
         " " + std::to_string(p.inode) + " 0 0 " + saveset + " \n";
}

// Writes a catalog of the lines in (saveset, offset) order.
bool WriteCatalog(const std::string& file, const std::string& tape,
                  std::vector<std::pair<std::string, Placed>> lines, const std::vector<std::string>& names,
                  std::string* error) {
  std::stable_sort(lines.begin(), lines.end(), [](const auto& a, const auto& b) {
    return std::tie(a.second.saveset, a.second.item.offset) < std::tie(b.second.saveset, b.second.item.offset);
  });
  std::string text = "Tape ID: " + tape + " Tape Label: " + tape + " Format: DUMP LIS: 2.0\n";
  uint64_t total = 0, lastFile = 0, lastDir = 0, files = 0, dirs = 0;
  for (const auto& l : lines) {
    text += Line(l.first, l.second, names[l.second.saveset]);
    if (l.second.dir) {
      ++dirs;
      lastDir = l.second.item.offset;
    } else {
      ++files;
      lastFile = l.second.item.offset;
      total += l.second.item.size;
    }
  }
  text += "Total: " + std::to_string(total) + " Last File Offset: " + std::to_string(lastFile) +
          " Last Dir Offset: " + std::to_string(lastDir) + " Number of directories: " + std::to_string(dirs) +
          " Number of files: " + std::to_string(files) + "\n";
  return WriteFile(file, text, error);
}

bool RunRestoreList(const std::string& restore, const std::string& file, std::string* out, std::string* error) {
  const std::string cmd = "'" + restore + "' -t -f '" + file + "' 2>/dev/null";
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) {
    *error = "cannot run " + cmd;
    return false;
  }
  char buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out->append(buf, n);
  if (pclose(p) != 0) {
    *error = cmd + " failed";
    return false;
  }
  return true;
}

}  // namespace

bool ScanDumpStream(const std::string& file, std::map<uint32_t, DumpItem>* items, uint32_t* date,
                    uint64_t* skipped, std::string* error) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    *error = "cannot open " + file;
    return false;
  }
  *skipped = 0;
  *date = 0;
  uint8_t rec[dump::kRecordSize];
  uint64_t off = 0;
  DumpItem* current = nullptr;  // the item whose continuation headers may follow
  uint32_t currentInode = 0;
  bool first = true;
  while (in.read(reinterpret_cast<char*>(rec), sizeof rec)) {
    dump::Header h;
    if (dump::DecodeHeader(rec, &h) != dump::Check::kOk) {
      ++*skipped;
      off += dump::kRecordSize;
      continue;
    }
    if (first) *date = h.date;
    first = false;
    if (h.type == dump::kTsEnd) break;
    // Map headers are followed by all their records, the others by one
    // record per address flag that is set.
    const uint64_t records =
        (h.type == dump::kTsBits || h.type == dump::kTsClri) ? static_cast<uint64_t>(h.count) : h.DataRecords();
    const uint64_t end = off + (records + 1) * dump::kRecordSize;
    if (h.type == dump::kTsInode) {
      DumpItem& item = (*items)[h.inumber];
      item.offset = off;
      item.span = end - off;
      item.mode = h.mode;
      item.size = h.size;
      item.mtime = Le32(rec + kMtime.off, h.swapped);
      item.ctime = Le32(rec + kCtime.off, h.swapped);
      current = &item;
      currentInode = h.inumber;
    } else if (h.type == dump::kTsAddr && current && h.inumber == currentInode) {
      current->span = end - current->offset;
    } else {
      current = nullptr;
    }
    off = end;
    in.seekg(static_cast<std::streamoff>(off));
  }
  return true;
}

std::vector<std::pair<uint32_t, std::string>> ParseRestoreListing(const std::string& text) {
  std::vector<std::pair<uint32_t, std::string>> out;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    const size_t tab = line.find('\t');
    if (tab == std::string::npos) continue;
    const std::string num = line.substr(0, tab);
    const size_t digits = num.find_first_not_of(' ');
    if (digits == std::string::npos || num.find_first_not_of("0123456789", digits) != std::string::npos) continue;
    std::string path = line.substr(tab + 1);
    if (path == ".") continue;
    if (path.compare(0, 2, "./") == 0) path.erase(0, 2);
    out.emplace_back(static_cast<uint32_t>(std::stoul(num.substr(digits))), path);
  }
  return out;
}

int DumpChainMain(int argc, char** argv) {
  std::string out, restore = "restore", error;
  std::vector<std::string> dumps;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if ((arg == "--out" || arg == "--restore") && i + 1 < argc) {
      (arg == "--out" ? out : restore) = argv[++i];
    } else if (arg.compare(0, 2, "--") == 0) {
      std::fprintf(stderr, "mkchain dump: unknown option %s\n", arg.c_str());
      return 2;
    } else {
      dumps.push_back(arg);
    }
  }
  if (out.empty() || dumps.empty()) {
    std::fprintf(stderr, "usage: mkchain dump --out DIR [--restore PROGRAM] DUMP...\n");
    return 2;
  }
  std::error_code ec;
  out = fs::absolute(out).string();
  fs::remove_all(out, ec);
  const std::string con = "SFCONSOLIDATED";
  const std::string mnt = out + "/tqslis/" + con + "_mnt";
  fs::create_directories(mnt, ec);
  fs::create_directories(out + "/savesets", ec);
  fs::create_directories(out + "/catalogs", ec);
  fs::create_directories(out + "/ini/xfpd_conf", ec);
  if (ec) {
    std::fprintf(stderr, "mkchain dump: cannot create %s: %s\n", out.c_str(), ec.message().c_str());
    return 1;
  }

  std::vector<std::string> names, files;
  std::map<std::string, Placed> newest;  // path -> newest copy
  for (size_t s = 0; s < dumps.size(); ++s) {
    std::map<uint32_t, DumpItem> items;
    uint32_t date = 0;
    uint64_t skipped = 0;
    std::string listing;
    if (!ScanDumpStream(dumps[s], &items, &date, &skipped, &error) ||
        !RunRestoreList(restore, dumps[s], &listing, &error)) {
      std::fprintf(stderr, "mkchain dump: %s\n", error.c_str());
      return 1;
    }
    if (skipped) std::fprintf(stderr, "mkchain dump: %s: %llu records skipped between headers\n", dumps[s].c_str(),
                              static_cast<unsigned long long>(skipped));
    names.push_back(SavesetName(s == 0, date));
    files.push_back(out + "/savesets/" + names.back() + ".dump");
    fs::create_symlink(fs::absolute(dumps[s]), files.back(), ec);
    if (ec) {
      std::fprintf(stderr, "mkchain dump: cannot link %s: %s\n", files.back().c_str(), ec.message().c_str());
      return 1;
    }
    std::vector<std::pair<std::string, Placed>> lines;
    for (const auto& entry : ParseRestoreListing(listing)) {
      auto it = items.find(entry.first);
      if (it == items.end()) continue;  // listed, but its inode is not in this dump
      Placed p{s, S_ISDIR(it->second.mode), entry.first, it->second};
      lines.emplace_back(entry.second, p);
      newest[entry.second] = p;
    }
    if (!WriteCatalog(out + "/catalogs/" + names.back() + ".lsl", names.back(), lines, names, &error)) {
      std::fprintf(stderr, "mkchain dump: %s\n", error.c_str());
      return 1;
    }
  }

  std::vector<std::pair<std::string, Placed>> all(newest.begin(), newest.end());
  std::string list;
  for (const std::string& f : files) list += f + "\n";
  const std::string args = "-f\n" + mnt + "/savesets.txt\n-l\ngv_rw_tqslis:" + con + "_mnt/" + con +
                           ".lsl\n-r\n/\n-t\ndump\n-o\nno_vmdk_search=1\n";
  const std::string ini = "[pathes]\ngv_rw_tqslis=" + out + "/tqslis/\ngv_rw_ini=" + out + "/ini/\n";
  const std::string info = "consolidate=" + con + "\nformat=dump\ncatalog=lslv2\nsavesets=" +
                           std::to_string(names.size()) + "\nitems=" + std::to_string(all.size()) +
                           "\nini=" + out + "/tq.ini\n";
  if (!WriteCatalog(mnt + "/" + con + ".lsl", con, all, names, &error) ||
      !WriteFile(mnt + "/savesets.txt", list, &error) || !WriteFile(mnt + "/consolidate.arg", args, &error) ||
      !WriteFile(out + "/tq.ini", ini, &error) || !WriteFile(out + "/chain.txt", info, &error)) {
    std::fprintf(stderr, "mkchain dump: %s\n", error.c_str());
    return 1;
  }
  return 0;
}

int SwapDumpMain(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: mkchain swapdump IN OUT\n");
    return 2;
  }
  std::ifstream in(argv[2], std::ios::binary);
  std::ofstream out(argv[3], std::ios::binary);
  if (!in || !out) {
    std::fprintf(stderr, "mkchain swapdump: cannot open %s or %s\n", argv[2], argv[3]);
    return 1;
  }
  // Walks the stream as the chain scan does, so that data records are never
  // taken for headers: after a header come its records, then a header again.
  uint8_t rec[dump::kRecordSize];
  uint64_t dataLeft = 0, headers = 0;
  while (in.read(reinterpret_cast<char*>(rec), sizeof rec)) {
    dump::Header h;
    if (dataLeft > 0) {
      --dataLeft;
    } else if (dump::DecodeHeader(rec, &h) == dump::Check::kOk) {
      // TS_END is repeated to the end of the last tape block; its flags mean nothing.
      dataLeft = (h.type == dump::kTsBits || h.type == dump::kTsClri) ? static_cast<uint64_t>(h.count)
                 : h.type == dump::kTsEnd                             ? 0
                                                                      : h.DataRecords();
      dump::ConvertByteOrder(rec);
      ++headers;
    }
    out.write(reinterpret_cast<const char*>(rec), sizeof rec);
  }
  out.close();
  if (!out) {
    std::fprintf(stderr, "mkchain swapdump: cannot write %s\n", argv[3]);
    return 1;
  }
  std::printf("%llu headers swapped\n", static_cast<unsigned long long>(headers));
  return 0;
}

}  // namespace mkchain
