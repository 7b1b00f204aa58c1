#!/usr/bin/env bash
# Makes samples/sample.pcx, a 400 x 200 bilevel page with a heading, a line
# of text and a frame, with ImageMagick (drawn) and netpbm (PCX encoder).
set -euo pipefail
cd "$(dirname "$0")"
/usr/bin/convert -size 400x200 xc:white -fill none -stroke black -strokewidth 3 -draw "rectangle 6,6 393,193" \
  -stroke none -fill black -font Helvetica-Bold -pointsize 40 -draw "text 24,70 'TolImage'" \
  -font DejaVu-Sans-Mono -pointsize 18 -draw "text 24,115 '1-bit PCX sample page'" \
  -draw "circle 330,145 330,178" -threshold 50% -type bilevel PBM:- | ppmtopcx 2>/dev/null > sample.pcx
# ppmtopcx writes the picture's width and height as its resolution; a
# scanner would say 200 dpi.
/usr/bin/python3 -c "
import struct
d = bytearray(open('sample.pcx', 'rb').read())
struct.pack_into('<hh', d, 12, 200, 200)
open('sample.pcx', 'wb').write(d)"
