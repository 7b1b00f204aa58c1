/* A host program in C that feeds its user's keys into the calling thread's queue through the exports, and sees
 * a TIFF open give up on Escape.  An abort is latched for the life of the process, so this runs alone. */
#include <string.h>

#include "tolimage.h"
#include "tolimage_posix.h"
#include "host_check.h"

static int Next(MSG *m) { return PeekMessageA(m, NULL, 0, 0, PM_REMOVE); }

int main(void) {
    char tiffName[260] = TL_FIXTURES "/tiff/w1_none.tif", pcxName[260] = TL_FIXTURES "/pcx/netpbm_1plane.pcx";
    MSG m;
    TL_HANDLE block;
    int tiffReader;

    ERROR_FLAGS_E(1, 0, 1, NULL);
    /* The queue through the exports: a message range, order. */
    CHECK(PostMessageA(NULL, WM_KEYDOWN, 'A', 1) != 0 && PostMessageA(NULL, WM_QUIT, 0, 0) != 0);
    CHECK(GetInputState() != 0);
    CHECK(PeekMessageA(&m, NULL, WM_QUIT, WM_QUIT, PM_REMOVE) && m.message == WM_QUIT);
    CHECK(Next(&m) && m.message == WM_KEYDOWN && m.wParam == 'A' && m.lParam == 1);
    CHECK(!Next(&m) && GetInputState() == 0);

    /* Letters do not stop a TIFF open, and come back in order. */
    CHECK(PostMessageA(NULL, WM_KEYDOWN, 'B', 0) != 0);
    block = TL_IMAGE_E(tiffName, 0);
    tiffReader = block != 0;
    if (block) GlobalFree(block);
    CHECK(Next(&m) && m.wParam == 'B');
    CHECK(!Next(&m));

    /* Escape: the next TIFF open gives up with 0 and no error, leaves the quit message (exit code 4) and puts
       Escape back. */
    CHECK(PostMessageA(NULL, WM_KEYDOWN, VK_ESCAPE, 0) != 0);
    block = TL_IMAGE_E(tiffName, 0);
    if (tiffReader) {
        CHECK(block == 0 && TL_ERRORSTATUS_E() == 0);
        CHECK(Next(&m) && m.message == WM_QUIT && m.wParam == 4);
        CHECK(Next(&m) && m.message == WM_KEYDOWN && m.wParam == VK_ESCAPE);
        CHECK(!Next(&m));
        CHECK(TL_IMAGE_E(tiffName, 0) == 0); /* latched: the next open gives up too, with an empty queue */
        ERROR_FLAGS_E(1, 0, 0, NULL);        /* with polling off, the open goes ahead */
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
    return HostDone("host_abort");
}
