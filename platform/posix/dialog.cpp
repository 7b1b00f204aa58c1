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

#include "platform/host_dialog.h"

namespace {

using platform::CopyCut;
using platform::PathBytes;
using platform::ResolveAnswer;
using platform::TrimmedBlanks;

// Longest line read from the terminal; the rest of a longer line is
// dropped and the answer refused as too long.
constexpr size_t MaxAnswerBytes = 4096;

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
int32_t TL_CALL AskOnTerminal(TL_FILE_REQUEST *request) {
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

}  // namespace

BOOL platform::ShowFileDialog(OPENFILENAMEA *record, bool save) {
    const TL_FILE_DIALOG host = platform::HostDialog();
    return platform::AskThrough(host ? host : AskOnTerminal, record, save);
}

BOOL GetOpenFileNameA(OPENFILENAMEA *record) { return platform::ShowFileDialog(record, false); }
BOOL GetSaveFileNameA(OPENFILENAMEA *record) { return platform::ShowFileDialog(record, true); }

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
