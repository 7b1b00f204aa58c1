/* A host in C that sees only the exports: every image and bitmap export fills its record with the
 * fixtures' pattern, read back through the record's addresses; every block is given back. */
#include <stdlib.h>
#include <string.h>

#include "tolimage.h"
#include "tolimage_posix.h"
#include "host_check.h"


static void TL_CALL Heard(const char *title, const char *text, int32_t withSystemText) {
    (void)withSystemText;
    fprintf(stderr, "report: %s: %s\n", title, text);
    ++failures;
}

/* The pattern of tests/fixtures/bmp/handover_pattern.pbm, 37 x 23, y from the top. */
enum { PatternWidth = 37, PatternHeight = 23 };
static int HandoverDark(int x, int y) {
    return x + 2 * y < 24 || (x % 6 == 5 && y % 4 == 2) || (y == 20 && x >= 30);
}


/* Compares the raster the record points at with the pattern; then unlocks and frees the block. */
static void CheckRasterAndFree(const unsigned char *record, TL_HANDLE block, const char *what) {
    const unsigned char *raster, *rows;
    int x, y, packed, wrong = 0;
    CHECK(block != 0);
    if (!block) return;
    CHECK(memcmp(record + TL_RECORD_TAG, "a1", 3) == 0);
    raster = (const unsigned char *)(uintptr_t)Le32(record + TL_RECORD_RASTER);
    rows = (const unsigned char *)(uintptr_t)Le32(record + TL_RECORD_PIXELS);
    CHECK(rows == raster + 4);
    CHECK(Le16(raster) == PatternHeight);
    CHECK(Le16(raster + 2) == PatternWidth);
    packed = (PatternWidth + 7) / 8;
    for (y = 0; y < PatternHeight; ++y)
        for (x = 0; x < PatternWidth; ++x)
            if (((rows[y * packed + x / 8] >> (7 - x % 8)) & 1) != HandoverDark(x, y)) ++wrong;
    if (wrong) fprintf(stderr, "%s: %d pixels differ from the pattern\n", what, wrong);
    CHECK(wrong == 0);
    CHECK(GlobalUnlock(block) == 0);
    CHECK(GlobalFree(block) == 0);
}

/* The host's own bitmap: a BMP file's bytes behind its 14-byte header, in a block of its own. */
static TL_HANDLE HostBitmap(const char *path) {
    unsigned char bytes[4096];
    size_t size;
    TL_HANDLE block;
    void *address;
    FILE *file = fopen(path, "rb");
    if (!file) return 0;
    size = fread(bytes, 1, sizeof bytes, file);
    fclose(file);
    if (size <= 14 || size == sizeof bytes) return 0;
    block = GlobalAlloc(GHND, size - 14);
    if (!block) return 0;
    address = GlobalLock(block);
    if (!address) {
        GlobalFree(block);
        return 0;
    }
    memcpy(address, bytes + 14, size - 14);
    GlobalUnlock(block);
    return block;
}

int main(void) {
    static const char *files[] = {"handover_black_first.bmp", "handover_white_first.bmp", "handover_4bit.bmp"};
    TL_HANDLE(TL_CALL * imageExports[3])(void *, char *, int32_t) = {TLC_IMAGE_E, TLL_IMAGE_E, TLP_IMAGE_E};
    TL_HANDLE(TL_CALL * bitmapExports[3])(void *, TL_HANDLE) = {TLC_BITMAP_E, TLL_BITMAP_E, TLP_BITMAP_E};
    unsigned char *record = calloc(1, TL_RECORD_MIN_SIZE);
    char name[260], what[300];
    char version[5] = "";
    int f, e;

    ERROR_FLAGS_E(1, 0, 1, Heard);
    CHECK(record != 0);
    if (!record) return 1;
    CHECK(TOLMAR_VERSION_E(version) == 1);
    CHECK(strcmp(version, "3.3m") == 0);

    for (f = 0; f < 3; ++f) {
        char path[260];
        snprintf(path, sizeof path, "%s/bmp/%s", TL_FIXTURES, files[f]);
        /* The image path takes every bitmap as 1 bit per pixel: only the
         * 1-bit files give the pattern through it. */
        for (e = 0; e < 3 && f < 2; ++e) {
            snprintf(name, sizeof name, "%s", path);
            snprintf(what, sizeof what, "image export %d, %s", e, files[f]);
            memset(record, 0, TL_RECORD_MIN_SIZE);
            CheckRasterAndFree(record, imageExports[e](record, name, 0), what);
        }
        for (e = 0; e < 3; ++e) {
            TL_HANDLE bitmap = HostBitmap(path);
            CHECK(bitmap != 0);
            if (!bitmap) continue;
            snprintf(what, sizeof what, "bitmap export %d, %s", e, files[f]);
            memset(record, 0, TL_RECORD_MIN_SIZE);
            CHECK(TL_CLEARERROR_E() == 0);
            CheckRasterAndFree(record, bitmapExports[e](record, bitmap), what);
            CHECK(GlobalFree(bitmap) == 0);
        }
    }
    CHECK(TL_ERRORSTATUS_E() == 0);
    free(record);
    return HostDone("host_handover");
}
