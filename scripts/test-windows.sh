#!/usr/bin/env bash
# The Windows build's tests, run under Wine on this machine:
#  1. the cross build (scripts/build-windows.sh) and the Linux build, whose
#     mkchain and tqdedupd make and serve the demo chain;
#  2. every test program of the Windows build through CTest (each test runs
#     as a Windows executable under wine64), except the tests that
#     tests/wine_excluded.txt lists with the reason;
#  3. the demo chain consolidated by tvucon.exe (with tvu_con.dll) under Wine
#     from saveset files, from the dedup store service (Thrift over Winsock)
#     and through tq_dedup.dll, each stream compared byte for byte with the
#     stream the Linux build makes.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
win=${TVU_WINDOWS_BUILD:-$root/build-windows}
lin=$root/build
cache=${TVU_MINGW_CACHE:-$HOME/.cache/tvu-mingw}

echo "== Windows build (mingw-w64)"
bash "$root/scripts/build-windows.sh" "$win"
echo "== Linux build (makes and serves the demo chain)"
bash "$root/scripts/build.sh" "$lin"

export WINEPREFIX=$cache/wine WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
wine=/usr/lib/wine/wine64
# The Wine prefix is made once; later runs find it ready.
[ -f "$WINEPREFIX/system.reg" ] || "$wine" wineboot --init >/dev/null 2>&1 || true

echo "== tests under Wine"
excluded=$(sed -e 's/#.*//' -e 's/[[:space:]]//g' "$root/tests/wine_excluded.txt" | grep -v '^$' | paste -sd'|' -)
(cd "$win" && ctest --output-on-failure -j"$(nproc)" --timeout 600 ${excluded:+-E "^($excluded)\$"})

echo "== the demo chain consolidated by tvucon.exe under Wine"
work=$(mktemp -d "${TMPDIR:-/tmp}/tvu-wine-demo.XXXXXX")
server=
cleanup() {
  [ -n "$server" ] && kill "$server" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
"$lin/mkchain" --out "$work/chain" >/dev/null
con=$(sed -n 's/^consolidate=//p' "$work/chain/chain.txt")
"$lin/tvucon" consolidate --saveset "$con" --ini "$work/chain/tq.ini" --output "$work/linux.cpio" \
  --close-archive 2>"$work/linux.log" || { cat "$work/linux.log" >&2; exit 1; }

# consolidate MEDIA: tvucon.exe on the chain as its saveset list now stands.
consolidate() {
  local media=$1
  TQ_DEDUP_LIB=$win/tq_dedup.dll timeout 600 "$wine" "$win/tvucon.exe" consolidate --saveset "$con" \
    --ini "$work/chain/tq.ini" --output "$work/win.$media.cpio" --close-archive 2>"$work/win.$media.log" || {
    cat "$work/win.$media.log" >&2; exit 1; }
  cmp "$work/linux.cpio" "$work/win.$media.cpio"
  echo "  $media: $(stat -c %s "$work/win.$media.cpio") bytes, identical to the Linux stream"
}
consolidate file
"$lin/tqdedupd" --dir "$work/chain/savesets" --port 0 --port-file "$work/port" --log "$work/tqdedupd.log" &
server=$!
for _ in $(seq 200); do [ -s "$work/port" ] && break; sleep 0.05; done
port=$(cat "$work/port")
for media in vk4 vk4ng; do
  "$lin/mkchain" relist --out "$work/chain" --media $media --dedup-host 127.0.0.1 --dedup-port "$port" >/dev/null
  consolidate $media
done
# Standard output too: the stream must leave in binary mode.  tq_dedup.dll
# is found by its default name beside tvucon.exe this time.
timeout 600 "$wine" "$win/tvucon.exe" consolidate --saveset "$con" --ini "$work/chain/tq.ini" --output - \
  --close-archive 2>"$work/win.stdout.log" >"$work/win.stdout.cpio" || { cat "$work/win.stdout.log" >&2; exit 1; }
cmp "$work/linux.cpio" "$work/win.stdout.cpio"
echo "  standard output: identical to the Linux stream"
echo "== Windows tests passed"
