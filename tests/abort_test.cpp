// The user's abort: which messages count, what a poll takes from the queue
// and gives back, and the latch.
//
// An abort is latched for the life of the process, and the other tests of
// this program (TIFF opens above all) must not see one.  So every case that
// ends in an abort runs in a child process (a death-test child that exits
// with the number of failed checks); the cases in this process never latch.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "platform/win32.h"
#include "services/abort.h"
#include "services/errors.h"
#include "support/support.h"

namespace {

constexpr WPARAM KeyA = 'A';

MSG Message(UINT message, WPARAM wParam) { return MSG{nullptr, message, wParam, 0, 0, {}}; }

void Post(UINT message, WPARAM wParam, LPARAM lParam = 0) {
    ASSERT_NE(PostMessageA(nullptr, message, wParam, lParam), 0);
}

struct Seen {
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
    bool operator==(const Seen &) const = default;
};

// Takes every message of the calling thread out of its queue, in order.
std::vector<Seen> Drain() {
    std::vector<Seen> out;
    MSG m;
    while (PeekMessageA(&m, nullptr, 0, 0, PM_REMOVE)) out.push_back({m.message, m.wParam, m.lParam});
    return out;
}

// Keys 'A', 'B', ... as WM_KEYDOWN, lParam numbering them.
std::vector<Seen> Letters(int count) {
    std::vector<Seen> out;
    for (int i = 0; i < count; ++i) out.push_back({WM_KEYDOWN, WPARAM('A' + i), LPARAM(i)});
    return out;
}

void PostAll(const std::vector<Seen> &messages) {
    for (const Seen &s : messages) Post(s.message, s.wParam, s.lParam);
}

// ---- cases that do not abort: run here ----

TEST(Abort, MessagesThatAreNoAbort) {
    test::Recorder recorder;
    Drain();
    const Seen cases[] = {
        {WM_KEYDOWN, KeyA, 0},        {WM_KEYUP, VK_ESCAPE, 0},    {WM_KEYUP, VK_CANCEL, 0},
        {WM_KEYDOWN, VK_F4, 0},       {WM_SYSKEYDOWN, VK_ESCAPE, 0}, {WM_SYSKEYDOWN, KeyA, 0},
        {WM_KEYUP + 4, VK_F4, 0},  // WM_SYSKEYUP of F4
        {0x0200, 0, 0},               // a mouse move
    };
    for (const Seen &c : cases) {
        MSG m = Message(c.message, c.wParam);
        EXPECT_EQ(AbortFromMessage(&m), 0) << std::hex << c.message << " " << c.wParam;
        // Handed to the poll, and waiting in the queue.
        EXPECT_EQ(AbortPoll(&m), 0);
        Post(c.message, c.wParam);
        EXPECT_EQ(AbortPoll(nullptr), 0);
        EXPECT_EQ(Drain(), (std::vector<Seen>{c})) << "put back as taken";
    }
    EXPECT_EQ(AbortFromMessage(nullptr), 0);
    EXPECT_EQ(AbortPoll(nullptr), 0);  // empty queue
    EXPECT_TRUE(Drain().empty());
    EXPECT_TRUE(recorder.reports.empty());
}

TEST(Abort, LettersComeBackInOrderAndTheEleventhIsNotExamined) {
    test::Recorder recorder;
    Drain();
    // Letters alone: all taken, all back in the same order.
    PostAll(Letters(7));
    EXPECT_EQ(AbortPoll(nullptr), 0);
    EXPECT_EQ(Drain(), Letters(7));

    // Ten letters, then Escape: the poll stops after ten, so Escape is not
    // seen, and the ten go back behind it.
    std::vector<Seen> queued = Letters(10);
    queued.push_back({WM_KEYDOWN, VK_ESCAPE, 99});
    PostAll(queued);
    EXPECT_EQ(AbortPoll(nullptr), 0);
    std::vector<Seen> expected{{WM_KEYDOWN, VK_ESCAPE, 99}};
    for (const Seen &s : Letters(10)) expected.push_back(s);
    EXPECT_EQ(Drain(), expected);

    // Messages outside the two ranges stay where they are.
    Post(0x0200, 1);  // mouse move: input, but not taken
    Post(KeyA, 0);    // not a key message at all (0x41)
    Post(WM_KEYDOWN, KeyA);
    EXPECT_EQ(AbortPoll(nullptr), 0);
    EXPECT_EQ(Drain(), (std::vector<Seen>{{0x0200, 1, 0}, {KeyA, 0, 0}, {WM_KEYDOWN, KeyA, 0}}));
}

// GetInputState counts keyboard and mouse input only.  A quit message alone
// in the queue is therefore not looked at: the poll gives 0 and the queue is
// as it was.  A quit message is found when input waits too (see the child
// cases below).
TEST(Abort, QuitMessageAloneIsNotLookedAt) {
    test::Recorder recorder;
    Drain();
    Post(WM_QUIT, 0);
    EXPECT_EQ(AbortPoll(nullptr), 0);
    EXPECT_EQ(Drain(), (std::vector<Seen>{{WM_QUIT, 0, 0}}));
}

TEST(Abort, DisabledNeverTouchesTheQueue) {
    test::Recorder recorder(1, 0, 0);  // abort polling off
    Drain();
    std::vector<Seen> queued = {{WM_KEYDOWN, KeyA, 0}, {WM_KEYDOWN, VK_ESCAPE, 0}, {WM_QUIT, 0, 0}};
    PostAll(queued);
    MSG escape = Message(WM_KEYDOWN, VK_ESCAPE);
    MSG quit = Message(WM_QUIT, 0);
    EXPECT_EQ(AbortPoll(nullptr), 0);
    EXPECT_EQ(AbortPoll(&escape), 0);
    EXPECT_EQ(AbortFromMessage(&escape), 0);
    EXPECT_EQ(AbortFromMessage(&quit), 0);
    EXPECT_EQ(Drain(), queued);  // same messages, same order, no quit message added
}

// ---- cases that abort: each in a child process ----

// Checks inside a child; the child's exit code is the number that failed.
struct ChildChecks {
    int failed = 0;
    void operator()(bool ok, const char *what) {
        if (!ok) {
            fprintf(stderr, "child check failed: %s\n", what);
            ++failed;
        }
    }
};

template <class Body>
void InChild(Body body) {
    EXPECT_EXIT(
        {
            test::QuietDefaults();  // abort polling on, no box
            Drain();
            ChildChecks check;
            body(check);
            std::_Exit(check.failed);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(AbortDeathTest, EscapeAmongTheFirstTenLatches) {
    InChild([](ChildChecks &check) {
        // Three letters, Escape, two letters behind it.
        std::vector<Seen> queued = Letters(3);
        queued.push_back({WM_KEYDOWN, VK_ESCAPE, 50});
        queued.push_back({WM_KEYDOWN, 'X', 51});
        queued.push_back({WM_KEYDOWN, 'Y', 52});
        PostAll(queued);
        check(AbortPoll(nullptr) == 1, "Escape gives 1");
        // Untaken messages stay in front; then the quit message (code 4);
        // then what was taken, in order, Escape included.
        std::vector<Seen> expected = {{WM_KEYDOWN, 'X', 51}, {WM_KEYDOWN, 'Y', 52}, {WM_QUIT, 4, 0}};
        for (int i = 0; i < 4; ++i) expected.push_back(queued[size_t(i)]);
        check(Drain() == expected, "queue after the poll");
        check(TL_ERRORSTATUS_E() == 0, "an abort is no error");

        // Latched: every later poll gives 1 without looking at the queue.
        PostAll(Letters(2));
        check(AbortPoll(nullptr) == 1, "latched poll");
        check(AbortFromMessage(nullptr) == 1, "latched message test");
        check(Drain() == Letters(2), "latched poll left the queue alone");
        // A host that turns polling off sees 0, and 1 again when it turns
        // it back on: nothing clears the latch.
        SetAbortEnabled(0);
        check(AbortPoll(nullptr) == 0 && AbortFromMessage(nullptr) == 0, "disabled hides the latch");
        SetAbortEnabled(1);
        check(AbortPoll(nullptr) == 1, "enabled again: still latched");
        check(Drain().empty(), "no second quit message");
    });
}

TEST(AbortDeathTest, EachAbortKeyAndMessage) {
    struct Case { UINT message; WPARAM wParam; bool postsQuit; };
    const Case cases[] = {
        {WM_KEYDOWN, VK_ESCAPE, true},
        {WM_KEYDOWN, VK_CANCEL, true},
        {WM_SYSKEYDOWN, VK_F4, true},
        {WM_QUIT, 7, false},
        {WM_ENDSESSION, 1, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.message << " " << c.wParam);
        // Handed in directly.
        InChild([&](ChildChecks &check) {
            MSG m = Message(c.message, c.wParam);
            check(AbortFromMessage(&m) == 1, "AbortFromMessage gives 1");
            std::vector<Seen> quit;
            if (c.postsQuit) quit.push_back({WM_QUIT, 4, 0});
            check(Drain() == quit, "quit message only for a key");
        });
        InChild([&](ChildChecks &check) {
            MSG m = Message(c.message, c.wParam);
            check(AbortPoll(&m) == 1, "AbortPoll with the message gives 1");
        });
        // Waiting in the queue behind a letter (the letter is the input that
        // makes the poll look), and put back after the letter.
        InChild([&](ChildChecks &check) {
            Post(WM_KEYDOWN, KeyA);
            Post(c.message, c.wParam, 5);
            check(AbortPoll(nullptr) == 1, "AbortPoll from the queue gives 1");
            std::vector<Seen> expected;
            if (c.postsQuit) expected.push_back({WM_QUIT, 4, 0});
            expected.push_back({WM_KEYDOWN, KeyA, 0});
            expected.push_back({c.message, c.wParam, 5});
            check(Drain() == expected, "queue after the poll: one quit message at most");
        });
    }
}

// Putting back stops at the first post that fails: here the queue is full
// again once the quit message is in, and Escape cannot go back.
TEST(AbortDeathTest, PuttingBackStopsAtAFailedPost) {
    InChild([](ChildChecks &check) {
        constexpr int QueueLimit = 10000;  // the platform's limit of waiting messages
        for (int i = 0; i < QueueLimit - 2; ++i) Post(0x0200, 0);
        Post(WM_KEYDOWN, KeyA);
        Post(WM_KEYDOWN, VK_ESCAPE);
        check(PostMessageA(nullptr, WM_KEYDOWN, KeyA, 0) == 0, "queue is full");
        check(AbortPoll(nullptr) == 1, "Escape gives 1");
        std::vector<Seen> left = Drain();
        check(left.size() == QueueLimit, "queue full again");
        check(left.size() >= 2 && left[left.size() - 2].message == WM_QUIT, "quit message");
        check(!left.empty() && left.back().wParam == KeyA, "the letter went back, Escape did not");
    });
}

}  // namespace
