// messages.cpp - last error, system error text, the message box, and the
// calling thread's message queue (whose calls a host reaches as exports).
//
// Error codes are errno values.  The message box has no window to show on
// POSIX: it writes one line "title: text" to stderr and answers OK at once.
// The message queue is a per-thread list in posting order; nothing but the
// library and its host post to it.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>

#include "platform/win32.h"

namespace {

thread_local DWORD lastError = 0;
thread_local std::deque<MSG> queue;

constexpr size_t MaxQueued = 10000;  // Win32's default limit of a thread's posted messages
constexpr int IDOK = 1;

bool InRange(UINT message, UINT first, UINT last) {
    if (first == 0 && last == 0) return true;
    return message >= first && message <= last;
}

// A window filter of NULL takes every message; (HWND)-1 those posted with no
// window; any other value those of that window.
bool ForWindow(HWND posted, HWND filter) {
    if (!filter) return true;
    if (filter == reinterpret_cast<HWND>(intptr_t(-1))) return posted == nullptr;
    return posted == filter;
}

}  // namespace

DWORD GetLastError() { return lastError; }
void SetLastError(DWORD code) { lastError = code; }

// Only FORMAT_MESSAGE_FROM_SYSTEM is served: the text of an errno value.
// Win32 quirk: with FORMAT_MESSAGE_ALLOCATE_BUFFER, `buffer` is really a
// char ** in disguise; it receives a fixed LocalAlloc'd copy of the text that
// the caller gives back with LocalFree.  Without that flag the text is
// copied into `buffer` of `size` bytes, and 0 comes back when it does not
// fit.  The result is the length of the text; 0 for code 0, for a code with
// no text of its own, and on failure (`buffer` untouched then).
DWORD FormatMessageA(DWORD flags, const void *source, DWORD code, DWORD language, char *buffer, DWORD size,
                     void *arguments) {
    (void)source;
    (void)language;
    (void)arguments;
    if (!(flags & FORMAT_MESSAGE_FROM_SYSTEM) || !buffer || code == 0 || code > 0x7FFFFFFFu) {
        SetLastError(EINVAL);
        return 0;
    }
    char scratch[256];
    const char *text = strerror_r(int(code), scratch, sizeof scratch);  // the GNU form
    if (!text || !*text || std::strncmp(text, "Unknown error", 13) == 0) {
        SetLastError(EINVAL);
        return 0;
    }
    size_t length = std::strlen(text);
    if (flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) {
        auto *copy = static_cast<char *>(LocalAlloc(0, length + 1));  // fixed: the handle is the address
        if (!copy) return 0;
        std::memcpy(copy, text, length + 1);
        *reinterpret_cast<char **>(buffer) = copy;
    } else {
        if (length + 1 > size) {
            SetLastError(ENOBUFS);
            return 0;
        }
        std::memcpy(buffer, text, length + 1);
    }
    return DWORD(length);
}

// A NULL title shows as "Error", as on Win32; a NULL text as nothing.
int MessageBoxA(HWND owner, const char *text, const char *title, UINT type) {
    (void)owner;
    (void)type;
    std::fprintf(stderr, "%s: %s\n", title ? title : "Error", text ? text : "");
    std::fflush(stderr);
    return IDOK;
}

void PostQuitMessage(int exitCode) {
    MSG quit{};
    quit.message = WM_QUIT;
    quit.wParam = WPARAM(intptr_t(exitCode));
    if (queue.size() < MaxQueued) queue.push_back(quit);
}

extern "C" BOOL PostMessageA(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (queue.size() >= MaxQueued) {
        SetLastError(ENOSPC);
        return 0;
    }
    MSG posted{};
    posted.hwnd = window;
    posted.message = message;
    posted.wParam = wParam;
    posted.lParam = lParam;
    queue.push_back(posted);
    return 1;
}

// The first message in posting order whose number lies in [first, last]
// (both 0: any) and whose window passes the filter.
extern "C" BOOL PeekMessageA(MSG *msg, HWND window, UINT first, UINT last, UINT remove) {
    if (!msg) return 0;
    for (auto it = queue.begin(); it != queue.end(); ++it) {
        if (!InRange(it->message, first, last) || !ForWindow(it->hwnd, window)) continue;
        *msg = *it;
        if (remove & PM_REMOVE) queue.erase(it);
        return 1;
    }
    return 0;
}

// Not 0 while a keyboard or mouse message waits.
extern "C" BOOL GetInputState() {
    for (const MSG &waiting : queue) {
        if ((waiting.message >= WM_KEYFIRST && waiting.message <= WM_KEYLAST) ||
            (waiting.message >= WM_MOUSEFIRST && waiting.message <= WM_MOUSELAST))
            return 1;
    }
    return 0;
}
