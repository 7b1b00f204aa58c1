#!/usr/bin/env bash
# Makes samples/sample.bmp, a small scanned-letter-like page, with
# ImageMagick (bilevel, 1 bit per pixel, 40-byte header).
set -euo pipefail
cd "$(dirname "$0")"
/usr/bin/convert -size 480x200 xc:white -fill black -pointsize 56 -annotate +24+80 'Dear Sir,' \
  -pointsize 28 -annotate +24+140 'TolImage reads this.' -draw 'rectangle 24,160 440,166' \
  -type bilevel BMP3:sample.bmp
