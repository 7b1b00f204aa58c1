// Error state and reporting: what a report does under each choice of flags.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "platform/win32.h"
#include "services/errors.h"
#include "support/support.h"

namespace {

// Quit messages waiting on this thread's queue, taken out.
int TakeQuitMessages() {
    int count = 0;
    MSG msg;
    while (PeekMessageA(&msg, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE)) {
        EXPECT_EQ(msg.wParam, 4u);
        ++count;
    }
    return count;
}

std::string BoxOutput(void (*reports)()) {
    testing::internal::CaptureStderr();
    reports();
    return testing::internal::GetCapturedStderr();
}

struct FlagCase {
    int32_t cont, box;
    bool callback;
};

class Errors : public testing::Test {
   protected:
    void SetUp() override {
        ERROR_FLAGS_E(1, 1, 1, nullptr);
        TL_CLEARERROR_E();
        TakeQuitMessages();
    }
    void TearDown() override {
        ERROR_FLAGS_E(1, 1, 1, nullptr);
        TL_CLEARERROR_E();
        TakeQuitMessages();
    }
};

TEST_F(Errors, EveryPathLeavesTheErrorPending) {
    for (FlagCase c : {FlagCase{1, 1, false}, {0, 1, false}, {1, 0, false}, {0, 0, false}, {1, 1, true}, {0, 0, true}}) {
        test::Recorder recorder(c.cont, c.box);
        if (!c.callback) ERROR_FLAGS_E(c.cont, c.box, 1, nullptr);
        testing::internal::CaptureStderr();
        ReportError("T", "first", 0);
        EXPECT_EQ(TL_ERRORSTATUS_E(), 1) << c.cont << c.box << c.callback;
        ReportError("T", "second", 1);
        EXPECT_EQ(TL_ERRORSTATUS_E(), 1);
        testing::internal::GetCapturedStderr();
        TakeQuitMessages();
    }
}

TEST_F(Errors, DefaultsShowTheFirstReportOnlyAndPostNoQuit) {
    std::string shown = BoxOutput([] {
        ReportError("ReadDIB", "Out of memory", 0);
        ReportError("ReadDIB", "second", 0);
    });
    EXPECT_EQ(shown, "ReadDIB: Out of memory\n");
    EXPECT_EQ(TakeQuitMessages(), 0);
    // After a clear the next report is shown again.
    EXPECT_EQ(TL_CLEARERROR_E(), 1);
    EXPECT_EQ(TL_CLEARERROR_E(), 0);
    EXPECT_EQ(BoxOutput([] { ReportError("A", "again", 0); }), "A: again\n");
}

TEST_F(Errors, QuitMessagesFollowTheContinueFlag) {
    ERROR_FLAGS_E(0, 0, 1, nullptr);
    ReportError("T", "one", 0);
    ReportError("T", "two", 0);
    EXPECT_EQ(TakeQuitMessages(), 1) << "only the first report after a clear posts";

    test::Recorder recorder(0, 1);
    ReportError("T", "one", 0);
    ReportError("T", "two", 0);
    EXPECT_EQ(TakeQuitMessages(), 2) << "with a callback every report posts";
}

TEST_F(Errors, CallbackHearsEveryReportAndNoBoxIsShown) {
    test::Recorder recorder(1, 1);
    std::string shown = BoxOutput([] {
        ReportError("TOPEN", "TL_OPEN  empty filename", 0);
        ReportError("ReadIMG", "/x/y", 1);
    });
    EXPECT_EQ(shown, "");
    ASSERT_EQ(recorder.reports.size(), 2u);
    EXPECT_EQ(recorder.reports[0].title, "TOPEN");
    EXPECT_EQ(recorder.reports[0].text, "TL_OPEN  empty filename");
    EXPECT_EQ(recorder.reports[0].withSystemText, 0);
    EXPECT_EQ(recorder.reports[1].text, "/x/y");
    EXPECT_EQ(recorder.reports[1].withSystemText, 1);
    EXPECT_EQ(TakeQuitMessages(), 0);
}

TEST_F(Errors, SystemTextIsAppendedAfterALineFeedWithinTheBox) {
    SetLastError(ENOENT);
    EXPECT_EQ(BoxOutput([] { ReportError("ReadIMG", "scan.bmp", 1); }), "ReadIMG: scan.bmp\nNo such file or directory\n");

    TL_CLEARERROR_E();
    SetLastError(0);  // no system text: the text alone, no line feed
    EXPECT_EQ(BoxOutput([] { ReportError("ReadIMG", "scan.bmp", 1); }), "ReadIMG: scan.bmp\n");

    // A long text leaves room for only part of the system's text: the box
    // holds 511 characters and its NUL.
    TL_CLEARERROR_E();
    SetLastError(ENOENT);
    static std::string longText(505, 'x');
    std::string shown = BoxOutput([] { ReportError("T", longText.c_str(), 1); });
    EXPECT_EQ(shown, "T: " + longText + "\nNo su\n");
}

TEST_F(Errors, SilentAttemptHidesTheBoxRestoresFlagsAndClears) {
    ERROR_FLAGS_E(0, 1, 1, nullptr);
    std::string shown = BoxOutput([] {
        SilentAttempt silent;
        ReportError("ReadRAS", "hidden", 1);
        EXPECT_EQ(ErrorStatus(), 1);
    });
    EXPECT_EQ(shown, "");
    EXPECT_EQ(TakeQuitMessages(), 0);
    EXPECT_EQ(ErrorStatus(), 0);
    EXPECT_EQ(GetErrorContinue(), 0);
    EXPECT_EQ(GetErrorBox(), 1);

    test::Recorder recorder(1, 1);
    {
        SilentAttempt silent;
        ReportError("ReadRAS", "heard", 0);
    }
    EXPECT_EQ(recorder.reports.size(), 1u) << "a callback still hears a silent attempt";
    EXPECT_EQ(ErrorStatus(), 0);
}

TEST_F(Errors, FlagSettersReturnTheValueBefore) {
    ERROR_FLAGS_E(7, 8, 9, nullptr);
    EXPECT_EQ(SetErrorContinue(1), 7);
    EXPECT_EQ(SetErrorBox(1), 8);
    EXPECT_EQ(SetAbortEnabled(1), 9);
    EXPECT_EQ(GetAbortEnabled(), 1);
}

}  // namespace
