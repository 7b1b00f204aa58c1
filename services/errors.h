// errors.h - the library's error state and its one reporting routine.
//
// A routine that fails calls ReportError and returns 0 or -1; ReportError
// leaves ErrorPending set on every path, and callers test ErrorStatus()
// after each step that can fail.  The host chooses with ERROR_FLAGS_E what
// a report does: a box, a callback, a quit message, or nothing but the flag.
#pragma once

#include <cstdint>

#include "tolimage.h"

// Report a failure.  withSystemText not 0 adds the system's text of the last
// failed system call to the box.
void ReportError(const char *title, const char *text, int32_t withSystemText);

int32_t ErrorStatus();  // 1 if a report was made since the last clear

// False when a report now would change nothing: an error is pending and no
// callback is installed, so the box, the quit message and the flag are all
// settled.  A routine that reports once per row skips formatting its text.
bool ReportIsHeard();
int32_t ErrorClear();   // clears; returns the state before

// Each setter stores its value and returns the value before.
int32_t SetErrorContinue(int32_t value);
int32_t SetErrorBox(int32_t value);
int32_t SetAbortEnabled(int32_t value);
TL_ERROR_CALLBACK SetErrorCallback(TL_ERROR_CALLBACK value);
int32_t GetErrorContinue();
int32_t GetErrorBox();
int32_t GetAbortEnabled();

// A silent attempt: the host hears no box and gets no quit message while one
// is alive, and what the attempt reported is cleared when it ends.  An
// installed callback still hears every report.
struct SilentAttempt {
    int32_t savedContinue;
    int32_t savedBox;
    SilentAttempt();
    ~SilentAttempt();
    SilentAttempt(const SilentAttempt &) = delete;
    SilentAttempt &operator=(const SilentAttempt &) = delete;
};
