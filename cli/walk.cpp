// walk.cpp - counting and converting all images of a file by walking it.
//
// A walk calls TL_IMAGE_E with -1 until it gives 0.  The library remembers
// the last walk of each reader, so a walk that an earlier call left ended or
// half done would start in the wrong place: each command first reads image
// 0, which tells the library the file's format, and then resets that
// format's reader with a NULL name before it walks.
#include "cli/walk.h"

#include <cstdio>

#include "cli/image_file.h"
#include "platform/terminal.h"
#include "tolimage_posix.h"

namespace cli {

namespace {

// Leaves the reader of `file`'s format with no walk in progress.  False when
// the file cannot be read at all.  A missing file is refused here: the
// library would offer its file dialog for every call of the walk.
bool StartAfresh(const std::string &file) {
    if (!platform::FileExists(file.c_str())) {
        fprintf(stderr, "tolimage: %s: no such file\n", file.c_str());
        return false;
    }
    TL_HANDLE first = LoadImageFile(file, 0);
    if (first) GlobalFree(first);
    if (TL_ERRORSTATUS_E()) return false;
    TL_IMAGE_E(nullptr, 0);
    return true;
}

}  // namespace

std::string NumberedName(const std::string &out, int32_t number) {
    const size_t dot = ExtensionDot(out);
    const bool hasExtension = dot != std::string::npos;
    std::string name = hasExtension ? out.substr(0, dot) : out;
    name += '-';
    name += std::to_string(number);
    if (hasExtension) name += out.substr(dot);
    return name;
}

int32_t CountImages(const char *file) {
    if (!StartAfresh(file)) return -1;
    int32_t count = 0;
    while (TL_HANDLE block = LoadImageFile(file, -1)) {
        GlobalFree(block);
        ++count;
    }
    return TL_ERRORSTATUS_E() ? -1 : count;
}

int ConvertAll(const char *file, const char *out) {
    if (!StartAfresh(file)) return 1;
    int32_t number = 0;
    int status = 0;
    while (TL_HANDLE block = LoadImageFile(file, -1)) {
        Bitmap bitmap;
        bool copied = CopyBitmap(block, bitmap);
        GlobalFree(block);
        std::string name = NumberedName(out, number++);
        if (!copied || !CanWrite(bitmap)) {
            fprintf(stderr, "tolimage: %s: image %d: pixel data this tool cannot show\n", file, number - 1);
            status = 1;
        } else if (!WriteBitmap(bitmap, name)) {
            fprintf(stderr, "tolimage: cannot write %s\n", name.c_str());
            status = 1;
        }
    }
    if (TL_ERRORSTATUS_E() || number == 0) status = 1;
    return status;
}

}  // namespace cli
