// packbits.cpp - PackBits (compression 32773) rows: literal and run
// packets, clipped to the row.
#include "tiff/packbits.h"

#include <cstring>

#include "platform/win32.h"
#include "services/errors.h"
#include "tiff/byte_spans.h"
#include "tiff/record.h"

int32_t PackBitsDecodeLine(uint8_t *row, int32_t count) {
    auto &t = TiffImage;
    const uint8_t *in = t.rawCursor;
    int32_t avail = t.rawLeft;
    uint8_t *out = row;
    int32_t left = count;
    // Packets are clipped to the row: a packet that reaches past it is
    // consumed whole, its bytes behind the row are dropped, and the next row
    // starts at the next control byte.  A literal cut short by the end of
    // the strip delivers only the bytes that are there.
    while (avail > 0 && left > 0) {
        // Packets well inside the row and the strip, as pages give them by
        // the thousand: the first 32 bytes of a literal or a run with two
        // 16-byte moves, whatever its length, and the rest of a longer one
        // 16 at a time, the last 16 ending with the packet.  Bytes behind a
        // short packet stay in this row and the next packet writes over
        // them; a row that is not completed fails the image.  Reads stay
        // inside the strip (34 bytes from the control byte, or the packet)
        // and writes inside the row (32 bytes, or the packet).
        while (left >= 32 && avail >= 34) {
            const int32_t n = int8_t(in[0]);
            if (n >= 0) {
                const int32_t length = n + 1;
                if (length > left || length + 1 > avail) break;
                const uint8_t *from = in + 1;
                Store16(out, Load16(from));
                Store16(out + 16, Load16(from + 16));
                if (length > 32) {
                    for (int32_t k = 32; k < length - 16; k += 16) Store16(out + k, Load16(from + k));
                    Store16(out + length - 16, Load16(from + length - 16));
                }
                in += length + 1;
                avail -= length + 1;
                out += length;
                left -= length;
            } else {
                const int32_t length = 1 - n;
                if (n == -128 || length > left) break;
                const Bytes16 fill = Splat16(in[1]);
                Store16(out, fill);
                Store16(out + 16, fill);
                if (length > 32) {
                    for (int32_t k = 32; k < length - 16; k += 16) Store16(out + k, fill);
                    Store16(out + length - 16, fill);
                }
                in += 2;
                avail -= 2;
                out += length;
                left -= length;
            }
        }
        if (avail <= 0 || left <= 0) break;
        // The row's last packets, that fit it exactly (fewer than 32 bytes
        // are left): moves of their own size, no call.
        if (avail >= 2) {
            const int32_t n = int8_t(in[0]);
            const int32_t length = n >= 0 ? n + 1 : 1 - n;
            const int32_t used = n >= 0 ? n + 2 : 2;
            if (n != -128 && length <= left && used <= avail && length < 32) {
                if (n >= 0) {
                    CopySpan(out, in + 1, size_t(length));
                } else {
                    FillSpan(out, in[1], size_t(length));
                }
                in += used;
                avail -= used;
                out += length;
                left -= length;
                continue;
            }
        }
        const int32_t n = int8_t(*in++);
        --avail;
        if (n >= 0) {
            const int32_t take = n + 1 < avail ? n + 1 : avail;
            const int32_t put = take < left ? take : left;
            std::memcpy(out, in, size_t(put));
            out += put;
            in += take;
            avail -= take;
            left -= take;
        } else if (n != -128) {
            if (avail < 1) break;
            const uint8_t value = *in++;
            --avail;
            const int32_t len = 1 - n;
            const int32_t put = len < left ? len : left;
            std::memset(out, value, size_t(put));
            out += put;
            left -= len;
        }
    }
    t.rawCursor = in;
    t.rawLeft = avail;
    if (left > 0) {
        // The rest of the row is white, not what an earlier block left.
        if (!t.rowsZeroed) std::memset(out, 0, size_t(left));
        wsprintfA(t.messageBuffer, "Internal allocation error in line %ld", t.currentRow);
        ReportError(TiffReadTitle, t.messageBuffer, 0);
        return 0;
    }
    return 1;
}
