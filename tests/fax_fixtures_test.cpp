// fax_fixtures_test.cpp - every CCITT fixture (tiffcp, fax2tiff, ImageMagick, Pillow; see
// tests/fixtures/fax/make.sh) decodes pixel for pixel to its source, with no report and no leak.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>

#include "core/image.h"
#include "platform/win32.h"
#include "services/errors.h"
#include "support/pnm.h"
#include "support/support.h"

namespace {

// runs.pbm as make.sh makes it: runs of 0..2623 pixels, white and black alternately, in rows of 5300.
test::Rgb RunsImage() {
    test::Rgb img;
    img.width = 5300;
    int32_t pos = img.width;
    for (int32_t n = 0; n < 2624 * 2; ++n) {
        if (pos + n / 2 > img.width) {
            img.pixels.resize(size_t(++img.height) * img.width * 3, 255);
            pos = 0;
        }
        if (n % 2) std::fill_n(img.pixels.end() - (img.width - pos) * 3, n / 2 * 3, 0);
        pos += n / 2;
    }
    return img;
}

TEST(FaxFixtures, EveryFixtureDecodesToItsSource) {
    test::Recorder recorder;
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(test::Fixture("fax")))
        if (entry.path().extension() == ".tif") names.insert(entry.path().filename().string());
    ASSERT_GE(names.size(), 60u);
    const test::Rgb runs = RunsImage();
    for (const std::string &name : names) {
        SCOPED_TRACE(name);
        const std::string source = name.substr(0, name.find('-'));
        test::Rgb expected = runs, actual;
        if (source != "runs") {
            ASSERT_TRUE(test::ReadPnm(test::Fixture("fax/" + source + ".pbm"), expected));
        }
        test::LeakGuard guard;
        std::string path = test::Fixture("fax/" + name);
        path.resize(260, '\0');
        TL_HANDLE block = TL_IMAGE_E(path.data(), 0);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(ErrorStatus(), 0);
        ASSERT_TRUE(test::DibToRgb(test::BlockBytes(block), actual));
        EXPECT_EQ(test::FirstDifference(expected, actual), "");
        test::FreeBlock(block);
        EXPECT_TRUE(guard.Same());
    }
    EXPECT_TRUE(recorder.reports.empty());
}

}  // namespace
