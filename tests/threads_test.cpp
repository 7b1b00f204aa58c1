// Calls from several threads at once: every export holds the process-wide
// lock, so loads, hand-overs and walks from eight threads give what one
// thread gives, and a host's callback may call the library again.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/support.h"
#include "tolimage_posix.h"

namespace {

constexpr int Threads = 8;

// Runs `work(thread)` on eight threads that start together.
template <typename Work>
void OnThreads(Work work) {
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < Threads; ++t)
        threads.emplace_back([&, t] {
            ++ready;
            while (ready.load() < Threads) std::this_thread::yield();
            work(t);
        });
    for (std::thread &thread : threads) thread.join();
}

std::vector<char> NameBuffer(const std::string &path) {
    std::vector<char> name(path.begin(), path.end());
    name.resize(260, '\0');
    return name;
}

// One file through the three ways in: its bitmap, its raster loaded into a
// record, and the raster handed over from the bitmap.
struct Result {
    std::vector<uint8_t> bitmap, loaded, handed;
    bool operator==(const Result &) const = default;
};

Result LoadAllWays(const std::string &path, int32_t number) {
    Result result;
    std::vector<char> name = NameBuffer(path);
    TL_HANDLE dib = TL_IMAGE_E(name.data(), number);
    if (!dib) return result;
    result.bitmap = test::BlockBytes(dib);
    std::vector<uint8_t> record(TL_RECORD_MIN_SIZE);
    if (TL_HANDLE raster = TLC_BITMAP_E(record.data(), dib)) {
        result.handed = test::BlockBytes(raster);
        test::FreeBlock(raster, true);
    }
    GlobalFree(dib);
    if (TL_HANDLE raster = TLC_IMAGE_E(record.data(), name.data(), number)) {
        result.loaded = test::BlockBytes(raster);
        test::FreeBlock(raster, true);
    }
    return result;
}

TEST(Threads, LoadsAndHandOversFromEightThreadsMatchOneThread) {
    test::QuietDefaults();
    const std::vector<std::pair<std::string, int32_t>> files = {
        {test::Sample("sample.bmp"), 0},          {test::Sample("sample.pcx"), 0},
        {test::Sample("sample.tif"), 0},          {test::Sample("multi.ras"), 0},
        {test::Fixture("tiff/w33_lzw_mm.tif"), 0}, {test::Fixture("fax/text1728-g32d.tif"), 0},
    };
    std::vector<Result> expected;
    for (const auto &[path, number] : files) {
        expected.push_back(LoadAllWays(path, number));
        ASSERT_FALSE(expected.back().loaded.empty()) << path;
    }
    test::LeakGuard guard;
    std::atomic<int> differences{0};
    OnThreads([&](int t) {
        for (int round = 0; round < 6; ++round)
            for (size_t i = 0; i < files.size(); ++i) {
                size_t f = (i + t) % files.size();  // threads on different files at once
                if (!(LoadAllWays(files[f].first, files[f].second) == expected[f])) ++differences;
            }
    });
    EXPECT_EQ(differences.load(), 0);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    EXPECT_TRUE(guard.Same());
}

// A walk is one per process: eight threads walking one file together see
// each of its images, then the walk's end, in turn, as one thread would.
TEST(Threads, AWalkSharedByEightThreadsGivesEachImageInTurn) {
    test::QuietDefaults();
    const std::string path = test::Sample("multi.ras");
    std::vector<std::vector<uint8_t>> images;  // one walk alone, then its end
    for (;;) {
        TL_HANDLE block = test::Load(path, -1);
        if (!block) break;
        images.push_back(test::BlockBytes(block));
        GlobalFree(block);
    }
    ASSERT_EQ(images.size(), 3u);
    test::LeakGuard guard;
    constexpr int Walks = 4;  // each thread's share of calls: Walks whole walks
    std::vector<std::map<int, int>> seen(Threads);  // image index (-1: end) -> times
    OnThreads([&](int t) {
        for (size_t call = 0; call < Walks * (images.size() + 1); ++call) {
            TL_HANDLE block = test::Load(path, -1);
            if (!block) {
                ++seen[t][-1];
                continue;
            }
            std::vector<uint8_t> bytes = test::BlockBytes(block);
            GlobalFree(block);
            auto at = std::find(images.begin(), images.end(), bytes);
            ++seen[t][at == images.end() ? -2 : int(at - images.begin())];
        }
    });
    std::map<int, int> total;
    for (const auto &counts : seen)
        for (const auto &[image, times] : counts) total[image] += times;
    EXPECT_EQ(total, (std::map<int, int>{{-1, Threads * Walks}, {0, Threads * Walks}, {1, Threads * Walks},
                                         {2, Threads * Walks}}));
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    EXPECT_TRUE(guard.Same());  // every walk ended, so its file is closed
}

}  // namespace
