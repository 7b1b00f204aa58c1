/* A host program in C that installs its own file dialog through the library's exports: a missing file is
 * replaced by the one its dialog chooses, and a cancel gives no image and no report. */
#include <string.h>

#include "tolimage.h"
#include "tolimage_posix.h"
#include "host_check.h"

#define CHOSEN TL_FIXTURES "/bmp/magick_1bit.bmp"
static int asked = 0, confirm = 1;
static char seen[128];

static int32_t TL_CALL HostDialog(TL_FILE_REQUEST *request) {
    ++asked;
    snprintf(seen, sizeof seen, "%s / %s", request->title, request->filterLabel ? request->filterLabel : "");
    if (confirm) snprintf(request->file, request->fileBytes, "%s", CHOSEN);
    return confirm;
}

int main(void) {
    /* A name with no folder, so that the proposed filter comes from its own
       extension and not from a dot on the path to the tree. */
    char name[260] = "no-such-page.TIF";
    TL_HANDLE block;

    ERROR_FLAGS_E(1, 0, 1, NULL);
    CHECK(TlSetFileDialog(HostDialog) != HostDialog);
    block = TL_IMAGE_E(name, 0);
    CHECK(block != 0 && asked == 1);
    CHECK(strcmp(seen, "Open Image File / TIF Files (*.TIF)") == 0);
    /* The chosen path comes back in the system's full form (on Windows with
       a drive and backslashes). */
    CHECK(strlen(name) >= 15 && strcmp(name + strlen(name) - 15, "magick_1bit.bmp") == 0);
    if (block) GlobalFree(block);

    confirm = 0;
    snprintf(name, sizeof name, "%s/no-such-page.BMP", TL_FIXTURES);
    CHECK(TL_IMAGE_E(name, 0) == 0 && asked == 2);
    CHECK(TL_ERRORSTATUS_E() == 0);
    CHECK(TlSetFileDialog(NULL) == HostDialog);
    return HostDone("host_dialog");
}
