#!/usr/bin/env bash
# The tolimage tool on the bundled samples and a few fixtures: exit status,
# output lines and the files it writes.
set -u
tool=$1 samples=$2 fixtures=$3
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
fail=0
expect() {  # expect STATUS COMMAND...
    local want=$1; shift
    "$@" >"$out/stdout" 2>"$out/stderr" </dev/null
    local got=$?
    if [ "$got" != "$want" ]; then
        echo "FAIL: '$*' gave $got, expected $want"; cat "$out/stdout" "$out/stderr"; fail=1
    fi
}

expect 0 "$tool" info "$samples/sample.bmp"
grep -q "sample.bmp: BMP, 480 x 200, 1 bpp, 2 colours" "$out/stdout" || { echo "FAIL: info line"; cat "$out/stdout"; fail=1; }

expect 0 "$tool" convert "$samples/sample.bmp" "$out/sample.pbm"
[ "$(head -c 11 "$out/sample.pbm")" = "$(printf 'P4\n480 200\n')" ] || { echo "FAIL: PBM header"; fail=1; }
[ "$(stat -c %s "$out/sample.pbm")" = $((11 + 60 * 200)) ] || { echo "FAIL: PBM size"; fail=1; }

expect 0 "$tool" convert "$fixtures/bmp/magick_4bit.bmp" "$out/colours.ppm"
cmp -s "$out/colours.ppm" "$fixtures/bmp/src/colours.ppm" || { echo "FAIL: PPM differs from its source"; fail=1; }

expect 0 "$tool" info "$samples/sample.pcx"
grep -q "sample.pcx: PCX, 400 x 200, 1 bpp, 2 colours, 7873 x 7873 pixels/m" "$out/stdout" || { echo "FAIL: PCX info line"; cat "$out/stdout"; fail=1; }

expect 0 "$tool" convert "$fixtures/pcx/netpbm_1plane.pcx" "$out/text.pbm"
cmp -s "$out/text.pbm" "$fixtures/pcx/src/text.pbm" || { echo "FAIL: PBM from PCX differs from its source"; fail=1; }

expect 0 "$tool" convert "$fixtures/pcx/netpbm_4plane.pcx" "$out/colours16.ppm"
[ "$(head -c 13 "$out/colours16.ppm")" = "$(printf 'P6\n101 9\n255\n')" ] || { echo "FAIL: PPM header from PCX"; fail=1; }

printf 'B' > "$out/one.bin"
expect 1 "$tool" info "$out/one.bin"
grep -q "tolimage: ReadIMG: $out/one.bin" "$out/stderr" || { echo "FAIL: report on stderr"; cat "$out/stderr"; fail=1; }

expect 0 "$tool" info "$samples/sample.tif"
grep -q "sample.tif: TIFF, 1728 x 1100, 1 bpp, 2 colours" "$out/stdout" || { echo "FAIL: TIFF info line"; cat "$out/stdout"; fail=1; }
expect 0 "$tool" convert "$fixtures/tiff/w33_lzw_mm.tif" "$out/w33.pbm"
cmp -s "$out/w33.pbm" "$fixtures/tiff/src/w33.pbm" || { echo "FAIL: TIFF PBM differs from its source"; fail=1; }
expect 1 "$tool" info "$fixtures/tiff/refuse_tiled.tif"
grep -q "TIFF Read: Missing tag value StripOffsets" "$out/stderr" || { echo "FAIL: TIFF refusal"; cat "$out/stderr"; fail=1; }

# The host raster: as PBM it is the pattern the fixtures were made from,
# whichever palette order the file has; drawn, the pattern's dark corner
# stands at the top left.
for f in handover_black_first handover_white_first; do
    expect 0 "$tool" raster "$fixtures/bmp/$f.bmp" "$out/$f.pbm"
    cmp -s "$out/$f.pbm" "$fixtures/bmp/handover_pattern.pbm" || { echo "FAIL: raster of $f"; fail=1; }
done
COLUMNS=20 expect 0 "$tool" show "$fixtures/bmp/handover_black_first.bmp"
[ "$(sed -n 2p "$out/stdout")" = "██████████▀▜  ▗  ▗ " ] || { echo "FAIL: show's first line"; cat "$out/stdout"; fail=1; }
[ "$(wc -l < "$out/stdout")" = 7 ] || { echo "FAIL: show's line count"; fail=1; }
COLUMNS=10 expect 0 "$tool" show "$fixtures/bmp/handover_black_first.bmp"
[ "$(sed -n 2p "$out/stdout")" = "████▀▀    " ] || { echo "FAIL: show at 10 columns"; cat "$out/stdout"; fail=1; }
COLUMNS=80 expect 0 "$tool" show "$samples/sample.bmp"
[ "$(sed -n 2p "$out/stdout" | wc -m)" -le 81 ] || { echo "FAIL: show wider than 80 columns"; fail=1; }
expect 1 "$tool" show "$out/one.bin"
expect 1 "$tool" raster "$out/one.bin" "$out/none.pbm"

expect 2 "$tool"
expect 2 "$tool" frobnicate x
expect 2 "$tool" convert only-one-arg
exit $fail
