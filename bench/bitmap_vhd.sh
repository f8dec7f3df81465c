#!/usr/bin/env bash
# Making and reading the dynamic VHD of a block-bitmap merge.
#   bench/bitmap_vhd.sh [BUILD_DIR] [DISK_BYTES (4 GiB)] [INCREMENTS (16)] [BLOCKS (4096)]
# mkchain bitmap makes a sparse raw head with INCREMENTS increments of BLOCKS
# 64 KiB blocks each.  "make" is tvucon stat of the VHD (the tree with the
# merge and the VHD built, nothing read): wall time and peak memory.  "read"
# reads the VHD front to back through the module (tvucon cat) and the raw
# final image with cat, both with the savesets and the image in the page
# cache; best of 3 each.  Prints both rates and the ratio tvucon/cat
# (1.0: as fast as cat; the target is 0.8 or more).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
size=${2:-4294967296}
increments=${3:-16}
blocks=${4:-4096}

work=$(mktemp -d "${TMPDIR:-/tmp}/tvu_bitmap_bench_XXXXXX")
trap 'rm -rf "$work"' EXIT
"$build/mkchain" bitmap --out "$work/chain" --size "$size" --increments "$increments" --blocks "$blocks" \
  --sparse >/dev/null
con=$(sed -n 's/^consolidate=//p' "$work/chain/chain.txt")
tvu() { "$build/tvucon" "$1" --saveset "$con" --ini "$work/chain/tq.ini" --rules "$work/chain/rules.map" "${@:2}"; }

now() { date +%s.%N; }
best() { awk -v a="$1" -v b="$2" 'BEGIN{print (b<a)?b:a}'; }

/usr/bin/time -f '%e %M' -o "$work/make.time" "$build/tvucon" stat --saveset "$con" --ini "$work/chain/tq.ini" \
  --rules "$work/chain/rules.map" /MAPPER/disk/db01.raw.vhd >/dev/null
read -r make_s make_kib <"$work/make.time"
vhd_size=$(tvu stat /MAPPER/disk/db01.raw.vhd | sed -n 's/^size: //p')

cat "$work/chain/savesets/"* "$work/chain/final.raw" >/dev/null  # into the page cache
best_tvu=999999 best_cat=999999
for round in 1 2 3; do
  s=$(now); tvu cat /MAPPER/disk/db01.raw.vhd >/dev/null; e=$(now)
  best_tvu=$(best "$best_tvu" "$(awk -v s="$s" -v e="$e" 'BEGIN{print e-s}')")
  s=$(now); cat "$work/chain/final.raw" >/dev/null; e=$(now)
  best_cat=$(best "$best_cat" "$(awk -v s="$s" -v e="$e" 'BEGIN{print e-s}')")
done
awk -v size="$size" -v vhd="$vhd_size" -v inc="$increments" -v blk="$blocks" -v ms="$make_s" -v mk="$make_kib" \
  -v t="$best_tvu" -v c="$best_cat" 'BEGIN {
  printf "disk %.0f bytes, %d increments of %d blocks; VHD %.0f bytes\n", size, inc, blk, vhd
  printf "make: %.2f s, peak memory %.1f MiB (tvucon stat, the whole tree built)\n", ms, mk / 1024
  printf "read: tvucon cat %.0f MiB/s, cat of the raw image %.0f MiB/s, ratio %.2f\n",
         vhd / t / 1048576, size / c / 1048576, (vhd / t) / (size / c) }'
