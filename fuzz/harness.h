// harness.h - runs of the library's exports on untrusted bytes, shared by
// the fuzz targets and the test suite's replay of their corpora, seeds and
// crashers.
//
// Every run checks what it can and aborts (so that the fuzzer keeps the
// input) when a check fails: every byte a returned block's header claims
// is readable, a raster's rows and columns fit its block, and after the run
// no memory block and no file is left that was not there before.
#pragma once

#include <cstddef>
#include <cstdint>

// The targets, one per reader and export family.
enum class Harness {
    Image,   // any format: image 0, a walk, a numbered image, both hand-overs
    Bmp,     // the bytes as a BMP file ("BM" written over the first two)
    Pcx,     // as a PCX file (0x0A written over the first byte)
    Ras,     // as a RAS file ("bild" or "bimp" over the first four): numbered reads and walks
    Tiff,    // as a TIFF file ("II*\0" or "MM\0*" over the first four)
    Record,  // any format through TLC_, TLL_ and TLP_IMAGE_E
    Bitmap,  // a bitmap the host holds (header and pixels) through TLC_, TLL_ and TLP_BITMAP_E
};

// The target a corpus or seed folder belongs to ("bmp", "tiff", ...; any
// other name is Image).
Harness HarnessNamed(const char *name);

// Runs the target on the bytes.  With `digest`, also gives a digest of all
// the run produced: every bitmap and raster returned (the bytes their
// headers claim), the error status after each call, and each report heard
// (title, text with the scratch file's path taken out, flag).  The digest
// is the same on every platform, so that a replay can pin what each input
// gives.
void RunHarness(Harness harness, const uint8_t *data, size_t size, uint64_t *digest = nullptr);

// The image entry on any format, as before: RunHarness(Harness::Image, ...).
void RunImageHarness(const uint8_t *data, size_t size);
