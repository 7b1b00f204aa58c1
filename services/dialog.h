// dialog.h - the file selection dialog for a file that does not exist, with
// the path it can remember in a profile.
//
// SelectFileDialog works out which filter of a list fits the proposed name,
// shows the platform's open or save dialog and leaves the chosen path in the
// caller's buffer.  It can remember the last path under a profile file,
// section and key, and take a remembered file that exists without asking.
#pragma once

#include <cstddef>
#include <cstdint>

// Bytes of every string buffer of the dialog: a path of at most 259
// characters and its NUL.
constexpr size_t DialogPathBytes = 260;

// Bits of SelectFileDialog's flags.
constexpr uint32_t DialogSave = 0x1000;    // save dialog flags; an existing file does not spare the dialog
constexpr uint32_t DialogAlways = 0x2000;  // always show the dialog; no existence test
constexpr uint32_t DialogOpen = 0x4000;    // the open dialog (set by the routine when DialogSave is clear)

// The platform dialog's Flags: file and path must exist, the current
// directory stays, no read-only box; for a save also the overwrite prompt.
constexpr uint32_t DialogFlagsOpen = 6156;  // 0x180C
constexpr uint32_t DialogFlagsSave = 6158;  // 0x180E

// Asks the user for a file.  `buffer` (260 writable bytes) holds the
// proposed name and receives the chosen path.  `filters` is a list of
// NUL-terminated label / patterns pairs closed by an empty string, or NULL.
// The profile takes part only when profileFile, section and key are all
// given and not empty.  Returns 1 when `buffer` ends up with a name in it,
// 0 on the user's abort, a NULL buffer or a cancelled dialog.  Makes no
// report.
int32_t SelectFileDialog(char *buffer, const char *filters, uint32_t flags, const char *title,
                         const char *profileFile, const char *section, const char *key);

// 1 when `name` and `extension` (with or without its leading ".") fit one of
// the ";"-separated patterns, each "namepart.extensionpart" with * and ?;
// case-sensitive.  0 otherwise.
int32_t MatchFileFilter(const char *patterns, const char *name, const char *extension);

// The copy routines write at most targetBytes - 1 characters and always a
// NUL: a longer source is cut, so no 260-byte buffer is ever overrun.
// Copies `source` up to, not including, the first `delimiter` (all of it
// when there is none).
void CopyBefore(char *target, const char *source, char delimiter, size_t targetBytes = DialogPathBytes);
// Copies what stands behind the first `delimiter`; empty when there is none.
void CopyAfter(char *target, const char *source, char delimiter, size_t targetBytes = DialogPathBytes);
// Copies token `index` (from 0) of `source`, tokens separated by
// `delimiter`; blanks at the start and right behind a delimiter are
// skipped, blanks inside and at the end of a token stay.  Empty when there
// is no such token.
void GetToken(char *target, const char *source, int32_t index, char delimiter,
              size_t targetBytes = DialogPathBytes);

// The profile path SelectFileDialog uses for `profileFile`: a name with
// neither ":" nor a backslash goes into the platform directory, and ".STS"
// is added when the name has no dot.  0 when the platform directory is
// unknown or the path would not fit `target` (260 bytes); 1 otherwise.
int32_t DialogProfilePath(char *target, const char *profileFile);
