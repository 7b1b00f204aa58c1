#!/bin/sh
# make.sh - seeds of the CCITT decoders: small fixtures of each encoder and
# coding, and hand-made streams of what no encoder writes (uncompressed
# mode, EOLs inside rows, bad codes, data that end mid-row).
set -e
cd "$(dirname "$0")"
F=../../../tests/fixtures/fax
for f in w9-g31d w33-g32d-mm-lsb-strips-mb w31-pil-rle w8-g4 noise-g32dfill-mm-lsb w9-im-fax \
         text1728-fax2tiff-g4 text1728-fax2tiff-g32d-lsb edges-g4-strips; do
    cp "$F/$f.tif" "$f.tif"
done
/usr/bin/python3 - <<'PYEOF'
import struct
def tiff(name, compression, width, height, bits, g3=0, fill=1):
    bits = bits.replace(' ', '')
    bits += '0' * (-len(bits) % 8)
    data = bytes(int(bits[i:i + 8], 2) for i in range(0, len(bits), 8))
    tags = [(256, 4, width), (257, 4, height), (258, 3, 1), (259, 3, compression), (262, 3, 0),
            (266, 3, fill), (273, 4, 0), (278, 4, height), (279, 4, len(data)), (292, 4, g3)]
    at = 8 + 2 + 12 * len(tags) + 4
    ifd = struct.pack('<H', len(tags))
    for tag, typ, val in tags:
        ifd += struct.pack('<HHII', tag, typ, 1, at if tag == 273 else val)
    open(name, 'wb').write(b'II*\0' + struct.pack('<I', 8) + ifd + b'\0\0\0\0' + data)
# G4: uncompressed mode with codes past the width, an exit with tag 1, V codes.
tiff('hand-g4-uncompressed.tif', 4, 12, 3,
     '0000001111 1 01 000001 000001 00001 00000001 1 011 1' + ' 1 1 010 1' + ' 0000001111 0000001 0 1')
# G4 cut mid-row, and seven zero bits at a mode code.
tiff('hand-g4-cut.tif', 4, 40, 8, '001 0111 11 1 011 011 1 0000')
tiff('hand-g4-eol.tif', 4, 16, 2, '001 0111 10 0000000 1111 1')
# G3 2D with EOLs inside rows and a bad code, tag bits.
tiff('hand-g3-2d-eol.tif', 3, 16, 4,
     '000000000001 1 0111 10 00000001000 ' + '000000000001 0 1 1 000000000001 0 1 1 1 000000000001 1 0000000000001',
     g3=1)
# Compression 2 with a bad code and an EOL inside a row, FillOrder 2.
tiff('hand-rle-bad.tif', 2, 10, 3, '0111 11 0111 11 00000000 000000000001 0111 10 000000000000', fill=2)
PYEOF
ls -l
