// win32.h - the Win32 calls the library stands on.
//
// On Windows these are the system's own, from <windows.h>.  On POSIX the
// files of platform/posix supply them, each doing what the library requires
// of the call and no more.  Only this folder knows which of the two is in
// use: this header is where that is decided.
#pragma once

#include <cstdint>
#include <cstddef>

#if defined(_WIN32)

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#include <commdlg.h>
#include <io.h>
#include <cstdlib>

#include "tolimage_posix.h"

// The test build counts what the library holds (see platform/windows/
// counting.cpp); these names then lead to the counting layer, which calls
// the system.  The library shipped to hosts calls the system directly.
#if defined(TL_COUNT_CALLS) && !defined(TL_COUNTING_LAYER)
extern "C" {
HGLOBAL WINAPI TlCountedGlobalAlloc(UINT flags, SIZE_T bytes);
LPVOID WINAPI TlCountedGlobalLock(HGLOBAL block);
HGLOBAL WINAPI TlCountedGlobalFree(HGLOBAL block);
HLOCAL WINAPI TlCountedLocalAlloc(UINT flags, SIZE_T bytes);
LPVOID WINAPI TlCountedLocalLock(HLOCAL block);
HLOCAL WINAPI TlCountedLocalFree(HLOCAL block);
HANDLE WINAPI TlCountedCreateFileA(LPCSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                   DWORD disposition, DWORD attributes, HANDLE templateFile);
BOOL WINAPI TlCountedCloseHandle(HANDLE file);
}
#define GlobalAlloc TlCountedGlobalAlloc
#define GlobalLock TlCountedGlobalLock
#define GlobalFree TlCountedGlobalFree
#define LocalAlloc TlCountedLocalAlloc
#define LocalLock TlCountedLocalLock
#define LocalFree TlCountedLocalFree
#define CreateFileA TlCountedCreateFileA
#define CloseHandle TlCountedCloseHandle
#endif

#else  // POSIX

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

// ==== file dialogs and profile (platform/dialog.cpp, platform/profile.cpp) ====
// The common dialog record in its version 4.00 form, the field list that
// has lStructSize 76 on 32-bit Windows.  On a 64-bit build the same fields
// take more bytes; the stand-ins take 76 as the tag of this field list, not
// as a byte count, and refuse any other value.
using HINSTANCE = void *;
using WORD = uint16_t;
using LPOFNHOOKPROC = uintptr_t (*)(HWND, UINT, WPARAM, LPARAM);
struct OPENFILENAMEA {
    DWORD lStructSize;
    HWND hwndOwner;
    HINSTANCE hInstance;
    const char *lpstrFilter;
    char *lpstrCustomFilter;
    DWORD nMaxCustFilter;
    DWORD nFilterIndex;
    char *lpstrFile;
    DWORD nMaxFile;
    char *lpstrFileTitle;
    DWORD nMaxFileTitle;
    const char *lpstrInitialDir;
    const char *lpstrTitle;
    DWORD Flags;
    WORD nFileOffset;
    WORD nFileExtension;
    const char *lpstrDefExt;
    LPARAM lCustData;
    LPOFNHOOKPROC lpfnHook;
    const char *lpTemplateName;
};
using OPENFILENAME = OPENFILENAMEA;
constexpr DWORD OPENFILENAME_SIZE_VERSION_400 = 76;
constexpr DWORD OFN_OVERWRITEPROMPT = 0x00000002;
constexpr DWORD OFN_HIDEREADONLY = 0x00000004;
constexpr DWORD OFN_NOCHANGEDIR = 0x00000008;
constexpr DWORD OFN_PATHMUSTEXIST = 0x00000800;
constexpr DWORD OFN_FILEMUSTEXIST = 0x00001000;

// Show the dialog; not 0 when the user confirmed, and lpstrFile then holds
// the chosen full path.  0 on a cancel.
BOOL GetOpenFileNameA(OPENFILENAMEA *record);
BOOL GetSaveFileNameA(OPENFILENAMEA *record);
// The window that owns a dialog; the library has none on POSIX: 0.
HWND GetActiveWindow();
// The directory of profile files without a closing separator: the user's
// configuration directory of the library.  Its length, or the bytes needed
// (with the NUL) when `size` is too small, leaving `buffer` alone; 0 when
// there is none.
UINT GetWindowsDirectoryA(char *buffer, UINT size);
// The value of `key` in `[section]` of the INI file `path` (or
// `defaultValue`), cut to size - 1 characters; its length.
DWORD GetPrivateProfileStringA(const char *section, const char *key, const char *defaultValue, char *buffer,
                               DWORD size, const char *path);
// Stores key=value in [section] (a NULL value removes the key, a NULL key
// the section); the file is written anew and renamed into place.  Not 0 on
// success.
BOOL WritePrivateProfileStringA(const char *section, const char *key, const char *value, const char *path);
// Splits `path` into drive (always empty on POSIX), directory (with its
// closing "/"), name and extension (with its leading ".").  Each output may
// be NULL and takes up to 260 bytes; longer parts are cut.
void _splitpath(const char *path, char *drive, char *directory, char *name, char *extension);

#endif  // POSIX

// ---- one caller at a time ----
namespace platform {
// The library's state is one per process.  Every export holds this lock
// for the length of its call, so that calls from several threads run one
// after another.  The lock is re-entrant: a host's error callback or file
// dialog, called while an export holds it, may call an export again.
struct ExportLock {
    ExportLock();
    ~ExportLock();
    ExportLock(const ExportLock &) = delete;
    ExportLock &operator=(const ExportLock &) = delete;
};
}  // namespace platform

// ---- for tests: what the process holds now ----
namespace platform {
int32_t LiveBlocks();   // Global and Local blocks not yet freed
int32_t OpenFiles();    // CreateFileA handles not yet closed
// The n-th allocation (GlobalAlloc, LocalAlloc) or lock of a movable block
// from now on fails as out of memory, once; 0 fails none.  So that the
// failure paths of the callers can be walked one by one.  Each returns
// what was left of the count it replaces: 0 once that failure came.
int32_t FailAllocation(int32_t n);
int32_t FailLock(int32_t n);
// Allocations (GlobalAlloc, LocalAlloc) of more than `bytes` fail as out of
// memory from now on; 0 lifts the ceiling.  Returns the ceiling it replaces.
// The fuzz targets keep each input's work small with it.
uintptr_t LimitBlockBytes(uintptr_t bytes);
}  // namespace platform

namespace platform {
// Asks the user for a file: the save dialog when `save`, else the open
// dialog.  A host's own dialog, installed with TlSetFileDialog, comes first;
// without one it is the system's dialog (on POSIX the terminal, or a cancel
// where there is none).  Not 0 when the user confirmed.
BOOL ShowFileDialog(OPENFILENAMEA *record, bool save);
}  // namespace platform
