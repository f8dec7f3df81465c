#!/usr/bin/env bash
# Configures and builds the project.  Usage: scripts/build.sh [BUILD_DIR [extra cmake args...]]
# The compiler's output is shown only when the build fails.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build}
shift || true
mkdir -p "$dir"
log="$dir/build.log"
if ! { cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" &&
       cmake --build "$dir" -- -j"$(nproc)"; } >"$log" 2>&1; then
  cat "$log" >&2
  echo "build failed; the log is $log" >&2
  exit 1
fi
