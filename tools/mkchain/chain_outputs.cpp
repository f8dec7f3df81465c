// chain_outputs.cpp - consolidated catalog, control files, final tree and
// expected stream.
#include "chain_outputs.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "mtf_writer.h"
#include "vm_disk.h"

namespace mkchain {
namespace fs = std::filesystem;
namespace {

bool WriteText(const std::string& file, const std::string& text, std::string* error) {
  OutFile out;
  if (!out.Open(file, error)) return false;
  out.Write(text.data(), text.size());
  return out.Close(error);
}

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};

}  // namespace

std::string Chain::ConCatalog() const { return MountDir() + "/" + con + CatalogExtension(catalog); }

std::vector<std::string> ConsolidatedOrder(const Chain& chain, const ChainModel& model) {
  std::vector<std::string> paths;
  paths.reserve(model.nodes().size());
  for (const auto& kv : model.nodes()) paths.push_back(kv.first);
  if (chain.format == ChainFormat::kMtf) SortMtfOrder(model, &paths);
  return paths;
}

bool WriteConsolidatedCatalog(const Chain& chain, const ChainModel& model,
                              uint64_t* streamBytes, uint64_t* items, std::string* error) {
  std::error_code ec;
  fs::create_directories(chain.MountDir(), ec);
  CatalogWriter catalog;
  catalog.SetMtf(chain.format == ChainFormat::kMtf);
  const std::string file = chain.MountDir() + "/" + chain.con + CatalogExtension(chain.catalog);
  if (!catalog.Open(file, chain.catalog, true, chain.con, error)) return false;
  catalog.Comment("consolidated catalog of " + chain.con + " over " +
                  std::to_string(chain.names.size()) + " savesets");
  catalog.Comment("each item points at its newest copy");
  uint64_t pos = 0, count = 0;
  for (const std::string& path : ConsolidatedOrder(chain, model)) {
    const Node& node = model.nodes().at(path);
    catalog.Add(path, node, chain.names.at(node.newest.saveset), pos);
    if (node.raw) continue;  // no record in the stream
    pos += node.newest.span;
    ++count;
  }
  *streamBytes = pos;
  *items = count;
  return catalog.Close(error);
}

bool WriteControlFiles(const Chain& chain, uint64_t streamBytes, uint64_t items,
                       std::string* error) {
  const std::string mnt = chain.MountDir();
  std::string list;
  for (const std::string& f : chain.files) list += f + "\n";
  if (!WriteText(mnt + "/savesets.txt", list, error)) return false;

  const std::string args = "-f\n" + mnt + "/savesets.txt\n" +
                           "-l\ngv_rw_tqslis:" + chain.con + "_mnt/" + chain.con +
                           CatalogExtension(chain.catalog) + "\n" +
                           "-r\n/\n-t\n" + (chain.format == ChainFormat::kMtf ? "mtf" : "cpio") + "\n" +
                           (chain.vmDiskSize ? "" : "-o\nno_vmdk_search=1\n");
  if (!WriteText(mnt + "/consolidate.arg", args, error)) return false;

  const std::string ini = "[pathes]\ngv_rw_tqslis=" + chain.dir + "/tqslis/\n" +
                          "gv_rw_ini=" + chain.dir + "/ini/\n";
  if (!WriteText(chain.dir + "/tq.ini", ini, error)) return false;
  std::error_code ec;
  fs::create_directories(chain.dir + "/ini/xfpd_conf", ec);
  if (ec) {
    *error = "cannot create " + chain.dir + "/ini/xfpd_conf: " + ec.message();
    return false;
  }

  std::string info = "consolidate=" + chain.con + "\n" +
                     "format=" + ChainFormatName(chain.format) + "\n" +
                     "catalog=" + CatalogKindName(chain.catalog) + "\n" +
                     "savesets=" + std::to_string(chain.names.size()) + "\n" +
                     "items=" + std::to_string(items) + "\n" +
                     "stream_bytes=" + std::to_string(streamBytes) + "\n" +
                     "ini=" + chain.dir + "/tq.ini\n";
  if (chain.vmDiskSize)
    info += std::string("vm_disk=") + VmDisk::kPath + "\n" +
            "vm_disk_size=" + std::to_string(chain.vmDiskSize) + "\n" +
            "vm_final=" + chain.VmFinal() + "\n" + "vm_rules=" + chain.VmRules() + "\n";
  if (chain.hvDiskSize)
    info += "hv_disk_size=" + std::to_string(chain.hvDiskSize) + "\n" + "hv_final=" + chain.HvFinal() + "\n" +
            "hv_rules=" + chain.HvRules() + "\n";
  return WriteText(chain.dir + "/chain.txt", info, error);
}

bool WriteFinalTree(const Chain& chain, const ChainModel& model, std::string* error) {
  const std::string root = chain.dir + "/final/";
  for (const auto& kv : model.nodes()) {
    if (kv.second.raw) continue;
    const std::string path = root + kv.first;
    if (kv.second.dir) {
      std::error_code ec;
      fs::create_directories(path, ec);
      if (ec) {
        *error = "cannot create " + path + ": " + ec.message();
        return false;
      }
      continue;
    }
    // Parents precede their contents in path order, so they exist already.
    OutFile out;
    if (!out.Open(path, error)) return false;
    out.WriteContent(kv.first, kv.second.version, kv.second.size);  // Close() reports failures
    if (!out.Close(error)) return false;
  }
  return true;
}

bool WriteExpectedStream(const Chain& chain, const ChainModel& model, std::string* error) {
  std::vector<std::unique_ptr<std::FILE, FileCloser>> savesets;
  for (const std::string& f : chain.files) {
    savesets.emplace_back(std::fopen(f.c_str(), "rb"));
    if (!savesets.back()) {
      *error = "cannot open " + f + ": " + std::strerror(errno);
      return false;
    }
  }
  OutFile out;
  if (!out.Open(chain.Expected(), error)) return false;
  std::vector<char> buf(1 << 20);
  for (const std::string& path : ConsolidatedOrder(chain, model)) {
    const Node& node = model.nodes().at(path);
    if (node.raw) continue;
    const Placement& p = node.newest;
    std::FILE* in = savesets.at(p.saveset).get();
    if (fseeko(in, static_cast<off_t>(p.start), SEEK_SET) != 0) {
      *error = "cannot seek in " + chain.files[p.saveset] + ": " + std::strerror(errno);
      return false;
    }
    for (uint64_t left = p.span; left > 0;) {
      size_t n = static_cast<size_t>(std::min<uint64_t>(left, buf.size()));
      if (std::fread(buf.data(), 1, n, in) != n) {
        *error = "short read of " + path + " from " + chain.files[p.saveset];
        return false;
      }
      out.Write(buf.data(), n);
      left -= n;
    }
  }
  return out.Close(error);
}

}  // namespace mkchain
