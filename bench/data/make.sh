#!/bin/sh
# make.sh - the benchmark's pages, kept as Group 4 files; the benchmark
# writes the other compressions from them with libtiff at start-up.
#   a4-text.tif  A4 at 300 dpi (2480 x 3508), dense 10-point serif text
#   fax-text.tif a fax page, 1728 x 2200 (fine mode), 12-point sans text
set -e
cd "$(dirname "$0")"
/usr/bin/python3 - <<'PYEOF'
import random
from PIL import Image, ImageDraw, ImageFont
rnd = random.Random(42)
words = ('the of and to in is that for it as was with be by on not he this are or his from at which but have an '
         'they you were her she there been one all we their has would when if so no will more can said what up '
         'image decoder strip reference line changing element horizontal vertical pass mode run length code word '
         'facsimile transmission resolution document scanner printer paper bitmap compression Group Four '
         'TolImage 2026 1728 2480 300 dpi A4 CCITT T.4 T.6 ITU-T (see p. 17) [note] {x} 3.14159 e=mc2').split()
def page(name, size, margin, font, px, dpi):
    img = Image.new('1', size, 1)
    d = ImageDraw.Draw(img)
    f = ImageFont.truetype(font, px)
    y = margin
    line_h = int(px * 1.25)
    while y + line_h < size[1] - margin:
        line, x = [], margin
        while True:
            w = rnd.choice(words)
            wl = d.textlength(w + ' ', font=f)
            if x + wl > size[0] - margin:
                break
            line.append(w)
            x += wl
        d.text((margin, y), ' '.join(line), font=f, fill=0)
        y += line_h
        if rnd.random() < 0.08:
            y += line_h  # paragraph break
    img.save(name, compression='group4', dpi=(dpi, dpi))
page('a4-text.tif', (2480, 3508), 150, '/usr/share/fonts/truetype/dejavu/DejaVuSerif.ttf', 42, 300)
page('fax-text.tif', (1728, 2200), 90, '/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf', 34, 200)
PYEOF
ls -l
