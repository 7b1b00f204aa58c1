// fax_calls.h - the CCITT decoders as the strip engine calls them.
//
// TEMPORARY JOIN POINT: the decoders live in tiff/fax.h.  Until that header
// is in the tree, stand-ins make compressions 2, 3 and 4 fail their first
// strip, so such images are refused with "TIFFDecodeLine failed".
#pragma once

#include <cstdint>

#if __has_include("tiff/fax.h")
#include "tiff/fax.h"
#else
inline void FaxStart(uint16_t) {}
inline int32_t FaxPrepareStrip() { return 0; }
inline int32_t FaxDecodeRows(uint8_t *, int32_t) { return 0; }
inline int32_t FaxDecodeRowsG4(uint8_t *, int32_t) { return 0; }
inline void FaxRelease() {}
#endif
