// entry.cpp - where every image enters the library.
#include "core/image.h"
#include "platform/win32.h"

TL_HANDLE OpenImageFile(char *name, int32_t imageNumber) {
    if (name != nullptr && name[0] != '\0' && _access(name, 0) != 0) {
        // A missing file: the file selection dialog that offers another one
        // is not built yet, so there is no image.
        return nullptr;
    }
    return ReadIMG(name, imageNumber);
}

extern "C" TL_API TL_HANDLE TL_CALL TL_IMAGE_E(char *name, int32_t imageNumber) {
    return OpenImageFile(name, imageNumber);
}
