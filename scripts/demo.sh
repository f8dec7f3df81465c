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
"$root/build/mkchain" --out "$demo/chain" --vm-disk 268435456
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

items=$(sed -n 's/^items=//p' "$demo/chain/chain.txt")
savesets=$(sed -n 's/^savesets=//p' "$demo/chain/chain.txt")
echo "== done: $savesets savesets, $items items consolidated three ways into identical streams"
