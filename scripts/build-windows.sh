#!/usr/bin/env bash
# Cross-builds the Windows DLL, tools and tests with mingw-w64 (installing
# what that needs first).  Usage: scripts/build-windows.sh [BUILD_DIR [extra cmake args...]]
# The compiler's output is shown only when the build fails.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build-windows}
shift || true
bash "$root/scripts/setup-windows.sh"
mkdir -p "$dir"
log="$dir/build.log"
if ! { cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
         -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" "$@" &&
       cmake --build "$dir" -- -j"$(nproc)"; } >"$log" 2>&1; then
  cat "$log" >&2
  echo "build failed; the log is $log" >&2
  exit 1
fi
