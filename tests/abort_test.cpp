// The user's abort: which messages count, what a poll takes from the queue and gives back, and the latch.
// An abort is latched for the life of the process, so every case that ends in one runs in a child.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <tuple>
#include <vector>

#include "platform/win32.h"
#include "services/abort.h"
#include "services/errors.h"
#include "support/support.h"

namespace {

constexpr WPARAM KeyA = 'A';
constexpr UINT MouseMove = 0x0200;

using Seen = std::tuple<UINT, WPARAM, LPARAM>;  // message, wParam, lParam
using Queue = std::vector<Seen>;

MSG Message(UINT message, WPARAM wParam) { return MSG{nullptr, message, wParam, 0, 0, {}}; }

Queue Drain() {  // every message of the calling thread, in order
    Queue out;
    for (MSG m; PeekMessageA(&m, nullptr, 0, 0, PM_REMOVE);) out.push_back({m.message, m.wParam, m.lParam});
    return out;
}

void PostAll(const Queue &messages) {
    for (auto [message, wParam, lParam] : messages) ASSERT_NE(PostMessageA(nullptr, message, wParam, lParam), 0);
}

// Keys 'A', 'B', ... as WM_KEYDOWN, lParam numbering them; then `tail`.
Queue Letters(int count, const Queue &tail = {}) {
    Queue out;
    for (int i = 0; i < count; ++i) out.push_back({WM_KEYDOWN, WPARAM('A' + i), LPARAM(i)});
    out.insert(out.end(), tail.begin(), tail.end());
    return out;
}

Queue Join(Queue a, const Queue &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(Abort, MessagesThatAreNoAbortAndWhatThePollPutsBack) {
    TL_POSIX_ONLY("on Windows a posted key is not input: GetInputState does not see it, and the queue's order and size are the system's");
    test::Recorder recorder;
    Drain();
    const Seen cases[] = {{WM_KEYUP, VK_ESCAPE, 0},     {WM_KEYDOWN, VK_F4, 0},   {WM_SYSKEYDOWN, VK_ESCAPE, 0},
                          {WM_KEYUP + 4, VK_F4, 0} /* WM_SYSKEYUP */, {MouseMove, 0, 0}};
    for (const Seen &c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << std::get<0>(c) << " " << std::get<1>(c));
        MSG m = Message(std::get<0>(c), std::get<1>(c));
        EXPECT_EQ(AbortFromMessage(&m) + AbortPoll(&m), 0);
        PostAll({c});
        EXPECT_EQ(AbortPoll(nullptr), 0);
        EXPECT_EQ(Drain(), Queue{c});
    }
    EXPECT_EQ(AbortFromMessage(nullptr) + AbortPoll(nullptr), 0);
    // A poll examines ten: an Escape behind ten letters is not seen, and the ten go back behind it.
    const Seen escape{WM_KEYDOWN, VK_ESCAPE, 99};
    const Queue ranges = {{MouseMove, 1, 0}, {UINT(KeyA), 0, 0}, {WM_KEYDOWN, KeyA, 0}};  // 0x41: no key message
    const struct { Queue queued, after; } polls[] = {
        {Letters(10, {escape}), Join({escape}, Letters(10))},
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

// Runs `body(check)` in a child whose exit code counts its failed checks.
template <class Body>
void InChild(Body body) {
    EXPECT_EXIT(
        {
            test::QuietDefaults();
            Drain();
            int failed = 0;
            body([&](bool ok, const char *what) {
                if (!ok) fprintf(stderr, "child check failed: %s\n", what), ++failed;
            });
            std::_Exit(failed);
        },
        ::testing::ExitedWithCode(0), "");
}
using Check = const std::function<void(bool, const char *)> &;

TEST(AbortDeathTest, EscapeAmongTheFirstTenLatches) {
    TL_POSIX_ONLY("on Windows a posted key is not input: GetInputState does not see it, and the queue's order and size are the system's");
    InChild([](Check check) {
        const Queue taken = Letters(3, {{WM_KEYDOWN, VK_ESCAPE, 50}}), behind = {{WM_KEYDOWN, 'X', 51}, {WM_KEYDOWN, 'Y', 52}};
        PostAll(Join(taken, behind));
        check(AbortPoll(nullptr) == 1, "Escape gives 1");
        // Untaken messages stay in front, then the quit message (code 4), then what was taken.
        check(Drain() == Join(Join(behind, {{WM_QUIT, 4, 0}}), taken), "queue after the poll");
        check(TL_ERRORSTATUS_E() == 0, "an abort is no error");
        PostAll(Letters(2));  // latched: later polls give 1 without looking at the queue
        check(AbortPoll(nullptr) == 1 && AbortFromMessage(nullptr) == 1, "latched");
        check(Drain() == Letters(2), "latched poll left the queue alone");
        SetAbortEnabled(0);  // polling off hides the latch; on again, it is still there
        check(AbortPoll(nullptr) == 0 && AbortFromMessage(nullptr) == 0, "disabled hides the latch");
        SetAbortEnabled(1);
        check(AbortPoll(nullptr) == 1, "enabled again: still latched");
        check(Drain().empty(), "no second quit message");
    });
}

TEST(AbortDeathTest, EachAbortKeyAndMessageByEachWay) {
    TL_POSIX_ONLY("on Windows a posted key is not input: GetInputState does not see it, and the queue's order and size are the system's");
    const struct { UINT message; WPARAM wParam; bool postsQuit; } cases[] = {
        {WM_KEYDOWN, VK_ESCAPE, true}, {WM_KEYDOWN, VK_CANCEL, true}, {WM_SYSKEYDOWN, VK_F4, true},
        {WM_QUIT, 7, false},           {WM_ENDSESSION, 1, false},
    };
    for (const auto &c : cases)
        for (int way = 0; way < 3; ++way) {  // handed to AbortFromMessage, to AbortPoll, or queued behind a letter
            SCOPED_TRACE(testing::Message() << std::hex << c.message << " " << c.wParam << " way " << way);
            InChild([&](Check check) {
                MSG m = Message(c.message, c.wParam);
                const Queue queued = {{WM_KEYDOWN, KeyA, 0}, {c.message, c.wParam, 5}};
                if (way == 2) PostAll(queued);
                check((way == 0 ? AbortFromMessage(&m) : AbortPoll(way == 1 ? &m : nullptr)) == 1, "gives 1");
                const Queue quit = c.postsQuit ? Queue{{WM_QUIT, 4, 0}} : Queue{};
                check(Drain() == (way == 2 ? Join(quit, queued) : quit), "a quit message only for a key, then what was taken");
            });
        }
}

// Putting back stops at the first failed post: the queue is full again once the quit message is in.
TEST(AbortDeathTest, PuttingBackStopsAtAFailedPost) {
    TL_POSIX_ONLY("on Windows a posted key is not input: GetInputState does not see it, and the queue's order and size are the system's");
    InChild([](Check check) {
        constexpr size_t QueueLimit = 10000;  // the platform's limit of waiting messages
        for (size_t i = 0; i < QueueLimit - 2; ++i) PostMessageA(nullptr, MouseMove, 0, 0);
        PostAll({{WM_KEYDOWN, KeyA, 0}, {WM_KEYDOWN, VK_ESCAPE, 0}});
        check(PostMessageA(nullptr, WM_KEYDOWN, KeyA, 0) == 0, "queue is full");
        check(AbortPoll(nullptr) == 1, "Escape gives 1");
        const Queue left = Drain();
        check(left.size() == QueueLimit, "queue full again");
        check(left.size() >= 2 && std::get<0>(left[left.size() - 2]) == WM_QUIT, "quit message");
        check(!left.empty() && std::get<1>(left.back()) == KeyA, "the letter went back, Escape did not");
    });
}

}  // namespace
