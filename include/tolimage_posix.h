/*
 * tolimage_posix.h - the platform calls a host needs when TolImage runs on
 * POSIX, where Win32 does not provide them.
 *
 * A host reads the blocks the library returns, frees them, and builds
 * bitmap blocks of its own for the TLx_BITMAP_E exports with these calls.
 * They behave as their Win32 namesakes do.  Every block's address fits in
 * 32 bits, so that the host record can hold it.
 */
#ifndef TOLIMAGE_POSIX_H
#define TOLIMAGE_POSIX_H

#include "tolimage.h"

#ifdef __cplusplus
extern "C" {
#endif

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

#ifdef __cplusplus
}
#endif

#endif /* TOLIMAGE_POSIX_H */
