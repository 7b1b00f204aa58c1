// files.cpp - the managed file table.
//
// Every file a reader touches is opened, read, positioned and closed here.
// Each handle is checked against the table of the files this layer opened,
// and misuse is reported under the title "TOPEN".
#include "services/files.h"

#include <cstring>
#include <initializer_list>

#include "platform/win32.h"
#include "services/errors.h"

namespace {

constexpr const char *Title = "TOPEN";
constexpr size_t NameLimit = 260;  // a name must stay below this length
constexpr size_t ModeBytes = 8;

struct FileSlot {
    ManagedFile handle;
    char mode[ModeBytes];
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
    DWORD read = 0;
    if (!ReadFile(AsHandle(file), buffer, count, &read, nullptr)) return 0;
    return read;
}

uint32_t TL_TELL(ManagedFile file) {
    if (FindFileSlot(file) < 0) {
        ReportError(Title, "TL_TELL  Invalid FileHandle", 0);
        return 0;
    }
    return SetFilePointer(AsHandle(file), 0, nullptr, FILE_CURRENT);
}

int32_t TL_SEEK(ManagedFile file, int32_t offset, int32_t method) {
    if (FindFileSlot(file) < 0) {
        ReportError(Title, "TL_SEEK  Invalid FileHandle", 0);
        return 0;
    }
    if (method < 0 || method > 2) {
        ReportError(Title, "TL_SEEK  Invalid method specification", 0);
        return 0;
    }
    return SetFilePointer(AsHandle(file), offset, nullptr, DWORD(method)) == INVALID_SET_FILE_POINTER ? 1 : 0;
}

void TL_REWIND(ManagedFile file) {
    if (FindFileSlot(file) < 0) {
        ReportError(Title, "TL_REWIND  Invalid FileHandle", 0);
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
    FileTable[slot].handle = NoFile;
    memset(FileTable[slot].mode, 0, ModeBytes);
    return closed ? 0 : 1;
}
