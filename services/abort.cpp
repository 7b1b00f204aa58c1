// abort.cpp - polling the calling thread's queue for the user's wish to stop.
//
// An abort is Escape or Cancel pressed (WM_KEYDOWN), Alt+F4 (WM_SYSKEYDOWN
// with F4), or a quit or end-of-session message.  Once seen it is latched
// for as long as the library is loaded; clearing the host's abort flag only
// hides it.  A poll never loses a message: what it takes out of the queue it
// posts back, in the order taken.
#include "services/abort.h"

#include "platform/win32.h"
#include "services/errors.h"

namespace {

// Set when an abort has been seen; nothing clears it.
int32_t AbortLatched = 0;

// A poll examines at most this many waiting messages.
constexpr int AbortPollSlots = 10;
// Exit code of the quit message an abort key leaves for the host.
constexpr int AbortQuitCode = 4;

bool IsAbortKey(const MSG &message) {
    if (message.message == WM_KEYDOWN) return message.wParam == VK_ESCAPE || message.wParam == VK_CANCEL;
    if (message.message == WM_SYSKEYDOWN) return message.wParam == VK_F4;
    return false;
}

}  // namespace

int32_t AbortFromMessage(MSG *message) {
    if (GetAbortEnabled() == 0) return 0;
    if (AbortLatched) return 1;
    if (!message) return 0;
    if (message->message == WM_QUIT || message->message == WM_ENDSESSION) {
        // The host is ending already: no quit message of our own.
        AbortLatched = 1;
        return 1;
    }
    if (IsAbortKey(*message)) {
        PostQuitMessage(AbortQuitCode);
        AbortLatched = 1;
        return 1;
    }
    return 0;
}

int32_t AbortPoll(MSG *message) {
    if (GetAbortEnabled() == 0) return 0;
    if (AbortLatched) return 1;
    if (message && AbortFromMessage(message)) return 1;
    // Without keyboard or mouse input waiting the queue is not touched.
    if (GetInputState() == 0) return 0;

    MSG taken[AbortPollSlots];
    int count = 0;
    int32_t result = 0;
    while (count < AbortPollSlots) {
        MSG &slot = taken[count];
        if (!PeekMessageA(&slot, nullptr, WM_KEYFIRST, WM_KEYLAST, PM_REMOVE) &&
            !PeekMessageA(&slot, nullptr, WM_QUIT, WM_ENDSESSION, PM_REMOVE))
            break;
        ++count;  // the message that decides counts among those taken
        if (AbortFromMessage(&slot)) {
            result = 1;
            break;
        }
    }
    // Everything taken goes back, the deciding message too, behind whatever
    // else is waiting.
    for (int i = 0; i < count; ++i) {
        const MSG &m = taken[i];
        if (!PostMessageA(m.hwnd, m.message, m.wParam, m.lParam)) break;
    }
    return result;
}
