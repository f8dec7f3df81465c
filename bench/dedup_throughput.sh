#!/usr/bin/env bash
# Streaming throughput of one large saveset through the Vk4 store (Thrift
# client) and the next-generation store (library), both served by tqdedupd
# over loopback, as ratios against the same saveset read as a file, in one
# run.
#   bench/dedup_throughput.sh [BUILD_DIR] [SAVESET_BYTES] [BLOCK_BYTES]
# BLOCK_BYTES is the block size the client reads with (1 MiB by default; the
# stores should be as fast at 64 MiB).  bench/ratios.sh runs both sizes.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
total=${2:-1073741824}
block=${3:-1048576}
work=$(mktemp -d "${TMPDIR:-/tmp}/tvu_dedup_bench_XXXXXX")
server=""
cleanup() { [ -n "$server" ] && kill "$server" 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT

# A chain of the full saveset alone: its consolidation streams the whole saveset.
"$build/mkchain" --out "$work/chain" --total-bytes "$total" --files 2000 --incrementals 0 \
  --no-final --no-expected >/dev/null
con=$(sed -n 's/^consolidate=//p' "$work/chain/chain.txt")
bytes=$(sed -n 's/^stream_bytes=//p' "$work/chain/chain.txt")
"$build/tqdedupd" --dir "$work/chain/savesets" --port 0 --port-file "$work/port" --log "$work/tqdedupd.log" &
server=$!
for _ in $(seq 200); do [ -s "$work/port" ] && break; sleep 0.05; done
port=$(cat "$work/port")

run() {  # run MEDIA -> best seconds of 3
  "$build/mkchain" relist --out "$work/chain" --media "$1" --dedup-host 127.0.0.1 --dedup-port "$port"
  local best=999999 s e
  for _ in 1 2 3; do
    s=$(date +%s.%N)
    TQ_DEDUP_LIB=$build/libtq_dedup.so "$build/tvucon" consolidate --saveset "$con" \
      --ini "$work/chain/tq.ini" --output /dev/null --block-size "$block" --quiet
    e=$(date +%s.%N)
    best=$(awk -v a="$best" -v s="$s" -v e="$e" 'BEGIN{t=e-s; print (t<a)?t:a}')
  done
  echo "$best"
}
cat "$work"/chain/savesets/*.cpio >/dev/null
tf=$(run file); t3=$(run vk4); t4=$(run vk4ng)
awk -v b="$bytes" -v tf="$tf" -v t3="$t3" -v t4="$t4" 'BEGIN {
  m = 1048576;
  printf "file  : %d bytes in %.3f s = %.1f MiB/s\n", b, tf, b / m / tf;
  printf "vk4   : %d bytes in %.3f s = %.1f MiB/s (ratio %.2f)\n", b, t3, b / m / t3, tf / t3;
  printf "vk4ng : %d bytes in %.3f s = %.1f MiB/s (ratio %.2f)\n", b, t4, b / m / t4, tf / t4 }'
