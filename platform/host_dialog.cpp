// host_dialog.cpp - the host's own file dialog and the request it is handed.
#include "platform/host_dialog.h"

#include <cstdlib>
#include <cstring>

namespace {

TL_FILE_DIALOG hostDialog = nullptr;

#if defined(_WIN32)
constexpr const char *Separators = "\\/:";
#else
constexpr const char *Separators = "/";
#endif

// Label and patterns of filter pair `index` (from 1), or NULLs.
void FindFilter(const char *filters, DWORD index, const char **label, const char **patterns) {
    *label = *patterns = nullptr;
    if (!filters || index == 0) return;
    const char *pair = filters;
    for (DWORD i = 1; pair[0] != '\0'; ++i) {
        const char *list = pair + std::strlen(pair) + 1;
        if (list[0] == '\0') return;
        if (i == index) {
            *label = pair;
            *patterns = list;
            return;
        }
        pair = list + std::strlen(list) + 1;
    }
}

}  // namespace

namespace platform {

TL_FILE_DIALOG HostDialog() { return hostDialog; }

// Copies at most `bytes` - 1 characters and a NUL.
void CopyCut(char *target, const char *source, size_t bytes) {
    if (!target || bytes == 0) return;
    size_t n = 0;
    while (source && source[n] != '\0' && n + 1 < bytes) ++n;
    if (n) std::memcpy(target, source, n);
    target[n] = '\0';
}

std::string TrimmedBlanks(const std::string &text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    const size_t last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

// The absolute form of an answer: "~/" is the home directory, and a
// relative path counts from the directory the dialog opened in.  Empty
// when it does not fit a path buffer.
std::string ResolveAnswer(const std::string &answer, const char *initialDir) {
    std::string path = answer;
    if (path.empty()) return {};
#if defined(_WIN32)
    // "C:...", "\\server\..." and "\..." do not count from the dialog's
    // directory.
    const bool relative = !(path.size() > 1 && path[1] == ':') && path[0] != '\\' && path[0] != '/';
    if (relative && initialDir && initialDir[0] != '\0') {
        const char last = initialDir[std::strlen(initialDir) - 1];
        path = std::string(initialDir) + (last == '\\' || last == '/' ? "" : "\\") + path;
    }
#else
    const char *home = std::getenv("HOME");
    if ((path == "~" || path.rfind("~/", 0) == 0) && home && home[0] == '/') path = home + path.substr(1);
    if (path[0] != '/' && initialDir && initialDir[0] != '\0') {
        path = std::string(initialDir) + (initialDir[std::strlen(initialDir) - 1] == '/' ? "" : "/") + path;
    }
#endif
    if (path.size() >= PathBytes) return {};
    char full[PathBytes];
    if (!_fullpath(full, path.c_str(), PathBytes)) return {};
    return full;
}

BOOL AskThrough(TL_FILE_DIALOG dialog, OPENFILENAMEA *record, bool save) {
    if (!record || record->lStructSize != OPENFILENAME_SIZE_VERSION_400 || !record->lpstrFile ||
        record->nMaxFile == 0)
        return 0;
    // The proposed name and the answer live in a path buffer of our own;
    // lpstrFile changes only after a confirmed answer that fits it.
    char answer[PathBytes];
    CopyCut(answer, "", sizeof answer);
    {
        const DWORD limit = record->nMaxFile < PathBytes ? record->nMaxFile : DWORD(PathBytes);
        size_t n = 0;
        while (n + 1 < limit && record->lpstrFile[n] != '\0') ++n;
        std::memcpy(answer, record->lpstrFile, n);
        answer[n] = '\0';
    }
    TL_FILE_REQUEST request{};
    request.size = sizeof request;
    request.save = save ? 1 : 0;
    request.flags = record->Flags;
    request.title = record->lpstrTitle ? record->lpstrTitle : "";
    request.filters = record->lpstrFilter;
    request.filterIndex = record->nFilterIndex;
    FindFilter(record->lpstrFilter, record->nFilterIndex, &request.filterLabel, &request.filterPattern);
    request.initialDir = record->lpstrInitialDir ? record->lpstrInitialDir : "";
    request.file = answer;
    request.fileBytes = sizeof answer;

    const int32_t confirmed = dialog ? dialog(&request) : 0;
    if (!confirmed) return 0;
    // A host's answer is trusted no further than the buffer it was given.
    if (!std::memchr(answer, '\0', sizeof answer)) return 0;
    const std::string chosen = TrimmedBlanks(answer);
    if (chosen.empty()) return 0;
    const std::string path = ResolveAnswer(chosen, request.initialDir);
    if (path.empty() || path.size() + 1 > record->nMaxFile) return 0;

    std::memcpy(record->lpstrFile, path.c_str(), path.size() + 1);
    const size_t nameAt = path.find_last_of(Separators) + 1;
    const size_t dot = path.find_last_of('.');
    record->nFileOffset = WORD(nameAt);
    record->nFileExtension = WORD(dot != std::string::npos && dot >= nameAt ? dot + 1 : path.size());
    if (record->lpstrFileTitle && record->nMaxFileTitle > 0)
        CopyCut(record->lpstrFileTitle, path.c_str() + nameAt, record->nMaxFileTitle);
    return 1;
}

}  // namespace platform

extern "C" TL_API TL_FILE_DIALOG TL_CALL TlSetFileDialog(TL_FILE_DIALOG dialog) {
    platform::ExportLock hold;  // the dialog is read while an export holds the lock
    const TL_FILE_DIALOG before = hostDialog;
    hostDialog = dialog;
    return before;
}
