#include "heapprobe.h"

#include <atomic>
#include <cstddef>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KAVREL_SANITIZER_HEAP 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KAVREL_SANITIZER_HEAP 1
#endif

namespace {
std::atomic<long long> gAllocations{0};
std::atomic<long long> gFrees{0};
std::atomic<long long> gBytes{0};
} // namespace

#ifdef KAVREL_SANITIZER_HEAP

// From the sanitizers' allocator interface (GCC installs no header for it).
extern "C" {
int __sanitizer_install_malloc_and_free_hooks(void (*malloc_hook)(const volatile void*, std::size_t),
                                              void (*free_hook)(const volatile void*));
std::size_t __sanitizer_get_current_allocated_bytes();
}

namespace {

void onMalloc(const volatile void*, std::size_t)
{
    gAllocations.fetch_add(1, std::memory_order_relaxed);
}

void onFree(const volatile void*)
{
    gFrees.fetch_add(1, std::memory_order_relaxed);
}

const bool gHooked = __sanitizer_install_malloc_and_free_hooks(onMalloc, onFree) != 0;

} // namespace

HeapCount heapCount()
{
    (void)gHooked;
    const long long nAllocations = gAllocations.load();
    return {nAllocations, nAllocations - gFrees.load(),
            static_cast<long long>(__sanitizer_get_current_allocated_bytes())};
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
void* __libc_valloc(std::size_t);
void* __libc_pvalloc(std::size_t);
}

namespace {

void* counted(void* p)
{
    if (p) {
        gAllocations.fetch_add(1, std::memory_order_relaxed);
        gBytes.fetch_add(static_cast<long long>(malloc_usable_size(p)), std::memory_order_relaxed);
    }
    return p;
}

void uncount(void* p)
{
    if (p) {
        gFrees.fetch_add(1, std::memory_order_relaxed);
        gBytes.fetch_sub(static_cast<long long>(malloc_usable_size(p)), std::memory_order_relaxed);
    }
}

} // namespace

extern "C" {

void* malloc(std::size_t n)
{
    return counted(__libc_malloc(n));
}

void* calloc(std::size_t n, std::size_t size)
{
    return counted(__libc_calloc(n, size));
}

void* realloc(void* p, std::size_t n)
{
    if (!p)
        return counted(__libc_malloc(n));
    uncount(p);
    void* q = __libc_realloc(p, n);
    if (!q && n != 0)
        return counted(p); // failed: the old block is still there
    return counted(q);
}

void free(void* p)
{
    uncount(p);
    __libc_free(p);
}

void* memalign(std::size_t alignment, std::size_t n)
{
    return counted(__libc_memalign(alignment, n));
}

void* aligned_alloc(std::size_t alignment, std::size_t n)
{
    return counted(__libc_memalign(alignment, n));
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

void* valloc(std::size_t n)
{
    return counted(__libc_valloc(n));
}

void* pvalloc(std::size_t n)
{
    return counted(__libc_pvalloc(n));
}

} // extern "C"

HeapCount heapCount()
{
    const long long nAllocations = gAllocations.load();
    return {nAllocations, nAllocations - gFrees.load(), gBytes.load()};
}

#endif
