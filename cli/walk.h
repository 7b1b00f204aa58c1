// walk.h - the tool's commands over every image of a file, through the
// library's walk with image number -1.
#pragma once

#include <cstdint>
#include <string>

namespace cli {

// The number of images in `file` (a BMP, PCX or TIFF file has 1), or -1
// when an image could not be read (the library's report is on stderr).
int32_t CountImages(const char *file);

// Writes image N of `file` to `out` with "-N" put before the extension
// ("pages.pbm" gives "pages-0.pbm", "pages-1.pbm", ...): PBM for 1-bit
// images, PPM through the palette otherwise.  0 when every image was
// written, 1 otherwise.
int ConvertAll(const char *file, const char *out);

// `out` with "-N" put before its extension, or at its end when it has none.
std::string NumberedName(const std::string &out, int32_t number);

}  // namespace cli
