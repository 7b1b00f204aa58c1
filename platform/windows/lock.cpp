// lock.cpp - the process-wide lock that every export holds: a critical
// section, which a thread may enter again while it holds it.
#include "platform/win32.h"

namespace {
// Made on first use and never deleted, so that an export called from a
// static destructor at exit still finds it.
CRITICAL_SECTION &CallLock() {
    static CRITICAL_SECTION *lock = [] {
        auto *section = new CRITICAL_SECTION;
        InitializeCriticalSection(section);
        return section;
    }();
    return *lock;
}
}  // namespace

namespace platform {
ExportLock::ExportLock() { EnterCriticalSection(&CallLock()); }
ExportLock::~ExportLock() { LeaveCriticalSection(&CallLock()); }
}  // namespace platform
