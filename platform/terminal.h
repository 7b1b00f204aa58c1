// terminal.h - what the command-line tool asks of the console it runs in.
#pragma once

#if defined(_WIN32)
#include <io.h>
#include <stdio.h>
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#else
#include <sys/ioctl.h>
#include <unistd.h>
#endif

namespace platform {

// Columns of the console that standard output shows in; 0 when unknown
// (output to a file or a pipe).
inline int StdoutColumns() {
#if defined(_WIN32)
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &info))
        return info.srWindow.Right - info.srWindow.Left + 1;
    return 0;
#else
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) return size.ws_col;
    return 0;
#endif
}

// Whether standard output is a terminal.
inline bool StdoutIsTerminal() {
#if defined(_WIN32)
    return _isatty(_fileno(stdout)) != 0;
#else
    return isatty(STDOUT_FILENO) != 0;
#endif
}

// Whether a file of that name exists.
inline bool FileExists(const char *name) {
#if defined(_WIN32)
    return _access(name, 0) == 0;
#else
    return access(name, F_OK) == 0;
#endif
}

}  // namespace platform
