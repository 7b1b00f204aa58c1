// The POSIX stand-ins around the dialog: profile files, their directory, path splitting, the dialog record,
// and the terminal dialog.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dirent.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/win32.h"
#include "support/support.h"

namespace {

using test::ReadText;

std::string Get(const char *section, const char *key, const std::string &path, DWORD size = 260) {
    char buffer[300];
    memset(buffer, 'x', sizeof buffer);
    const DWORD n = GetPrivateProfileStringA(section, key, "dflt", buffer, size, path.c_str());
    EXPECT_EQ(n, strlen(buffer));
    return buffer;
}

BOOL Put(const char *section, const char *key, const char *value, const std::string &path) {
    return WritePrivateProfileStringA(section, key, value, path.c_str());
}

TEST(Profile, ReadWriteAndReplace) {
    const std::string path = test::TempDir() + "/p.ini";
    unlink(path.c_str());
    EXPECT_EQ(Get("S", "k", path), "dflt");  // no file
    test::WriteText(path, "; a comment\n[Other]\nk=other\n\n[Paths]\r\n  Last = /a/b.TIF  \r\nQuoted=\" x \"\n"
                          "[paths]\nLast=second\n");
    chmod(path.c_str(), 0640);
    EXPECT_EQ(Get("PATHS", "last", path), "/a/b.TIF");  // case and blanks do not count; first section wins
    EXPECT_EQ(Get("Paths", "Quoted", path), " x ");
    EXPECT_EQ(Get("Paths", "none", path), "dflt");
    EXPECT_EQ(Get("Paths", "Last", path, 5), "/a/b");  // cut to size - 1
    EXPECT_TRUE(Put("paths", "LAST", "/c/d.TIF", path));
    EXPECT_TRUE(Put("Paths", "New", "v", path));
    EXPECT_TRUE(Put("Fresh", "k", "1", path));
    EXPECT_TRUE(Put("Other", "k", nullptr, path));     // removes the key
    EXPECT_TRUE(Put("Gone", nullptr, nullptr, path));  // nothing to remove
    EXPECT_EQ(ReadText(path), "; a comment\n[Other]\n\n[Paths]\nLast=/c/d.TIF\nQuoted=\" x \"\nNew=v\n[paths]\n"
                              "Last=second\n\n[Fresh]\nk=1\n");
    EXPECT_TRUE(Put("paths", nullptr, nullptr, path));  // removes the first section
    EXPECT_EQ(ReadText(path), "; a comment\n[Other]\n\n[paths]\nLast=second\n\n[Fresh]\nk=1\n");
    // Values and names that would break the lines, and a directory, are refused; nothing changes.
    const std::string before = ReadText(path);
    const struct { const char *section, *key, *value; std::string path; } refused[] = {
        {"Paths", "Last", "a\nb", path}, {"Pa]ths", "Last", "a", path}, {"Paths", "La=st", "a", path},
        {"", "Last", "a", path},         {"Paths", "Last", "a", test::TempDir()}};
    for (const auto &r : refused) EXPECT_FALSE(Put(r.section, r.key, r.value, r.path)) << r.section << r.key << r.value;
    EXPECT_EQ(ReadText(path), before);
    // Written anew and renamed into place: the mode stays, no scratch file stays.
    struct stat info {};
    stat(path.c_str(), &info);
    EXPECT_EQ(info.st_mode & 0777, 0640u);
    int files = 0;
    DIR *dir = opendir(test::TempDir().c_str());
    while (dirent *entry = readdir(dir)) files += std::string(entry->d_name).rfind("p.ini", 0) == 0;
    closedir(dir);
    EXPECT_EQ(files, 1);
    std::string backslashed = path;
    std::replace(backslashed.begin(), backslashed.end(), '/', '\\');
    EXPECT_EQ(Get("Fresh", "k", backslashed), "1");  // a backslash separates directories
    // A file too large to be a profile is neither read nor rewritten.
    test::WriteText(path, "[S]\nk=v\n" + std::string(2 << 20, ';'));
    EXPECT_EQ(Get("S", "k", path), "dflt");
    EXPECT_FALSE(Put("S", "k", "w", path));
    unlink(path.c_str());
}

TEST(Profile, PlatformDirectory) {
    const std::string home = test::TempDir() + "/home";
    const char *savedHome = getenv("HOME");
    const std::string oldHome = savedHome ? savedHome : "";
    setenv("HOME", home.c_str(), 1);
    const struct { const char *xdg; std::string expected; } cases[] = {  // xdg NULL: unset; only an absolute one counts
        {nullptr, home + "/.config/tolimage"}, {"relative/dir", home + "/.config/tolimage"},
        {"/some/config", "/some/config/tolimage"}};
    for (const auto &c : cases) {
        c.xdg ? setenv("XDG_CONFIG_HOME", c.xdg, 1) : unsetenv("XDG_CONFIG_HOME");
        char buffer[259], small[8] = "keep";
        EXPECT_EQ(GetWindowsDirectoryA(buffer, sizeof buffer), c.expected.size());
        EXPECT_EQ(buffer, c.expected);
        EXPECT_EQ(GetWindowsDirectoryA(small, sizeof small), c.expected.size() + 1);
        EXPECT_STREQ(small, "keep");
    }
    // Made (private) when the first profile goes into it; elsewhere nothing is created.
    unsetenv("XDG_CONFIG_HOME");
    EXPECT_TRUE(Put("S", "k", "v", home + "/.config/tolimage\\scan.STS"));
    EXPECT_EQ(ReadText(home + "/.config/tolimage/scan.STS"), "[S]\nk=v\n");
    struct stat info {};
    ASSERT_EQ(stat((home + "/.config/tolimage").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_FALSE(Put("S", "k", "v", home + "/nodir/x.ini"));
    setenv("HOME", oldHome.c_str(), 1);
}

TEST(Profile, SplitPath) {
    const struct { std::string path, directory, name, extension; } cases[] = {
        {"/a/b/scan.TIF", "/a/b/", "scan", ".TIF"}, {"scan", "", "scan", ""},
        {"/a.b/x", "/a.b/", "x", ""},               {"/a/.profile", "/a/", "", ".profile"},
        {"/a/x.tar.gz", "/a/", "x.tar", ".gz"},     {"/dir/", "/dir/", "", ""},
        {"/" + std::string(300, 'n') + ".e", "/", std::string(259, 'n'), ".e"},
    };
    for (const auto &c : cases) {
        char drive[260], directory[260], name[260], extension[260];
        _splitpath(c.path.c_str(), drive, directory, name, extension);
        EXPECT_EQ(std::string(drive) + "|" + directory + "|" + name + "|" + extension,
                  "|" + c.directory + "|" + c.name + "|" + c.extension);
        _splitpath(c.path.c_str(), nullptr, nullptr, name, nullptr);  // any part may be left out
    }
}

// A host dialog whose answer the test sets; "no NUL" fills the whole buffer.
std::string hostAnswer;
int hostCalls = 0;
int32_t TL_CALL Host(TL_FILE_REQUEST *request) {
    ++hostCalls;
    if (hostAnswer == "no NUL") return memset(request->file, 'z', request->fileBytes), 1;
    return snprintf(request->file, request->fileBytes, "%s", hostAnswer.c_str()), 1;
}

OPENFILENAMEA Record(char *file, char *title, const char *initialDir, DWORD structSize = 76, DWORD maxFile = 260) {
    OPENFILENAMEA record{};
    record.lStructSize = structSize;
    record.lpstrFile = file;
    record.nMaxFile = maxFile;
    record.lpstrFileTitle = title;
    record.nMaxFileTitle = 260;
    record.lpstrInitialDir = initialDir;
    record.Flags = 6156;
    return record;
}

TEST(DialogRecord, AnswersAreCheckedAndResolved) {
    EXPECT_EQ(GetActiveWindow(), nullptr);
    const TL_FILE_DIALOG before = TlSetFileDialog(Host);
    const std::string dir = test::TempDir();
    const struct { std::string answer; DWORD structSize, maxFile; BOOL expected; std::string file, title; } cases[] = {
        {"x.TIF", 76, 260, 1, dir + "/x.TIF", "x.TIF"},  // relative to the initial directory
        {"/a/./b/../y.tar.gz", 76, 260, 1, "/a/y.tar.gz", "y.tar.gz"},
        {"  /a/noext  ", 76, 260, 1, "/a/noext", "noext"},
        {"/a/x.TIF", 80, 260, 0, "keep", ""},  // a record of another layout
        {"/a/x.TIF", 76, 8, 0, "keep", ""},    // its NUL does not fit nMaxFile
        {"no NUL", 76, 260, 0, "keep", ""},
        {"", 76, 260, 0, "keep", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.answer);
        hostAnswer = c.answer;
        hostCalls = 0;
        char file[260] = "keep", title[260] = "";
        OPENFILENAMEA record = Record(file, title, dir.c_str(), c.structSize, c.maxFile);
        EXPECT_EQ(GetOpenFileNameA(&record), c.expected);
        EXPECT_EQ(file, c.file);
        EXPECT_EQ(title, c.title);
        EXPECT_EQ(hostCalls, c.structSize == 76 ? 1 : 0);
        if (!c.expected) continue;
        EXPECT_EQ(std::string(file + record.nFileOffset), c.title);
        const char *dot = strrchr(file + record.nFileOffset, '.');
        EXPECT_EQ(file + record.nFileExtension, dot ? dot + 1 : file + strlen(file));
    }
    TlSetFileDialog(before);
}

// The terminal dialog in a child on a pseudo terminal with `typed` waiting; `screen` gets what it showed.
// The child's exit code: 0 confirmed with `expected` in lpstrFile, 2 cancelled, 1 otherwise.
int OnTerminal(bool save, const std::string &typed, const std::string &expected, std::string &screen) {
    int master = -1;
    const pid_t child = forkpty(&master, nullptr, nullptr, nullptr);
    if (child == 0) {
        alarm(10);  // a dialog that waited for more would be killed here
        TlSetFileDialog(nullptr);
        char file[260] = "scan.TIF", title[260] = "";
        const std::string dir = test::TempDir();
        OPENFILENAMEA record = Record(file, title, dir.c_str());
        record.lpstrFilter = "BMP Files (*.BMP)\0*.BMP\0TIF Files (*.TIF)\0*.TIF\0";
        record.nFilterIndex = 2;
        record.lpstrTitle = save ? "Save Image File" : "Open Image File";
        record.Flags = save ? 6158 : 6156;
        const BOOL result = save ? GetSaveFileNameA(&record) : GetOpenFileNameA(&record);
        _exit(result == 0 ? 2 : expected == file ? 0 : 1);
    }
    if (child < 0 || write(master, typed.data(), typed.size()) < 0) return -1;
    screen.clear();
    char chunk[512];
    for (ssize_t got; (got = read(master, chunk, sizeof chunk)) > 0;) screen.append(chunk, size_t(got));
    int status = 0;
    waitpid(child, &status, 0);
    close(master);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(DialogTerminal, AsksOnTheTerminal) {
    const std::string dir = test::TempDir(), real = test::WriteTemp("real.TIF", {1});
    std::string screen;
    // It shows what is asked, refuses a missing file, and takes a path relative to the directory it opened in.
    EXPECT_EQ(OnTerminal(false, "nothere.TIF\nreal.TIF\n", real, screen), 0) << screen;
    for (const std::string &shown : {std::string("Open Image File"), std::string("TIF Files (*.TIF)  [*.TIF]"),
                                     "Directory:  " + dir, std::string("File name:  scan.TIF"),
                                     "No readable file: " + dir + "/nothere.TIF"})
        EXPECT_NE(screen.find(shown), std::string::npos) << shown << "\n" << screen;
    // An empty line cancels; a save asks before replacing a file.
    EXPECT_EQ(OnTerminal(false, "\n", real, screen), 2) << screen;
    EXPECT_EQ(OnTerminal(true, "real.TIF\nn\n\n", real, screen), 2) << screen;
    EXPECT_NE(screen.find("Replace it?"), std::string::npos) << screen;
    EXPECT_EQ(OnTerminal(true, "real.TIF\ny\n", real, screen), 0) << screen;
}

}  // namespace
