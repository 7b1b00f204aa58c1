// record.cpp - the one record of the open TIFF image.
#include "tiff/record.h"

TiffImageRecord TiffImage = [] {
    TiffImageRecord r{};
    r.tiffFile = NoFile;
    r.currentRow = TiffNoRow;
    r.currentStrip = TiffNoStrip;
    return r;
}();
