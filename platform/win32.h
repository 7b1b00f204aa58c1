// win32.h - the Win32 calls the library stands on.
//
// On Windows these are the system's own.  On POSIX the files of this folder
// supply them, each doing what the library requires of the call and no
// more.  Only this folder knows which of the two is in use.
#pragma once

#include <cstdint>
#include <cstddef>

#include "tolimage_posix.h"

using BOOL = int32_t;
using DWORD = uint32_t;
using LONG = int32_t;
using UINT = uint32_t;
using HANDLE = void *;
using HGLOBAL = void *;
using HLOCAL = void *;
using HWND = void *;
using WPARAM = uintptr_t;
using LPARAM = intptr_t;

inline HANDLE const INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(intptr_t(-1));
constexpr DWORD INVALID_SET_FILE_POINTER = 0xFFFFFFFFu;

// ---- movable memory (GlobalAlloc family in tolimage_posix.h) ----
constexpr UINT LMEM_MOVEABLE = 0x0002u;
constexpr UINT LMEM_ZEROINIT = 0x0040u;
// Bytes the block was allocated with; 0 for a bad handle.
uintptr_t GlobalSize(HGLOBAL block);
HLOCAL LocalAlloc(UINT flags, uintptr_t bytes);
void *LocalLock(HLOCAL block);
BOOL LocalUnlock(HLOCAL block);
HLOCAL LocalFree(HLOCAL block);

// ---- files ----
constexpr DWORD GENERIC_READ = 0x80000000u;
constexpr DWORD GENERIC_WRITE = 0x40000000u;
constexpr DWORD FILE_SHARE_READ = 1;
constexpr DWORD CREATE_ALWAYS = 2;
constexpr DWORD OPEN_EXISTING = 3;
constexpr DWORD OPEN_ALWAYS = 4;
constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
constexpr DWORD FILE_BEGIN = 0;
constexpr DWORD FILE_CURRENT = 1;
constexpr DWORD FILE_END = 2;

HANDLE CreateFileA(const char *name, DWORD access, DWORD share, void *security, DWORD disposition,
                   DWORD attributes, HANDLE templateFile);
BOOL ReadFile(HANDLE file, void *buffer, DWORD count, DWORD *read, void *overlapped);
DWORD SetFilePointer(HANDLE file, LONG offset, LONG *offsetHigh, DWORD method);
DWORD GetFileSize(HANDLE file, DWORD *sizeHigh);
BOOL CloseHandle(HANDLE file);

// ---- failure display ----
constexpr UINT MB_TASKMODAL = 0x2000;
constexpr UINT MB_SETFOREGROUND = 0x10000;
constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x100;
constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x1000;

DWORD GetLastError();
void SetLastError(DWORD code);
// With FORMAT_MESSAGE_ALLOCATE_BUFFER, `buffer` receives a LocalAlloc'd text
// that the caller gives back with LocalFree.  0 when there is no text.
DWORD FormatMessageA(DWORD flags, const void *source, DWORD code, DWORD language, char *buffer, DWORD size,
                     void *arguments);
int MessageBoxA(HWND owner, const char *text, const char *title, UINT type);

// ---- the calling thread's message queue ----
// MSG, POINT, the message and key constants that a host needs, and
// GetInputState, PeekMessageA and PostMessageA are in tolimage_posix.h.
constexpr UINT WM_CHAR = 0x102;
constexpr UINT WM_MOUSEFIRST = 0x200;
constexpr UINT WM_MOUSELAST = 0x20E;
constexpr UINT PM_NOREMOVE = 0;

void PostQuitMessage(int exitCode);

// ---- text and run-time functions ----
// Windows' wsprintfA: %d %i %u %x %X %c %s with flags and widths; the size
// prefix l means 32 bits.  Output is cut at 1024 characters.
int wsprintfA(char *buffer, const char *format, ...);
int _access(const char *name, int mode);
// The absolute form of `name`, without . and .. parts, in `buffer`; NULL when
// it does not fit `size` bytes.  The file need not exist.
char *_fullpath(char *buffer, const char *name, size_t size);

// ---- for tests: what the process holds now ----
namespace platform {
int32_t LiveBlocks();   // Global and Local blocks not yet freed
int32_t OpenFiles();    // CreateFileA handles not yet closed
}  // namespace platform
