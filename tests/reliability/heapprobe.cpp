// SPDX-License-Identifier: LGPL-2.1-or-later
#include "heapprobe.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KAVREL_SANITIZER_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KAVREL_SANITIZER_HEAP 1
#endif
#endif

static std::atomic<long long> gAllocations{0}, gFrees{0}, gBytes{0};
static std::atomic<unsigned long> gFailFrom{0};

#ifdef KAVREL_SANITIZER_HEAP

// From the sanitizers' allocator interface (GCC installs no header for it).
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*, std::size_t),
                                                         void (*)(const volatile void*));
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();

static const bool gHooked = __sanitizer_install_malloc_and_free_hooks([](const volatile void*, std::size_t) { ++gAllocations; },
                                                                      [](const volatile void*) { ++gFrees; }) != 0;
static long long liveBytes() { return gHooked ? static_cast<long long>(__sanitizer_get_current_allocated_bytes()) : -1; }
bool heapCanFail() { return false; }

#else

#include <cerrno>
#include <malloc.h>

// glibc's own allocator behind the replaced entry points.
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void __libc_free(void*);
void* __libc_memalign(std::size_t, std::size_t);
}

// Counts a block handed out (sign 1) or given back (-1) at its usable size.
static void* count(void* p, int sign = 1)
{
    if (p)
        ++(sign > 0 ? gAllocations : gFrees), gBytes += sign * static_cast<long long>(malloc_usable_size(p));
    return p;
}
static long long liveBytes() { return gBytes; }
bool heapCanFail() { return true; }

// True when an allocation of n bytes is to fail (failAllocationsFrom).
static bool refused(std::size_t n)
{
    const unsigned long from = gFailFrom.load(std::memory_order_relaxed);
    return from != 0 && n >= from;
}

extern "C" {
void* malloc(std::size_t n) { return refused(n) ? nullptr : count(__libc_malloc(n)); }
void* calloc(std::size_t n, std::size_t size)
{
    return size && n > SIZE_MAX / size ? nullptr : refused(n * size) ? nullptr : count(__libc_calloc(n, size));
}
void free(void* p) { __libc_free(count(p, -1)); }
void* memalign(std::size_t alignment, std::size_t n) { return refused(n) ? nullptr : count(__libc_memalign(alignment, n)); }
void* aligned_alloc(std::size_t alignment, std::size_t n) { return memalign(alignment, n); }
void* realloc(void* p, std::size_t n)
{
    if (refused(n))
        return nullptr;
    void* q = __libc_realloc(count(p, -1), n);
    return count(q || n == 0 ? q : p); // failed: the old block is still there
}
int posix_memalign(void** pp, std::size_t alignment, std::size_t n)
{
    if (alignment < sizeof(void*) || (alignment & (alignment - 1)) != 0)
        return EINVAL;
    void* p = refused(n) ? nullptr : count(__libc_memalign(alignment, n));
    return p ? (*pp = p, 0) : ENOMEM; // a failure leaves *pp alone
}
} // extern "C"

#endif

void failAllocationsFrom(unsigned long bytes) { gFailFrom = bytes; }

HeapCount heapCount()
{
    const long long n = gAllocations.load();
    return {n, n - gFrees.load(), liveBytes()};
}
