// lock.cpp - the process-wide lock that every export holds.
#include <mutex>

#include "platform/win32.h"

namespace {
// Made on first use and never destroyed, so that an export called from a
// static destructor at exit still finds it.
std::recursive_mutex &CallLock() {
    static std::recursive_mutex *lock = new std::recursive_mutex;
    return *lock;
}
}  // namespace

namespace platform {
ExportLock::ExportLock() { CallLock().lock(); }
ExportLock::~ExportLock() { CallLock().unlock(); }
}  // namespace platform
