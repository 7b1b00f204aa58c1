/* A host program in C that sees only the library's exports: it loads a
 * bitmap, reads it, frees it, and follows a failure through the flags. */
#include <string.h>

#include "tolimage.h"
#include "tolimage_posix.h"
#include "host_check.h"

static int heard = 0;
static char lastText[600];

static void TL_CALL Heard(const char *title, const char *text, int32_t withSystemText) {
    (void)title;
    (void)withSystemText;
    ++heard;
    snprintf(lastText, sizeof lastText, "%s", text);
}


int main(void) {
    char name[260];
    TL_HANDLE block;
    const unsigned char *bytes;

    ERROR_FLAGS_E(1, 0, 1, Heard);
    snprintf(name, sizeof name, "%s/bmp/magick_1bit.bmp", TL_FIXTURES);
    block = TL_IMAGE_E(name, 0);
    CHECK(block != 0);
    if (block) {
        bytes = (const unsigned char *)GlobalLock(block);
        CHECK(bytes != 0);
        CHECK(Le32(bytes + TL_DIB_BI_SIZE) == 40);
        CHECK(Le32(bytes + TL_DIB_BI_WIDTH) == 49);
        CHECK(Le32(bytes + TL_DIB_BI_HEIGHT) == 24);
        CHECK(Le32(bytes + TL_DIB_BI_CLRUSED) == 2);
        CHECK(((uint64_t)(uintptr_t)bytes >> 32) == 0); /* a 32-bit address in 64-bit builds */
        CHECK(GlobalUnlock(block) == 0);
        CHECK(GlobalFree(block) == 0);
    }
    CHECK(TL_ERRORSTATUS_E() == 0);
    CHECK(heard == 0);

    /* A file of one byte fails, and the host hears why. */
    snprintf(name, sizeof name, "%s/host_load_short.bin", "/tmp");
    {
        FILE *f = fopen(name, "wb");
        fputc('B', f);
        fclose(f);
    }
    CHECK(TL_IMAGE_E(name, 0) == 0);
    CHECK(TL_ERRORSTATUS_E() == 1);
    CHECK(heard == 1);
    CHECK(strcmp(lastText, name) == 0);
    CHECK(TL_CLEARERROR_E() == 1);
    CHECK(TL_CLEARERROR_E() == 0);
    remove(name);

    return HostDone("host_load");
}
