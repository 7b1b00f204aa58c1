// host_dialog.h - a file dialog answered by a function: the host's own,
// installed with TlSetFileDialog, or on POSIX the terminal.  The library's
// dialog record is turned into the request such a function is handed, and
// its answer back into the record.
#pragma once

#include <cstddef>
#include <string>

#include "platform/win32.h"

namespace platform {

constexpr size_t PathBytes = 260;

// The dialog installed with TlSetFileDialog, or NULL.
TL_FILE_DIALOG HostDialog();

// Copies at most `bytes` - 1 characters and a NUL.
void CopyCut(char *target, const char *source, size_t bytes);
// `text` without blanks and tabs at either end.
std::string TrimmedBlanks(const std::string &text);
// The absolute form of an answer: a relative path counts from the
// directory the dialog opened in (on POSIX "~/" is the home directory).
// Empty when it does not fit a path buffer.
std::string ResolveAnswer(const std::string &answer, const char *initialDir);

// Hands `record` to `dialog` as a TL_FILE_REQUEST; on a confirmed answer
// puts its full path into lpstrFile, its name into lpstrFileTitle and the
// offsets of name and extension into the record.  The record changes only
// after a confirmed answer that fits it.
BOOL AskThrough(TL_FILE_DIALOG dialog, OPENFILENAMEA *record, bool save);

}  // namespace platform
