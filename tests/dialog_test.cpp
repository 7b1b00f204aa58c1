// The file selection dialog: its string routines, the filter it chooses, the profile it remembers a path in,
// its flags, and the missing file of the image entry, all through a scripted host dialog.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include <filesystem>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "core/image.h"
#include "platform/win32.h"
#include "services/dialog.h"
#include "services/errors.h"
#include "support/support.h"

namespace {

constexpr char ImageFilters[] =
    "BMP Files (*.BMP)\0*.BMP\0DIB Files (*.DIB)\0*.DIB\0TIF Files (*.TIF)\0*.TIF\0"
    "PCX Files (*.PCX)\0*.PCX\0RAS Files (*.RAS)\0*.RAS\0";
constexpr uint32_t Always = 0x6000;  // open dialog, no existence test: what the image entry asks

// What the scripted dialog was asked ("open|save flags filter N in DIR file NAME"), and what it confirms
// (empty: a cancel).
struct Script {
    int calls = 0;
    std::string asked, title, label, file, chosen;
} script;

void Answer(const std::string &chosen = "") { script = Script{}, script.chosen = chosen; }

int32_t TL_CALL Scripted(TL_FILE_REQUEST *request) {
    script.calls++;
    script.asked = std::string(request->save ? "save " : "open ") + std::to_string(request->flags) + " filter " +
                   std::to_string(request->filterIndex) + " in " + request->initialDir + " file " + request->file;
    script.title = request->title;
    script.label = request->filterLabel ? request->filterLabel : "";
    script.file = request->file;
    if (!script.chosen.empty()) snprintf(request->file, request->fileBytes, "%s", script.chosen.c_str());
    return !script.chosen.empty();
}

std::string Stored(const std::string &value) { return "[Paths]\nLast=" + value + "\n"; }

// Tells a file from the one that had its name before: a profile written
// anew is renamed into place.
auto Inode(const std::string &path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

bool Exists(const std::string &path) {
    std::error_code error;
    return std::filesystem::exists(path, error);
}

void SetConfigHome(const std::string &path) {
#if defined(_WIN32)
    _putenv_s("XDG_CONFIG_HOME", path.c_str());
#else
    setenv("XDG_CONFIG_HOME", path.c_str(), 1);
#endif
}

void Fill(char (&buffer)[DialogPathBytes], const std::string &text) { snprintf(buffer, sizeof buffer, "%s", text.c_str()); }

// Every test gets a fresh configuration directory and the scripted dialog.
class Dialog : public ::testing::Test {
  protected:
    void SetUp() override {
        static int count = 0;
        config = test::TempDir() + "/config" + std::to_string(++count);
        SetConfigHome(config);
        profileDir = config + "/tolimage";
        Answer();
        before = TlSetFileDialog(Scripted);
        test::QuietDefaults();
    }
    void TearDown() override { TlSetFileDialog(before); }

    // A profile named "scan" remembering `value`.
    std::string Remember(const std::string &value) {
        std::error_code error;
        std::filesystem::create_directories(profileDir, error);
        test::WriteText(profileDir + "/scan.STS", Stored(value));
        return profileDir + "/scan.STS";
    }
    int32_t Ask(char *buffer, uint32_t flags, const char *profile = "scan", const char *section = "Paths",
                const char *key = "Last") {
        return SelectFileDialog(buffer, ImageFilters, flags, "Open Image File", profile, section, key);
    }
    TL_FILE_DIALOG before = nullptr;
    std::string config, profileDir;
};

TEST(DialogStrings, TokensMatchesAndLongSources) {
    const struct { const char *source; int32_t index; const char *expected; } tokens[] = {
        {"  *.BMP;*.TIF", 0, "*.BMP"}, {"*.BMP;  *.TIF", 1, "*.TIF"}, {"a;b c ;d", 1, "b c "},
        {"a;;c", 1, ""}, {"a;;c", 2, "c"}, {"a;b", 2, ""}};
    for (const auto &t : tokens) {
        char target[DialogPathBytes];
        GetToken(target, t.source, t.index, ';');
        EXPECT_STREQ(target, t.expected) << t.source << " " << t.index;
    }
    const std::string longToken(600, 'a');
    const struct { std::string patterns; const char *name, *extension; int32_t expected; } matches[] = {
        {"*.TIF", "scan", "TIF", 1},       {"*.TIF", "scan", ".TIF", 1},  // _splitpath's form
        {"*.TIF", "scan", "tif", 0},       // case-sensitive
        {"*.BMP;   *.TIF  ", "scan", "TIF", 1},
        {"*", "scan", "", 1},              {"*", "scan", "TIF", 0},
        {"sc?n.T?F", "scan", "TIF", 1},    {"scan?.TIF", "scan", "TIF", 1},  // ? passes the end of the text
        {"sca.TIF", "scan", "TIF", 0},     {"scan.TIFF", "scan", "TIF", 0},
        {"", "scan", "TIF", 0},            {";*.TIF", "scan", "TIF", 0},  // an empty first token ends the search
        {longToken + ";*.TIF", "scan", "TIF", 1},
        {longToken + "." + longToken, longToken.c_str(), longToken.c_str(), 0},
    };
    for (const auto &c : matches)
        EXPECT_EQ(MatchFileFilter(c.patterns.c_str(), c.name, c.extension), c.expected)
            << c.patterns.substr(0, 20) << " / " << c.name << " / " << c.extension;
    // Long sources are cut at 259: 260-byte targets with guard bytes behind them.
    const std::string longName(700, 'n');
    for (const std::string &source : {longName, longName + ".TIF", "x." + longName, "a;" + longName + ";b"})
        for (int routine = 0; routine < 3; ++routine) {
            struct { char target[DialogPathBytes]; char guard[16]; } area;
            memset(&area, 'g', sizeof area);
            if (routine == 0) CopyBefore(area.target, source.c_str(), '.');
            if (routine == 1) CopyAfter(area.target, source.c_str(), '.');
            if (routine == 2) GetToken(area.target, source.c_str(), 1, ';');
            EXPECT_LE(strlen(area.target), DialogPathBytes - 1);
            EXPECT_EQ(std::string(area.guard, sizeof area.guard), std::string(16, 'g'));
        }
}

TEST_F(Dialog, FilterChosenFromTheProposedName) {
    const char badList[] = "A\0*.X\0B\0\0C\0*.TIF\0";  // an empty pattern string ends the walk
    const struct { const char *proposed; const char *filters; uint32_t expected; } cases[] = {
        {"scan.TIF", ImageFilters, 3}, {"scan.tif", ImageFilters, 1}, {"scan", ImageFilters, 1},
        {"c:\\a.b\\x.TIF", ImageFilters, 1},  // cut at the first dot: b\x.TIF
        {"page.RAS", ImageFilters, 5}, {"scan.TIF", nullptr, 1}, {"scan.TIF", "\0", 1}, {"scan.TIF", badList, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.proposed);
        Answer();
        char buffer[DialogPathBytes];
        Fill(buffer, c.proposed);
        EXPECT_EQ(SelectFileDialog(buffer, c.filters, Always, "Open Image File", nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(script.calls, 1);
        EXPECT_EQ(script.asked, "open 6156 filter " + std::to_string(c.expected) + " in  file ");
        EXPECT_STREQ(buffer, c.proposed);  // a cancel leaves the name
    }
}

TEST_F(Dialog, ProfilePath) {
    TL_POSIX_ONLY("the profile lives in the configuration directory of POSIX; on Windows in the Windows directory");
    const std::string dir = profileDir + "\\";
    const struct { std::string profile; int32_t result; std::string path; } paths[] = {
        {"scan", 1, dir + "scan.STS"}, {"c:\\x\\scan", 1, "c:\\x\\scan.STS"}, {"scan.ini", 1, dir + "scan.ini"},
        {"d:scan", 1, "d:scan.STS"},   {std::string(300, 'p'), 0, ""} /* would not fit: off */, {"", 0, ""},
    };
    for (const auto &p : paths) {
        char path[DialogPathBytes] = "";
        EXPECT_EQ(DialogProfilePath(path, p.profile.c_str()), p.result) << p.profile;
        EXPECT_EQ(std::string(path), p.path);  // untouched when the profile is off
    }
    // Stored where those paths say: the platform directory (made on first write), and one named with backslashes.
    const std::string chosen = test::WriteTemp("chosen.TIF", {1});
    std::string elsewhere = test::TempDir() + "/prof";
    std::replace(elsewhere.begin(), elsewhere.end(), '/', '\\');
    // A dot anywhere in the profile's name (the temporary folder's path may
    // have one) means it has its extension already.
    const std::string elsewhereFile = test::TempDir() + (elsewhere.find('.') == std::string::npos ? "/prof.STS" : "/prof");
    const struct { const char *profile; std::string file; } stores[] = {
        {"scan", profileDir + "/scan.STS"}, {elsewhere.c_str(), elsewhereFile}};
    for (const auto &store : stores) {
        Answer(chosen);
        char buffer[DialogPathBytes] = "scan.TIF";
        EXPECT_EQ(Ask(buffer, 0, store.profile), 1);
        EXPECT_EQ(std::string(buffer), chosen);
        EXPECT_EQ(test::ReadText(store.file), Stored(chosen)) << store.profile;
    }
    unlink(elsewhereFile.c_str());
}

TEST_F(Dialog, FlagsAndTheRememberedFile) {
    TL_POSIX_ONLY("the profile lives in the configuration directory of POSIX; on Windows in the Windows directory");
    const std::string remembered = test::WriteTemp("page.TIF", {1, 2}), other = test::WriteTemp("other.BMP", {1});
    // It opens in the remembered directory with the remembered name (blanks around it go); the filter follows
    // that name.  What is chosen is stored, the profile written anew.
    const std::string in = " filter 3 in " + test::TempDir() + "/ file page.TIF";
    const struct { uint32_t flags; std::string asked; } cases[] = {
        {0, ""},  // the remembered file is taken without a dialog
        {0x2000, "open 6156" + in}, {0x1000, "save 6158" + in}, {0x5000, "open 6158" + in},
    };
    char buffer[DialogPathBytes];
    std::string profile;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.flags);
        profile = Remember("\" " + remembered + "  \"");
        const auto before = Inode(profile);
        Answer(other);
        Fill(buffer, "proposed.PCX");
        EXPECT_EQ(Ask(buffer, c.flags), 1);
        EXPECT_EQ(script.asked, c.asked);
        const std::string expected = c.asked.empty() ? remembered : other;
        EXPECT_EQ(std::string(buffer), expected);
        EXPECT_EQ(test::ReadText(profile), Stored(expected));
        EXPECT_NE(Inode(profile), before);
    }
    // A remembered file that is gone leads to the dialog in its directory.
    Answer(remembered);
    Remember(test::TempDir() + "/gone.RAS");
    Fill(buffer, "x");
    EXPECT_EQ(Ask(buffer, 0), 1);
    EXPECT_EQ(script.asked, "open 6156 filter 5 in " + test::TempDir() + "/ file gone.RAS");
    EXPECT_EQ(test::ReadText(profile), Stored(remembered));
    // Only a remembered path spares the dialog: an existing file in the buffer, with no profile, does not.
    Answer();
    Fill(buffer, remembered);
    EXPECT_EQ(SelectFileDialog(buffer, ImageFilters, 0, "t", nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(script.calls, 1);
    // An empty section or a NULL key turns the profile off.
    for (int off = 0; off < 2; ++off) {
        Answer("/elsewhere.TIF");
        Remember(remembered);
        Fill(buffer, "x");
        EXPECT_EQ(off ? Ask(buffer, 0, "scan", "Paths", nullptr) : Ask(buffer, 0, "scan", ""), 1);
        EXPECT_EQ(script.asked, "open 6156 filter 1 in  file ");
        EXPECT_STREQ(buffer, "/elsewhere.TIF");
        EXPECT_EQ(test::ReadText(profile), Stored(remembered));
    }
}

TEST_F(Dialog, CancelWritesNothing) {
    TL_POSIX_ONLY("the profile lives in the configuration directory of POSIX; on Windows in the Windows directory");
    const std::string gone = test::TempDir() + "/gone.TIF", profile = Remember(gone);
    const auto before = Inode(profile);
    char buffer[DialogPathBytes] = "scan.TIF";
    EXPECT_EQ(Ask(buffer, Always), 0);
    EXPECT_EQ(script.calls, 1);
    EXPECT_EQ(std::string(buffer), gone);  // the remembered path, as shown
    EXPECT_EQ(test::ReadText(profile), Stored(gone));
    EXPECT_EQ(Inode(profile), before);
    // No profile yet: a cancel does not create one.  A NULL buffer gives 0 without a dialog.
    const std::string fresh = config + "-fresh";
    SetConfigHome(fresh);
    Answer();
    Fill(buffer, "scan.TIF");
    EXPECT_EQ(SelectFileDialog(buffer, ImageFilters, 0, "t", "fresh", "Paths", "Last"), 0);
    EXPECT_FALSE(Exists(fresh));
    EXPECT_EQ(SelectFileDialog(nullptr, ImageFilters, Always, "t", nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(script.calls, 1);
    // A profile value longer than a path, and a proposed name filling the buffer without a NUL: cut, not overrun.
    SetConfigHome(config);
    Remember("/" + std::string(400, 'd') + "/" + std::string(300, 'n') + "." + std::string(300, 'e'));
    for (const char *profile : {"scan", static_cast<const char *>(nullptr)}) {
        Answer();
        memset(buffer, 'q', sizeof buffer);
        EXPECT_EQ(Ask(buffer, Always, profile), 0);
        EXPECT_EQ(script.calls, 1);
        EXPECT_LE(strlen(profile ? buffer : ""), DialogPathBytes - 1);  // the remembered path, cut
        EXPECT_LE(script.file.size(), DialogPathBytes - 1);
    }
}

TEST_F(Dialog, AbortLatchGivesZero) {
    TL_POSIX_ONLY("on Windows a posted key is not input: GetInputState does not see it, and the queue's order and size are the system's");
    EXPECT_EXIT(  // the latch stays for the life of the process: try it in a child
        {
            ERROR_FLAGS_E(1, 0, 1, nullptr);
            PostMessageA(nullptr, WM_KEYDOWN, VK_ESCAPE, 0);
            char buffer[DialogPathBytes] = "scan.TIF";
            Answer("/x.TIF");
            const int32_t result = Ask(buffer, Always);
            _exit(result == 0 && script.calls == 0 && strcmp(buffer, "scan.TIF") == 0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(Dialog, MissingImageFileAsksForAnother) {
    const std::string bmp = test::Fixture("bmp/netpbm_1bit.bmp");
    test::LeakGuard guard;
    char name[DialogPathBytes];
    // Confirmed: the chosen file is read and its path stands in the name; a file that exists spares the dialog.
    for (const std::string &given : {test::TempDir() + "/missing.BMP", bmp}) {
        Answer(bmp);
        Fill(name, given);
        TL_HANDLE block = TL_IMAGE_E(name, 0);
        EXPECT_NE(block, nullptr);
        test::FreeBlock(block);
        EXPECT_EQ(std::string(name), given == bmp ? bmp : test::FullPath(bmp));
        EXPECT_EQ(script.calls, given == bmp ? 0 : 1);
    }
    // Cancelled: no image, and an earlier error still pending (with none pending the host test sees 0).
    test::Recorder recorder;
    ReportError("earlier", "failure", 0);
    Answer();
    // A name with no folder: the filter comes from its own extension, not
    // from a dot somewhere on the path to the temporary folder.
    Fill(name, "tolimage-no-such-page.TIF");
    EXPECT_EQ(TL_IMAGE_E(name, 0), nullptr);
    EXPECT_EQ(script.asked, "open 6156 filter 3 in  file ");
    EXPECT_EQ(script.title + " / " + script.label, "Open Image File / TIF Files (*.TIF)");
    EXPECT_EQ(TL_ERRORSTATUS_E(), 1);
    EXPECT_FALSE(Exists(config));  // no profile is ever written
    EXPECT_TRUE(guard.Same());
}

}  // namespace
