// SPDX-License-Identifier: LGPL-2.1-or-later
// Linked into the GStreamer tests of a ThreadSanitizer build only.
//
// GLib is not built with ThreadSanitizer, and its mutexes are futexes of its
// own, so ThreadSanitizer cannot see GStreamer hand data from one thread to
// the next under GST_OBJECT_LOCK, a pad's stream lock or a task's lock. As
// tests/tsan_qmutex.cpp does for QMutex, the lock and unlock functions are
// interposed here: they call GLib's own and tell ThreadSanitizer of the
// acquire and the release. Accesses made by GLib and GStreamer themselves
// (their memcpy and strcmp) are ignored through ignore_noninstrumented_modules;
// accesses in our code stay checked.

#include <glib.h>

#include <dlfcn.h>

extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);

namespace {

template <typename F>
F glibOwn(const char* name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

const char* __tsan_default_options()
{
    return "ignore_noninstrumented_modules=1";
}

void g_mutex_lock(GMutex* m)
{
    static const auto own = glibOwn<void (*)(GMutex*)>("g_mutex_lock");
    own(m);
    __tsan_acquire(m);
}

gboolean g_mutex_trylock(GMutex* m)
{
    static const auto own = glibOwn<gboolean (*)(GMutex*)>("g_mutex_trylock");
    const gboolean locked = own(m);
    if (locked)
        __tsan_acquire(m);
    return locked;
}

void g_mutex_unlock(GMutex* m)
{
    static const auto own = glibOwn<void (*)(GMutex*)>("g_mutex_unlock");
    __tsan_release(m);
    own(m);
}

void g_rec_mutex_lock(GRecMutex* m)
{
    static const auto own = glibOwn<void (*)(GRecMutex*)>("g_rec_mutex_lock");
    own(m);
    __tsan_acquire(m);
}

gboolean g_rec_mutex_trylock(GRecMutex* m)
{
    static const auto own = glibOwn<gboolean (*)(GRecMutex*)>("g_rec_mutex_trylock");
    const gboolean locked = own(m);
    if (locked)
        __tsan_acquire(m);
    return locked;
}

void g_rec_mutex_unlock(GRecMutex* m)
{
    static const auto own = glibOwn<void (*)(GRecMutex*)>("g_rec_mutex_unlock");
    __tsan_release(m);
    own(m);
}

void g_cond_wait(GCond* c, GMutex* m)
{
    static const auto own = glibOwn<void (*)(GCond*, GMutex*)>("g_cond_wait");
    __tsan_release(m);
    own(c, m);
    __tsan_acquire(m);
}

gboolean g_cond_wait_until(GCond* c, GMutex* m, gint64 end_time)
{
    static const auto own = glibOwn<gboolean (*)(GCond*, GMutex*, gint64)>("g_cond_wait_until");
    __tsan_release(m);
    const gboolean signalled = own(c, m, end_time);
    __tsan_acquire(m);
    return signalled;
}

} // extern "C"
