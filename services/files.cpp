// files.cpp - the managed file table.
//
// Every file a reader touches is opened, read, positioned and closed here.
// Each handle is checked against the table of the files this layer opened,
// and misuse is reported under the title "TOPEN".
#include "services/files.h"

#include <cstring>
#include <initializer_list>
#include <new>

#include "platform/win32.h"
#include "services/errors.h"

namespace {

constexpr const char *Title = "TOPEN";
constexpr size_t NameLimit = 260;  // a name must stay below this length
constexpr size_t ModeBytes = 8;

// A file opened for reading only is read through a window of it kept in
// memory, so that a reader's many small reads and seeks (a TIFF file's
// strips and tag values) cost no system call while they stay inside it.
// The window is allocated at the first read, never larger than the file;
// its first fill is small, since a file opened to look at its first bytes is
// closed again at once.  Reads of a whole window or more go straight into
// the caller's buffer.  When the window cannot be allocated the file is read
// directly, as a file opened for writing always is, and nothing is reported.
constexpr uint32_t FirstFillBytes = 4096;
constexpr uint32_t WindowBytes = 256 * 1024;

struct ReadWindow {
    uint8_t *bytes;     // nullptr: not yet allocated, or direct reads
    uint32_t capacity;  // bytes allocated
    uint32_t start;     // file position of bytes[0]
    uint32_t length;    // bytes held from `start`
    uint32_t position;  // the reader's position in the file
    uint32_t system;    // where the system's file pointer stands
    bool buffered;      // reads go through the window
};

struct FileSlot {
    ManagedFile handle;
    char mode[ModeBytes];
    ReadWindow window;
};

int32_t TableReady = 0;
FileSlot FileTable[FileTableSlots];

// The cleaned copy of a name, and the texts of TL_OPEN's messages: room for
// a name of 259 characters twice over (message with name and mode) and the
// longest message text.
char TextBuffer[2 * NameLimit + 128];

HANDLE AsHandle(ManagedFile file) { return reinterpret_cast<HANDLE>(intptr_t(int32_t(file))); }

ManagedFile AsManaged(HANDLE handle) { return ManagedFile(uint32_t(reinterpret_cast<uintptr_t>(handle))); }

struct ModeAccess {
    const char *mode;
    DWORD access;
    DWORD share;
    DWORD disposition;
};

constexpr ModeAccess ModeTable[] = {
    {"r", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING},
    {"r+", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING},
    {"w", GENERIC_WRITE, 0, CREATE_ALWAYS},
    {"w+", GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS},
    {"a", GENERIC_WRITE, 0, OPEN_ALWAYS},
    {"a+", GENERIC_READ | GENERIC_WRITE, 0, OPEN_ALWAYS},
};

// A name with the caller's mode in a TL_OPEN message.  Name and mode are
// bounded so the text always fits its buffer.
void ReportOpenFailure(const char *format, const char *name, const char *mode) {
    char shortMode[16];
    strncpy(shortMode, mode, sizeof shortMode - 1);
    shortMode[sizeof shortMode - 1] = '\0';
    wsprintfA(TextBuffer, format, name, shortMode);
    ReportError(Title, TextBuffer, 1);
}

// Moves the system's file pointer to `target`.  False when refused.
bool MoveSystemPointer(ManagedFile file, ReadWindow &w, uint32_t target) {
    if (w.system == target) return true;
    LONG high = 0;  // positions above 2^31 - 1 need the high half
    if (SetFilePointer(AsHandle(file), LONG(target), &high, FILE_BEGIN) == INVALID_SET_FILE_POINTER) return false;
    w.system = target;
    return true;
}

// Reads up to `count` bytes at the reader's position with the system's call
// and moves the position on; the bytes that arrived, also when the call
// failed.
uint32_t ReadDirect(ManagedFile file, ReadWindow &w, uint8_t *into, uint32_t count, bool &failed) {
    if (!MoveSystemPointer(file, w, w.position)) {
        failed = true;
        return 0;
    }
    DWORD got = 0;
    failed = !ReadFile(AsHandle(file), into, count, &got, nullptr);
    w.position += got;
    w.system = w.position;
    return got;
}

// Fills the window from the reader's position.  False when the window
// cannot be had (the file is then read directly) or the system's call failed.
bool FillWindow(ManagedFile file, ReadWindow &w, bool &failed) {
    uint32_t want = w.capacity;
    if (w.bytes == nullptr) {
        DWORD size = GetFileSize(AsHandle(file), nullptr);
        uint32_t capacity = size > WindowBytes ? WindowBytes : size;  // 0xFFFFFFFF: 4 GiB or more
        if (capacity < FirstFillBytes) capacity = FirstFillBytes;
        w.bytes = new (std::nothrow) uint8_t[capacity];
        if (w.bytes == nullptr) {
            w.buffered = false;
            return false;
        }
        w.capacity = capacity;
        want = FirstFillBytes;
    }
    uint32_t at = w.position;
    w.length = ReadDirect(file, w, w.bytes, want, failed);
    w.start = at;
    w.position = at;
    return !failed;
}

// TL_READ through the window.
uint32_t ReadWindowed(ManagedFile file, ReadWindow &w, uint8_t *into, uint32_t count) {
    uint32_t done = 0;
    bool failed = false;
    while (done < count) {
        if (w.position >= w.start && w.position < w.start + w.length) {
            uint32_t offset = w.position - w.start;
            uint32_t take = w.length - offset < count - done ? w.length - offset : count - done;
            memcpy(into + done, w.bytes + offset, take);
            done += take;
            w.position += take;
            continue;
        }
        if (count - done >= WindowBytes || !w.buffered) {
            done += ReadDirect(file, w, into + done, count - done, failed);
            break;
        }
        if (!FillWindow(file, w, failed)) {
            if (failed) break;
            continue;  // no window: the rest is read directly
        }
        if (w.length == 0) break;  // the end of the file
    }
    return failed && done == 0 ? 0 : done;
}

// TL_SEEK through the window: a move inside it is only noted; any other
// asks the system, from the reader's position where it counts.
int32_t SeekWindowed(ManagedFile file, ReadWindow &w, int32_t offset, int32_t method) {
    int64_t target = method == 0 ? int64_t(offset) : method == 1 ? int64_t(w.position) + offset : -1;
    if (target >= int64_t(w.start) && target <= int64_t(w.start) + w.length) {
        w.position = uint32_t(target);
        return 0;
    }
    if (method == 1 && !MoveSystemPointer(file, w, w.position)) return 1;
    DWORD at = SetFilePointer(AsHandle(file), offset, nullptr, DWORD(method));
    if (at == INVALID_SET_FILE_POINTER) return 1;
    w.position = w.system = at;
    return 0;
}

}  // namespace

int32_t FindFileSlot(ManagedFile handle) {
    if (TableReady == 0) {
        TableReady = 1;
        for (auto &slot : FileTable) {
            slot.handle = NoFile;
            memset(slot.mode, 0, ModeBytes);
        }
        return 0;
    }
    for (int32_t i = 0; i < FileTableSlots; ++i)
        if (FileTable[i].handle == handle) return i;
    return -1;
}

void TranslateChars(char *text, const char *to, const char *from) {
    if (text == nullptr || to == nullptr || from == nullptr) return;
    size_t toLength = strlen(to);
    for (char *c = text; *c != '\0'; ++c) {
        for (size_t i = 0; from[i] != '\0'; ++i) {
            if (*c == from[i]) *c = i < toLength ? to[i] : ' ';
        }
    }
}

void TrimBlanks(char *text) {
    if (text == nullptr) return;
    size_t start = 0;
    while (text[start] == ' ') ++start;
    size_t end = strlen(text + start) + start;
    while (end > start && text[end - 1] == ' ') --end;
    memmove(text, text + start, end - start);
    text[end - start] = '\0';
}

void ForgetReadWindows() {
    for (FileSlot &slot : FileTable) slot.window.length = 0;
}

const uint8_t *ReadInPlace(ManagedFile file, uint32_t count) {
    if (count == 0) return nullptr;
    const int32_t slot = FindFileSlot(file);
    if (slot < 0 || strcmp(FileTable[slot].mode, "r") != 0) return nullptr;
    ReadWindow &w = FileTable[slot].window;
    // Only a window already made (the first read of a file makes it, with
    // a small first fill) and large enough for the bytes.
    if (!w.buffered || w.bytes == nullptr || count > w.capacity) return nullptr;
    auto held = [&] {
        return w.position >= w.start && uint64_t(w.position) + count <= uint64_t(w.start) + w.length;
    };
    if (!held()) {
        bool failed = false;
        if (!FillWindow(file, w, failed) || !held()) return nullptr;
    }
    const uint8_t *bytes = w.bytes + (w.position - w.start);
    w.position += count;
    return bytes;
}

ManagedFile TL_OPEN(const char *name, const char *mode) {
    if (name == nullptr) {
        ReportError(Title, "TL_OPEN  filename==NULL", 0);
        return NoFile;
    }
    if (strnlen(name, NameLimit) >= NameLimit) {
        ReportError(Title, "TL_OPEN  filename too long", 0);
        return NoFile;
    }
    strcpy(TextBuffer, name);
    TranslateChars(TextBuffer, "   ", "\t\r\n");
    TrimBlanks(TextBuffer);
    if (TextBuffer[0] == '\0') {
        ReportError(Title, "TL_OPEN  empty filename", 0);
        return NoFile;
    }
    int32_t slot = FindFileSlot(NoFile);
    if (slot < 0) {
        wsprintfA(TextBuffer, "TL_OPEN  More than %d Files open", FileTableSlots);
        ReportError(Title, TextBuffer, 0);
        return NoFile;
    }

    if (mode == nullptr) mode = "";
    char normal[ModeBytes] = {};
    size_t length = 0;
    for (char letter : {'w', 'r', 'a'})
        if (strchr(mode, letter) != nullptr) normal[length++] = letter;
    if (length != 1) {
        ReportError(Title, "TL_OPEN  Illegal mode", 0);
        return NoFile;
    }
    if (strchr(mode, '+') != nullptr) normal[length++] = '+';
    if (strchr(mode, 't') != nullptr) {
        ReportError(Title, "TL_OPEN  Illegal mode='t'", 0);
        return NoFile;
    }

    const ModeAccess *how = nullptr;
    for (const auto &entry : ModeTable)
        if (strcmp(entry.mode, normal) == 0) how = &entry;

    HANDLE handle = CreateFileA(name, how->access, how->share, nullptr, how->disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    ManagedFile file = handle == INVALID_HANDLE_VALUE ? NoFile : AsManaged(handle);
    FileTable[slot].handle = file;
    if (file == NoFile) {
        ReportOpenFailure("TL_OPEN  Can't open File %s in Mode %s", name, mode);
        return NoFile;
    }
    if (normal[0] == 'a' && TL_SEEK(file, 0, 2) != 0) {
        // The file stays open in its slot with an empty mode; the caller
        // holds only -1, so the slot is lost for the life of the library.
        ReportOpenFailure("TL_OPEN  Can't open File %s in Mode %s (SEEK_END failed)", name, mode);
        return NoFile;
    }
    memcpy(FileTable[slot].mode, normal, ModeBytes);
    FileTable[slot].window = ReadWindow{};
    FileTable[slot].window.buffered = strcmp(normal, "r") == 0;
    return file;
}

uint32_t TL_READ(void *buffer, uint32_t count, ManagedFile file) {
    if (count == 0) return 0;
    if (buffer == nullptr) {
        ReportError(Title, "TL_READ  buffer==NULL", 0);
        return 0;
    }
    int32_t slot = FindFileSlot(file);
    if (slot < 0) {
        ReportError(Title, "TL_READ  Invalid FileHandle", 0);
        return 0;
    }
    if (strchr(FileTable[slot].mode, 'r') == nullptr && strchr(FileTable[slot].mode, '+') == nullptr) {
        ReportError(Title, "TL_READ  File not Open for Reading", 0);
        return 0;
    }
    ReadWindow &window = FileTable[slot].window;
    if (window.buffered) return ReadWindowed(file, window, static_cast<uint8_t *>(buffer), count);
    DWORD read = 0;
    if (!ReadFile(AsHandle(file), buffer, count, &read, nullptr)) return 0;
    return read;
}

uint32_t TL_TELL(ManagedFile file) {
    int32_t slot = FindFileSlot(file);
    if (slot < 0) {
        ReportError(Title, "TL_TELL  Invalid FileHandle", 0);
        return 0;
    }
    if (FileTable[slot].window.buffered) return FileTable[slot].window.position;
    return SetFilePointer(AsHandle(file), 0, nullptr, FILE_CURRENT);
}

int32_t TL_SEEK(ManagedFile file, int32_t offset, int32_t method) {
    int32_t slot = FindFileSlot(file);
    if (slot < 0) {
        ReportError(Title, "TL_SEEK  Invalid FileHandle", 0);
        return 0;
    }
    if (method < 0 || method > 2) {
        ReportError(Title, "TL_SEEK  Invalid method specification", 0);
        return 0;
    }
    if (FileTable[slot].window.buffered) return SeekWindowed(file, FileTable[slot].window, offset, method);
    return SetFilePointer(AsHandle(file), offset, nullptr, DWORD(method)) == INVALID_SET_FILE_POINTER ? 1 : 0;
}

void TL_REWIND(ManagedFile file) {
    int32_t slot = FindFileSlot(file);
    if (slot < 0) {
        ReportError(Title, "TL_REWIND  Invalid FileHandle", 0);
        return;
    }
    if (FileTable[slot].window.buffered) {
        SeekWindowed(file, FileTable[slot].window, 0, 0);
        return;
    }
    SetFilePointer(AsHandle(file), 0, nullptr, FILE_BEGIN);
}

uint32_t TL_FILELENGTH(ManagedFile file) {
    if (FindFileSlot(file) < 0) {
        ReportError(Title, "TL_FILELENGTH  Invalid FileHandle", 0);
        return 0xFFFFFFFFu;
    }
    return GetFileSize(AsHandle(file), nullptr);
}

int32_t TL_CLOSE(ManagedFile file) {
    int32_t slot = FindFileSlot(file);
    if (slot < 0) return -1;
    BOOL closed = CloseHandle(AsHandle(file));
    delete[] FileTable[slot].window.bytes;
    FileTable[slot].window = ReadWindow{};
    FileTable[slot].handle = NoFile;
    memset(FileTable[slot].mode, 0, ModeBytes);
    return closed ? 0 : 1;
}
