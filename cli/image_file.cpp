// image_file.cpp - reading bitmap blocks and writing them as PBM or PPM.
#include "cli/image_file.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <fstream>

#include "cli/png_file.h"
#include "tolimage_posix.h"

namespace cli {

namespace {

uint32_t Le32(const uint8_t *p) { return p[0] | (p[1] << 8) | (p[2] << 16) | (uint32_t(p[3]) << 24); }
uint16_t Le16(const uint8_t *p) { return uint16_t(p[0] | (p[1] << 8)); }

void TL_CALL PrintReport(const char *title, const char *text, int32_t withSystemText) {
    (void)withSystemText;
    fprintf(stderr, "tolimage: %s: %s\n", title, text);
}

// Offset of row y (counted from the top) in the pixel copy.
size_t RowOffset(const Bitmap &bitmap, int32_t y) {
    int32_t rows = bitmap.height < 0 ? -bitmap.height : bitmap.height;
    int32_t stored = bitmap.height < 0 ? y : rows - 1 - y;
    return size_t(stored) * bitmap.stride;
}

uint32_t PixelIndex(const Bitmap &bitmap, int32_t x, int32_t y) {
    size_t row = RowOffset(bitmap, y);
    size_t bit = size_t(x) * bitmap.bits;
    size_t at = row + bit / 8;
    if (at >= bitmap.pixels.size()) return 0;
    uint8_t byte = bitmap.pixels[at];
    switch (bitmap.bits) {
        case 1:
            return (byte >> (7 - bit % 8)) & 1;
        case 2:
            return (byte >> (6 - bit % 8)) & 3;
        case 4:
            return bit % 8 == 0 ? byte >> 4 : byte & 15;
        case 8:
            return byte;
        default:
            return 0;
    }
}

}  // namespace

void ReportToStderr() { ERROR_FLAGS_E(1, 0, 1, PrintReport); }

std::string FormatOf(const std::string &path) {
    uint8_t magic[4] = {};
    FILE *file = fopen(path.c_str(), "rb");
    if (!file) return "missing";
    size_t got = fread(magic, 1, 4, file);
    fclose(file);
    if (got < 2) return "unknown";
    if (magic[0] == 'B' && magic[1] == 'M') return "BMP";
    if ((magic[0] == 'I' && magic[1] == 'I') || (magic[0] == 'M' && magic[1] == 'M')) return "TIFF";
    if (magic[0] == 0x0A && (magic[1] == 0 || magic[1] == 2 || magic[1] == 3 || magic[1] == 5)) return "PCX";
    if (got == 4 && (memcmp(magic, "bild", 4) == 0 || memcmp(magic, "bimp", 4) == 0)) return "RAS";
    return "unknown";
}

bool CopyBitmap(TL_HANDLE block, Bitmap &out) {
    const auto *p = static_cast<const uint8_t *>(GlobalLock(block));
    if (!p) return false;
    out.width = int32_t(Le32(p + TL_DIB_BI_WIDTH));
    out.height = int32_t(Le32(p + TL_DIB_BI_HEIGHT));
    out.planes = Le16(p + TL_DIB_BI_PLANES);
    out.bits = Le16(p + TL_DIB_BI_BITCOUNT);
    out.compression = Le32(p + TL_DIB_BI_COMPRESSION);
    out.sizeImage = Le32(p + TL_DIB_BI_SIZEIMAGE);
    out.xPelsPerMeter = int32_t(Le32(p + TL_DIB_BI_XPELSPERMETER));
    out.yPelsPerMeter = int32_t(Le32(p + TL_DIB_BI_YPELSPERMETER));
    out.colours = Le32(p + TL_DIB_BI_CLRUSED);
    bool sane = out.width >= 0 && out.colours <= 65536 && out.bits <= 32;
    uint64_t rows = out.height < 0 ? -int64_t(out.height) : out.height;
    uint64_t stride = ((uint64_t(out.width) * out.bits + 31) / 32) * 4;
    // The pixel bytes the block holds: biSizeImage, or stride x height where
    // a reader leaves it 0.  More than a gigabyte is not a bitmap of ours.
    uint64_t pixelBytes = out.sizeImage != 0 ? out.sizeImage : stride * rows;
    sane = sane && stride * rows <= (1u << 30) && pixelBytes <= (1u << 30);
    if (sane) {
        out.stride = uint32_t(stride);
        out.palette.assign(p + 40, p + 40 + 4 * size_t(out.colours));
        out.pixels.assign(p + 40 + 4 * size_t(out.colours), p + 40 + 4 * size_t(out.colours) + pixelBytes);
    }
    GlobalUnlock(block);
    return sane;
}

void PixelColour(const Bitmap &bitmap, int32_t x, int32_t y, uint8_t rgb[3]) {
    if (bitmap.bits == 24) {
        size_t at = RowOffset(bitmap, y) + size_t(x) * 3;
        for (int i = 0; i < 3; ++i) rgb[i] = at + 2 < bitmap.pixels.size() ? bitmap.pixels[at + i] : 0;
        return;
    }
    uint32_t index = PixelIndex(bitmap, x, y);
    if (index < bitmap.colours) {
        memcpy(rgb, &bitmap.palette[4 * index], 3);
    } else {
        rgb[0] = rgb[1] = rgb[2] = 0;
    }
}

bool IsDark(const Bitmap &bitmap, int32_t x, int32_t y) {
    uint8_t rgb[3];
    PixelColour(bitmap, x, y, rgb);
    int sum = rgb[0] + rgb[1] + rgb[2];
    if (bitmap.bits == 1 && bitmap.colours >= 2) {
        // Of a two-colour palette the darker entry is ink.
        int first = bitmap.palette[0] + bitmap.palette[1] + bitmap.palette[2];
        int second = bitmap.palette[4] + bitmap.palette[5] + bitmap.palette[6];
        if (first != second) return sum == (first < second ? first : second);
    }
    return sum < 3 * 128;
}

bool CanWrite(const Bitmap &bitmap) { return bitmap.compression == 0 && bitmap.bits != 0; }

size_t ExtensionDot(const std::string &path) {
    const size_t slash = path.find_last_of('/');
    const size_t dot = path.find_last_of('.');
    const bool has = dot != std::string::npos && dot > 0 && (slash == std::string::npos || dot > slash + 1);
    return has ? dot : std::string::npos;
}

OutputKind OutputKindOf(const std::string &path) {
    const size_t dot = ExtensionDot(path);
    if (dot == std::string::npos) return OutputKind::Netpbm;
    std::string extension = path.substr(dot + 1);
    for (char &c : extension) c = char(tolower(static_cast<unsigned char>(c)));
    if (extension == "pbm" || extension == "ppm" || extension == "pnm") return OutputKind::Netpbm;
    return extension == "png" ? OutputKind::Png : OutputKind::Unknown;
}

bool UsableOutput(const std::string &path) {
    OutputKind kind = OutputKindOf(path);
    if (kind == OutputKind::Unknown)
        fprintf(stderr, "tolimage: %s: unknown output type (.pbm, .ppm, .pnm or .png)\n", path.c_str());
    else if (kind == OutputKind::Png && !CanWritePng())
        fprintf(stderr, "tolimage: %s: this build of the tool writes no PNG\n", path.c_str());
    else
        return true;
    return false;
}

namespace {

bool WriteNetpbm(const Bitmap &bitmap, const std::string &path) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) return false;
    int32_t rows = bitmap.height < 0 ? -bitmap.height : bitmap.height;
    if (bitmap.bits == 1) {
        out << "P4\n" << bitmap.width << " " << rows << "\n";
        std::vector<char> row((size_t(bitmap.width) + 7) / 8);
        for (int32_t y = 0; y < rows; ++y) {
            std::fill(row.begin(), row.end(), 0);
            for (int32_t x = 0; x < bitmap.width; ++x)
                if (IsDark(bitmap, x, y)) row[x / 8] = char(row[x / 8] | (0x80 >> (x % 8)));
            out.write(row.data(), std::streamsize(row.size()));
        }
    } else {
        out << "P6\n" << bitmap.width << " " << rows << "\n255\n";
        std::vector<char> row(size_t(bitmap.width) * 3);
        for (int32_t y = 0; y < rows; ++y) {
            for (int32_t x = 0; x < bitmap.width; ++x) {
                uint8_t bgr[3];
                PixelColour(bitmap, x, y, bgr);
                row[3 * size_t(x)] = char(bgr[2]);
                row[3 * size_t(x) + 1] = char(bgr[1]);
                row[3 * size_t(x) + 2] = char(bgr[0]);
            }
            out.write(row.data(), std::streamsize(row.size()));
        }
    }
    return bool(out);
}

// The bitmap as PNG rows.  A palette shorter than the depth allows is
// filled up with black, the colour the netpbm output gives an index past
// the palette, so that no index in the file points past its PLTE chunk.
PngImage PngOf(const Bitmap &bitmap) {
    PngImage png;
    png.width = uint32_t(bitmap.width);
    png.height = uint32_t(bitmap.height < 0 ? -bitmap.height : bitmap.height);
    png.xPelsPerMeter = bitmap.xPelsPerMeter;
    png.yPelsPerMeter = bitmap.yPelsPerMeter;
    const bool indexed = bitmap.bits == 2 || bitmap.bits == 4 || bitmap.bits == 8;
    png.bitDepth = bitmap.bits == 1 || indexed ? bitmap.bits : 8;
    png.colourType = bitmap.bits == 1 ? 0 : indexed ? 3 : 2;
    png.rowBytes = png.colourType == 2 ? size_t(png.width) * 3 : (size_t(png.width) * png.bitDepth + 7) / 8;
    png.rows.assign(png.rowBytes * png.height, 0);
    if (indexed) {
        png.palette.assign(3 * (size_t(1) << bitmap.bits), 0);
        for (uint32_t i = 0; i < bitmap.colours && i < (1u << bitmap.bits); ++i)
            for (int c = 0; c < 3; ++c) png.palette[3 * i + c] = bitmap.palette[4 * i + 2 - c];
    }
    for (uint32_t y = 0; y < png.height; ++y) {
        uint8_t *row = png.rows.data() + size_t(y) * png.rowBytes;
        for (uint32_t x = 0; x < png.width; ++x) {
            if (png.colourType == 2) {
                uint8_t bgr[3];
                PixelColour(bitmap, int32_t(x), int32_t(y), bgr);
                for (int c = 0; c < 3; ++c) row[3 * size_t(x) + c] = bgr[2 - c];
            } else {
                uint32_t value = bitmap.bits == 1 ? !IsDark(bitmap, int32_t(x), int32_t(y))
                                                  : PixelIndex(bitmap, int32_t(x), int32_t(y));
                size_t bit = size_t(x) * png.bitDepth;
                row[bit / 8] = uint8_t(row[bit / 8] | value << (8 - png.bitDepth - bit % 8));
            }
        }
    }
    return png;
}

}  // namespace

bool WriteBitmap(const Bitmap &bitmap, const std::string &path) {
    if (OutputKindOf(path) == OutputKind::Png) return WritePng(PngOf(bitmap), path);
    return WriteNetpbm(bitmap, path);
}

TL_HANDLE LoadImageFile(const std::string &path, int32_t number, std::string *chosen) {
    // The library may put the path the user chose into the name: hand it a
    // buffer of the size of a path.
    std::vector<char> name(std::max<size_t>(path.size() + 1, 260), '\0');
    memcpy(name.data(), path.c_str(), path.size());
    TL_HANDLE block = TL_IMAGE_E(name.data(), number);
    if (chosen) *chosen = name.data();
    return block;
}

}  // namespace cli
