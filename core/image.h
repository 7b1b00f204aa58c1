// image.h - image entry, format detection and the protocol all readers share.
#pragma once

#include <cstdint>

#include "services/files.h"
#include "tolimage.h"

constexpr int PathBytes = 260;  // a path of at most 259 characters and its NUL

// Outcome of the last finished detection.
enum ImageType : int32_t { TypeUnknown = 0, TypeBMP = 1, TypePCX = 2, TypeTIFF = 3, TypeRAS = 4 };
extern int32_t LastImageType;

// A reader's memory of its last walk (negative image number).
struct ReaderMemo {
    char Name[PathBytes];  // full path of the walked file; empty at start
    int32_t Number;        // the negative image number of that call
    int32_t EndFlag;       // 1 while the next call for Name ends the walk
};

// What the head of the protocol decided.
enum class MemoStep {
    Read,     // path holds P; EndFlag is 0; go and read
    Reset,    // name was NULL: memo and file forgotten; return 0
    WalkEnd,  // the walk over P has ended; return 0, no report
    NoPath,   // the absolute path did not fit; reported; return 0
};

// Head of the protocol: NULL name resets, an empty name means the file of
// the last walk, and a second call for a walked file ends the walk.
MemoStep MemoHead(ReaderMemo &memo, ManagedFile &file, const char *name, char (&path)[PathBytes]);
// Tail after a successful read: a negative image number starts or goes on
// with a walk over `path`.
void MemoTail(ReaderMemo &memo, int32_t imageNumber, const char (&path)[PathBytes]);

// Entry: offers the file dialog for a missing file, then detects and reads.
TL_HANDLE OpenImageFile(char *name, int32_t imageNumber);
// Detects the format from the first bytes and calls its reader.
TL_HANDLE ReadIMG(char *name, int32_t imageNumber);

// The readers; each returns an unlocked bitmap block or 0.
TL_HANDLE ReadDIB(const char *name, int32_t imageNumber);
TL_HANDLE ReadPCX(const char *name, int32_t imageNumber);
TL_HANDLE ReadTIF(const char *name, int32_t imageNumber);
TL_HANDLE ReadRAS(const char *name, int32_t imageNumber);

// Palette entries of a BMP header as read from the file (12 or 40 bytes).
uint16_t DibColorCount(const uint8_t *header);
