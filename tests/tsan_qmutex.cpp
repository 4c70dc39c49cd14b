// SPDX-License-Identifier: LGPL-2.1-or-later
// Linked into the test programs of a ThreadSanitizer build only.
//
// Qt is not built with ThreadSanitizer, so it cannot see a QMutex hand the
// data it guards from one thread to the next, and every image handed over
// under the library's mutexes would be reported as a race. QMutex's lock,
// tryLock and unlock are out-of-line in Qt 5: they are interposed here, call
// Qt's own, and tell ThreadSanitizer of the acquire and the release. Nothing
// else changes, so a race on data that no mutex guards is still reported.

#include <QMutex>

#include <dlfcn.h>

extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);

namespace {

template <typename F>
F qtOwn(const char* name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

} // namespace

void QMutex::lock() QT_MUTEX_LOCK_NOEXCEPT
{
    static const auto own = qtOwn<void (*)(QMutex*)>("_ZN6QMutex4lockEv");
    own(this);
    __tsan_acquire(this);
}

bool QMutex::tryLock(int timeout) QT_MUTEX_LOCK_NOEXCEPT
{
    static const auto own = qtOwn<bool (*)(QMutex*, int)>("_ZN6QMutex7tryLockEi");
    const bool locked = own(this, timeout);
    if (locked)
        __tsan_acquire(this);
    return locked;
}

void QMutex::unlock() noexcept
{
    static const auto own = qtOwn<void (*)(QMutex*)>("_ZN6QMutex6unlockEv");
    __tsan_release(this);
    own(this);
}
