#!/usr/bin/env bash
# Makes samples/sample.bmp, a small scanned-letter-like page, with netpbm.
set -euo pipefail
cd "$(dirname "$0")"
printf 'TolImage\nreads scanned and faxed\ndocument images.\n' | pbmtext -builtin fixed | pnmscale 2 | pnmpad -white -left 16 -right 16 -top 12 -bottom 12 | ppmtobmp -bpp=1 > sample.bmp 2>/dev/null
