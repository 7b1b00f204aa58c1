// paths.cpp - the run-time library's _access and _fullpath.
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "platform/win32.h"

// mode: 0 exists, 2 writable, 4 readable, 6 both, as in the Windows run-time
// library.  0 when the test holds, else -1.
int _access(const char *name, int mode) {
    if (!name) {
        errno = EINVAL;
        return -1;
    }
    int how = F_OK;
    if (mode & 2) how |= W_OK;
    if (mode & 4) how |= R_OK;
    return access(name, how) == 0 ? 0 : -1;
}

// The absolute path is built as text: a relative name is joined to the
// working directory, then empty and "." components vanish and ".." removes
// the component before it (at the root it stays at the root).  Links are not
// followed and the file need not exist.  The form with a NULL buffer, where
// the run-time library would allocate, is not offered (NULL).
char *_fullpath(char *buffer, const char *name, size_t size) {
    if (!buffer || !name) {
        errno = EINVAL;
        return nullptr;
    }
    std::string whole;
    if (name[0] != '/') {
        char cwd[PATH_MAX];
        if (!getcwd(cwd, sizeof cwd)) return nullptr;
        whole = cwd;
        whole += '/';
    }
    whole += name;
    std::vector<std::string> parts;
    size_t at = 0;
    while (at <= whole.size()) {
        size_t slash = whole.find('/', at);
        if (slash == std::string::npos) slash = whole.size();
        std::string part = whole.substr(at, slash - at);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(std::move(part));
        }
        at = slash + 1;
    }
    std::string result;
    for (const std::string &part : parts) {
        result += '/';
        result += part;
    }
    if (result.empty()) result.push_back('/');
    if (result.size() + 1 > size) {
        errno = ERANGE;
        return nullptr;
    }
    std::memcpy(buffer, result.c_str(), result.size() + 1);
    return buffer;
}
