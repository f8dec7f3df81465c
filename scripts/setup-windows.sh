#!/usr/bin/env bash
# Installs what the Windows cross build needs, idempotently:
#  - Debian's mingw-w64 cross compiler (POSIX threads variant), zlib for
#    mingw-w64 and Wine to run the results;
#  - PCRE 8.x and the Apache Thrift C++ library, built for mingw-w64 from
#    Debian's own source packages, once, into a cache folder.  A package whose
#    build is missing from the cache is fetched and built again.
#
# The cache folder is $TVU_MINGW_CACHE (default $HOME/.cache/tvu-mingw).  It
# receives a prefix (include/, lib/, lib/pkgconfig/) that the toolchain file
# cmake/mingw-w64-x86_64.cmake searches, and a boost/ folder of symbolic links
# to the Debian Boost headers (the header-only parts serve both builds; the
# host's /usr/include itself must not be on the cross compiler's path).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cache=${TVU_MINGW_CACHE:-$HOME/.cache/tvu-mingw}
prefix=$cache/x86_64-w64-mingw32
host=x86_64-w64-mingw32

bash "$root/scripts/setup.sh"

PACKAGES=(g++-mingw-w64-x86-64-posix libz-mingw-w64-dev wine64 wine dpkg-dev autoconf automake libtool)
missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup-windows: installing ${missing[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
fi

mkdir -p "$prefix/include" "$prefix/lib"
# Header-only libraries, shared with the host build (setup.sh installed
# them): Boost, and tvucon's CLI11 and nlohmann-json.
ln -sfn /usr/include/boost "$prefix/include/boost"
ln -sfn /usr/include/CLI "$prefix/include/CLI"
ln -sfn /usr/include/nlohmann "$prefix/include/nlohmann"

need_pcre=0
need_thrift=0
[ -f "$prefix/lib/libpcre.a" ] && [ -f "$prefix/lib/pkgconfig/libpcre.pc" ] || need_pcre=1
[ -f "$prefix/lib/libthrift.a" ] && [ -f "$prefix/include/thrift/Thrift.h" ] || need_thrift=1
[ $need_pcre -eq 0 ] && [ $need_thrift -eq 0 ] && exit 0

start=$(date +%s)
work=$(mktemp -d "${TMPDIR:-/tmp}/tvu-mingw-src.XXXXXX")
trap 'rm -rf "$work"' EXIT

# Fetch the Debian source packages with a deb-src entry of our own: the entry,
# the package lists it brings and apt's state for it live in $work only, so
# the system's apt configuration is never changed and nothing is left behind.
suite=$(. /etc/os-release && echo "${VERSION_CODENAME:-bookworm}")
mkdir -p "$work/apt/lists/partial" "$work/apt/sources.list.d" "$work/src"
cat >"$work/apt/sources.list" <<EOF
deb-src http://deb.debian.org/debian $suite main
deb-src http://deb.debian.org/debian $suite-updates main
deb-src http://deb.debian.org/debian-security $suite-security main
EOF
apt_opts=(-o "Dir::Etc::SourceList=$work/apt/sources.list"
          -o "Dir::Etc::SourceParts=$work/apt/sources.list.d"
          -o "Dir::State::Lists=$work/apt/lists"
          -o "APT::Sandbox::User=root")
echo "setup-windows: fetching Debian sources"
apt-get "${apt_opts[@]}" update -qq
wanted=()
[ $need_pcre -eq 1 ] && wanted+=(pcre3)
[ $need_thrift -eq 1 ] && wanted+=(thrift)
(cd "$work/src" && apt-get "${apt_opts[@]}" source -qq "${wanted[@]}" >/dev/null)

jobs=$(nproc)
cc=$host-gcc-posix
cxx=$host-g++-posix

if [ $need_pcre -eq 1 ]; then
  echo "setup-windows: building PCRE for $host"
  src=$(find "$work/src" -maxdepth 1 -type d -name 'pcre3-*' | head -1)
  # The same features as Debian's libpcre3 (UTF-8, Unicode properties, JIT),
  # static, without the C++ wrapper and the tools.
  # Debian's patches leave the autotools files newer than their outputs:
  # regenerate them with the installed autotools.
  (cd "$src" && autoreconf -fi &&
   nice -n 10 ./configure -q --host=$host --prefix="$prefix" CC=$cc CXX=$cxx \
     --enable-static --disable-shared --enable-utf8 --enable-unicode-properties --enable-jit \
     --disable-cpp --disable-pcregrep-libz --disable-pcregrep-libbz2 --disable-pcretest-libreadline &&
   nice -n 10 make -s -j"$jobs" libpcre.la >/dev/null &&
   make -s install-libLTLIBRARIES install-includeHEADERS install-nodist_includeHEADERS \
     install-pkgconfigDATA >/dev/null) >"$work/pcre.log" 2>&1 || { cat "$work/pcre.log" >&2; exit 1; }
fi

if [ $need_thrift -eq 1 ]; then
  echo "setup-windows: building the Thrift C++ library for $host"
  src=$(find "$work/src" -maxdepth 1 -type d -name 'thrift-*' | head -1)
  # Its Windows sources name some SDK headers in mixed case; mingw-w64's are
  # lower case, which matters on a case-sensitive file system.
  mkdir -p "$work/compat"
  for h in $(grep -rhoE '#\s*include\s*<[A-Za-z0-9_]+\.h>' "$src/lib/cpp/src" | sed -E 's/.*<(.*)>/\1/' | sort -u); do
    lower=$(echo "$h" | tr 'A-Z' 'a-z')
    if [ "$h" != "$lower" ] && [ -f "/usr/share/mingw-w64/include/$lower" ]; then
      echo "#include <$lower>" >"$work/compat/$h"
    fi
  done
  # Only the C++ library: no compiler, tests, tutorials or other languages,
  # and no OpenSSL, zlib, libevent or Qt transports.
  nice -n 10 cmake -S "$src" -B "$work/thrift-build" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" \
    -DCMAKE_CXX_FLAGS="-I$work/compat" \
    -DBUILD_SHARED_LIBS=OFF -DBUILD_COMPILER=OFF -DBUILD_TESTING=OFF -DBUILD_TUTORIALS=OFF \
    -DBUILD_CPP=ON -DBUILD_C_GLIB=OFF -DBUILD_JAVA=OFF -DBUILD_JAVASCRIPT=OFF -DBUILD_NODEJS=OFF \
    -DBUILD_PYTHON=OFF -DBUILD_HASKELL=OFF -DWITH_OPENSSL=OFF -DWITH_ZLIB=OFF -DWITH_LIBEVENT=OFF \
    -DWITH_QT5=OFF -DBoost_INCLUDE_DIR="$prefix/include" >"$work/thrift.log" 2>&1 &&
  nice -n 10 cmake --build "$work/thrift-build" -j"$jobs" >>"$work/thrift.log" 2>&1 &&
  cmake --install "$work/thrift-build" >>"$work/thrift.log" 2>&1 || { cat "$work/thrift.log" >&2; exit 1; }
  # The library is static: its users must not expect a DLL's imports, and it
  # needs Winsock.
  sed -i -e 's/^Cflags: \(.*\)$/Cflags: \1 -DTHRIFT_STATIC_DEFINE/' \
         -e 's/^Libs: \(.*\)$/Libs: \1 -lws2_32/' "$prefix/lib/pkgconfig/thrift.pc"
fi
echo "setup-windows: dependencies built in $(( $(date +%s) - start )) s into $prefix"
