#!/usr/bin/env bash
# The check before a consolidation against the consolidation itself, on one
# generated chain of many items (1,400,000 by default), warm page cache.
#   bench/check_ratio.sh [BUILD_DIR] [FILES] [TOTAL_BYTES]
# Prints the best of 3 of: tvucon check (records read at every item's
# offset), tvucon check --no-records (the catalog alone) and tvucon
# consolidate --no-check --raw to /dev/null, and the ratios check/consolidate.
# Target: a check costs a fraction of the streaming (ratio well below 1).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
files=${2:-1400000}
total=${3:-4294967296}
work=$(mktemp -d "${TMPDIR:-/tmp}/tvu_checkbench_XXXXXX")
trap 'rm -rf "$work"' EXIT

"$build/mkchain" --out "$work/chain" --files "$files" --total-bytes "$total" --no-final --no-expected >/dev/null
con=$(sed -n 's/^consolidate=//p' "$work/chain/chain.txt")
items=$(sed -n 's/^items=//p' "$work/chain/chain.txt")
stream=$(sed -n 's/^stream_bytes=//p' "$work/chain/chain.txt")
tvucon() { "$build/tvucon" "$1" --saveset "$con" --ini "$work/chain/tq.ini" --quiet "${@:2}"; }

now() { date +%s.%N; }
best() { awk -v a="$1" -v s="$2" -v e="$3" 'BEGIN { t = e - s; print (t < a) ? t : a }'; }
cat "$work"/chain/savesets/*.cpio >/dev/null   # warm the page cache
b_check=999999 b_cat=999999 b_con=999999
for _ in 1 2 3; do
  s=$(now); tvucon check >/dev/null; e=$(now); b_check=$(best "$b_check" "$s" "$e")
  s=$(now); tvucon check --no-records >/dev/null; e=$(now); b_cat=$(best "$b_cat" "$s" "$e")
  s=$(now); tvucon consolidate --no-check --raw -o /dev/null; e=$(now); b_con=$(best "$b_con" "$s" "$e")
done
awk -v n="$items" -v st="$stream" -v c="$b_check" -v k="$b_cat" -v t="$b_con" 'BEGIN {
  printf "chain: %d items, %.1f MiB of stream\n", n, st / 1048576;
  printf "consolidate          : %.3f s\n", t;
  printf "check                : %.3f s (%.2f us/item), ratio check/consolidate %.2f\n", c, c * 1e6 / n, c / t;
  printf "check --no-records   : %.3f s (%.2f us/item), ratio %.2f\n", k, k * 1e6 / n, k / t }'
