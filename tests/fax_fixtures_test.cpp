// fax_fixtures_test.cpp - every CCITT fixture, made by tiffcp, fax2tiff,
// ImageMagick and Pillow (tests/fixtures/fax/make.sh), decodes pixel for
// pixel to its source image, with no report and nothing left behind.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/image.h"
#include "platform/win32.h"
#include "services/errors.h"
#include "support/pnm.h"
#include "support/support.h"

namespace {

std::vector<std::string> FaxFixtures() {
    std::vector<std::string> names;
    std::string dir = test::Fixture("fax");
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d)) {
            std::string n = e->d_name;
            if (n.size() > 4 && n.compare(n.size() - 4, 4, ".tif") == 0) names.push_back(n);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The image of runs.pbm, which make.sh describes: runs of 0..2623 pixels,
// white and black alternately, in rows of 5300.
test::Rgb RunsImage() {
    const int32_t width = 5300;
    std::vector<std::vector<bool>> rows(1, std::vector<bool>(width, false));
    int32_t pos = 0;
    for (int32_t n = 0; n < 2624; ++n) {
        for (int colour = 0; colour < 2; ++colour) {
            if (pos + n > width) {
                rows.emplace_back(width, false);
                pos = 0;
            }
            for (int32_t i = pos; i < pos + n; ++i) rows.back()[size_t(i)] = colour == 1;
            pos += n;
        }
    }
    test::Rgb img;
    img.width = width;
    img.height = int32_t(rows.size());
    img.pixels.assign(size_t(width) * rows.size() * 3, 255);
    for (size_t y = 0; y < rows.size(); ++y)
        for (size_t x = 0; x < size_t(width); ++x)
            if (rows[y][x]) std::fill_n(&img.pixels[(y * width + x) * 3], 3, 0);
    return img;
}

TL_HANDLE LoadImage(const std::string &path) {
    std::vector<char> name(path.begin(), path.end());
    name.resize(260, '\0');
    return TL_IMAGE_E(name.data(), 0);
}

TEST(FaxFixtures, EveryFixtureDecodesToItsSource) {
    test::Recorder recorder;
    std::vector<std::string> names = FaxFixtures();
    ASSERT_GE(names.size(), 60u);
    test::Rgb runs = RunsImage();
    for (const std::string &name : names) {
        SCOPED_TRACE(name);
        std::string source = name.substr(0, name.find('-'));
        test::Rgb expected;
        if (source == "runs")
            expected = runs;
        else
            ASSERT_TRUE(test::ReadPnm(test::Fixture("fax/" + source + ".pbm"), expected));
        test::LeakGuard guard;
        TL_HANDLE block = LoadImage(test::Fixture("fax/" + name));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(ErrorStatus(), 0);
        test::Rgb actual;
        ASSERT_TRUE(test::DibToRgb(test::BlockBytes(block), actual));
        EXPECT_EQ(test::FirstDifference(expected, actual), "");
        test::FreeBlock(block);
        EXPECT_TRUE(guard.Same());
    }
    EXPECT_TRUE(recorder.reports.empty());
}

}  // namespace
