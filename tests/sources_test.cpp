// Files written by independent encoders (netpbm, ImageMagick, Pillow,
// libtiff's tools, fax2tiff, our RAS writer) load pixel for pixel to the
// pictures they were made from, through the palette of the block, with a
// full bitmap header, no report and nothing left behind.  The fixtures and
// their sources lie in tests/fixtures (see its README).
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>

#include "core/bytes.h"
#include "support/pnm.h"
#include "support/support.h"

namespace {

// runs.pbm as the fax fixtures were made: runs of 0..2623 pixels, white and black in turn, rows of 5300.
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

// The fixtures of a folder with one extension.
std::set<std::string> Files(const std::string &folder, const std::string &extension) {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(test::Fixture(folder)))
        if (entry.path().extension() == extension) names.insert(entry.path().filename().string());
    return names;
}

// The source a fixture was made from: a fax file's name up to its first '-'; a TIFF file's width
// part (w8_lzw: w8.pbm) or text.pbm; BMP and PCX files of 4 and 8 bits the colour picture.
std::string SourceOf(const std::string &folder, const std::string &name) {
    const std::string stem = name.substr(0, name.find('.'));
    if (folder == "fax") return "fax/" + stem.substr(0, stem.find('-')) + ".pbm";
    if (folder == "tiff") {
        std::string part, source = "text";
        for (std::istringstream parts(stem); std::getline(parts, part, '_');)
            if (part.size() > 1 && part[0] == 'w' && isdigit(part[1])) source = part;
        return "tiff/src/" + source + ".pbm";
    }
    const bool colours = stem.find("4bit") != std::string::npos || stem.find("8bit_os2") != std::string::npos ||
                         (stem.find("4plane") != std::string::npos && stem.find("text") == std::string::npos);
    return folder + "/src/" + (colours ? "colours.ppm" : "text.pbm");
}

TEST(Sources, EveryEncodedFixtureLoadsToItsSourcePicture) {
    test::Recorder recorder;
    const test::Rgb runs = RunsImage();
    size_t loaded = 0;
    for (const auto &[folder, extension] : {std::pair{"bmp", ".bmp"}, {"pcx", ".pcx"}, {"tiff", ".tif"}, {"fax", ".tif"}}) {
        for (const std::string &name : Files(folder, extension)) {
            SCOPED_TRACE(name);
            // Files the readers refuse (old JPEG, tiles, ...), a 24-bit BMP, the hand-over's own bitmaps.
            if (name.rfind("refuse_", 0) == 0 || name.find("24bit") != std::string::npos ||
                name.rfind("handover_", 0) == 0 || name.rfind("zero_", 0) == 0)
                continue;
            const std::vector<uint8_t> file = test::ReadFileBytes(test::Fixture(std::string(folder) + "/" + name));
            test::LeakGuard guard;
            TL_HANDLE block = test::Load(test::Fixture(std::string(folder) + "/" + name));
            ASSERT_NE(block, nullptr);
            std::vector<uint8_t> b = test::BlockBytes(block);
            test::FreeBlock(block);
            EXPECT_TRUE(guard.Same());
            ++loaded;
            // The header: its size, one plane, the pixels' size and the palette's count.
            const uint32_t bits = LoadU16(&b[14]), colours = LoadU32(&b[32]);
            const uint32_t size = (LoadU32(&b[4]) * bits + 31) / 32 * 4 * LoadU32(&b[8]);
            EXPECT_EQ(LoadU32(&b[0]), 40u);
            EXPECT_EQ(LoadU16(&b[12]), 1u);
            EXPECT_EQ(LoadU32(&b[20]), size);
            ASSERT_EQ(b.size(), 40 + 4 * colours + size);
            test::Rgb expected = runs, actual;
            const std::string source = SourceOf(folder, name);
            if (source != "fax/runs.pbm") {
                ASSERT_TRUE(test::ReadPnm(test::Fixture(source), expected)) << source;
            }
            // A PCX block has a fixed palette, never the file's colour map: the encoder's colours of our
            // indices come from that map (offset 16: red, green, blue).  ImageMagick codes PCX white as 0
            // and says so in its map only, so its picture comes out inverted.
            if (extension == std::string(".pcx") && file[65] == 4)
                for (uint32_t i = 0; i < 16; ++i)
                    for (uint32_t k = 0; k < 3; ++k) b[40 + 4 * i + k] = file[16 + 3 * i + 2 - k];
            const bool inverted = extension == std::string(".pcx") && name.rfind("magick", 0) == 0;
            ASSERT_TRUE(test::DibToRgb(b, actual));
            if (inverted)
                for (uint8_t &v : actual.pixels) v = uint8_t(~v);
            EXPECT_EQ(test::FirstDifference(expected, actual), "");
        }
    }
    EXPECT_GE(loaded, 120u);
    // The RAS samples, written by an independent writer: a walk gives each source picture, then 0.
    for (auto [file, sources] : {std::pair{"multi.ras", "page1.pbm page2.pbm page3.pbm"}, {"colour16.ras", "colour16.ppm"}}) {
        std::istringstream names(sources);
        for (std::string source; names >> source;) {
            TL_HANDLE block = test::Load(test::Sample(file), -1);
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(test::BlockDiffers(test::BlockBytes(block), test::Fixture("ras/src/" + source)), "") << source;
            test::FreeBlock(block);
        }
        EXPECT_EQ(test::Load(test::Sample(file), -1), nullptr);
    }
    EXPECT_TRUE(recorder.reports.empty());
}

}  // namespace
