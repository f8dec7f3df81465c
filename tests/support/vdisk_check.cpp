// vdisk_check.cpp - qemu-img and libvhdi as judges of the module's VHDs.
#include "support/vdisk_check.h"

#include <filesystem>

#include "support/test_util.h"

namespace tvutest {

namespace {

std::string Quote(const std::string& s) { return "'" + s + "'"; }

}  // namespace

std::string QemuChecksVhd(const std::string& vhdPath, const std::string& rawPath) {
  const uint64_t rawSize = std::filesystem::file_size(rawPath);
  ProcessResult r = RunProcess({"qemu-img", "info", "-f", "vpc", "--output=json", vhdPath});
  if (r.exitCode != 0) return "qemu-img info: " + r.err;
  const uint64_t sectors = rawSize / 512 * 512;
  if (r.out.find("\"virtual-size\": " + std::to_string(sectors) + ",") == std::string::npos)
    return "qemu-img info: virtual size is not " + std::to_string(sectors) + ": " + r.out;
  // qemu has no consistency check for vpc images (status 63 says so).
  r = RunProcess({"qemu-img", "check", "-f", "vpc", vhdPath});
  if (r.exitCode != 0 && !(r.exitCode == 63 && r.err.find("does not support checks") != std::string::npos))
    return "qemu-img check: " + r.out + r.err;
  std::string raw = rawPath;
  if (sectors != rawSize) {
    raw = vhdPath + ".whole-sectors.raw";
    if (Shell("head -c " + std::to_string(sectors) + " " + Quote(rawPath) + " > " + Quote(raw)) != 0)
      return "cannot cut " + rawPath;
  }
  r = RunProcess({"qemu-img", "compare", "-f", "vpc", "-F", "raw", vhdPath, raw});
  if (r.exitCode != 0) return "qemu-img compare: " + r.out + r.err;
  return "";
}

std::string LibvhdiChecksVhd(const std::string& vhdPath, const std::string& rawPath) {
  static const char* const kScript =
      "import sys, pyvhdi\n"
      "f = pyvhdi.file(); f.open(sys.argv[1])\n"
      "raw = open(sys.argv[2], 'rb').read()\n"
      "if f.get_media_size() != len(raw): sys.exit('media size %d, raw %d' % (f.get_media_size(), len(raw)))\n"
      "pos = 0\n"
      "while pos < len(raw):\n"
      "    n = min(1 << 20, len(raw) - pos)\n"
      "    got = f.read_buffer_at_offset(n, pos)\n"
      "    if got != raw[pos:pos + n]: sys.exit('differs in %d bytes at %d' % (n, pos))\n"
      "    pos += n\n"
      "f.close()\n";
  ProcessResult r = RunProcess({"/usr/bin/python3", "-c", kScript, vhdPath, rawPath});
  if (r.exitCode != 0) return "libvhdi: " + r.out + r.err;
  return "";
}

}  // namespace tvutest
