/*
 * tolimage.h - public interface of the TolImage library.
 *
 * TolImage reads scanned and faxed document images (BMP/DIB, 1-bit PCX,
 * bilevel TIFF and RAS) into packed device-independent bitmaps held in
 * movable memory blocks, and turns them into the packed 1-bit raster that a
 * recognition engine is handed through the host's parameter record.
 *
 * Every call runs to its end on the caller's thread; the library takes one
 * call at a time.  Blocks returned by an export belong to the caller.
 */
#ifndef TOLIMAGE_H
#define TOLIMAGE_H

#include <stdint.h>

/* The library's own version; the shared library's SONAME carries the major
   number, which changes only when a host must be built anew. */
#define TOLIMAGE_VERSION_MAJOR 3
#define TOLIMAGE_VERSION_MINOR 3
#define TOLIMAGE_VERSION_PATCH 0
#define TOLIMAGE_VERSION_STRING "3.3.0"

#if defined(_WIN32)
/* tolimage.dll names its exports in a module-definition file, undecorated. */
#define TL_API
#define TL_CALL __stdcall
#else
#define TL_API __attribute__((visibility("default")))
#define TL_CALL
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Handle of a movable memory block (an HGLOBAL on Windows). */
typedef void *TL_HANDLE;

/* The host's error callback: the title, the text and whether the system's
   text of the last failed call belongs to the report.  Like the exports,
   the callbacks a host gives the library use TL_CALL (__stdcall on
   Windows), so that a host in any language declares them one way. */
typedef void(TL_CALL *TL_ERROR_CALLBACK)(const char *title, const char *text, int32_t withSystemText);

/*
 * Byte layout of the bitmap block (a packed DIB): a 40-byte little-endian
 * header, biClrUsed palette entries of blue, green, red, 0, then the pixel
 * rows, bottom row first, each padded to a multiple of 4 bytes.
 */
#define TL_DIB_HEADER_SIZE 40
#define TL_DIB_BI_SIZE 0
#define TL_DIB_BI_WIDTH 4
#define TL_DIB_BI_HEIGHT 8
#define TL_DIB_BI_PLANES 12
#define TL_DIB_BI_BITCOUNT 14
#define TL_DIB_BI_COMPRESSION 16
#define TL_DIB_BI_SIZEIMAGE 20
#define TL_DIB_BI_XPELSPERMETER 24
#define TL_DIB_BI_YPELSPERMETER 28
#define TL_DIB_BI_CLRUSED 32
#define TL_DIB_BI_CLRIMPORTANT 36

/*
 * The host raster: i16 rows, i16 columns, then rows of (columns + 7) / 8
 * bytes, top row first, leftmost pixel in the top bit, a set bit dark.
 * The host record receives the tag "a1" at TL_RECORD_TAG, the 32-bit
 * address of the raster at TL_RECORD_RASTER and that address plus 4 at
 * TL_RECORD_PIXELS.
 */
#define TL_RECORD_TAG 1092
#define TL_RECORD_RASTER 1096
#define TL_RECORD_PIXELS 1100
#define TL_RECORD_MIN_SIZE 1104

/* The version text of the engine this library belongs to. */
#define TL_TOLMAR_VERSION "3.3m"

/*
 * TL_IMAGE_E - load an image file into a bitmap block.
 *   name         file name; may be overwritten with the path the user chose
 *                when the file does not exist, so pass a 260-byte buffer.
 *                An empty name means the file of the last walk.
 *   imageNumber  0 the first image, 1.. a further image of a RAS file,
 *                -1 walk the file image by image.
 * Returns the unlocked block, owned by the caller (free with GlobalFree),
 * or 0: no image, or a failure; TL_ERRORSTATUS_E tells which.
 */
TL_API TL_HANDLE TL_CALL TL_IMAGE_E(char *name, int32_t imageNumber);

/*
 * TLC_IMAGE_E, TLL_IMAGE_E, TLP_IMAGE_E - load an image file and hand it to
 * the host record as a host raster.
 * Returns the block holding the raster, still locked because the record
 * points into it; the caller unlocks and frees it when done.  0 leaves the
 * record untouched.
 */
TL_API TL_HANDLE TL_CALL TLC_IMAGE_E(void *record, char *name, int32_t imageNumber);
TL_API TL_HANDLE TL_CALL TLL_IMAGE_E(void *record, char *name, int32_t imageNumber);
TL_API TL_HANDLE TL_CALL TLP_IMAGE_E(void *record, char *name, int32_t imageNumber);

/*
 * TLC_BITMAP_E, TLL_BITMAP_E, TLP_BITMAP_E - hand a bitmap block that the
 * host holds over to the record.  The host's block stays the host's; only a
 * biClrUsed of 0 in it is replaced by the computed count.
 * Returns a new block holding the raster, locked; 0 when the bitmap is NULL
 * or on failure (also when an earlier error is still pending).
 */
TL_API TL_HANDLE TL_CALL TLC_BITMAP_E(void *record, TL_HANDLE bitmap);
TL_API TL_HANDLE TL_CALL TLL_BITMAP_E(void *record, TL_HANDLE bitmap);
TL_API TL_HANDLE TL_CALL TLP_BITMAP_E(void *record, TL_HANDLE bitmap);

/*
 * TOLMAR_VERSION_E - compare the host's version text with the library's.
 * An empty text is filled with the library's version (5 bytes) and passes.
 * Returns 1 when equal, 0 otherwise (reported) or for NULL (not reported).
 */
TL_API int32_t TL_CALL TOLMAR_VERSION_E(char *version);

/*
 * ERROR_FLAGS_E - choose how failures reach the host.
 *   cont      0: every report posts a quit message (exit code 4)
 *   box       not 0: the first report after a clear shows a message box
 *   abort     0: the user's abort keys are not polled
 *   callback  not NULL: every report goes to it instead of to a box
 */
TL_API void TL_CALL ERROR_FLAGS_E(int32_t cont, int32_t box, int32_t abort, TL_ERROR_CALLBACK callback);

/* TL_ERRORSTATUS_E - 1 if a report was made since the last clear, else 0. */
TL_API int32_t TL_CALL TL_ERRORSTATUS_E(void);

/* TL_CLEARERROR_E - clear the error state; returns the state before. */
TL_API int32_t TL_CALL TL_CLEARERROR_E(void);

#ifdef __cplusplus
}
#endif

#endif /* TOLIMAGE_H */
