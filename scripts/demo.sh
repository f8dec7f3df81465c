#!/usr/bin/env bash
# The demo: builds a chain of one full and four incremental backups, turns it
# into one new full backup with tvucon, extracts that with GNU cpio and
# compares the result with the chain's final state.  Then a disk saved as a raw
# image and block-bitmap increments, shown as dynamic VHDs, a chain of UFS dump
# savesets, read as one tree and compared with what restore extracts, and a
# chain of MTF savesets, consolidated and read back file by file.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh"
bash "$root/scripts/build.sh" "$root/build"

demo=$root/demo
rm -rf "$demo"
echo "== making the demo chain in $demo"
"$root/build/mkchain" --out "$demo/chain" --vm-disk 268435456 --hv-disk 1073741824
con=$(sed -n 's/^consolidate=//p' "$demo/chain/chain.txt")

# consolidate MEDIA: runs tvucon on the chain as its saveset list now stands.
consolidate() {
  local media=$1 out=$demo/$con.$1.cpio
  local start end
  start=$(date +%s.%N)
  TQ_DEDUP_LIB=$root/build/libtq_dedup.so "$root/build/tvucon" consolidate --saveset "$con" \
    --ini "$demo/chain/tq.ini" --output "$out" --close-archive --log-level 3500 2>"$demo/tvucon.$media.log" || {
    cat "$demo/tvucon.$media.log" >&2; exit 1; }
  end=$(date +%s.%N)
  awk -v b="$(stat -c %s "$out")" -v s="$start" -v e="$end" -v m="$media" 'BEGIN {
    t = e - s; printf "  %-6s %d bytes in %.2f s (%.1f MiB/s)\n", m, b, t, b / 1048576 / (t > 0 ? t : 1) }'
}

echo "== consolidating $con from the saveset files"
consolidate file
grep -vE 'ReadData SSID|bytes read' "$demo/tvucon.file.log" | sed 's/^/    /'

echo "== extracting with GNU cpio and comparing with the final state"
mkdir -p "$demo/extract"
(cd "$demo/extract" && cpio -idm --quiet < "$demo/$con.file.cpio")
diff -r "$demo/chain/final" "$demo/extract" && echo "  extracted tree is identical to the chain's final state"

echo "== the same chain from a dedup store (tqdedupd on 127.0.0.1)"
"$root/build/tqdedupd" --dir "$demo/chain/savesets" --port 0 --port-file "$demo/tqdedupd.port" \
  --log "$demo/tqdedupd.log" &
server=$!
trap 'kill $server 2>/dev/null || true' EXIT
for _ in $(seq 100); do [ -s "$demo/tqdedupd.port" ] && break; sleep 0.05; done
port=$(cat "$demo/tqdedupd.port")
echo "  tqdedupd serves $demo/chain/savesets on port $port"
for media in vk4 vk4ng; do
  "$root/build/mkchain" relist --out "$demo/chain" --media $media --dedup-host 127.0.0.1 --dedup-port "$port"
  consolidate $media
  cmp "$demo/$con.file.cpio" "$demo/$con.$media.cpio" && echo "  $media stream is byte-identical to the file stream"
done
"$root/build/mkchain" relist --out "$demo/chain" --media file
kill -TERM $server && wait $server || true
trap - EXIT

echo "== the chain as one tree: the virtual disk rebuilt from its changed-block files"
vm_disk=$(sed -n 's/^vm_disk=//p' "$demo/chain/chain.txt")
vm_final=$(sed -n 's/^vm_final=//p' "$demo/chain/chain.txt")
vm_rules=$(sed -n 's/^vm_rules=//p' "$demo/chain/chain.txt")
"$root/build/tvucon" ls --saveset "$con" --ini "$demo/chain/tq.ini" "/VMDK/$(dirname "$vm_disk")" | sed 's/^/  /'
start=$(date +%s.%N)
"$root/build/tvucon" cat --saveset "$con" --ini "$demo/chain/tq.ini" --rules "$vm_rules" /MAPPER/vm/web01.raw \
  > "$demo/web01.raw"
end=$(date +%s.%N)
qemu-img compare -q -f raw -F raw "$demo/web01.raw" "$vm_final" &&
  awk -v b="$(stat -c %s "$demo/web01.raw")" -v s="$start" -v e="$end" 'BEGIN {
    t = e - s; printf "  rebuilt disk (%d bytes, %.2f s) is identical to the disk'"'"'s final state (qemu-img compare)\n", b, t }'

echo "== the Hyper-V disk: a full VHDX and its differencing tails merged by VHDXMERGE rules"
hv_rules=$(sed -n 's/^hv_rules=//p' "$demo/chain/chain.txt")
hv_final=$(sed -n 's/^hv_final=//p' "$demo/chain/chain.txt")
start=$(date +%s.%N)
"$root/build/tvucon" cat --saveset "$con" --ini "$demo/chain/tq.ini" --rules "$hv_rules" /MAPPER/hv/web02.vhdx \
  > "$demo/web02.vhdx" 2> "$demo/web02.merge.log"
end=$(date +%s.%N)
grep '^\[VHDX\] Merging source' "$demo/web02.merge.log" | sed 's/^/  /'
qemu-img check -q -f vhdx "$demo/web02.vhdx" && echo "  qemu-img check: no errors in the merged VHDX"
qemu-img compare -q -f vhdx -F raw "$demo/web02.vhdx" "$hv_final" &&
  awk -v b="$(stat -c %s "$demo/web02.vhdx")" -v s="$start" -v e="$end" 'BEGIN {
    t = e - s; printf "  merged VHDX (%d bytes, %.2f s) holds the disk'"'"'s final state (qemu-img compare)\n", b, t }'

echo "== a disk saved as a raw image and block-bitmap increments, shown as dynamic VHDs"
"$root/build/mkchain" bitmap --out "$demo/bitmap" --size 268435456 --increments 3 | sed 's/^/  /'
bcon=$(sed -n 's/^consolidate=//p' "$demo/bitmap/chain.txt")
btvucon() { "$root/build/tvucon" "$1" --saveset "$bcon" --ini "$demo/bitmap/tq.ini" --rules "$demo/bitmap/rules.map" "${@:2}"; }
btvucon ls /MAPPER/disk | sed 's/^/  /'
for vhd in db01.raw.vhd:final.raw base.vhd:$(basename "$(sed -n 's/^head=//p' "$demo/bitmap/chain.txt")"); do
  name=${vhd%%:*} raw=${vhd#*:}
  [ "$name" = base.vhd ] && rawpath=$demo/bitmap/savesets/$raw || rawpath=$demo/bitmap/$raw
  start=$(date +%s.%N)
  btvucon cat "/MAPPER/disk/$name" > "$demo/$name"
  end=$(date +%s.%N)
  qemu-img compare -q -f vpc -F raw "$demo/$name" "$rawpath" &&
    awk -v n="$name" -v r="$raw" -v b="$(stat -c %s "$demo/$name")" -v s="$start" -v e="$end" 'BEGIN {
      printf "  %s (%d bytes, %.2f s) reads as %s (qemu-img compare)\n", n, b, e - s, r }'
done

echo "== a chain of UFS dump savesets: levels 0, 1 and 2 of a small ext2 file system"
# dump needs a block device (a loop device, as root); the demo uses the dumps
# that scripts/make_dump_fixtures.sh made that way and the tests use too.
fixtures=$root/tests/fixtures/dump
"$root/build/mkchain" dump --out "$demo/dump" "$fixtures/level0.dump" "$fixtures/level1.dump" "$fixtures/level2.dump"
dtvucon() { "$root/build/tvucon" "$1" --saveset SFCONSOLIDATED --ini "$demo/dump/tq.ini" "${@:2}"; }
dtvucon consolidate --output "$demo/dump.stream" --quiet
echo "  consolidated $(grep -c '^"' "$demo/dump/tqslis/SFCONSOLIDATED_mnt/SFCONSOLIDATED.lsl") items into" \
  "$(stat -c %s "$demo/dump.stream") bytes"
mkdir -p "$demo/dump-final"
for level in 0 1 2; do
  (cd "$demo/dump-final" && restore -r -y -f "$fixtures/level$level.dump" </dev/null >/dev/null)
done
rm -f "$demo/dump-final/restoresymtable"
dtvucon export / "$demo/dump-export" 2>&1 | sed "s/^/  /"
diff -r "$demo/dump-final" "$demo/dump-export" && echo "  exported tree is identical to restore -r of the three levels"
dump_files=0
while IFS= read -r -d '' f; do
  dtvucon cat "/${f#"$demo/dump-final/"}" | cmp -s - "$f" || { echo "  tvucon cat differs: $f" >&2; exit 1; }
  dump_files=$((dump_files + 1))
done < <(find "$demo/dump-final" -type f -print0)
echo "  tvucon cat of all $dump_files files (sparse ones, a 1.6 MiB one, non-ASCII names) matches restore"

# ---- MTF savesets (begin) ----------------------------------------------------
echo "== a chain of MTF savesets: a full and three incremental data sets in Microsoft Tape Format"
"$root/build/mkchain" mtf --out "$demo/mtf" --files 200 --total-bytes 6000000 --incrementals 3 --seed 15 |
  sed "s/^/  /"
mcon=$(sed -n 's/^consolidate=//p' "$demo/mtf/chain.txt")
mtvucon() { "$root/build/tvucon" "$1" --saveset "$mcon" --ini "$demo/mtf/tq.ini" "${@:2}"; }
mtvucon consolidate --raw --output "$demo/mtf.stream" --quiet
cmp -s "$demo/mtf.stream" "$demo/mtf/expected.mtf" || { echo "  MTF consolidation differs from the catalog's runs" >&2; exit 1; }
echo "  consolidated stream ($(stat -c %s "$demo/mtf.stream") bytes) is the catalog's runs, block for block"
mtvucon export / "$demo/mtf-export" 2>&1 | sed "s/^/  /"
diff -r "$demo/mtf/final" "$demo/mtf-export" && echo "  exported tree is identical to the chain's final state"
mtf_files=0
while IFS= read -r -d '' f; do
  mtvucon cat "/${f#"$demo/mtf/final/"}" | cmp -s - "$f" || { echo "  tvucon cat differs: $f" >&2; exit 1; }
  mtf_files=$((mtf_files + 1))
done < <(find "$demo/mtf/final" -type f -print0)
echo "  tvucon cat of all $mtf_files files (each located in its data set by its FILE block) matches the final state"
# ---- MTF savesets (end) ------------------------------------------------------

# ---- tvucon: a checked consolidation as the full backup of a second chain ----
echo "== check, then a consolidation whose result (stream and catalog) is the full of a second chain"
"$root/build/tvucon" check -s "$con" --ini "$demo/chain/tq.ini" --no-records
full2=SF20261201020000 incr2=SI20261202020000 con2=SF20261203020000
second=$demo/second
mkdir -p "$second/savesets" "$second/tqslis/${con2}_mnt" "$second/ini/xfpd_conf" "$second/incr"
"$root/build/tvucon" consolidate -s "$con" --ini "$demo/chain/tq.ini" -o "$second/savesets/$full2.cpio" \
  --catalog "$second/$full2.lsl" --catalog-name "$full2" --verify --quiet 2>&1 | sed 's/^/  /'
# One more incremental: three files of the final state changed, written by GNU cpio.
cp -r "$demo/chain/final" "$second/final"
mapfile -t changed < <(cd "$second/final" && find . -type f -size +0 | sort | sed -n '5p;50p;500p' | sed 's|^\./||')
for f in "${changed[@]}"; do echo "changed after $full2" >> "$second/final/$f"; done
(cd "$second/final" && printf '%s\n' "${changed[@]}" | cpio -o -H newc --quiet > "$second/savesets/$incr2.cpio")
# The second chain's consolidated catalog: the changed files from the
# incremental (their records located by reading its newc headers), the rest
# from the new full.
python3 - "$second" "$full2" "$incr2" "$con2" "${changed[@]}" <<'PY'
import sys
second, full, incr, con, changed = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4], set(sys.argv[5:])
data = open(f"{second}/savesets/{incr}.cpio", "rb").read()
records, at = {}, 0
while at < len(data):
    h = data[at:at + 110]
    fields = [int(h[6 + 8 * i:14 + 8 * i], 16) for i in range(13)]
    size, namesize = fields[6], fields[11]
    name = data[at + 110:at + 110 + namesize - 1].decode()
    rel = (110 + namesize + 3) // 4 * 4
    span = rel + (size + 3) // 4 * 4
    if name == "TRAILER!!!":
        break
    records[name] = (at, rel, span, size)
    at += span
out = []
for line in open(f"{second}/{full}.lsl"):
    if line.startswith('"'):
        path = line[1:line.index('"', 1)]
        if path in records:
            q = line.index('"', 1)
            rest = line[q + 2:].split(" ")
            at, rel, span, size = records[path]
            rest[5:12] = [str(at), str(rel), str(span), str(size), rest[9], "0", incr]
            line = line[:q + 2] + " ".join(rest)
    out.append(line)
open(f"{second}/tqslis/{con}_mnt/{con}.lsl", "w").writelines(out)
PY
printf '%s\n' "$second/savesets/$full2.cpio" "$second/savesets/$incr2.cpio" > "$second/tqslis/${con2}_mnt/savesets.txt"
printf -- '-f\n%s\n-l\n%s\n-r\n/\n-t\ncpio\n-o\nno_vmdk_search=1\n' "$second/tqslis/${con2}_mnt/savesets.txt" \
  "$second/tqslis/${con2}_mnt/$con2.lsl" > "$second/tqslis/${con2}_mnt/consolidate.arg"
printf '[pathes]\ngv_rw_tqslis=%s/tqslis/\ngv_rw_ini=%s/ini/\n' "$second" "$second" > "$second/tq.ini"
stvucon() { "$root/build/tvucon" "$1" -s "$con2" --ini "$second/tq.ini" "${@:2}"; }
stvucon check 2>&1 | sed 's/^/  /'
stvucon consolidate -o "$second/$con2.cpio" --verify 2>&1 | sed 's/^/  /'
mkdir -p "$second/extract"
(cd "$second/extract" && cpio -idm --quiet < "$second/$con2.cpio")
diff -r "$second/final" "$second/extract" &&
  echo "  the second chain's consolidation extracts to its final state (${#changed[@]} files changed)"
stvucon export / "$second/tree" --quiet
diff -r "$second/final" "$second/tree" && echo "  and its tree exports the same"
stvucon ls --json "/$(dirname "${changed[0]}")" | head -3 | sed 's/^/  /'
# ---- end of the tvucon block ----

items=$(sed -n 's/^items=//p' "$demo/chain/chain.txt")
savesets=$(sed -n 's/^savesets=//p' "$demo/chain/chain.txt")
echo "== done: $savesets savesets, $items items consolidated three ways into identical streams"
