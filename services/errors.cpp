// errors.cpp - error state, reporting and the error exports.
#include "services/errors.h"

#include <cstring>

#include "platform/win32.h"

namespace {

int32_t ErrorPending = 0;
int32_t ErrorContinue = 1;
int32_t ErrorBox = 1;
int32_t AbortEnabled = 1;
TL_ERROR_CALLBACK ErrorCallback = nullptr;

constexpr size_t BoxTextBytes = 512;
constexpr UINT BoxFlags = MB_TASKMODAL | MB_SETFOREGROUND;  // 0x12000: plain OK box, no owner
constexpr int QuitExitCode = 4;

// The box's text: `text`, then a line feed and as much of the system's text
// of the last failed call as fits 512 bytes with the final NUL.
void BuildBoxText(char (&box)[BoxTextBytes], const char *text) {
    size_t length = strnlen(text, BoxTextBytes - 1);
    memcpy(box, text, length);
    box[length] = '\0';

    char *system = nullptr;
    DWORD got = FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, GetLastError(),
                               0x400, reinterpret_cast<char *>(&system), 0, nullptr);
    if (got == 0 || system == nullptr) return;
    if (length + 1 < BoxTextBytes) {
        box[length++] = '\n';
        size_t room = BoxTextBytes - length;  // terminator included
        size_t copy = strnlen(system, room - 1);
        memcpy(box + length, system, copy);
        box[length + copy] = '\0';
    }
    LocalFree(system);
}

}  // namespace

void ReportError(const char *title, const char *text, int32_t withSystemText) {
    if (title == nullptr) title = "";
    if (text == nullptr) text = "";
    if (ErrorCallback != nullptr) {
        ErrorCallback(title, text, withSystemText);
        ErrorPending = 1;
        if (ErrorContinue == 0) PostQuitMessage(QuitExitCode);
        return;
    }
    if (ErrorPending != 0) return;  // only the first report after a clear is shown
    ErrorPending = 1;
    if (ErrorBox != 0) {
        if (withSystemText == 0) {
            MessageBoxA(nullptr, text, title, BoxFlags);
        } else {
            char box[BoxTextBytes];
            BuildBoxText(box, text);
            MessageBoxA(nullptr, box, title, BoxFlags);
        }
    }
    if (ErrorContinue == 0) PostQuitMessage(QuitExitCode);
}

int32_t ErrorStatus() { return ErrorPending != 0 ? 1 : 0; }

bool ReportIsHeard() { return ErrorCallback != nullptr || ErrorPending == 0; }

int32_t ErrorClear() {
    int32_t before = ErrorPending;
    ErrorPending = 0;
    return before;
}

int32_t SetErrorContinue(int32_t value) {
    int32_t before = ErrorContinue;
    ErrorContinue = value;
    return before;
}
int32_t SetErrorBox(int32_t value) {
    int32_t before = ErrorBox;
    ErrorBox = value;
    return before;
}
int32_t SetAbortEnabled(int32_t value) {
    int32_t before = AbortEnabled;
    AbortEnabled = value;
    return before;
}
TL_ERROR_CALLBACK SetErrorCallback(TL_ERROR_CALLBACK value) {
    TL_ERROR_CALLBACK before = ErrorCallback;
    ErrorCallback = value;
    return before;
}
int32_t GetErrorContinue() { return ErrorContinue; }
int32_t GetErrorBox() { return ErrorBox; }
int32_t GetAbortEnabled() { return AbortEnabled; }

SilentAttempt::SilentAttempt() : savedContinue(GetErrorContinue()), savedBox(GetErrorBox()) {
    SetErrorContinue(1);
    SetErrorBox(0);
}

SilentAttempt::~SilentAttempt() {
    SetErrorContinue(savedContinue);
    SetErrorBox(savedBox);
    ErrorClear();
}

// The exports.  ERROR_FLAGS_E gives no result: the callback before is of no
// use to a host that has just replaced it.
extern "C" TL_API void TL_CALL ERROR_FLAGS_E(int32_t cont, int32_t box, int32_t abort, TL_ERROR_CALLBACK callback) {
    platform::ExportLock hold;
    SetErrorContinue(cont);
    SetErrorBox(box);
    SetAbortEnabled(abort);
    SetErrorCallback(callback);
}

extern "C" TL_API int32_t TL_CALL TL_ERRORSTATUS_E(void) {
    platform::ExportLock hold;
    return ErrorStatus();
}
extern "C" TL_API int32_t TL_CALL TL_CLEARERROR_E(void) {
    platform::ExportLock hold;
    return ErrorClear();
}
