// entry.cpp - where every image enters the library.
#include "core/image.h"
#include "platform/win32.h"
#include "services/dialog.h"

namespace {
// Label and pattern of each image format the dialog offers, closed by an
// empty string.
constexpr char ImageFileFilters[] =
    "BMP Files (*.BMP)\0*.BMP\0"
    "DIB Files (*.DIB)\0*.DIB\0"
    "TIF Files (*.TIF)\0*.TIF\0"
    "PCX Files (*.PCX)\0*.PCX\0"
    "RAS Files (*.RAS)\0*.RAS\0";
}  // namespace

TL_HANDLE OpenImageFile(char *name, int32_t imageNumber) {
    if (name != nullptr && name[0] != '\0' && _access(name, 0) != 0) {
        // A missing file: the user may choose another one, whose path then
        // stands in `name` (a 260-byte buffer).  A cancel gives no image and
        // leaves the error state as it stood.
        if (!SelectFileDialog(name, ImageFileFilters, DialogAlways | DialogOpen, "Open Image File", nullptr, nullptr,
                              nullptr))
            return nullptr;
    }
    return ReadIMG(name, imageNumber);
}

extern "C" TL_API TL_HANDLE TL_CALL TL_IMAGE_E(char *name, int32_t imageNumber) {
    platform::ExportLock hold;
    return OpenImageFile(name, imageNumber);
}
