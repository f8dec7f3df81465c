#!/usr/bin/env bash
# Makes the UFS dump fixtures of tests/fixtures/dump/ with Debian's dump.
# Usage (as root, needs a loop device): scripts/make_dump_fixtures.sh BUILD_DIR [OUT_DIR]
#
# A small ext2 file system is filled from a folder (mke2fs -d: nested folders,
# empty files, sparse files with holes in the middle and at the end, a file of
# more than 1 MiB whose address list needs continuation headers, non-ASCII
# names), dumped at level 0, changed with debugfs -w and dumped at levels 1
# and 2 (-T: changes since the previous dump's start).  Also written: a level 0
# dump made with -z (compressed) and a copy of the level 0 dump in the other
# byte order made by BUILD_DIR/mkchain swapdump.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:?usage: make_dump_fixtures.sh BUILD_DIR [OUT_DIR]}
out=${2:-$root/tests/fixtures/dump}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$out"

# Deterministic bytes: n bytes from a seed (no block of them is all zeros).
bytes() { python3 -c "import random,sys; r=random.Random($2); sys.stdout.buffer.write(bytes(r.randrange(1,256) for _ in range($1)))"; }

src=$work/src
mkdir -p "$src/docs" "$src/deep/a/b/c" "$src/data" "$src/Ünïcödé dir" "$src/empty dir"
printf 'first version of the readme\n' >"$src/docs/readme.txt"
: >"$src/docs/empty.txt"
printf 'leaf\n' >"$src/deep/a/b/c/leaf.txt"
printf 'café au lait\n' >"$src/Ünïcödé dir/naïve café.txt"
printf 'blanks\n' >"$src/name with blanks.txt"
bytes 70000 1 >"$src/data/dense.bin"
bytes 1500 2 >"$src/data/odd.bin"
# Hole in the middle: 4 KiB data, 200 KiB hole, 3000 bytes data.
{ bytes 4096 3; head -c 204800 /dev/zero; bytes 3000 4; } >"$src/data/sparse_mid.bin"
# Hole at the end: 8 KiB data, then the size set to 300 KiB.
bytes 8192 5 >"$src/data/sparse_end.bin"
truncate -s 307200 "$src/data/sparse_end.bin"
# Only a hole.
truncate -s 102400 "$src/data/all_hole.bin"
# 1.6 MiB: one 1 KiB block of data every 100 KiB (mke2fs -d leaves blocks of
# zeros out), so the address list spans four headers.
python3 - "$src/data/big_sparse.bin" <<'PY'
import random, sys
r = random.Random(6)
with open(sys.argv[1], "wb") as f:
    for k in range(16):
        f.seek(k * 102400 + 512)
        f.write(bytes(r.randrange(1, 256) for _ in range(1024)))
    f.truncate(1677721)
PY
find "$src" -exec touch -d '2026-01-10 10:00:00' {} +

img=$work/fs.img
mke2fs -q -t ext2 -b 1024 -N 128 -d "$src" "$img" 4M
dumpdev() {  # level file [extra dump options...]
  local level=$1 file=$2; shift 2
  local dev
  dev=$(losetup -f --show "$img")
  dump "-$level" -q "$@" -f "$file" "$dev" >/dev/null 2>&1 || { losetup -d "$dev"; return 1; }
  losetup -d "$dev"
}
stamp() { date -d "@$1" '+%a %b %e %H:%M:%S %Y'; }

sleep 2  # the inodes' change times lie before the level 0 dump's start
t0=$(date +%s)
dumpdev 0 "$out/level0.dump"
# Only the volume check reads a compressed dump: its first tape block will do.
dumpdev 0 "$work/level0z.dump" -z
head -c 10240 "$work/level0z.dump" >"$out/level0z.dump"
sleep 2

# Level 1: a new file and folder, a file written anew.
bytes 3000 7 >"$work/added.bin"
printf 'second version of the readme, longer than the first\n' >"$work/readme2.txt"
debugfs -w "$img" >/dev/null 2>&1 <<EOT
mkdir new
write $work/added.bin new/added.bin
rm docs/readme.txt
write $work/readme2.txt docs/readme.txt
EOT
sleep 2  # level 2 takes only what changes after this
t1=$(date +%s)
dumpdev 1 "$out/level1.dump" -T "$(stamp "$t0")"
sleep 2

# Level 2: a sparse file and a small one written anew, a non-ASCII name added.
{ bytes 2048 8; head -c 51200 /dev/zero; bytes 100 9; } >"$work/sparse2.bin"
bytes 2500 10 >"$work/odd2.bin"
printf '日本語\n' >"$work/jp.txt"
debugfs -w "$img" >/dev/null 2>&1 <<EOT
rm data/sparse_mid.bin
write $work/sparse2.bin data/sparse_mid.bin
rm data/odd.bin
write $work/odd2.bin data/odd.bin
write $work/jp.txt "Ünïcödé dir/日本語.txt"
EOT
dumpdev 2 "$out/level2.dump" -T "$(stamp "$t1")"

"$build/mkchain" swapdump "$out/level0.dump" "$out/level0swapped.dump"
ls -l "$out"
