#!/usr/bin/env bash
# Reading a merged Hyper-V disk front to back with tvucon cat against cat of
# a plain file of the same bytes, in one run.
#   bench/vhdx_read.sh [BUILD_DIR] [VIRTUAL_BYTES]
# The chain holds a disk of VIRTUAL_BYTES (default 4 GiB) virtual size: a
# full VHDX and three differencing tails.  The merged VHDX (the head's file
# with the tails' blocks laid over it, read through the savesets) is read
# with tvucon cat; the same bytes, copied to a plain file, are read with cat.
# Both from the page cache; best of 3 rounds each.  Prints both rates and
# the ratio tvucon/cat (1.0: as fast as cat).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
size=${2:-4294967296}

work=$(mktemp -d "${TMPDIR:-/tmp}/tvu_vhdx_bench_XXXXXX")
trap 'rm -rf "$work"' EXIT
"$build/mkchain" --out "$work/chain" --files 8 --incrementals 3 --total-bytes 100000 --hv-disk "$size" \
  --no-expected --no-final >/dev/null
con=$(sed -n 's/^consolidate=//p' "$work/chain/chain.txt")
rules=$(sed -n 's/^hv_rules=//p' "$work/chain/chain.txt")
tv() { "$build/tvucon" cat --saveset "$con" --ini "$work/chain/tq.ini" --rules "$rules" /MAPPER/hv/web02.vhdx 2>/dev/null; }
tv > "$work/plain.vhdx"
bytes=$(stat -c %s "$work/plain.vhdx")
cat "$work/chain/savesets/"* > /dev/null  # into the page cache

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
t_cat=$(best cat "$work/plain.vhdx")
awk -v n="$bytes" -v a="$t_tv" -v c="$t_cat" 'BEGIN {
  printf "merged VHDX, %d bytes: tvucon cat %.1f MiB/s, cat %.1f MiB/s, ratio %.2f\n",
    n, n / a / 1048576, n / c / 1048576, c / a }'
