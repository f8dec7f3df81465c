#!/usr/bin/env bash
# The demo: builds a chain of one full and four incremental backups, turns it
# into one new full backup with tvucon, extracts that with GNU cpio and
# compares the result with the chain's final state.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh"
bash "$root/scripts/build.sh" "$root/build"

demo=$root/demo
rm -rf "$demo"
echo "== making the demo chain in $demo"
"$root/build/mkchain" --out "$demo/chain"
con=$(sed -n 's/^consolidate=//p' "$demo/chain/chain.txt")

echo "== consolidating $con"
start=$(date +%s.%N)
"$root/build/tvucon" consolidate --saveset "$con" --ini "$demo/chain/tq.ini" \
  --output "$demo/$con.cpio" --close-archive --log-level 3500 2>"$demo/tvucon.log" || {
  cat "$demo/tvucon.log" >&2; exit 1; }
end=$(date +%s.%N)
grep -v 'ReadData SSID' "$demo/tvucon.log" | sed 's/^/  /'

echo "== extracting with GNU cpio and comparing with the final state"
mkdir -p "$demo/extract"
(cd "$demo/extract" && cpio -idm --quiet < "$demo/$con.cpio")
diff -r "$demo/chain/final" "$demo/extract" && echo "  extracted tree is identical to the chain's final state"

bytes=$(stat -c %s "$demo/$con.cpio")
items=$(sed -n 's/^items=//p' "$demo/chain/chain.txt")
savesets=$(sed -n 's/^savesets=//p' "$demo/chain/chain.txt")
awk -v b="$bytes" -v s="$start" -v e="$end" -v i="$items" -v n="$savesets" 'BEGIN {
  t = e - s; printf "== done: %d savesets, %d items, %d bytes consolidated in %.2f s (%.1f MiB/s)\n", n, i, b, t, b / 1048576 / (t > 0 ? t : 1) }'
