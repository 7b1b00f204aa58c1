// memo.cpp - the image-number protocol every reader runs at its head and tail.
//
// A reader remembers the file of its last walk (a negative image number).
// A second call for that file ends the walk with 0 and no report, so that a
// host can walk a file by calling until it gets 0.
#include <cstring>

#include "core/image.h"
#include "platform/win32.h"
#include "services/errors.h"

MemoStep MemoHead(ReaderMemo &memo, ManagedFile &file, const char *name, char (&path)[PathBytes]) {
    if (name == nullptr) {
        memo.Number = 0;
        memset(memo.Name, 0, sizeof memo.Name);
        file = NoFile;
        memo.EndFlag = 0;
        return MemoStep::Reset;
    }
    if (name[0] == '\0') {
        memcpy(path, memo.Name, sizeof path);
        path[PathBytes - 1] = '\0';
    } else if (_fullpath(path, name, PathBytes) == nullptr) {
        // The absolute form of the name does not fit a path buffer: there is
        // no file to read, and the file table's own words say why.
        memo.EndFlag = 0;
        ReportError("TOPEN", "TL_OPEN  filename too long", 0);
        return MemoStep::NoPath;
    }
    if (strcmp(memo.Name, path) == 0 && memo.Number == -1 && memo.EndFlag != 0) {
        memo.Number = 0;
        memset(memo.Name, 0, sizeof memo.Name);
        memo.EndFlag = 0;
        return MemoStep::WalkEnd;
    }
    memo.EndFlag = 0;
    return MemoStep::Read;
}

void MemoTail(ReaderMemo &memo, int32_t imageNumber, const char (&path)[PathBytes]) {
    if (imageNumber >= 0) return;
    memo.EndFlag = 1;
    memo.Number = imageNumber;
    memcpy(memo.Name, path, sizeof memo.Name);
}
