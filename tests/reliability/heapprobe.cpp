#include "heapprobe.h"

#include <atomic>
#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KAVREL_SANITIZER_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KAVREL_SANITIZER_HEAP 1
#endif
#endif

namespace {
std::atomic<long long> gAllocations{0}, gFrees{0}, gBytes{0};
} // namespace

#ifdef KAVREL_SANITIZER_HEAP

// From the sanitizers' allocator interface (GCC installs no header for it).
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*, std::size_t),
                                                         void (*)(const volatile void*));
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();

namespace {
const bool gHooked = __sanitizer_install_malloc_and_free_hooks([](const volatile void*, std::size_t) { ++gAllocations; },
                                                               [](const volatile void*) { ++gFrees; }) != 0;
} // namespace

HeapCount heapCount()
{
    (void)gHooked;
    const long long n = gAllocations.load();
    return {n, n - gFrees.load(), static_cast<long long>(__sanitizer_get_current_allocated_bytes())};
}

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

namespace {
void* counted(void* p)
{
    if (p)
        ++gAllocations, gBytes += static_cast<long long>(malloc_usable_size(p));
    return p;
}
void uncount(void* p)
{
    if (p)
        ++gFrees, gBytes -= static_cast<long long>(malloc_usable_size(p));
}
} // namespace

extern "C" {
void* malloc(std::size_t n) { return counted(__libc_malloc(n)); }
void* calloc(std::size_t n, std::size_t size) { return counted(__libc_calloc(n, size)); }
void free(void* p) { uncount(p), __libc_free(p); }
void* memalign(std::size_t alignment, std::size_t n) { return counted(__libc_memalign(alignment, n)); }
void* aligned_alloc(std::size_t alignment, std::size_t n) { return counted(__libc_memalign(alignment, n)); }
void* realloc(void* p, std::size_t n)
{
    uncount(p);
    void* q = __libc_realloc(p, n);
    return counted(q || n == 0 ? q : p); // failed: the old block is still there
}
int posix_memalign(void** pp, std::size_t alignment, std::size_t n)
{
    if (alignment < sizeof(void*) || (alignment & (alignment - 1)) != 0)
        return EINVAL;
    void* p = counted(__libc_memalign(alignment, n));
    if (!p)
        return ENOMEM;
    *pp = p;
    return 0;
}
} // extern "C"

HeapCount heapCount()
{
    const long long n = gAllocations.load();
    return {n, n - gFrees.load(), gBytes.load()};
}

#endif
