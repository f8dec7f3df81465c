#!/usr/bin/env bash
# The benchmark chains of many small items, made once and kept for later runs.
#   bench/gen_chains.sh [BUILD_DIR] DIR [140k|1400k|vmdk|store]...
# Each chain lands in DIR/<name> with its final state (DIR/<name>/chain/final,
# the tree a restore of the consolidated stream gives); a chain already made
# by the same mkchain with the same options is kept as it is.
#   140k   about 140,000 items, a 54 MiB consolidated stream
#   1400k  about 1,400,000 items, a 315 MB consolidated stream
#   vmdk   a small chain with a 256 MiB disk saved with changed-block tracking
#   store  one full saveset of 1 GiB (TVU_STORE_BYTES) for the dedup stores
# The item counts come from mkchain's model: --files N gives N files in the
# full backup, a folder per twelve files and a few new files per incremental.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build
if [ $# -ge 2 ] && [ -x "$1/mkchain" ]; then build=$1; shift; fi
[ $# -ge 1 ] || { echo "usage: $0 [BUILD_DIR] DIR [140k|1400k|vmdk|store]..." >&2; exit 2; }
dir=$1
shift
names=("$@")
[ ${#names[@]} -gt 0 ] || names=(140k 1400k)
mkdir -p "$dir"

options_of() {
  case "$1" in
    140k) echo "--files 120000" ;;
    1400k) echo "--files 1200000" ;;
    vmdk) echo "--files 200 --vm-disk 268435456 --no-expected" ;;
    store) echo "--files 2000 --incrementals 0 --total-bytes ${TVU_STORE_BYTES:-1073741824} --no-final --no-expected" ;;
    *) echo "unknown chain $1 (140k, 1400k, vmdk, store)" >&2; return 1 ;;
  esac
}

for name in "${names[@]}"; do
  opts=$(options_of "$name")
  # 140k and 1400k keep their final tree but not the expected stream.
  case "$name" in 140k|1400k) opts="$opts --no-expected" ;; esac
  stamp="$(sha1sum "$build/mkchain" | cut -c1-16) $opts"
  if [ -f "$dir/$name/stamp" ] && [ "$(cat "$dir/$name/stamp")" = "$stamp" ]; then
    continue
  fi
  rm -rf "$dir/$name"
  mkdir -p "$dir/$name"
  echo "making the $name chain ($opts)" >&2
  # shellcheck disable=SC2086
  "$build/mkchain" --out "$dir/$name/chain" $opts >"$dir/$name/mkchain.out"
  echo "$stamp" >"$dir/$name/stamp"
done
