/*
 * tolimage_posix.h - the platform calls a host needs beside tolimage.h.
 *
 * A host reads the blocks the library returns, frees them, and builds
 * bitmap blocks of its own for the TLx_BITMAP_E exports with the GlobalAlloc
 * family, and it reads the quit message a report may leave with
 * PeekMessageA.  On Windows these are the system's own and this header
 * takes them from <windows.h>.  On POSIX, where there is no Win32, the
 * library exports them, and they behave as their Win32 namesakes do; every
 * block's address fits in 32 bits, so that the host record can hold it.
 *
 * On both, TlSetFileDialog installs a host's own file dialog.
 */
#ifndef TOLIMAGE_POSIX_H
#define TOLIMAGE_POSIX_H

#include "tolimage.h"

#if defined(_WIN32)
#include <windows.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

#if !defined(_WIN32)

#define GMEM_FIXED 0x0000u
#define GMEM_MOVEABLE 0x0002u
#define GMEM_ZEROINIT 0x0040u
#define GHND (GMEM_MOVEABLE | GMEM_ZEROINIT)

/* GlobalAlloc - a new block of `bytes` bytes (zero-filled with
   GMEM_ZEROINIT), unlocked; 0 when there is no memory. */
TL_API TL_HANDLE GlobalAlloc(uint32_t flags, uintptr_t bytes);
/* GlobalLock - the block's address, counting one more lock; 0 for a bad
   handle. */
TL_API void *GlobalLock(TL_HANDLE block);
/* GlobalUnlock - counts one lock less; not 0 while the block stays locked. */
TL_API int32_t GlobalUnlock(TL_HANDLE block);
/* GlobalFree - gives the block back; 0 on success, the handle on failure. */
TL_API TL_HANDLE GlobalFree(TL_HANDLE block);

/*
 * The calling thread's message queue.  The library polls it for the user's
 * abort keys (Escape, Cancel, Alt+F4) and for quit messages, and an error
 * report may leave a quit message (exit code 4) on it.  A host feeds its
 * user's keys in with PostMessageA and reads what the library left with
 * PeekMessageA.
 */
typedef struct POINT {
    int32_t x;
    int32_t y;
} POINT;

typedef struct MSG {
    void *hwnd;
    uint32_t message;
    uintptr_t wParam;
    intptr_t lParam;
    uint32_t time;
    POINT pt;
} MSG;

#define WM_QUIT 0x0012u
#define WM_ENDSESSION 0x0016u
#define WM_KEYFIRST 0x0100u
#define WM_KEYDOWN 0x0100u
#define WM_KEYUP 0x0101u
#define WM_SYSKEYDOWN 0x0104u
#define WM_KEYLAST 0x0108u
#define PM_REMOVE 0x0001u
#define VK_CANCEL 0x03u
#define VK_ESCAPE 0x1Bu
#define VK_F4 0x73u

/* GetInputState - not 0 when keyboard or mouse input waits in the calling
   thread's queue. */
TL_API int32_t GetInputState(void);
/* PeekMessageA - the next message of the calling thread with a message
   number from `first` to `last` (both 0: any), for `window` or any window
   when NULL, into *msg; removed from the queue with PM_REMOVE.  0 when
   there is none. */
TL_API int32_t PeekMessageA(MSG *msg, void *window, uint32_t first, uint32_t last, uint32_t remove);
/* PostMessageA - puts a message at the end of the calling thread's queue;
   0 on failure. */
TL_API int32_t PostMessageA(void *window, uint32_t message, uintptr_t wParam, intptr_t lParam);

#endif /* !_WIN32 */

/*
 * The file dialog.  When a named file does not exist the library asks the
 * user for another one.  A host installs its own dialog with
 * TlSetFileDialog, and a script or test installs one that answers as it
 * likes.  Without one, Windows shows the system's open dialog; POSIX has
 * none, so the library asks on the process's terminal when it has one in
 * the foreground, and otherwise cancels at once.
 */
typedef struct TL_FILE_REQUEST {
    uint32_t size;             /* sizeof(TL_FILE_REQUEST) */
    int32_t save;              /* 1: a save dialog, 0: an open dialog */
    uint32_t flags;            /* Win32 OFN_ bits: 0x1000 the file must exist,
                                  0x0800 its directory must exist, 0x0002 ask
                                  before replacing an existing file */
    const char *title;         /* title of the dialog */
    const char *filters;       /* label / pattern pairs, each NUL-terminated,
                                  closed by an empty string; may be NULL */
    uint32_t filterIndex;      /* the pair to select, counted from 1 */
    const char *filterLabel;   /* that pair's label, or NULL */
    const char *filterPattern; /* that pair's patterns ("*.TIF;*.TIFF"), or NULL */
    const char *initialDir;    /* directory to open in; "" for the current one */
    char *file;                /* in: the proposed name (may be "");
                                  out: the chosen path, NUL-terminated */
    uint32_t fileBytes;        /* bytes writable at file (260) */
} TL_FILE_REQUEST;

/* The host's dialog: 1 when the user chose a file (its path in
   request->file; a relative path counts from initialDir), 0 on a cancel. */
typedef int32_t(TL_CALL *TL_FILE_DIALOG)(TL_FILE_REQUEST *request);

/* TlSetFileDialog - installs the host's dialog (NULL: back to the terminal
   or a cancel); returns the one installed before. */
TL_API TL_FILE_DIALOG TL_CALL TlSetFileDialog(TL_FILE_DIALOG dialog);

#ifdef __cplusplus
}
#endif

#endif /* TOLIMAGE_POSIX_H */
