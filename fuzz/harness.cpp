#include "fuzz/harness.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "tolimage.h"
#include "tolimage_posix.h"

namespace {

const std::string &ScratchPath() {
    static std::string path;
    if (path.empty()) {
        char pattern[] = "/dev/shm/tolimage-fuzz-XXXXXX";
        int fd = mkstemp(pattern);
        if (fd >= 0) close(fd);
        path = pattern;
    }
    return path;
}

void Load(const std::string &path, int32_t number) {
    char name[260] = {};
    strncpy(name, path.c_str(), sizeof name - 1);
    TL_HANDLE block = TL_IMAGE_E(name, number);
    if (block) {
        // Touch every byte the header claims, so an undersized block shows.
        auto *bytes = static_cast<volatile uint8_t *>(GlobalLock(block));
        uint8_t sum = 0;
        for (size_t i = 0; i < 40; ++i) sum = uint8_t(sum + bytes[i]);
        (void)sum;
        GlobalUnlock(block);
        GlobalFree(block);
    }
}

}  // namespace

void RunImageHarness(const uint8_t *data, size_t size) {
    ERROR_FLAGS_E(1, 0, 1, nullptr);
    const std::string &path = ScratchPath();
    FILE *file = fopen(path.c_str(), "wb");
    if (!file) return;
    if (size) fwrite(data, 1, size, file);
    fclose(file);

    Load(path, 0);
    for (int step = 0; step < 4; ++step) Load(path, -1);
    Load(path, 2);
    TL_IMAGE_E(nullptr, 0);  // forget any walk still open
    TL_CLEARERROR_E();
}
