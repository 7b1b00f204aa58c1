// png_file.cpp - the tool's PNG writer over libpng.  A build without libpng
// (the Windows cross-builds, which have none) writes no PNG and says so.
#include "cli/png_file.h"

#include <cstdio>

#if TL_CLI_PNG
#include <png.h>
#endif

namespace cli {

#if TL_CLI_PNG

bool CanWritePng() { return true; }

namespace {

// libpng reports a failure by a long jump back into the function that set
// it up; everything that needs clean-up after it is set up before.
bool WriteRows(png_structp png, png_infop info, const PngImage &image, FILE *file) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_init_io(png, file);
    png_set_IHDR(png, info, image.width, image.height, image.bitDepth, image.colourType, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (image.colourType == PNG_COLOR_TYPE_PALETTE)
        png_set_PLTE(png, info, reinterpret_cast<png_const_colorp>(image.palette.data()),
                     int(image.palette.size() / 3));
    if (image.xPelsPerMeter > 0 && image.yPelsPerMeter > 0)
        png_set_pHYs(png, info, png_uint_32(image.xPelsPerMeter), png_uint_32(image.yPelsPerMeter),
                     PNG_RESOLUTION_METER);
    png_write_info(png, info);
    for (uint32_t y = 0; y < image.height; ++y) png_write_row(png, image.rows.data() + size_t(y) * image.rowBytes);
    png_write_end(png, nullptr);
    return true;
}

}  // namespace

bool WritePng(const PngImage &image, const std::string &path) {
    FILE *file = fopen(path.c_str(), "wb");
    if (!file) return false;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    bool written = info && WriteRows(png, info, image, file);
    png_destroy_write_struct(&png, &info);
    written = fclose(file) == 0 && written;
    return written;
}

#else

bool CanWritePng() { return false; }

bool WritePng(const PngImage &, const std::string &) { return false; }

#endif

}  // namespace cli
