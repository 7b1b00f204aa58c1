/* A host program in C that installs its own file dialog through the
 * library's exports: a missing file is replaced by the one its dialog
 * chooses, and a cancel gives no image and no report. */
#include <string.h>

#include "tolimage.h"
#include "tolimage_posix.h"
#include "host_check.h"

static int asked = 0;
static int confirm = 1;
static char seenTitle[64];
static char seenLabel[64];

static int32_t HostDialog(TL_FILE_REQUEST *request) {
    ++asked;
    snprintf(seenTitle, sizeof seenTitle, "%s", request->title);
    snprintf(seenLabel, sizeof seenLabel, "%s", request->filterLabel ? request->filterLabel : "");
    if (!confirm) return 0;
    snprintf(request->file, request->fileBytes, "%s/bmp/magick_1bit.bmp", TL_FIXTURES);
    return 1;
}

int main(void) {
    char name[260];
    char chosen[260];
    TL_HANDLE block;

    ERROR_FLAGS_E(1, 0, 1, NULL);
    CHECK(TlSetFileDialog(HostDialog) != HostDialog);
    snprintf(chosen, sizeof chosen, "%s/bmp/magick_1bit.bmp", TL_FIXTURES);

    snprintf(name, sizeof name, "%s/no-such-page.TIF", TL_FIXTURES);
    block = TL_IMAGE_E(name, 0);
    CHECK(block != 0);
    CHECK(asked == 1);
    CHECK(strcmp(seenTitle, "Open Image File") == 0);
    CHECK(strcmp(seenLabel, "TIF Files (*.TIF)") == 0);
    CHECK(strcmp(name, chosen) == 0);
    if (block) GlobalFree(block);

    confirm = 0;
    snprintf(name, sizeof name, "%s/no-such-page.BMP", TL_FIXTURES);
    CHECK(TL_IMAGE_E(name, 0) == 0);
    CHECK(asked == 2);
    CHECK(TL_ERRORSTATUS_E() == 0);

    CHECK(TlSetFileDialog(NULL) == HostDialog);
    return HostDone("host_dialog");
}
