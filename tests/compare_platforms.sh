#!/usr/bin/env bash
# The Windows tool (run by its emulator) and the native tool on every
# fixture and sample: the same exit status, the same image bytes and the
# same reports, with the paths in reports written the native way.
#   compare_platforms.sh NATIVE_TOOL WINDOWS_TOOL EMULATOR FOLDER...
set -u
native=$1 windows=$2 emulator=$3
shift 3
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
fail=0 files=0 images_compared=0
# "Z:\work\x.tif" as the native "/work/x.tif"; Windows' line ends as the native ones.
unwin() { sed -e 's/\r$//' -e 's|[A-Za-z]:\\|/|g' -e 's|\\|/|g' "$1"; }
mapfile -t images < <(find "$@" -type f \( -iname '*.tif' -o -iname '*.bmp' -o -iname '*.dib' -o -iname '*.pcx' \
                      -o -iname '*.ras' \) -not -path '*/src/*' | sort)
for f in "${images[@]}"; do
  files=$((files + 1))
  for side in native windows; do
    if [ "$side" = native ]; then run=("$native"); else run=("$emulator" "$windows"); fi
    "${run[@]}" convert "$f" "$out/$side.pnm" --all >"$out/$side.out" 2>"$out/$side.err" </dev/null
    echo $? >"$out/$side.status"
    # Every image the file gave (OUT-0.pnm, OUT-1.pnm, ... with --all), in order.
    find "$out" -maxdepth 1 -name "$side*.pnm" | sort -V | xargs -r cat >"$out/$side.images"
  done
  [ -s "$out/native.images" ] && images_compared=$((images_compared + 1))
  if ! cmp -s "$out/native.status" "$out/windows.status" || ! cmp -s "$out/native.images" "$out/windows.images" ||
     ! diff -q <(unwin "$out/native.err") <(unwin "$out/windows.err") >/dev/null; then
    echo "FAIL: $f: native status $(cat "$out/native.status"), windows $(cat "$out/windows.status")"
    diff <(unwin "$out/native.err") <(unwin "$out/windows.err") | head -5
    fail=1
  fi
  rm -f "$out"/*.pnm
done
# Header fields (size, bits, colours, resolution, images) of all at once.
"$native" info "${images[@]}" >"$out/native.info" 2>"$out/native.info.err" </dev/null
"$emulator" "$windows" info "${images[@]}" >"$out/windows.info" 2>"$out/windows.info.err" </dev/null
for part in info info.err; do
  if ! diff <(unwin "$out/native.$part") <(unwin "$out/windows.$part") >"$out/diff"; then
    echo "FAIL: $part differs"; head -20 "$out/diff"; fail=1
  fi
done
echo "$files files compared, $images_compared of them giving images"
[ "$images_compared" -gt 0 ] || fail=1
exit $fail
