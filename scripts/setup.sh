#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and benchmarks with.
# Idempotent: installs only what is missing, with one 'apt-get update' first.
set -euo pipefail

PACKAGES=(
  g++ cmake ninja-build pkg-config
  libpcre3-dev libboost-dev zlib1g-dev
  libthrift-dev thrift-compiler libfuse3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev
  cpio libarchive-tools qemu-utils python3-libvhdi dump fuse3 bindfs
  clang libclang-rt-14-dev
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
echo "setup: installing ${missing[*]}"
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
