// profile.cpp - profile files (INI files) and the directory that holds them.
//
// A profile is a text file of "[section]" lines, each followed by its
// "key=value" lines.  Sections and keys compare without regard to case, as
// Windows does; blanks around names and values do not count; lines starting
// with ";" or "#" are comments and stay as they are.  The library writes
// paths in Windows form, so a backslash in a profile path is taken as the
// directory separator; a drive letter means nothing here and stays part of
// the name (c:\x\scan.STS is c:/x/scan.STS, relative to the current
// directory).
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/win32.h"

namespace {

// A profile larger than this is no profile of ours; it is neither read nor
// rewritten.
constexpr size_t MaxProfileBytes = 1 << 20;

std::string_view Trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

bool SameName(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = char(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = char(y - 'A' + 'a');
        if (x != y) return false;
    }
    return true;
}

// The profile path as POSIX sees it.
std::string PosixPath(const char *path) {
    std::string out(path);
    for (char &c : out)
        if (c == '\\') c = '/';
    return out;
}

// The user's configuration directory of the library: $XDG_CONFIG_HOME/tolimage
// when that is an absolute path, else ~/.config/tolimage.
std::string ConfigDirectory() {
    const char *xdg = std::getenv("XDG_CONFIG_HOME");
    if (xdg && xdg[0] == '/') return std::string(xdg) + "/tolimage";
    const char *home = std::getenv("HOME");
    if (!home || home[0] != '/') {
        const passwd *entry = getpwuid(getuid());
        home = entry ? entry->pw_dir : nullptr;
    }
    if (!home || home[0] != '/') return {};
    return std::string(home) + "/.config/tolimage";
}

// Lines of the file without their line ends; nullopt when it cannot be
// read (a file that does not exist has no lines).
std::optional<std::vector<std::string>> ReadLines(const std::string &path, bool *exists, mode_t *mode) {
    std::vector<std::string> lines;
    *exists = false;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) return lines;
        return std::nullopt;
    }
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || size_t(info.st_size) > MaxProfileBytes) {
        close(fd);
        return std::nullopt;
    }
    *exists = true;
    *mode = info.st_mode & 07777;
    std::string text;
    char chunk[4096];
    for (;;) {
        const ssize_t got = read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            close(fd);
            return std::nullopt;
        }
        if (got == 0) break;
        text.append(chunk, size_t(got));
        if (text.size() > MaxProfileBytes) {
            close(fd);
            return std::nullopt;
        }
    }
    close(fd);
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(std::move(line));
        start = end + 1;
    }
    return lines;
}

// The name of a "[section]" line, or nullopt for any other line.
std::optional<std::string_view> SectionOf(std::string_view line) {
    line = Trim(line);
    if (line.size() < 2 || line.front() != '[') return std::nullopt;
    const size_t close = line.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    return Trim(line.substr(1, close - 1));
}

// The key of a "key=value" line, or nullopt for a comment or other line.
std::optional<std::string_view> KeyOf(std::string_view line) {
    std::string_view trimmed = Trim(line);
    if (trimmed.empty() || trimmed.front() == ';' || trimmed.front() == '#' || trimmed.front() == '[')
        return std::nullopt;
    const size_t equals = trimmed.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    return Trim(trimmed.substr(0, equals));
}

std::string_view ValueOf(std::string_view line) {
    std::string_view value = Trim(line.substr(line.find('=') + 1));
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
        value.remove_prefix(1);
        value.remove_suffix(1);
    }
    return value;
}

// Creates the configuration directory (and its parent) when the profile is
// to go there and it does not exist yet.  Other directories are the
// caller's and are never created.
void MakeConfigDirectoryFor(const std::string &path) {
    const std::string config = ConfigDirectory();
    if (config.empty()) return;
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return;
    std::string directory = path.substr(0, slash);
    while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
    if (directory != config) return;
    // Each missing directory on the way, as the configuration home itself
    // may not exist yet; the ones made are the user's alone.
    for (size_t at = config.find('/', 1); at != std::string::npos; at = config.find('/', at + 1))
        mkdir(config.substr(0, at).c_str(), 0700);
    mkdir(config.c_str(), 0700);
}

bool WriteAll(int fd, const std::string &text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) return false;
        done += size_t(wrote);
    }
    return true;
}

// Writes the lines to a new file beside `path` and renames it into place,
// so that a crash leaves the old profile or the new one, never a part.
bool ReplaceFile(const std::string &path, const std::vector<std::string> &lines, bool existed, mode_t mode) {
    std::string text;
    for (const std::string &line : lines) text += line + "\n";
    std::string temporary = path + ".XXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0) return false;
    bool ok = WriteAll(fd, text);
    if (ok && existed) ok = fchmod(fd, mode) == 0;
    if (ok) ok = fsync(fd) == 0;
    if (close(fd) != 0) ok = false;
    if (ok) ok = rename(temporary.c_str(), path.c_str()) == 0;
    if (!ok) unlink(temporary.c_str());
    return ok;
}

bool HasLineEnd(const char *text) { return text && std::strpbrk(text, "\r\n") != nullptr; }

}  // namespace

UINT GetWindowsDirectoryA(char *buffer, UINT size) {
    const std::string directory = ConfigDirectory();
    if (directory.empty()) return 0;
    if (!buffer || directory.size() + 1 > size) return UINT(directory.size() + 1);
    std::memcpy(buffer, directory.c_str(), directory.size() + 1);
    return UINT(directory.size());
}

DWORD GetPrivateProfileStringA(const char *section, const char *key, const char *defaultValue, char *buffer,
                               DWORD size, const char *path) {
    if (!buffer || size == 0) return 0;
    std::string_view value = defaultValue ? defaultValue : "";
    std::vector<std::string> lines;
    if (section && key && path && path[0] != '\0') {
        bool exists = false;
        mode_t mode = 0;
        if (auto read = ReadLines(PosixPath(path), &exists, &mode)) lines = std::move(*read);
    }
    bool inSection = false;
    for (const std::string &line : lines) {
        if (auto name = SectionOf(line)) {
            if (inSection) break;  // the first section of that name counts
            inSection = SameName(*name, Trim(section));
            continue;
        }
        auto name = inSection ? KeyOf(line) : std::nullopt;
        if (name && SameName(*name, Trim(key))) {
            value = ValueOf(line);
            break;
        }
    }
    const size_t n = value.size() < size - 1 ? value.size() : size - 1;
    std::memcpy(buffer, value.data(), n);
    buffer[n] = '\0';
    return DWORD(n);
}

BOOL WritePrivateProfileStringA(const char *section, const char *key, const char *value, const char *path) {
    // Names and values that would break the line structure are refused.
    if (!section || !path || path[0] == '\0' || Trim(section).empty()) return 0;
    if (HasLineEnd(section) || HasLineEnd(key) || HasLineEnd(value) || std::strchr(section, ']')) return 0;
    if (key && (Trim(key).empty() || std::strchr(key, '=') || Trim(key).front() == '[' ||
                Trim(key).front() == ';' || Trim(key).front() == '#'))
        return 0;

    const std::string file = PosixPath(path);
    bool existed = false;
    mode_t mode = 0;
    auto read = ReadLines(file, &existed, &mode);
    if (!read) return 0;
    std::vector<std::string> lines = std::move(*read);

    // Where the section starts and ends (the line after its last entry).
    size_t start = lines.size(), end = lines.size();
    for (size_t i = 0; i < lines.size(); ++i) {
        auto name = SectionOf(lines[i]);
        if (!name) continue;
        if (start == lines.size()) {
            if (SameName(*name, Trim(section))) start = i;
        } else {
            end = i;
            break;
        }
    }

    if (!key) {
        if (start == lines.size()) return 1;  // nothing to remove
        lines.erase(lines.begin() + ptrdiff_t(start), lines.begin() + ptrdiff_t(end));
    } else if (start == lines.size()) {
        if (!value) return 1;
        if (!lines.empty() && !Trim(lines.back()).empty()) lines.emplace_back();
        lines.push_back("[" + std::string(Trim(section)) + "]");
        lines.push_back(std::string(Trim(key)) + "=" + value);
    } else {
        size_t found = end, last = start;
        for (size_t i = start + 1; i < end; ++i) {
            if (!Trim(lines[i]).empty()) last = i;
            auto name = KeyOf(lines[i]);
            if (name && SameName(*name, Trim(key))) {
                found = i;
                break;
            }
        }
        if (found != end) {
            if (value)
                lines[found] = std::string(*KeyOf(lines[found])) + "=" + value;
            else
                lines.erase(lines.begin() + ptrdiff_t(found));
        } else if (value) {
            lines.insert(lines.begin() + ptrdiff_t(last + 1), std::string(Trim(key)) + "=" + value);
        } else {
            return 1;
        }
    }

    MakeConfigDirectoryFor(file);
    return ReplaceFile(file, lines, existed, mode) ? 1 : 0;
}
