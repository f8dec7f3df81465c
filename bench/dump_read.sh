#!/usr/bin/env bash
# Dump savesets: reading a 1 GiB file out of a dump saveset through the module
# (tvucon cat, 1 MiB reads) against cat of the saveset, on a warm page cache;
# and the time to locate 100,000 small items (tvucon find: the complete tree
# build walks every item's headers).
#   bench/dump_read.sh [BUILD_DIR] [FILE_BYTES] [ITEMS]
# Target: ratio tvucon/cat at least 0.7.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
bytes=${2:-1073741824}
items=${3:-100000}
work=$(mktemp -d "${TMPDIR:-/tmp}/tvu_dumpbench_XXXXXX")
trap 'rm -rf "$work"' EXIT
"$build/tvu_dumpgen" "$work" "$bytes" "$items"
saveset=$(ls "$work"/savesets/*.dump)
size=$(stat -c %s "$saveset")
tvucon() { "$build/tvucon" "$@" --saveset SFCONSOLIDATED --ini "$work/tq.ini"; }

now() { date +%s.%N; }
best() { awk -v a="$1" -v s="$2" -v e="$3" 'BEGIN{t=e-s; print (t<a)?t:a}'; }
best_cat=999999 best_mod=999999
cat "$saveset" >/dev/null   # warm the page cache
for i in 1 2 3; do
  s=$(now); cat "$saveset" >/dev/null; e=$(now); best_cat=$(best "$best_cat" "$s" "$e")
  s=$(now); tvucon cat /big.bin >/dev/null; e=$(now); best_mod=$(best "$best_mod" "$s" "$e")
done
s=$(now); n=$(tvucon find | wc -l); e=$(now)
awk -v sb="$size" -v fb="$bytes" -v tc="$best_cat" -v tm="$best_mod" -v n="$n" -v tf="$(awk -v s="$s" -v e="$e" 'BEGIN{print e-s}')" 'BEGIN {
  rc = sb / tc / 1048576; rm = fb / tm / 1048576;
  printf "cat     : %d bytes of saveset in %.3f s = %.1f MiB/s\n", sb, tc, rc;
  printf "tvucon  : %d bytes of big.bin in %.3f s = %.1f MiB/s (1 MiB reads)\n", fb, tm, rm;
  printf "ratio tvucon/cat: %.2f\n", rm / rc;
  printf "locate  : %d tree entries (find, every item located) in %.2f s\n", n, tf }'
