// dialog.cpp - the open and save dialogs, and the path splitting around them.
//
// POSIX has no system file dialog.  A host installs its own with
// TlSetFileDialog; without one the user is asked on the process's terminal,
// and a process without a terminal in the foreground cancels at once, so
// that a service or a script never hangs on a question nobody sees.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/win32.h"

namespace {

constexpr size_t PathBytes = 260;
// Longest line read from the terminal; the rest of a longer line is
// dropped and the answer refused as too long.
constexpr size_t MaxAnswerBytes = 4096;

TL_FILE_DIALOG hostDialog = nullptr;

// Copies at most `bytes` - 1 characters and a NUL.
void CopyCut(char *target, const char *source, size_t bytes) {
    if (!target || bytes == 0) return;
    size_t n = 0;
    while (source && source[n] != '\0' && n + 1 < bytes) ++n;
    if (n) std::memcpy(target, source, n);
    target[n] = '\0';
}

// The terminal the user can be asked on, if the process has one and runs in
// its foreground (a background job reading it would be stopped).
struct Terminal {
    int in = -1;
    int out = -1;
    bool owned = false;

    bool Open() {
        const int fd = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (fd >= 0) {
            if (Foreground(fd)) {
                in = out = fd;
                owned = true;
                return true;
            }
            close(fd);
            return false;
        }
        if (isatty(STDIN_FILENO) && isatty(STDERR_FILENO) && Foreground(STDIN_FILENO)) {
            in = STDIN_FILENO;
            out = STDERR_FILENO;
            return true;
        }
        return false;
    }
    ~Terminal() {
        if (owned) close(in);
    }
    // A terminal that is not the controlling one has no foreground to lose.
    static bool Foreground(int fd) {
        const pid_t group = tcgetpgrp(fd);
        return group < 0 || group == getpgrp();
    }
    bool Say(const std::string &text) const {
        size_t done = 0;
        while (done < text.size()) {
            const ssize_t wrote = write(out, text.data() + done, text.size() - done);
            if (wrote < 0 && errno == EINTR) continue;
            if (wrote <= 0) return false;
            done += size_t(wrote);
        }
        return true;
    }
    // One line without its line end; false at the end of input or on an
    // error.  `tooLong` tells that the line did not fit MaxAnswerBytes.
    bool ReadLine(std::string &line, bool &tooLong) const {
        line.clear();
        tooLong = false;
        for (;;) {
            char c;
            const ssize_t got = read(in, &c, 1);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) return !line.empty() || tooLong;
            if (c == '\n') break;
            if (line.size() < MaxAnswerBytes)
                line += c;
            else
                tooLong = true;
        }
        if (!line.empty() && line.back() == '\r') line.pop_back();
        return true;
    }
};

std::string TrimmedBlanks(const std::string &text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    const size_t last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

// The absolute form of an answer: "~/" is the home directory, and a
// relative path counts from the directory the dialog opened in.  Empty
// when it does not fit a path buffer.
std::string ResolveAnswer(const std::string &answer, const char *initialDir) {
    std::string path = answer;
    const char *home = std::getenv("HOME");
    if ((path == "~" || path.rfind("~/", 0) == 0) && home && home[0] == '/') path = home + path.substr(1);
    if (path[0] != '/' && initialDir && initialDir[0] != '\0') {
        path = std::string(initialDir) + (initialDir[std::strlen(initialDir) - 1] == '/' ? "" : "/") + path;
    }
    if (path.size() >= PathBytes) return {};
    char full[PathBytes];
    if (!_fullpath(full, path.c_str(), PathBytes)) return {};
    return full;
}

bool IsDirectory(const std::string &path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool IsReadableFile(const std::string &path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && !S_ISDIR(info.st_mode) && access(path.c_str(), R_OK) == 0;
}

bool Exists(const std::string &path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0;
}

// The terminal's dialog: tells what is asked and reads a path until one
// satisfies the flags; an empty line or the end of input cancels.
int32_t AskOnTerminal(TL_FILE_REQUEST *request) {
    Terminal terminal;
    if (!terminal.Open()) return 0;
    const bool save = request->save != 0;
    std::string intro = "\n";
    intro += request->title && request->title[0] ? request->title : (save ? "Save As" : "Open");
    intro += "\n";
    if (request->filterLabel) {
        intro += std::string("  File type:  ") + request->filterLabel;
        if (request->filterPattern) intro += std::string("  [") + request->filterPattern + "]";
        intro += "\n";
    }
    const char *directory = request->initialDir;
    intro += std::string("  Directory:  ") + (directory && directory[0] ? directory : "(the current directory)") + "\n";
    intro += std::string("  File name:  ") + (request->file[0] ? request->file : "(none)") + "\n";
    if (!terminal.Say(intro)) return 0;

    for (;;) {
        if (!terminal.Say(save ? "Save as (empty line cancels): " : "File to open (empty line cancels): ")) return 0;
        std::string line;
        bool tooLong = false;
        if (!terminal.ReadLine(line, tooLong)) {
            terminal.Say("\n");
            return 0;
        }
        if (tooLong) {
            if (!terminal.Say("  That path is too long.\n")) return 0;
            continue;
        }
        const std::string answer = TrimmedBlanks(line);
        if (answer.empty()) return 0;
        const std::string path = ResolveAnswer(answer, directory);
        if (path.empty() || path.size() + 1 > request->fileBytes) {
            if (!terminal.Say("  That path is too long.\n")) return 0;
            continue;
        }
        const std::string parent = path.substr(0, path.find_last_of('/') + 1);
        if ((request->flags & OFN_PATHMUSTEXIST) && !IsDirectory(parent)) {
            if (!terminal.Say("  No such directory: " + parent + "\n")) return 0;
            continue;
        }
        if ((request->flags & OFN_FILEMUSTEXIST) && !IsReadableFile(path)) {
            if (!terminal.Say("  No readable file: " + path + "\n")) return 0;
            continue;
        }
        if (save && (request->flags & OFN_OVERWRITEPROMPT) && Exists(path)) {
            if (!terminal.Say("  " + path + " exists. Replace it? [y/N] ")) return 0;
            std::string reply;
            if (!terminal.ReadLine(reply, tooLong)) return 0;
            reply = TrimmedBlanks(reply);
            if (reply != "y" && reply != "Y" && reply != "yes") continue;
        }
        CopyCut(request->file, path.c_str(), request->fileBytes);
        return 1;
    }
}

// Label and patterns of filter pair `index` (from 1), or NULLs.
void FindFilter(const char *filters, DWORD index, const char **label, const char **patterns) {
    *label = *patterns = nullptr;
    if (!filters || index == 0) return;
    const char *pair = filters;
    for (DWORD i = 1; pair[0] != '\0'; ++i) {
        const char *list = pair + std::strlen(pair) + 1;
        if (list[0] == '\0') return;
        if (i == index) {
            *label = pair;
            *patterns = list;
            return;
        }
        pair = list + std::strlen(list) + 1;
    }
}

// Both dialogs: ask, then put the chosen full path into lpstrFile, its name
// into lpstrFileTitle and the offsets of name and extension into the record.
BOOL ShowFileDialog(OPENFILENAMEA *record, bool save) {
    if (!record || record->lStructSize != OPENFILENAME_SIZE_VERSION_400 || !record->lpstrFile ||
        record->nMaxFile == 0)
        return 0;
    // The proposed name and the answer live in a path buffer of our own;
    // lpstrFile changes only after a confirmed answer that fits it.
    char answer[PathBytes];
    CopyCut(answer, "", sizeof answer);
    {
        const DWORD limit = record->nMaxFile < PathBytes ? record->nMaxFile : DWORD(PathBytes);
        size_t n = 0;
        while (n + 1 < limit && record->lpstrFile[n] != '\0') ++n;
        std::memcpy(answer, record->lpstrFile, n);
        answer[n] = '\0';
    }
    TL_FILE_REQUEST request{};
    request.size = sizeof request;
    request.save = save ? 1 : 0;
    request.flags = record->Flags;
    request.title = record->lpstrTitle ? record->lpstrTitle : "";
    request.filters = record->lpstrFilter;
    request.filterIndex = record->nFilterIndex;
    FindFilter(record->lpstrFilter, record->nFilterIndex, &request.filterLabel, &request.filterPattern);
    request.initialDir = record->lpstrInitialDir ? record->lpstrInitialDir : "";
    request.file = answer;
    request.fileBytes = sizeof answer;

    const int32_t confirmed = hostDialog ? hostDialog(&request) : AskOnTerminal(&request);
    if (!confirmed) return 0;
    // A host's answer is trusted no further than the buffer it was given.
    if (!std::memchr(answer, '\0', sizeof answer)) return 0;
    const std::string chosen = TrimmedBlanks(answer);
    if (chosen.empty()) return 0;
    const std::string path = ResolveAnswer(chosen, request.initialDir);
    if (path.empty() || path.size() + 1 > record->nMaxFile) return 0;

    std::memcpy(record->lpstrFile, path.c_str(), path.size() + 1);
    const size_t nameAt = path.find_last_of('/') + 1;
    const size_t dot = path.find_last_of('.');
    record->nFileOffset = WORD(nameAt);
    record->nFileExtension = WORD(dot != std::string::npos && dot >= nameAt ? dot + 1 : path.size());
    if (record->lpstrFileTitle && record->nMaxFileTitle > 0)
        CopyCut(record->lpstrFileTitle, path.c_str() + nameAt, record->nMaxFileTitle);
    return 1;
}

}  // namespace

TL_FILE_DIALOG TlSetFileDialog(TL_FILE_DIALOG dialog) {
    platform::ExportLock hold;  // the dialog is read while an export holds the lock
    const TL_FILE_DIALOG before = hostDialog;
    hostDialog = dialog;
    return before;
}

BOOL GetOpenFileNameA(OPENFILENAMEA *record) { return ShowFileDialog(record, false); }
BOOL GetSaveFileNameA(OPENFILENAMEA *record) { return ShowFileDialog(record, true); }

HWND GetActiveWindow() { return nullptr; }

void _splitpath(const char *path, char *drive, char *directory, char *name, char *extension) {
    if (!path) path = "";
    const char *slash = std::strrchr(path, '/');
    const char *base = slash ? slash + 1 : path;
    const char *dot = std::strrchr(base, '.');
    const char *end = path + std::strlen(path);
    if (!dot) dot = end;
    auto part = [](char *target, const char *from, const char *to) {
        if (!target) return;
        size_t n = size_t(to - from);
        if (n > PathBytes - 1) n = PathBytes - 1;
        std::memcpy(target, from, n);
        target[n] = '\0';
    };
    part(drive, path, path);  // POSIX paths have no drive
    part(directory, path, base);
    part(name, base, dot);
    part(extension, dot, end);
}
