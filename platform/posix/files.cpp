// files.cpp - CreateFileA and its companions on POSIX descriptors.
//
// A HANDLE is the descriptor's number as a pointer-sized value, small enough
// for the 32-bit ManagedFile.  Only descriptors that CreateFileA opened are
// accepted; any other value fails with EBADF instead of touching a
// descriptor that belongs to someone else.  Positions are 32-bit, as the
// library uses them.  Failures leave errno's value for GetLastError.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <mutex>
#include <set>

#include "platform/win32.h"

namespace {

constexpr uint64_t MaxPosition = 0xFFFFFFFEu;  // 0xFFFFFFFF is the failure value

std::mutex openLock;

// Descriptors CreateFileA returned and CloseHandle has not closed.  Made on
// first use and never destroyed, so that files may be closed at exit.
std::set<int> &OpenSet() {
    static std::set<int> *open = new std::set<int>;
    return *open;
}

// The descriptor of a handle of ours, or -1 (last error EBADF).
int Descriptor(HANDLE file) {
    intptr_t value = reinterpret_cast<intptr_t>(file);
    if (value >= 0 && value <= INT_MAX) {
        std::lock_guard<std::mutex> hold(openLock);
        if (OpenSet().count(int(value))) return int(value);
    }
    SetLastError(EBADF);
    return -1;
}

}  // namespace

// Sharing is not enforced: POSIX has no mandatory share modes, and the
// library only opens its files for reading beside other readers.  Only
// regular files can be opened; a directory, a device or a pipe fails (a
// FIFO would block a reader forever), EISDIR or ENODEV.
HANDLE CreateFileA(const char *name, DWORD access, DWORD share, void *security, DWORD disposition,
                   DWORD attributes, HANDLE templateFile) {
    (void)share;
    (void)security;
    (void)attributes;
    (void)templateFile;
    if (!name) {
        SetLastError(EFAULT);
        return INVALID_HANDLE_VALUE;
    }
    int flags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    const bool reading = access & GENERIC_READ, writing = access & GENERIC_WRITE;
    if (reading && writing) {
        flags |= O_RDWR;
    } else if (writing) {
        flags |= O_WRONLY;
    } else if (reading) {
        flags |= O_RDONLY;
    } else {
        SetLastError(EINVAL);
        return INVALID_HANDLE_VALUE;
    }
    switch (disposition) {
    case CREATE_ALWAYS: flags |= O_CREAT | O_TRUNC; break;
    case OPEN_EXISTING: break;
    case OPEN_ALWAYS: flags |= O_CREAT; break;
    default: SetLastError(EINVAL); return INVALID_HANDLE_VALUE;
    }
    int fd;
    do {
        fd = open(name, flags, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        SetLastError(DWORD(errno));
        return INVALID_HANDLE_VALUE;
    }
    struct stat info;
    int refusal = 0;
    if (fstat(fd, &info) != 0) {
        refusal = errno;
    } else if (S_ISDIR(info.st_mode)) {
        refusal = EISDIR;
    } else if (!S_ISREG(info.st_mode)) {
        refusal = ENODEV;
    } else {
        int status = fcntl(fd, F_GETFL);
        if (status == -1 || fcntl(fd, F_SETFL, status & ~O_NONBLOCK) != 0) refusal = errno;
    }
    if (refusal) {
        close(fd);
        SetLastError(DWORD(refusal));
        return INVALID_HANDLE_VALUE;
    }
    {
        std::lock_guard<std::mutex> hold(openLock);
        OpenSet().insert(fd);
    }
    return reinterpret_cast<HANDLE>(intptr_t(fd));
}

// `read` receives the bytes that arrived, also on failure.  A short count
// with result 1 means the end of the file.
BOOL ReadFile(HANDLE file, void *buffer, DWORD count, DWORD *read, void *overlapped) {
    (void)overlapped;
    if (read) *read = 0;
    int fd = Descriptor(file);
    if (fd < 0) return 0;
    if (!buffer && count) {
        SetLastError(EFAULT);
        return 0;
    }
    auto *into = static_cast<uint8_t *>(buffer);
    DWORD done = 0;
    while (done < count) {
        size_t want = count - done;
        if (want > 0x40000000u) want = 0x40000000u;
        ssize_t got = ::read(fd, into + done, want);
        if (got < 0) {
            if (errno == EINTR) continue;
            SetLastError(DWORD(errno));
            if (read) *read = done;
            return 0;
        }
        if (got == 0) break;
        done += DWORD(got);
    }
    if (read) *read = done;
    return 1;
}

// With `offsetHigh` the distance is the 64-bit value of both halves, as on
// Win32; the new position must still lie in 32 bits, and *offsetHigh
// receives 0.  A position below 0 or above 0xFFFFFFFE fails (EINVAL) and
// leaves the position as it was.
DWORD SetFilePointer(HANDLE file, LONG offset, LONG *offsetHigh, DWORD method) {
    int fd = Descriptor(file);
    if (fd < 0) return INVALID_SET_FILE_POINTER;
    int64_t distance = offsetHigh ? int64_t((uint64_t(uint32_t(*offsetHigh)) << 32) | uint32_t(offset)) : offset;
    int64_t base;
    if (method == FILE_BEGIN) {
        base = 0;
    } else if (method == FILE_CURRENT) {
        base = lseek(fd, 0, SEEK_CUR);
    } else if (method == FILE_END) {
        struct stat info;
        base = fstat(fd, &info) == 0 ? int64_t(info.st_size) : -1;
    } else {
        SetLastError(EINVAL);
        return INVALID_SET_FILE_POINTER;
    }
    if (base < 0) {
        SetLastError(DWORD(errno));
        return INVALID_SET_FILE_POINTER;
    }
    // base < 2^63 and |distance| < 2^63: test before adding.
    if ((distance < 0 && -(distance + 1) >= base) || (distance > 0 && uint64_t(distance) > MaxPosition) ||
        uint64_t(base + distance) > MaxPosition) {
        SetLastError(EINVAL);
        return INVALID_SET_FILE_POINTER;
    }
    int64_t position = base + distance;
    if (lseek(fd, off_t(position), SEEK_SET) != off_t(position)) {
        SetLastError(DWORD(errno));
        return INVALID_SET_FILE_POINTER;
    }
    if (offsetHigh) *offsetHigh = 0;
    return DWORD(position);
}

// With `sizeHigh` the size is split over both halves.  Without it, a size
// of 4 GiB - 1 or more fails (EFBIG) rather than giving a cut value.
DWORD GetFileSize(HANDLE file, DWORD *sizeHigh) {
    int fd = Descriptor(file);
    if (fd < 0) return 0xFFFFFFFFu;
    struct stat info;
    if (fstat(fd, &info) != 0) {
        SetLastError(DWORD(errno));
        return 0xFFFFFFFFu;
    }
    uint64_t size = uint64_t(info.st_size);
    if (sizeHigh) {
        *sizeHigh = DWORD(size >> 32);
        SetLastError(0);  // 0xFFFFFFFF may be a valid low half: the caller tells by GetLastError
        return DWORD(size);
    }
    if (size >= 0xFFFFFFFFu) {
        SetLastError(EFBIG);
        return 0xFFFFFFFFu;
    }
    return DWORD(size);
}

// The descriptor is given up even when close(2) reports a failure, as
// Linux does; the result is then 0.
BOOL CloseHandle(HANDLE file) {
    int fd = Descriptor(file);
    if (fd < 0) return 0;
    {
        std::lock_guard<std::mutex> hold(openLock);
        OpenSet().erase(fd);
    }
    if (close(fd) != 0 && errno != EINTR) {
        SetLastError(DWORD(errno));
        return 0;
    }
    return 1;
}

namespace platform {
int32_t OpenFiles() {
    std::lock_guard<std::mutex> hold(openLock);
    return int32_t(OpenSet().size());
}
}  // namespace platform
