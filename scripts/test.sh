#!/usr/bin/env bash
# The whole test suite: a normal build and a sanitizer (ASan + UBSan) build,
# each running every test through CTest.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh"
jobs=$(nproc)

echo "== build"
bash "$root/scripts/build.sh" "$root/build"
echo "== tests"
(cd "$root/build" && ctest --output-on-failure -j"$jobs" --timeout 600)

echo "== sanitizer build (ASan + UBSan)"
bash "$root/scripts/build.sh" "$root/build-asan" -DTVU_SANITIZE=ON -DTVU_BUILD_BENCH=OFF
echo "== tests under ASan + UBSan"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
(cd "$root/build-asan" && ctest --output-on-failure -j"$jobs" --timeout 900)

echo "== Windows build (mingw-w64) and its tests under Wine"
bash "$root/scripts/test-windows.sh"

echo "== fuzz targets (10 s each, clang, ASan + UBSan)"
bash "$root/scripts/fuzz.sh" 10
