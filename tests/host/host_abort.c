/* A host program in C that feeds its user's keys into the calling thread's
 * queue through the exports, and sees a TIFF open give up on Escape.  An
 * abort is latched for the life of the process, so this runs alone. */
#include <string.h>
#include <unistd.h>

#include "tolimage.h"
#include "tolimage_posix.h"
#include "host_check.h"


/* A bilevel TIFF of 8 x 2 pixels, uncompressed, in one strip. */
static void WriteTiff(const char *path) {
    static const unsigned char tiff[] = {
        'I', 'I', 42, 0, 8, 0, 0, 0,  /* header, directory at 8 */
        8, 0,                          /* 8 entries */
        0x00, 0x01, 3, 0, 1, 0, 0, 0, 8, 0, 0, 0,   /* ImageWidth 8 */
        0x01, 0x01, 3, 0, 1, 0, 0, 0, 2, 0, 0, 0,   /* ImageLength 2 */
        0x02, 0x01, 3, 0, 1, 0, 0, 0, 1, 0, 0, 0,   /* BitsPerSample 1 */
        0x03, 0x01, 3, 0, 1, 0, 0, 0, 1, 0, 0, 0,   /* Compression none */
        0x06, 0x01, 3, 0, 1, 0, 0, 0, 0, 0, 0, 0,   /* WhiteIsZero */
        0x11, 0x01, 4, 0, 1, 0, 0, 0, 110, 0, 0, 0, /* StripOffsets */
        0x16, 0x01, 3, 0, 1, 0, 0, 0, 2, 0, 0, 0,   /* RowsPerStrip 2 */
        0x17, 0x01, 4, 0, 1, 0, 0, 0, 2, 0, 0, 0,   /* StripByteCounts 2 */
        0, 0, 0, 0,                                  /* no further directory */
        0xF0, 0x0F,                                  /* the two rows */
    };
    FILE *f = fopen(path, "wb");
    fwrite(tiff, 1, sizeof tiff, f);
    fclose(f);
}

static int Next(MSG *m) { return PeekMessageA(m, NULL, 0, 0, PM_REMOVE); }

int main(void) {
    char tiffName[260], pcxName[260];
    MSG m;
    TL_HANDLE block;
    int tiffReader;

    ERROR_FLAGS_E(1, 0, 1, NULL);
    snprintf(tiffName, sizeof tiffName, "/tmp/host_abort_%ld.tif", (long)getpid());
    WriteTiff(tiffName);
    snprintf(pcxName, sizeof pcxName, "%s/pcx/netpbm_1plane.pcx", TL_FIXTURES);

    /* The queue through the exports: a message range, removal, order. */
    CHECK(PostMessageA(NULL, WM_KEYDOWN, 'A', 1) != 0);
    CHECK(PostMessageA(NULL, WM_QUIT, 0, 0) != 0);
    CHECK(PostMessageA(NULL, WM_KEYUP, 'A', 2) != 0);
    CHECK(GetInputState() != 0);
    CHECK(PeekMessageA(&m, NULL, WM_QUIT, WM_QUIT, PM_REMOVE) && m.message == WM_QUIT);
    CHECK(Next(&m) && m.message == WM_KEYDOWN && m.wParam == 'A' && m.lParam == 1);
    CHECK(Next(&m) && m.message == WM_KEYUP && m.lParam == 2);
    CHECK(!Next(&m));
    CHECK(GetInputState() == 0);

    /* Letters do not stop a TIFF open, and come back in order. */
    CHECK(PostMessageA(NULL, WM_KEYDOWN, 'B', 0) != 0);
    block = TL_IMAGE_E(tiffName, 0);
    tiffReader = block != 0;
    if (block) GlobalFree(block);
    CHECK(Next(&m) && m.wParam == 'B');
    CHECK(!Next(&m));

    /* Escape: the next TIFF open gives up with 0 and no error, leaves the
       quit message (exit code 4) and puts Escape back. */
    CHECK(PostMessageA(NULL, WM_KEYDOWN, VK_ESCAPE, 0) != 0);
    block = TL_IMAGE_E(tiffName, 0);
    if (tiffReader) {
        CHECK(block == 0);
        CHECK(TL_ERRORSTATUS_E() == 0);
        CHECK(Next(&m) && m.message == WM_QUIT && m.wParam == 4);
        CHECK(Next(&m) && m.message == WM_KEYDOWN && m.wParam == VK_ESCAPE);
        CHECK(!Next(&m));
        /* Latched: the next open gives up too, with an empty queue. */
        CHECK(TL_IMAGE_E(tiffName, 0) == 0);
        /* With polling off, the open goes ahead. */
        ERROR_FLAGS_E(1, 0, 0, NULL);
        block = TL_IMAGE_E(tiffName, 0);
        CHECK(block != 0);
        if (block) GlobalFree(block);
        ERROR_FLAGS_E(1, 0, 1, NULL);
    } else {
        printf("host_abort: no TIFF reader in this build; the open's abort is not checked\n");
        if (block) GlobalFree(block);
        while (Next(&m)) {
        }
    }

    /* The PCX reader does not poll: it loads whatever waits. */
    CHECK(PostMessageA(NULL, WM_KEYDOWN, VK_ESCAPE, 0) != 0);
    block = TL_IMAGE_E(pcxName, 0);
    CHECK(block != 0);
    if (block) GlobalFree(block);

    remove(tiffName);
    return HostDone("host_abort");
}
