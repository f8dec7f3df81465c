// relist.cpp - rewriting a chain's saveset list for another medium.
#include "relist.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <vector>

namespace fs = std::filesystem;

namespace {

bool ReadConsolidateName(const std::string& dir, std::string* con, std::string* error) {
  std::ifstream f(dir + "/chain.txt");
  std::string line;
  while (std::getline(f, line))
    if (line.rfind("consolidate=", 0) == 0) *con = line.substr(12);
  if (con->empty()) *error = dir + "/chain.txt: no consolidate= line (is this a chain folder?)";
  return !con->empty();
}

bool Write(const std::string& path, const std::string& text, std::string* error) {
  std::ofstream f(path, std::ios::trunc);
  f << text;
  f.close();
  if (!f) *error = "cannot write " + path;
  return static_cast<bool>(f);
}

}  // namespace

bool RelistChain(const std::string& dirIn, const std::string& media, const std::string& host, int port,
                 const std::string& httpType, std::string* error) {
  if (media != "file" && media != "vk4" && media != "vk4ng") {
    *error = "unknown medium " + media + " (file, vk4 or vk4ng)";
    return false;
  }
  if (media != "file" && (port <= 0 || port > 65535 || host.empty())) {
    *error = "--dedup-host and --dedup-port are needed for " + media;
    return false;
  }
  std::error_code ec;
  const std::string dir = fs::absolute(dirIn, ec).string();
  std::string con;
  if (!ReadConsolidateName(dir, &con, error)) return false;

  // Saveset names sort in backup order: "SF..." before "SI...", then by time.
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(dir + "/savesets", ec))
    if (e.path().extension() == ".cpio" || e.path().extension() == ".mtf") names.push_back(e.path().filename().string());
  if (ec || names.empty()) {
    *error = dir + "/savesets: no savesets";
    return false;
  }
  std::sort(names.begin(), names.end());

  std::string list;
  for (const std::string& n : names) {
    if (media == "file")
      list += dir + "/savesets/" + n + "\n";
    else
      list += media + ":" + n + ":" + host + ":" + std::to_string(port) + "\n";
  }
  if (!Write(dir + "/tqslis/" + con + "_mnt/savesets.txt", list, error)) return false;
  if (media == "file") return true;

  fs::create_directories(dir + "/ini/xfpd_conf", ec);
  return Write(dir + "/ini/xfpd_conf/xfpd_" + std::to_string(port - 11701) + ".ini",
               "[DEDUP]\nhttp_type=" + httpType + "\n", error);
}
