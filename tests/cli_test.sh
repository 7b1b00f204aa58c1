#!/usr/bin/env bash
# The tolimage tool on the bundled samples and a few fixtures: exit status,
# output lines and the files it writes.
set -u
tool=$1 samples=$2 fixtures=$3
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
# A tool built for another system runs through its emulator (Wine).
if [ -n "${TL_EMULATOR:-}" ]; then
    printf '#!/bin/sh\nexec "%s" "%s" "$@"\n' "$TL_EMULATOR" "$tool" >"$out/tool"
    chmod +x "$out/tool"
    tool=$out/tool
fi
fail=0
expect() {  # expect STATUS COMMAND...
    local want=$1; shift
    "$@" >"$out/stdout" 2>"$out/stderr" </dev/null
    local got=$?
    # Windows ends the lines of a console program's output with CR LF.
    [ -z "${TL_EMULATOR:-}" ] || sed -i 's/\r$//' "$out/stdout" "$out/stderr"
    if [ "$got" != "$want" ]; then
        echo "FAIL: '$*' gave $got, expected $want"; cat "$out/stdout" "$out/stderr"; fail=1
    fi
}

expect 0 "$tool" info "$samples/sample.bmp"
grep -q "sample.bmp: BMP, 480 x 200, 1 bpp, 2 colours" "$out/stdout" || { echo "FAIL: info line"; cat "$out/stdout"; fail=1; }

expect 0 "$tool" convert "$samples/sample.bmp" "$out/sample.pbm"
[ "$(head -c 11 "$out/sample.pbm")" = "$(printf 'P4\n480 200\n')" ] || { echo "FAIL: PBM header"; fail=1; }
[ "$(stat -c %s "$out/sample.pbm")" = $((11 + 60 * 200)) ] || { echo "FAIL: PBM size"; fail=1; }

# An output type the tool does not write is bad usage, found before the file is read.
expect 2 "$tool" convert "$samples/sample.bmp" "$out/sample.jpg"
grep -q "sample.jpg: unknown output type" "$out/stderr" && [ ! -e "$out/sample.jpg" ] || { echo "FAIL: .jpg output"; fail=1; }

expect 0 "$tool" convert "$fixtures/bmp/magick_4bit.bmp" "$out/colours.ppm"
cmp -s "$out/colours.ppm" "$fixtures/bmp/src/colours.ppm" || { echo "FAIL: PPM differs from its source"; fail=1; }

# A header of 0 bits a pixel, 1,291,845,681 pixels wide (a 101-byte file
# the fuzzer found): loaded, but nothing to write, and no file written.
expect 1 "$tool" convert "$fixtures/bmp/zero_bits_wide.bmp" "$out/wide.ppm"
grep -q "zero_bits_wide.bmp: pixel data this tool cannot show" "$out/stderr" || { echo "FAIL: 0 bits a pixel"; cat "$out/stderr"; fail=1; }
[ ! -e "$out/wide.ppm" ] || { echo "FAIL: a file was written for 0 bits a pixel"; fail=1; }

expect 0 "$tool" info "$samples/sample.pcx"
grep -q "sample.pcx: PCX, 400 x 200, 1 bpp, 2 colours, 7873 x 7873 pixels/m" "$out/stdout" || { echo "FAIL: PCX info line"; cat "$out/stdout"; fail=1; }

expect 0 "$tool" convert "$fixtures/pcx/netpbm_1plane.pcx" "$out/text.pbm"
cmp -s "$out/text.pbm" "$fixtures/pcx/src/text.pbm" || { echo "FAIL: PBM from PCX differs from its source"; fail=1; }


expect 0 "$tool" info "$samples/multi.ras" "$samples/colour16.ras"
grep -q "multi.ras: RAS, 265 x 94, 1 bpp, 2 colours, 0 x 0 pixels/m, 3 images" "$out/stdout" || { echo "FAIL: RAS info line"; cat "$out/stdout"; fail=1; }
grep -q "colour16.ras: RAS, 96 x 40, 4 bpp, 16 colours, 0 x 0 pixels/m, 1 image" "$out/stdout" || { echo "FAIL: RAS info line"; cat "$out/stdout"; fail=1; }

# --all walks the file: one output per image, numbered before the extension.
expect 0 "$tool" convert "$samples/multi.ras" "$out/page.pbm" --all
for n in 1 2 3; do
    cmp -s "$out/page-$((n - 1)).pbm" "$fixtures/ras/src/page$n.pbm" || { echo "FAIL: RAS image $((n - 1)) differs from its source"; fail=1; }
done
[ -e "$out/page-3.pbm" ] && { echo "FAIL: a fourth RAS image"; fail=1; }
expect 0 "$tool" convert "$samples/colour16.ras" "$out/colour" --all
cmp -s "$out/colour-0" "$fixtures/ras/src/colour16.ppm" || { echo "FAIL: 16-colour RAS differs from its source"; fail=1; }
expect 1 "$tool" convert "$out/missing.ras" "$out/missing.pbm" --all

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
COLUMNS=80 expect 0 "$tool" show "$samples/sample.bmp"  # 480 columns: a side past 255
[ "$(sed -n 2p "$out/stdout" | wc -m)" = 81 ] || { echo "FAIL: show at 80 columns"; fail=1; }
expect 1 "$tool" show "$out/one.bin"
expect 1 "$tool" raster "$out/one.bin" "$out/none.pbm"

# Bad usage: status 2 and one line on standard error.
for args in "" "frobnicate x" "convert only-one-arg" "help convert extra" "--frobnicate"; do
    # shellcheck disable=SC2086
    expect 2 "$tool" $args
    [ "$(wc -l < "$out/stderr")" = 1 ] || { echo "FAIL: '$args' gave not one line"; cat "$out/stderr"; fail=1; }
done
grep -q "usage: tolimage convert FILE OUT \[--all\]" <("$tool" convert x 2>&1) || { echo "FAIL: convert's usage"; fail=1; }

# Help and version go to standard output with status 0.
expect 0 "$tool" --help
grep -q "Exit status" "$out/stdout" || { echo "FAIL: --help lacks the exit status"; fail=1; }
expect 0 "$tool" --version
grep -q "^tolimage [0-9]*\.[0-9]*\.[0-9]* (TolImage library [0-9.]*, engine version 3\.3m)$" "$out/stdout" ||
    { echo "FAIL: --version"; cat "$out/stdout"; fail=1; }
exit $fail
