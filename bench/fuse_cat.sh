#!/usr/bin/env bash
# Reading one large file through the tvucon mount of a chain against reading
# the same file through a bindfs mount of the chain's final state, in one run.
#   bench/fuse_cat.sh [BUILD_DIR] [TOTAL_BYTES]
# The chain (default 1 GiB of savesets) holds a 512 MiB file; the largest file
# is read with cat.  "first read" is the first pass through a fresh mount
# (its bytes come through the FUSE server; the files beneath are in the page
# cache); "warm" is the next pass.  Best of 3 rounds each.  Prints both rates
# and the ratio tvucon/bindfs (1.0: as fast as bindfs).  Needs FUSE access.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
total=${2:-1073741824}
command -v bindfs >/dev/null || { echo "bindfs is not installed" >&2; exit 1; }
command -v fusermount3 >/dev/null || { echo "fusermount3 is not installed" >&2; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/tvu_fuse_bench_XXXXXX")
mkdir "$work/tvu" "$work/bind"
cleanup() {
  fusermount3 -u -z "$work/tvu" 2>/dev/null || true
  fusermount3 -u -z "$work/bind" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

"$build/mkchain" --out "$work/chain" --files 8 --incrementals 0 --total-bytes "$total" --no-expected >/dev/null
con=$(sed -n 's/^consolidate=//p' "$work/chain/chain.txt")
rel=$(cd "$work/chain/final" && find . -type f -printf '%s %p\n' | sort -n | tail -1 | cut -d' ' -f2-)
size=$(stat -c %s "$work/chain/final/$rel")

now() { date +%s.%N; }
seconds() { local s e; s=$(now); cat "$1" >/dev/null; e=$(now); awk -v s="$s" -v e="$e" 'BEGIN{print e-s}'; }
best() { awk -v a="$1" -v b="$2" 'BEGIN{print (b<a)?b:a}'; }

cat "$work/chain/savesets/"* "$work/chain/final/$rel" >/dev/null   # the files beneath both mounts
first_tvu=999999 first_bind=999999 best_tvu=999999 best_bind=999999
# Each round mounts afresh, so that its first pass goes through the servers.
for round in 1 2 3; do
  "$build/tvucon" mount --saveset "$con" --ini "$work/chain/tq.ini" "$work/tvu"
  bindfs -r "$work/chain/final" "$work/bind"
  for i in $(seq 100); do [ -e "$work/tvu/demo" ] && break; sleep 0.05; done
  [ -e "$work/tvu/demo" ] || { echo "the tvucon mount did not come up" >&2; exit 1; }
  first_tvu=$(best "$first_tvu" "$(seconds "$work/tvu/$rel")")
  first_bind=$(best "$first_bind" "$(seconds "$work/bind/$rel")")
  [ "$round" = 1 ] && cmp "$work/tvu/$rel" "$work/chain/final/$rel"
  best_tvu=$(best "$best_tvu" "$(seconds "$work/tvu/$rel")")
  best_bind=$(best "$best_bind" "$(seconds "$work/bind/$rel")")
  fusermount3 -u "$work/tvu"
  fusermount3 -u "$work/bind"
done
awk -v n="$size" -v ft="$first_tvu" -v fb="$first_bind" -v wt="$best_tvu" -v wb="$best_bind" 'BEGIN {
  m = n / 1048576;
  printf "file: %d bytes\n", n;
  printf "first read (best of 3) tvucon %8.1f MiB/s  bindfs %8.1f MiB/s  ratio tvucon/bindfs %.2f\n", m/ft, m/fb, fb/ft;
  printf "warm (best of 3) tvucon %8.1f MiB/s  bindfs %8.1f MiB/s  ratio tvucon/bindfs %.2f\n", m/wt, m/wb, wb/wt }'
