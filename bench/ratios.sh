#!/usr/bin/env bash
# Every speed ratio of the project in one run: each piece of work against its
# reference, timed in pairs (reference, then the work) so that both see the
# same machine load, and the median of each over the rounds.
#   bench/ratios.sh [--quick] [--build DIR] [--chains DIR] [--rounds N] [--only ROWS]
# ROWS is a comma-separated choice of: con140k con1400k find mount store vmdk.
#   --quick   the 140,000-item chain stands in for the 1,400,000-item one, the
#             store saveset is 256 MiB and three rounds are run (a few minutes).
#   --chains  where the generated chains are kept between runs
#             (default ${TMPDIR:-/tmp}/tvu_bench_chains; see bench/gen_chains.sh).
# Every ratio is work/reference in time (lower is better), except the store
# rows, which give throughput as a fraction of the file's (higher is better).
# The mount row needs FUSE and bindfs; it is skipped without them.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build
chains=${TMPDIR:-/tmp}/tvu_bench_chains
quick=0
rounds=""
only="con140k,con1400k,find,mount,store,vmdk"
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=1 ;;
    --build) build=$2; shift ;;
    --chains) chains=$2; shift ;;
    --rounds) rounds=$2; shift ;;
    --only) only=$2; shift ;;
    *) echo "usage: $0 [--quick] [--build DIR] [--chains DIR] [--rounds N] [--only ROWS]" >&2; exit 2 ;;
  esac
  shift
done
[ -n "$rounds" ] || rounds=$([ $quick = 1 ] && echo 3 || echo 5)
big=1400k store_bytes=1073741824
if [ $quick = 1 ]; then big=140k; store_bytes=268435456; fi
want() { [[ ",$only," == *",$1,"* ]]; }

work=$(mktemp -d "${TMPDIR:-/tmp}/tvu_ratios_XXXXXX")
server=""
cleanup() {
  [ -n "$server" ] && kill "$server" 2>/dev/null
  for m in "$work"/mnt-*; do [ -d "$m" ] && fusermount3 -u -z "$m" 2>/dev/null; done
  rm -rf "$work"
  true
}
trap cleanup EXIT

need=()
want con140k && need+=(140k)
want mount && need+=(140k)
{ want con1400k || want find; } && need+=("$big")
want vmdk && need+=(vmdk)
[ ${#need[@]} -gt 0 ] && "$root/bench/gen_chains.sh" "$build" "$chains" $(printf '%s\n' "${need[@]}" | sort -u)
if want store; then
  TVU_STORE_BYTES=$store_bytes "$root/bench/gen_chains.sh" "$build" "$work/store" store
fi

now() { date +%s.%N; }
# Seconds taken by a command; its standard output is thrown away.
timed() { local s e; s=$(now); "$@" >/dev/null; e=$(now); awk -v s="$s" -v e="$e" 'BEGIN{printf "%.4f\n", e-s}'; }
median() { sort -g | awk '{v[NR]=$1} END{ if (NR%2) print v[(NR+1)/2]; else print (v[NR/2]+v[NR/2+1])/2 }'; }
# row TITLE REF_SECONDS... -- WORK_SECONDS...: prints both medians and the
# median of the paired ratios.
report() {
  local title=$1 refname=$2 refs=$3 works=$4 extra=${5:-}
  local mr mw ratio
  mr=$(tr ' ' '\n' <<<"$refs" | grep . | median)
  mw=$(tr ' ' '\n' <<<"$works" | grep . | median)
  ratio=$(paste <(tr ' ' '\n' <<<"$refs" | grep .) <(tr ' ' '\n' <<<"$works" | grep .) |
          awk '{print ($1>0)?$2/$1:0}' | median)
  printf '%-44s %8.3f s   %-22s %8.3f s   ratio %6.2f%s\n' "$title" "$mw" "$refname" "$mr" "$ratio" "$extra"
}

chain_of() { echo "$chains/$1/chain"; }
con_of() { sed -n 's/^consolidate=//p' "$1/chain.txt"; }
items_of() { sed -n 's/^items=//p' "$1/chain.txt"; }

echo "tvu_con speed ratios: $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) CPUs, load $(cut -d' ' -f1-3 /proc/loadavg), $rounds rounds$([ $quick = 1 ] && echo ', quick')"

consolidate_row() {  # consolidate_row NAME
  local c con refs="" works=""
  c=$(chain_of "$1"); con=$(con_of "$c")
  cat "$c"/savesets/*.cpio >/dev/null
  for _ in $(seq "$rounds"); do
    refs+=" $(timed cat "$c"/savesets/*.cpio)"
    works+=" $(timed "$build/tvucon" consolidate --saveset "$con" --ini "$c/tq.ini" --output /dev/null \
      --block-size 1048576 --quiet)"
  done
  report "consolidate $(items_of "$c") items ($1) to /dev/null" "cat of savesets" "$refs" "$works"
}
want con140k && consolidate_row 140k
# In quick mode the large chain is the small one, already measured above.
want con1400k && { [ $quick = 0 ] || ! want con140k; } && consolidate_row "$big"

if want find; then
  c=$(chain_of "$big"); con=$(con_of "$c"); items=$(items_of "$c")
  refs="" works="" mem=""
  find "$c/final" >/dev/null
  for _ in $(seq "$rounds"); do
    refs+=" $(timed find "$c/final")"
    s=$(now)
    /usr/bin/time -f %M -o "$work/rss" "$build/tvucon" find --saveset "$con" --ini "$c/tq.ini" / \
      >/dev/null 2>"$work/find.err"
    e=$(now)
    works+=" $(awk -v s="$s" -v e="$e" 'BEGIN{printf "%.4f\n", e-s}')"
    mem+=" $(tail -1 "$work/rss")"
  done
  kb=$(tr ' ' '\n' <<<"$mem" | grep . | median)
  report "tvucon find of $items items ($big)" "find on the final tree" "$refs" "$works" \
    "   $(awk -v k="$kb" -v n="$items" 'BEGIN{printf "%.0f MB peak, %.0f bytes/item", k/1024, k*1024/n}')"
fi

if want mount; then
  if [ -e /dev/fuse ] && command -v bindfs >/dev/null && command -v fusermount3 >/dev/null; then
    c=$(chain_of 140k); con=$(con_of "$c")
    mkdir -p "$work/mnt-tvu" "$work/mnt-bind"
    cat "$c"/savesets/*.cpio "$c/tqslis"/*/*.lsl >/dev/null 2>&1 || true
    find "$c/final" >/dev/null
    mount_tvu() {
      "$build/tvucon" mount --saveset "$con" --ini "$c/tq.ini" "$work/mnt-tvu" 2>/dev/null
      for _ in $(seq 400); do [ -e "$work/mnt-tvu/demo" ] && break; sleep 0.01; done
      find "$work/mnt-tvu" -printf '%y %s %p\n' >/dev/null
      fusermount3 -u "$work/mnt-tvu"
    }
    mount_bind() {
      bindfs -r "$c/final" "$work/mnt-bind"
      for _ in $(seq 400); do [ -e "$work/mnt-bind/demo" ] && break; sleep 0.01; done
      find "$work/mnt-bind" -printf '%y %s %p\n' >/dev/null
      fusermount3 -u "$work/mnt-bind"
    }
    refs="" works=""
    for _ in $(seq "$rounds"); do
      refs+=" $(timed mount_bind)"
      works+=" $(timed mount_tvu)"
    done
    report "cold mount + find, $(items_of "$c") items" "bindfs + find" "$refs" "$works"
  else
    echo "cold mount + find: skipped (needs /dev/fuse, bindfs and fusermount3)"
  fi
fi

if want store; then
  c=$work/store/store/chain; con=$(con_of "$c")
  "$build/tqdedupd" --dir "$c/savesets" --port 0 --port-file "$work/port" --log "$work/tqdedupd.log" &
  server=$!
  for _ in $(seq 200); do [ -s "$work/port" ] && break; sleep 0.05; done
  port=$(cat "$work/port")
  cat "$c"/savesets/*.cpio >/dev/null
  consolidate() {  # consolidate BLOCK
    TQ_DEDUP_LIB=$build/libtq_dedup.so "$build/tvucon" consolidate --saveset "$con" --ini "$c/tq.ini" \
      --output /dev/null --block-size "$1" --quiet
  }
  mb=$((store_bytes >> 20))
  for block in 1048576 67108864; do
    for media in vk4 vk4ng; do
      refs="" works=""
      for _ in $(seq "$rounds"); do
        "$build/mkchain" relist --out "$c" --media file
        refs+=" $(timed consolidate "$block")"
        "$build/mkchain" relist --out "$c" --media "$media" --dedup-host 127.0.0.1 --dedup-port "$port"
        works+=" $(timed consolidate "$block")"
      done
      # Throughput as a fraction of the file's: reference time / work time.
      mr=$(tr ' ' '\n' <<<"$refs" | grep . | median)
      mw=$(tr ' ' '\n' <<<"$works" | grep . | median)
      tp=$(paste <(tr ' ' '\n' <<<"$refs" | grep .) <(tr ' ' '\n' <<<"$works" | grep .) |
           awk '{print ($2>0)?$1/$2:0}' | median)
      printf '%-44s %8.3f s   %-22s %8.3f s   throughput %4.2f of file\n' \
        "$mb MiB over $media, $((block >> 20)) MiB blocks" "$mw" "file saveset" "$mr" "$tp"
    done
  done
  kill "$server" 2>/dev/null; wait "$server" 2>/dev/null || true; server=""
fi

if want vmdk; then
  c=$(chain_of vmdk); con=$(con_of "$c")
  final=$(sed -n 's/^vm_final=//p' "$c/chain.txt"); rules=$(sed -n 's/^vm_rules=//p' "$c/chain.txt")
  cat "$c"/savesets/*.cpio "$final" >/dev/null
  refs="" works=""
  for _ in $(seq "$rounds"); do
    refs+=" $(timed cat "$final")"
    works+=" $(timed "$build/tvucon" cat --saveset "$con" --ini "$c/tq.ini" --rules "$rules" /MAPPER/vm/web01.raw \
      2>/dev/null)"
  done
  report "rebuilt $(($(stat -c %s "$final") >> 20)) MiB VMDK through tvucon cat" "cat of the raw image" "$refs" "$works"
fi
