#!/usr/bin/env bash
# Whole-process throughput of a consolidation against reading the same
# savesets with cat, in one run, on a warm page cache.
#   bench/consolidate_throughput.sh [BUILD_DIR] [TOTAL_BYTES]
# Prints both rates and their ratio (tvucon / cat; 1.0 means as fast as cat).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
total=${2:-1073741824}
work=$(mktemp -d "${TMPDIR:-/tmp}/tvu_bench_XXXXXX")
trap 'rm -rf "$work"' EXIT

"$build/mkchain" --out "$work/chain" --total-bytes "$total" --files 3000 --no-final --no-expected >/dev/null
con=$(sed -n 's/^consolidate=//p' "$work/chain/chain.txt")
stream=$(sed -n 's/^stream_bytes=//p' "$work/chain/chain.txt")
savesets=$(du -cb "$work"/chain/savesets/*.cpio | tail -1 | cut -f1)

now() { date +%s.%N; }
best_cat=999999 best_con=999999
cat "$work"/chain/savesets/*.cpio >/dev/null   # warm the page cache
for i in 1 2 3; do
  s=$(now); cat "$work"/chain/savesets/*.cpio >/dev/null; e=$(now)
  best_cat=$(awk -v a="$best_cat" -v t="$(awk -v s="$s" -v e="$e" 'BEGIN{print e-s}')" 'BEGIN{print (t<a)?t:a}')
  s=$(now)
  "$build/tvucon" consolidate --saveset "$con" --ini "$work/chain/tq.ini" --output /dev/null \
    --block-size 1048576 --quiet
  e=$(now)
  best_con=$(awk -v a="$best_con" -v t="$(awk -v s="$s" -v e="$e" 'BEGIN{print e-s}')" 'BEGIN{print (t<a)?t:a}')
done
awk -v sb="$savesets" -v st="$stream" -v tc="$best_cat" -v tt="$best_con" 'BEGIN {
  rc = sb / tc / 1048576; rt = st / tt / 1048576;
  printf "cat     : %d bytes of savesets in %.3f s = %.1f MiB/s\n", sb, tc, rc;
  printf "tvucon  : %d bytes of stream   in %.3f s = %.1f MiB/s (1 MiB blocks)\n", st, tt, rt;
  printf "ratio tvucon/cat: %.2f\n", rt / rc }'
