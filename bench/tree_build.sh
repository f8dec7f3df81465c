#!/usr/bin/env bash
# Time and memory of the complete tree build (BuildCompleteTree) over
# generated consolidated catalogs of 100,000 and 1,000,000 items.
#   bench/tree_build.sh [BUILD_DIR] [ITEMS...]
# Targets: 1,000,000 items in under 5 s, under 400 bytes per item, time
# linear in the number of items (compare the us/item of both runs).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
shift || true
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(100000 1000000)
work=$(mktemp -d "${TMPDIR:-/tmp}/tvu_treebench_XXXXXX")
trap 'rm -rf "$work"' EXIT
for n in "${sizes[@]}"; do
  echo "== $n items"
  "$build/tvu_treebench" "$n" "$work"
done
