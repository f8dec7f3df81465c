#!/usr/bin/env bash
# Reading a merged Hyper-V disk front to back with tvucon cat against cat of
# the disk's raw final image, in one run.
#   bench/vhdx_read.sh [BUILD_DIR] [VIRTUAL_BYTES]
# The chain holds a disk of VIRTUAL_BYTES (default 4 GiB) virtual size: a
# full VHDX and three differencing tails.  The merged VHDX (the head's file
# with the tails' blocks laid over it, read through the savesets) is read
# with tvucon cat; the disk's raw final image (what the merged disk holds)
# is read with cat.  Both from the page cache; best of 3 rounds each.  Prints
# both rates and their ratio (1.0: tvucon reads as many bytes a second as cat).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
size=${2:-4294967296}

work=$(mktemp -d "${TMPDIR:-/tmp}/tvu_vhdx_bench_XXXXXX")
trap 'rm -rf "$work"' EXIT
"$build/mkchain" --out "$work/chain" --files 8 --incrementals 3 --total-bytes 100000 --hv-disk "$size" \
  --no-expected >/dev/null
con=$(sed -n 's/^consolidate=//p' "$work/chain/chain.txt")
rules=$(sed -n 's/^hv_rules=//p' "$work/chain/chain.txt")
tv() { "$build/tvucon" cat --saveset "$con" --ini "$work/chain/tq.ini" --rules "$rules" /MAPPER/hv/web02.vhdx 2>/dev/null; }
raw=$(sed -n 's/^hv_final=//p' "$work/chain/chain.txt")
bytes=$(tv | wc -c)
rawbytes=$(stat -c %s "$raw")
cat "$work/chain/savesets/"* "$raw" > /dev/null  # into the page cache

best() {  # best wall time of 3 runs of "$@"
  local b=""
  for _ in 1 2 3; do
    local s e t
    s=$(date +%s.%N); "$@" > /dev/null; e=$(date +%s.%N)
    t=$(awk -v s="$s" -v e="$e" 'BEGIN { print e - s }')
    b=$(awk -v b="$b" -v t="$t" 'BEGIN { print (b == "" || t < b) ? t : b }')
  done
  echo "$b"
}
t_tv=$(best tv)
t_cat=$(best cat "$raw")
awk -v n="$bytes" -v r="$rawbytes" -v a="$t_tv" -v c="$t_cat" 'BEGIN {
  printf "merged VHDX, %d bytes: tvucon cat %.1f MiB/s; raw final image, %d bytes: cat %.1f MiB/s; ratio %.2f\n",
    n, n / a / 1048576, r, r / c / 1048576, (n / a) / (r / c) }'
