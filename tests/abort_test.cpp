// The user's abort: which messages count, what a poll takes from the queue
// and gives back, and the latch.  An abort is latched for the life of the
// process, so every case that ends in one runs in a child process.
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
constexpr UINT MouseMove = 0x0200;

struct Seen {
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
    bool operator==(const Seen &) const = default;
};
using Queue = std::vector<Seen>;

MSG Message(UINT message, WPARAM wParam) { return MSG{nullptr, message, wParam, 0, 0, {}}; }

// Takes every message of the calling thread out of its queue, in order.
Queue Drain() {
    Queue out;
    for (MSG m; PeekMessageA(&m, nullptr, 0, 0, PM_REMOVE);) out.push_back({m.message, m.wParam, m.lParam});
    return out;
}

void PostAll(const Queue &messages) {
    for (const Seen &s : messages) ASSERT_NE(PostMessageA(nullptr, s.message, s.wParam, s.lParam), 0);
}

// Keys 'A', 'B', ... as WM_KEYDOWN, lParam numbering them.
Queue Letters(int count) {
    Queue out;
    for (int i = 0; i < count; ++i) out.push_back({WM_KEYDOWN, WPARAM('A' + i), LPARAM(i)});
    return out;
}

Queue Join(Queue a, const Queue &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(Abort, MessagesThatAreNoAbortAndWhatThePollPutsBack) {
    test::Recorder recorder;
    Drain();
    const Seen cases[] = {{WM_KEYDOWN, KeyA, 0},        {WM_KEYUP, VK_ESCAPE, 0},    {WM_KEYDOWN, VK_F4, 0},
                          {WM_SYSKEYDOWN, VK_ESCAPE, 0}, {WM_KEYUP + 4, VK_F4, 0},  // WM_SYSKEYUP of F4
                          {MouseMove, 0, 0}};
    for (const Seen &c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.message << " " << c.wParam);
        MSG m = Message(c.message, c.wParam);
        EXPECT_EQ(AbortFromMessage(&m), 0);
        EXPECT_EQ(AbortPoll(&m), 0);
        PostAll({c});
        EXPECT_EQ(AbortPoll(nullptr), 0);
        EXPECT_EQ(Drain(), Queue{c});
    }
    EXPECT_EQ(AbortFromMessage(nullptr), 0);
    EXPECT_EQ(AbortPoll(nullptr), 0);
    // Letters are all taken and go back in order; a poll examines ten, so an
    // Escape behind ten letters is not seen, and the ten go back behind it.
    const Seen escape{WM_KEYDOWN, VK_ESCAPE, 99};
    const Queue ranges = {{MouseMove, 1, 0}, {UINT(KeyA), 0, 0}, {WM_KEYDOWN, KeyA, 0}};  // 0x41: no key message
    const struct { Queue queued, after; } polls[] = {
        {Letters(7), Letters(7)},
        {Join(Letters(10), {escape}), Join({escape}, Letters(10))},
        {ranges, ranges},                        // what lies outside the two ranges stays where it is
        {{{WM_QUIT, 0, 0}}, {{WM_QUIT, 0, 0}}},  // a quit message alone is no input: not looked at
    };
    for (const auto &p : polls) {
        PostAll(p.queued);
        EXPECT_EQ(AbortPoll(nullptr), 0);
        EXPECT_EQ(Drain(), p.after);
    }
    // Polling off, the queue is never touched: no message taken, no quit message added.
    SetAbortEnabled(0);
    const Queue queued = {{WM_KEYDOWN, KeyA, 0}, {WM_KEYDOWN, VK_ESCAPE, 0}, {WM_QUIT, 0, 0}};
    PostAll(queued);
    MSG key = Message(WM_KEYDOWN, VK_ESCAPE), quit = Message(WM_QUIT, 0);
    EXPECT_EQ(AbortPoll(nullptr) + AbortPoll(&key) + AbortFromMessage(&key) + AbortFromMessage(&quit), 0);
    EXPECT_EQ(Drain(), queued);
    EXPECT_TRUE(recorder.reports.empty());
}

// Runs `body` in a child whose exit code counts its failed checks.
struct ChildChecks {
    int failed = 0;
    void operator()(bool ok, const char *what) {
        if (!ok) fprintf(stderr, "child check failed: %s\n", what), ++failed;
    }
};

template <class Body>
void InChild(Body body) {
    EXPECT_EXIT(
        {
            test::QuietDefaults();
            Drain();
            ChildChecks check;
            body(check);
            std::_Exit(check.failed);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(AbortDeathTest, EscapeAmongTheFirstTenLatches) {
    InChild([](ChildChecks &check) {
        const Queue taken = Join(Letters(3), {{WM_KEYDOWN, VK_ESCAPE, 50}});
        const Queue behind = {{WM_KEYDOWN, 'X', 51}, {WM_KEYDOWN, 'Y', 52}};
        PostAll(Join(taken, behind));
        check(AbortPoll(nullptr) == 1, "Escape gives 1");
        // Untaken messages stay in front, then the quit message (code 4), then what was taken.
        check(Drain() == Join(Join(behind, {{WM_QUIT, 4, 0}}), taken), "queue after the poll");
        check(TL_ERRORSTATUS_E() == 0, "an abort is no error");
        // Latched: later polls give 1 without looking at the queue.
        PostAll(Letters(2));
        check(AbortPoll(nullptr) == 1 && AbortFromMessage(nullptr) == 1, "latched");
        check(Drain() == Letters(2), "latched poll left the queue alone");
        // Polling off hides the latch; on again, it is still there.
        SetAbortEnabled(0);
        check(AbortPoll(nullptr) == 0 && AbortFromMessage(nullptr) == 0, "disabled hides the latch");
        SetAbortEnabled(1);
        check(AbortPoll(nullptr) == 1, "enabled again: still latched");
        check(Drain().empty(), "no second quit message");
    });
}

TEST(AbortDeathTest, EachAbortKeyAndMessageByEachWay) {
    const struct { UINT message; WPARAM wParam; bool postsQuit; } cases[] = {
        {WM_KEYDOWN, VK_ESCAPE, true}, {WM_KEYDOWN, VK_CANCEL, true}, {WM_SYSKEYDOWN, VK_F4, true},
        {WM_QUIT, 7, false},           {WM_ENDSESSION, 1, false},
    };
    for (const auto &c : cases)
        for (int way = 0; way < 3; ++way) {  // handed to AbortFromMessage, to AbortPoll, or queued behind a letter
            SCOPED_TRACE(testing::Message() << std::hex << c.message << " " << c.wParam << " way " << way);
            InChild([&](ChildChecks &check) {
                MSG m = Message(c.message, c.wParam);
                if (way == 2) PostAll({{WM_KEYDOWN, KeyA, 0}, {c.message, c.wParam, 5}});
                check((way == 0 ? AbortFromMessage(&m) : AbortPoll(way == 1 ? &m : nullptr)) == 1, "gives 1");
                Queue expected = c.postsQuit ? Queue{{WM_QUIT, 4, 0}} : Queue{};
                if (way == 2) expected = Join(expected, {{WM_KEYDOWN, KeyA, 0}, {c.message, c.wParam, 5}});
                check(Drain() == expected, "a quit message only for a key, then what was taken");
            });
        }
}

// Putting back stops at the first post that fails: the queue is full again
// once the quit message is in, and Escape cannot go back.
TEST(AbortDeathTest, PuttingBackStopsAtAFailedPost) {
    InChild([](ChildChecks &check) {
        constexpr size_t QueueLimit = 10000;  // the platform's limit of waiting messages
        for (size_t i = 0; i < QueueLimit - 2; ++i) PostMessageA(nullptr, MouseMove, 0, 0);
        PostAll({{WM_KEYDOWN, KeyA, 0}, {WM_KEYDOWN, VK_ESCAPE, 0}});
        check(PostMessageA(nullptr, WM_KEYDOWN, KeyA, 0) == 0, "queue is full");
        check(AbortPoll(nullptr) == 1, "Escape gives 1");
        const Queue left = Drain();
        check(left.size() == QueueLimit, "queue full again");
        check(left.size() >= 2 && left[left.size() - 2].message == WM_QUIT, "quit message");
        check(!left.empty() && left.back().wParam == KeyA, "the letter went back, Escape did not");
    });
}

}  // namespace
