#include "support/pnm.h"

#include <cstdio>
#include <fstream>
#include <iterator>

namespace test {

namespace {

struct Scanner {
    const std::vector<uint8_t> &bytes;
    size_t at = 0;
    void SkipSpace() {
        while (at < bytes.size()) {
            if (bytes[at] == '#') {
                while (at < bytes.size() && bytes[at] != '\n') ++at;
            } else if (isspace(bytes[at])) {
                ++at;
            } else {
                break;
            }
        }
    }
    bool Number(int32_t &value) {
        SkipSpace();
        if (at >= bytes.size() || !isdigit(bytes[at])) return false;
        value = 0;
        while (at < bytes.size() && isdigit(bytes[at])) value = value * 10 + (bytes[at++] - '0');
        return true;
    }
};

uint32_t Le32(const uint8_t *p) { return p[0] | (p[1] << 8) | (p[2] << 16) | (uint32_t(p[3]) << 24); }

}  // namespace

bool Rgb::Dark(int32_t x, int32_t y) const {
    const uint8_t *p = &pixels[3 * (size_t(y) * width + x)];
    return p[0] + p[1] + p[2] < 3 * 128;
}

bool ReadPnm(const std::string &path, Rgb &out) {
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes.size() < 2 || bytes[0] != 'P') return false;
    int kind = bytes[1] - '0';
    Scanner scan{bytes, 2};
    int32_t maxval = 1;
    if (!scan.Number(out.width) || !scan.Number(out.height)) return false;
    if (kind != 1 && kind != 4 && !scan.Number(maxval)) return false;
    if (kind >= 4) ++scan.at;  // the single blank before binary data
    out.pixels.assign(size_t(out.width) * out.height * 3, 0);
    for (int32_t y = 0; y < out.height; ++y) {
        for (int32_t x = 0; x < out.width; ++x) {
            uint8_t *p = &out.pixels[3 * (size_t(y) * out.width + x)];
            int32_t v[3] = {0, 0, 0};
            switch (kind) {
                case 1:
                    scan.SkipSpace();
                    if (scan.at >= bytes.size()) return false;
                    v[0] = bytes[scan.at++] == '1' ? 0 : 255;
                    v[1] = v[2] = v[0];
                    break;
                case 4: {
                    size_t at = scan.at + size_t(y) * ((out.width + 7) / 8) + x / 8;
                    if (at >= bytes.size()) return false;
                    v[0] = v[1] = v[2] = (bytes[at] >> (7 - x % 8)) & 1 ? 0 : 255;
                    break;
                }
                case 2:
                    if (!scan.Number(v[0])) return false;
                    v[0] = v[0] * 255 / maxval;
                    v[1] = v[2] = v[0];
                    break;
                case 5: {
                    size_t at = scan.at + size_t(y) * out.width + x;
                    if (at >= bytes.size()) return false;
                    v[0] = v[1] = v[2] = bytes[at] * 255 / maxval;
                    break;
                }
                case 3:
                    for (auto &c : v)
                        if (!scan.Number(c)) return false;
                    for (auto &c : v) c = c * 255 / maxval;
                    break;
                case 6: {
                    size_t at = scan.at + 3 * (size_t(y) * out.width + x);
                    if (at + 2 >= bytes.size()) return false;
                    for (int i = 0; i < 3; ++i) v[i] = bytes[at + i] * 255 / maxval;
                    break;
                }
                default:
                    return false;
            }
            for (int i = 0; i < 3; ++i) p[i] = uint8_t(v[i]);
        }
    }
    return true;
}

bool DibToRgb(const std::vector<uint8_t> &block, Rgb &out) {
    if (block.size() < 40) return false;
    const uint8_t *h = block.data();
    int32_t width = int32_t(Le32(h + 4)), height = int32_t(Le32(h + 8));
    uint32_t bits = h[14] | (h[15] << 8), colours = Le32(h + 32);
    if (width < 0 || height < 0 || colours > 65536) return false;
    size_t stride = ((size_t(width) * bits + 31) / 32) * 4;
    size_t pixelsAt = 40 + 4 * size_t(colours);
    if (pixelsAt + stride * height > block.size()) return false;
    out.width = width;
    out.height = height;
    out.pixels.assign(size_t(width) * height * 3, 0);
    for (int32_t y = 0; y < height; ++y) {
        const uint8_t *row = h + pixelsAt + size_t(height - 1 - y) * stride;
        for (int32_t x = 0; x < width; ++x) {
            const uint8_t *bgr;
            uint32_t index;
            switch (bits) {
                case 1:
                    index = (row[x / 8] >> (7 - x % 8)) & 1;
                    break;
                case 4:
                    index = x % 2 ? row[x / 2] & 15 : row[x / 2] >> 4;
                    break;
                case 8:
                    index = row[x];
                    break;
                case 24:
                    index = 0;
                    break;
                default:
                    return false;
            }
            if (bits == 24) {
                bgr = row + 3 * size_t(x);
            } else {
                if (index >= colours) return false;
                bgr = h + 40 + 4 * index;
            }
            uint8_t *p = &out.pixels[3 * (size_t(y) * width + x)];
            p[0] = bgr[2];
            p[1] = bgr[1];
            p[2] = bgr[0];
        }
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
    for (size_t i = 0; i < expected.pixels.size(); i += 3) {
        for (int c = 0; c < 3; ++c) {
            if (expected.pixels[i + c] != actual.pixels[i + c]) {
                size_t pixel = i / 3;
                snprintf(text, sizeof text, "pixel (%zu, %zu): %u,%u,%u expected %u,%u,%u", pixel % expected.width,
                         pixel / expected.width, actual.pixels[i], actual.pixels[i + 1], actual.pixels[i + 2],
                         expected.pixels[i], expected.pixels[i + 1], expected.pixels[i + 2]);
                return text;
            }
        }
    }
    return "";
}

}  // namespace test
