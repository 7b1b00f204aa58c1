// dialog.cpp - the open and save dialogs on Windows: the host's own when it
// installed one with TlSetFileDialog, otherwise the system's.
#include "platform/host_dialog.h"

BOOL platform::ShowFileDialog(OPENFILENAMEA *record, bool save) {
    if (const TL_FILE_DIALOG host = HostDialog()) return AskThrough(host, record, save);
    return save ? GetSaveFileNameA(record) : GetOpenFileNameA(record);
}
