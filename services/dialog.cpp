// dialog.cpp - the file selection dialog and its small string routines.
#include "services/dialog.h"

#include <cstdio>
#include <cstring>

#include "platform/win32.h"
#include "services/abort.h"
#include "services/files.h"

namespace {

using PathText = char[DialogPathBytes];

// Copies `source` bounded by `end` (exclusive) or its NUL, whichever comes
// first, cutting at targetBytes - 1 characters.
void CopySpan(char *target, const char *source, const char *end, size_t targetBytes) {
    if (!target || targetBytes == 0) return;
    size_t n = 0;
    if (source) {
        while (source + n != end && source[n] != '\0' && n + 1 < targetBytes) ++n;
        std::memcpy(target, source, n);
    }
    target[n] = '\0';
}

// Appends `source` to the string in `target`, cutting at DialogPathBytes - 1
// characters.
void Append(PathText &target, const char *source) {
    size_t used = std::strlen(target);
    CopySpan(target + used, source, nullptr, DialogPathBytes - used);
}

bool Given(const char *text) { return text && text[0] != '\0'; }

// One part of a pattern against one part of a name, walking both together:
// both ended fits, a * fits whatever follows, a ? passes any character and
// also the end of the text, anything else must be equal.
bool PartFits(const char *pattern, const char *text) {
    size_t p = 0, t = 0;
    for (;;) {
        const char pc = pattern[p];
        const char tc = text[t];
        if (pc == '\0' && tc == '\0') return true;
        if (pc == '*') return true;
        if (pc == '?') {
            ++p;
            if (tc != '\0') ++t;  // a ? past the end of the text stays there
            continue;
        }
        if (pc == '\0' || tc == '\0' || pc != tc) return false;
        ++p;
        ++t;
    }
}

// The filter pair whose patterns fit name and extension, counted from 1; 1
// when none fits.  The walk stops at the closing empty string or at a pair
// whose patterns are empty.
DWORD ChooseFilter(const char *filters, const char *name, const char *extension) {
    if (!filters || filters[0] == '\0') return 1;
    const char *pair = filters;
    for (DWORD index = 1; pair[0] != '\0'; ++index) {
        const char *patterns = pair + std::strlen(pair) + 1;
        if (patterns[0] == '\0') break;
        if (MatchFileFilter(patterns, name, extension)) return index;
        pair = patterns + std::strlen(patterns) + 1;
    }
    return 1;
}

}  // namespace

void CopyBefore(char *target, const char *source, char delimiter, size_t targetBytes) {
    const char *end = source ? std::strchr(source, delimiter) : nullptr;
    if (delimiter == '\0') end = nullptr;  // the NUL delimits anyway
    CopySpan(target, source, end, targetBytes);
}

void CopyAfter(char *target, const char *source, char delimiter, size_t targetBytes) {
    const char *found = (source && delimiter != '\0') ? std::strchr(source, delimiter) : nullptr;
    CopySpan(target, found ? found + 1 : "", nullptr, targetBytes);
}

void GetToken(char *target, const char *source, int32_t index, char delimiter, size_t targetBytes) {
    if (!source) {
        CopySpan(target, "", nullptr, targetBytes);
        return;
    }
    const char *at = source;
    while (*at == ' ') ++at;
    int32_t passed = 0;
    while (passed < index && *at != '\0') {
        if (*at++ == delimiter) {
            ++passed;
            while (*at == ' ') ++at;
        }
    }
    if (passed < index) at = "";
    CopyBefore(target, at, delimiter, targetBytes);
}

int32_t MatchFileFilter(const char *patterns, const char *name, const char *extension) {
    if (!patterns) return 0;
    if (!name) name = "";
    if (!extension) extension = "";
    if (extension[0] == '.') ++extension;
    // A token is at most as long as the patterns string; a longer one than a
    // path buffer holds is cut, which can only make it fit fewer names.
    PathText pattern, namePart, extensionPart;
    for (int32_t i = 0;; ++i) {
        GetToken(pattern, patterns, i, ';');
        if (pattern[0] == '\0') return 0;
        CopyBefore(namePart, pattern, '.');
        CopyAfter(extensionPart, pattern, '.');
        TrimBlanks(namePart);
        TrimBlanks(extensionPart);
        if (PartFits(namePart, name) && PartFits(extensionPart, extension)) return 1;
    }
}

int32_t DialogProfilePath(char *target, const char *profileFile) {
    if (!Given(profileFile)) return 0;
    PathText path = "";
    if (!std::strchr(profileFile, ':') && !std::strchr(profileFile, '\\')) {
        // GetWindowsDirectoryA gives the length, or the bytes it would need
        // when 259 are too few; an unknown or too long directory turns the
        // profile off rather than putting it somewhere else.
        const UINT length = GetWindowsDirectoryA(path, DialogPathBytes - 1);
        if (length == 0 || length >= DialogPathBytes - 1) return 0;
        if (path[length - 1] != '\\') Append(path, "\\");
    }
    const bool addExtension = !std::strchr(profileFile, '.');
    // A profile path that would not fit is cut nowhere: the profile is off.
    const size_t need = std::strlen(path) + std::strlen(profileFile) + (addExtension ? 4 : 0);
    if (need >= DialogPathBytes) return 0;
    Append(path, profileFile);
    if (addExtension) Append(path, ".STS");
    CopySpan(target, path, nullptr, DialogPathBytes);
    return 1;
}

int32_t SelectFileDialog(char *buffer, const char *filters, uint32_t flags, const char *title,
                         const char *profileFile, const char *section, const char *key) {
    if (AbortPoll(nullptr) != 0) return 0;
    if (!buffer) return 0;
    if (!(flags & DialogSave)) flags |= DialogOpen;

    // Every local string lives in a buffer of 260 bytes and every copy into
    // one is cut at 259 characters, so no name, extension or path written
    // here runs past it, whatever the caller's buffer or the profile holds.
    PathText remembered = "", profilePath = "", drive = "", directory = "", name = "", extension = "";
    PathText fileTitle = "", initialDir = "", file = "";
    // The caller's buffer is 260 bytes; its contents are read only up to
    // that length, as if it were NUL-terminated there.
    PathText proposed;
    CopySpan(proposed, buffer, buffer + (DialogPathBytes - 1), DialogPathBytes);

    bool useProfile = Given(profileFile) && Given(section) && Given(key);
    if (useProfile) useProfile = DialogProfilePath(profilePath, profileFile) != 0;
    if (useProfile && GetPrivateProfileStringA(section, key, "", remembered, DialogPathBytes, profilePath) == 0)
        remembered[0] = '\0';
    TrimBlanks(remembered);

    if (remembered[0] != '\0') {
        CopySpan(buffer, remembered, nullptr, DialogPathBytes);
        // The absolute form goes through a local so that source and target
        // of _fullpath never overlap.  When it does not fit, the remembered
        // path stands as it is.
        PathText full;
        if (_fullpath(full, buffer, DialogPathBytes)) CopySpan(buffer, full, nullptr, DialogPathBytes);
        _splitpath(buffer, drive, directory, name, extension);
        Append(fileTitle, name);
        Append(fileTitle, extension);
        Append(initialDir, drive);
        Append(initialDir, directory);
    } else {
        CopyBefore(name, proposed, '.');
        CopyAfter(extension, proposed, '.');
    }

    CopySpan(file, fileTitle, nullptr, DialogPathBytes);
    OPENFILENAMEA record{};
    record.lStructSize = OPENFILENAME_SIZE_VERSION_400;
    record.hwndOwner = GetActiveWindow();
    record.lpstrFilter = filters;
    record.nFilterIndex = 1;
    record.lpstrFile = file;
    record.nMaxFile = DialogPathBytes;
    record.lpstrFileTitle = fileTitle;
    record.nMaxFileTitle = DialogPathBytes;
    record.lpstrInitialDir = initialDir;
    record.lpstrTitle = title;
    record.Flags = (flags & DialogSave) ? DialogFlagsSave : DialogFlagsOpen;

    // Only a remembered path can spare the dialog: a name in the buffer
    // without one always leads to it.
    bool taken = false;
    if (!(flags & (DialogAlways | DialogSave)) && buffer[0] != '\0') {
        if (FILE *existing = std::fopen(remembered, "rb")) {
            std::fclose(existing);
            taken = true;
        }
    }

    if (!taken) {
        record.nFilterIndex = ChooseFilter(filters, name, extension);
        const BOOL confirmed = platform::ShowFileDialog(&record, (flags & DialogOpen) == 0);
        CopySpan(remembered, file, file + (DialogPathBytes - 1), DialogPathBytes);
        if (!confirmed) return 0;
    }

    CopySpan(buffer, remembered, nullptr, DialogPathBytes);
    if (useProfile) WritePrivateProfileStringA(section, key, remembered, profilePath);
    return buffer[0] != '\0' ? 1 : 0;
}
