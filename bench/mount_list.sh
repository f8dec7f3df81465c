#!/usr/bin/env bash
# A cold listing of a whole mounted chain (find over every item, each one's
# attributes read) through a fresh tvucon mount, against the same listing
# through a fresh bindfs mount of the chain's extracted final state.
#   bench/mount_list.sh [BUILD_DIR] [FILES]
# Default 140,000 files.  Best of 3 rounds, each on fresh mounts (the files
# beneath both are in the page cache).  Prints both times and the ratio
# tvucon/bindfs.  Target: at most 1.5.  Needs FUSE access and bindfs.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
files=${2:-140000}
command -v bindfs >/dev/null || { echo "bindfs is not installed" >&2; exit 1; }
command -v fusermount3 >/dev/null || { echo "fusermount3 is not installed" >&2; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/tvu_mountlist_XXXXXX")
mkdir "$work/tvu" "$work/bind"
cleanup() {
  fusermount3 -u -z "$work/tvu" 2>/dev/null || true
  fusermount3 -u -z "$work/bind" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

"$build/mkchain" --out "$work/chain" --files "$files" --total-bytes $((files * 1500)) --no-expected >/dev/null
con=$(sed -n 's/^consolidate=//p' "$work/chain/chain.txt")
cat "$work/chain/savesets/"* >/dev/null
find "$work/chain/final" >/dev/null

now() { date +%s.%N; }
listing() { local s e; s=$(now); find "$1" -printf '%s %T@\n' | wc -l >"$work/count.$2"; e=$(now); awk -v s="$s" -v e="$e" 'BEGIN{print e-s}'; }
best() { awk -v a="$1" -v b="$2" 'BEGIN{print (b<a)?b:a}'; }

b_tvu=999999 b_bind=999999
for round in 1 2 3; do
  "$build/tvucon" mount --saveset "$con" --ini "$work/chain/tq.ini" "$work/tvu"
  bindfs -r "$work/chain/final" "$work/bind"
  for i in $(seq 200); do [ -e "$work/tvu/demo" ] && break; sleep 0.05; done
  [ -e "$work/tvu/demo" ] || { echo "the tvucon mount did not come up" >&2; exit 1; }
  b_tvu=$(best "$b_tvu" "$(listing "$work/tvu" tvu)")
  b_bind=$(best "$b_bind" "$(listing "$work/bind" bind)")
  fusermount3 -u "$work/tvu"
  fusermount3 -u "$work/bind"
done
items_tvu=$(cat "$work/count.tvu") items_bind=$(cat "$work/count.bind")
[ "$items_tvu" = "$items_bind" ] || echo "warning: tvucon listed $items_tvu entries, bindfs $items_bind" >&2
awk -v n="$items_tvu" -v t="$b_tvu" -v b="$b_bind" 'BEGIN {
  printf "cold listing of %d entries (best of 3): tvucon %.2f s, bindfs %.2f s, ratio tvucon/bindfs %.2f\n", n, t, b, t / b }'
