// no_dialog.cpp - the tests never ask anybody: before any test runs, a
// dialog that cancels at once stands in for the terminal, so that a test
// reaching a missing file cannot wait for input when ctest runs in a
// terminal.  Tests of the dialog install their own and put this one back.
#include "tolimage_posix.h"

namespace {

int32_t TL_CALL CancelAtOnce(TL_FILE_REQUEST *) { return 0; }

const TL_FILE_DIALOG installedBefore = TlSetFileDialog(CancelAtOnce);

}  // namespace
