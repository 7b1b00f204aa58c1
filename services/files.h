// files.h - the managed file table.
//
// All file access of the readers goes through these routines.  They check
// every handle against a table of 64 open files, remember each file's mode
// and report misuse under the title "TOPEN".  None of them is exported.
#pragma once

#include <cstdint>

// The platform's file handle held as 32 bits; -1 for none.
using ManagedFile = uint32_t;
constexpr ManagedFile NoFile = 0xFFFFFFFFu;
constexpr int32_t FileTableSlots = 64;

ManagedFile TL_OPEN(const char *name, const char *mode);      // NoFile on failure
uint32_t TL_READ(void *buffer, uint32_t count, ManagedFile file);  // bytes read; 0 on failure
uint32_t TL_TELL(ManagedFile file);
int32_t TL_SEEK(ManagedFile file, int32_t offset, int32_t method);  // 0, or 1 when refused
void TL_REWIND(ManagedFile file);
uint32_t TL_FILELENGTH(ManagedFile file);  // 0xFFFFFFFF on a bad handle
int32_t TL_CLOSE(ManagedFile file);        // 0; 1 close failed; -1 unknown handle

// Drops what the read windows of the open files hold, so that a file kept
// open from one image call to the next (a walk) is read anew from the
// system and a file that changed in between is seen as it is now.
void ForgetReadWindows();
// Reads `count` bytes at the position of a file opened for reading only,
// without copying them: their address in the file's read window, which
// stays valid and unchanged until the next call on the file (or its
// close); the position moves behind them, as TL_READ would move it.
// nullptr, with nothing read, the position unmoved and no report, where
// the bytes cannot be had so: not such a file, more than the window holds,
// the file ending before them, a failed read.  The caller then reads them
// with TL_READ, which gives the short read or failure as it always does.
const uint8_t *ReadInPlace(ManagedFile file, uint32_t count);

// Slot of the first table entry holding `handle`, or -1.
int32_t FindFileSlot(ManagedFile handle);

// In place: replace each character found in `from` by the one at the same
// position of `to`, or a blank once `to` has ended.
void TranslateChars(char *text, const char *to, const char *from);
// In place: remove leading and trailing blanks (0x20 only).
void TrimBlanks(char *text);
