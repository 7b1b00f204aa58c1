// Error state and reporting: what a report does under each choice of flags.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "platform/win32.h"
#include "services/errors.h"
#include "support/support.h"

namespace {

// Quit messages waiting on this thread's queue (each with code 4), taken out.
int TakeQuitMessages() {
    int count = 0;
    for (MSG msg; PeekMessageA(&msg, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE); ++count) EXPECT_EQ(msg.wParam, 4u);
    return count;
}

std::string BoxOf(const char *title, const char *text, int32_t withSystemText) {
    testing::internal::CaptureStderr();
    ReportError(title, text, withSystemText);
    return testing::internal::GetCapturedStderr();
}

class Errors : public testing::Test {
  protected:
    void SetUp() override { TearDown(); }
    void TearDown() override {
        ERROR_FLAGS_E(1, 1, 1, nullptr);
        TL_CLEARERROR_E();
        TakeQuitMessages();
    }
};

// Two reports in a row under each choice of flags: the error stays pending, only the first is shown, and a
// callback hears both (and then no box shows).
TEST_F(Errors, TwoReportsUnderEveryChoiceOfFlags) {
    TL_POSIX_ONLY("on Windows the report's message box is a window, which no test may wait on");
    const struct { int32_t cont, box; bool callback; int quits; const char *shown; } cases[] = {
        {1, 1, false, 0, "T: first\n"}, {0, 1, false, 1, "T: first\n"}, {1, 0, false, 0, ""},
        {0, 0, false, 1, ""},           {1, 1, true, 0, ""},             {0, 0, true, 2, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.cont << c.box << c.callback);
        test::Recorder recorder(c.cont, c.box);
        if (!c.callback) ERROR_FLAGS_E(c.cont, c.box, 1, nullptr);
        SetLastError(0);
        std::string shown = BoxOf("T", "first", 0);
        EXPECT_EQ(TL_ERRORSTATUS_E(), 1);
        shown += BoxOf("T", "second", 1);
        EXPECT_EQ(TL_ERRORSTATUS_E(), 1);
        EXPECT_EQ(shown, c.shown);
        EXPECT_EQ(TakeQuitMessages(), c.quits);
        std::string heard;
        for (const auto &r : recorder.reports) heard += r.title + ":" + r.text + ":" + std::to_string(r.withSystemText) + " ";
        EXPECT_EQ(heard, c.callback ? "T:first:0 T:second:1 " : "");
    }
    // After a clear the next report is shown again.
    EXPECT_EQ(BoxOf("A", "again", 0), "A: again\n");
    EXPECT_EQ(TL_CLEARERROR_E(), 1);
    EXPECT_EQ(TL_CLEARERROR_E(), 0);
    EXPECT_EQ(BoxOf("A", "again", 0), "A: again\n");
}

TEST_F(Errors, SystemTextFollowsALineFeedWithinTheBox) {
    TL_POSIX_ONLY("on Windows the report's message box is a window, which no test may wait on");
    const std::string longText(505, 'x');  // the box holds 511 characters and its NUL
    const struct { DWORD code; std::string text, shown; } cases[] = {
        {ENOENT, "scan.bmp", "T: scan.bmp\nNo such file or directory\n"},
        {0, "scan.bmp", "T: scan.bmp\n"},  // no system text: no line feed
        {ENOENT, longText, "T: " + longText + "\nNo su\n"},
    };
    for (const auto &c : cases) {
        TL_CLEARERROR_E();
        SetLastError(c.code);
        EXPECT_EQ(BoxOf("T", c.text.c_str(), 1), c.shown);
    }
}

TEST_F(Errors, SilentAttemptHidesTheBoxAndRestoresTheFlags) {
    ERROR_FLAGS_E(0, 1, 1, nullptr);
    testing::internal::CaptureStderr();
    {
        SilentAttempt silent;
        ReportError("ReadRAS", "hidden", 1);
        EXPECT_EQ(ErrorStatus(), 1);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(TakeQuitMessages() + ErrorStatus() + GetErrorContinue(), 0);
    EXPECT_EQ(GetErrorBox(), 1);
    test::Recorder recorder(1, 1);
    {
        SilentAttempt silent;
        ReportError("ReadRAS", "heard", 0);
    }
    EXPECT_EQ(recorder.reports.size(), 1u) << "a callback still hears a silent attempt";
    EXPECT_EQ(ErrorStatus(), 0);
    // The setters return the value before.
    ERROR_FLAGS_E(7, 8, 9, nullptr);
    EXPECT_EQ(std::vector<int32_t>({SetErrorContinue(1), SetErrorBox(1), SetAbortEnabled(1), GetAbortEnabled()}),
              std::vector<int32_t>({7, 8, 9, 1}));
}

}  // namespace
