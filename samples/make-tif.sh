#!/usr/bin/env bash
# Makes samples/sample.tif, a 1728 x 1100 bilevel letter page (fax width)
# with a heading, lines of text, a table and a frame, drawn with ImageMagick
# and written as LZW in strips of 64 rows by libtiff's tiffcp.
set -euo pipefail
cd "$(dirname "$0")"
tmp=$(mktemp --suffix=.tif)
trap 'rm -f "$tmp"' EXIT
/usr/bin/convert -size 1728x1100 xc:white -fill none -stroke black -strokewidth 4 -draw "rectangle 40,40 1688,1060" \
  -stroke none -fill black -font Helvetica-Bold -pointsize 72 -draw "text 100,170 'TolImage'" \
  -font DejaVu-Sans-Mono -pointsize 30 \
  -draw "text 100,250 'Bilevel TIFF sample page: LZW, strips of 64 rows.'" \
  -draw "text 100,300 'Dear reader, this page stands in for a scanned letter.'" \
  -draw "text 100,350 'It loads with: tolimage convert sample.tif page.bmp'" \
  -fill none -stroke black -strokewidth 2 -draw "rectangle 100,420 1100,720" \
  -draw "line 100,520 1100,520" -draw "line 100,620 1100,620" -draw "line 500,420 500,720" \
  -stroke none -fill black -draw "text 120,480 'Item'" -draw "text 520,480 'Amount'" \
  -draw "text 120,580 'Strips'" -draw "text 520,580 '18'" \
  -draw "text 120,680 'Bits per pixel'" -draw "text 520,680 '1'" \
  -draw "circle 1400,850 1400,980" -threshold 50% -type bilevel PBM:- | /usr/bin/convert PBM:- -compress None "$tmp"
tiffcp -c lzw -r 64 "$tmp" sample.tif
