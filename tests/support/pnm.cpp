#include "support/pnm.h"

#include <cctype>
#include <cstdio>

#include "support/support.h"

namespace test {

bool Rgb::Dark(int32_t x, int32_t y) const {
    const uint8_t *p = &pixels[3 * (size_t(y) * width + x)];
    return p[0] + p[1] + p[2] < 3 * 128;
}

bool ReadPnm(const std::string &path, Rgb &out) {
    const std::vector<uint8_t> bytes = ReadFileBytes(path);
    size_t at = 2;
    auto number = [&](int32_t &value) {  // skips blanks and comments
        for (; at < bytes.size() && (isspace(bytes[at]) || bytes[at] == '#'); ++at)
            if (bytes[at] == '#') while (at + 1 < bytes.size() && bytes[at + 1] != '\n') ++at;
        if (at >= bytes.size() || !isdigit(bytes[at])) return false;
        for (value = 0; at < bytes.size() && isdigit(bytes[at]); ++at) value = value * 10 + (bytes[at] - '0');
        return true;
    };
    if (bytes.size() < 2 || bytes[0] != 'P' || (bytes[1] != '4' && bytes[1] != '6')) return false;
    const bool pbm = bytes[1] == '4';
    int32_t maxval = 1;
    if (!number(out.width) || !number(out.height) || (!pbm && !number(maxval))) return false;
    ++at;  // the single blank before the data
    const size_t rowBytes = pbm ? size_t(out.width + 7) / 8 : 3 * size_t(out.width);
    if (at + rowBytes * out.height > bytes.size()) return false;
    out.pixels.assign(size_t(out.width) * out.height * 3, 0);
    for (int32_t y = 0; y < out.height; ++y)
        for (int32_t x = 0; x < out.width; ++x)
            for (int c = 0; c < 3; ++c) {
                const uint8_t *row = &bytes[at + y * rowBytes];
                out.pixels[3 * (size_t(y) * out.width + x) + c] =
                    pbm ? ((row[x / 8] >> (7 - x % 8)) & 1 ? 0 : 255) : uint8_t(row[3 * x + c] * 255 / maxval);
            }
    return true;
}

bool DibToRgb(const std::vector<uint8_t> &block, Rgb &out) {
    auto u32 = [&](size_t at) {
        return block[at] | block[at + 1] << 8 | block[at + 2] << 16 | uint32_t(block[at + 3]) << 24;
    };
    if (block.size() < 40) return false;
    const int32_t width = int32_t(u32(4)), height = int32_t(u32(8));
    const uint32_t bits = block[14] | block[15] << 8, colours = u32(32);
    if (width < 0 || height < 0 || colours > 256 || (bits != 1 && bits != 4 && bits != 8)) return false;
    const size_t stride = ((size_t(width) * bits + 31) / 32) * 4, pixelsAt = 40 + 4 * size_t(colours);
    if (pixelsAt + stride * height > block.size()) return false;
    out.width = width;
    out.height = height;
    out.pixels.assign(size_t(width) * height * 3, 0);
    for (int32_t y = 0; y < height; ++y)
        for (int32_t x = 0; x < width; ++x) {
            const size_t bit = size_t(x) * bits, byte = block[pixelsAt + size_t(height - 1 - y) * stride + bit / 8];
            const uint32_t index = (byte >> (8 - bits - bit % 8)) & ((1u << bits) - 1);
            if (index >= colours) return false;
            for (int c = 0; c < 3; ++c) out.pixels[3 * (size_t(y) * width + x) + c] = block[40 + 4 * index + 2 - c];
        }
    return true;
}

std::string FirstDifference(const Rgb &expected, const Rgb &actual) {
    char text[160];
    if (expected.width != actual.width || expected.height != actual.height) {
        snprintf(text, sizeof text, "size %dx%d, expected %dx%d", actual.width, actual.height, expected.width,
                 expected.height);
        return text;
    }
    for (size_t i = 0; i < expected.pixels.size(); ++i)
        if (expected.pixels[i] != actual.pixels[i]) {
            const size_t p = i / 3, c = i - i % 3;
            snprintf(text, sizeof text, "pixel (%zu, %zu): %u,%u,%u expected %u,%u,%u", p % expected.width,
                     p / expected.width, actual.pixels[c], actual.pixels[c + 1], actual.pixels[c + 2],
                     expected.pixels[c], expected.pixels[c + 1], expected.pixels[c + 2]);
            return text;
        }
    return "";
}

std::string BlockDiffers(const std::vector<uint8_t> &block, const std::string &pnmPath, bool inverted) {
    Rgb expected, actual;
    if (!ReadPnm(pnmPath, expected)) return "unreadable source " + pnmPath;
    if (!DibToRgb(block, actual)) return "block does not hold what its header says";
    if (inverted)
        for (uint8_t &v : expected.pixels) v = uint8_t(255 - v);
    return FirstDifference(expected, actual);
}

}  // namespace test
