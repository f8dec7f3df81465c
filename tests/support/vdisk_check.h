// vdisk_check.h - foreign readers of the disk images the module makes:
// qemu-img and libvhdi (through /usr/bin/python3 and its pyvhdi binding).
#ifndef TVU_TESTS_VDISK_CHECK_H
#define TVU_TESTS_VDISK_CHECK_H

#include <string>

namespace tvutest {

// "" when qemu-img takes the VHD at vhdPath as a vpc image of the raw
// image's size (info; check where the format has one) and compare finds it
// equal to the raw image; else what went wrong.  A raw image whose size is
// not a multiple of 512 is compared up to its last whole sector: qemu counts
// a VHD's size in whole sectors.
std::string QemuChecksVhd(const std::string& vhdPath, const std::string& rawPath);

// "" when libvhdi opens the VHD, gives the raw image's exact size and reads
// exactly its bytes; else what went wrong.
std::string LibvhdiChecksVhd(const std::string& vhdPath, const std::string& rawPath);

}  // namespace tvutest

#endif
