// Replaces the heap of the fuzz executables: every form of operator new and delete, and
// malloc, calloc, realloc and free, which the statically linked C++ runtime, winpthread
// and our own code call by name. Blocks come from the page heap unless it was switched
// off; frees are routed by address, so that blocks made before a switch, and blocks
// that the C runtime DLL allocated itself (strdup, wide paths), go back where they came
// from. Each request is also watched for its size: a request beyond any sane size fails
// as the system would fail it, without first trying to commit gigabytes.

#include "engine.h"
#include "page_heap.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

std::atomic<std::size_t> largest{0};
std::atomic<std::uint64_t> count{0};
std::atomic<bool> page_heap_on{true};
constexpr std::size_t refused_above = std::size_t(1) << 30;

// The C runtime DLL's own heap functions, for when the page heap is off and for the
// blocks the DLL hands out itself. Our definitions hide them from the linker.
struct crt_heap {
    void* (*malloc)(std::size_t) = nullptr;
    void (*free)(void*) = nullptr;
    void* (*realloc)(void*, std::size_t) = nullptr;
    void* (*calloc)(std::size_t, std::size_t) = nullptr;
    void* (*aligned_malloc)(std::size_t, std::size_t) = nullptr;
    void (*aligned_free)(void*) = nullptr;
};

const crt_heap& crt() noexcept
{
    // Resolved before the first constructor runs; two threads resolving it at once
    // write the same values.
    static constinit crt_heap functions;
    static constinit std::atomic<bool> resolved{false};
    if (!resolved.load(std::memory_order_acquire)) {
        const HMODULE dll = ::GetModuleHandleW(L"msvcrt.dll");
        const auto get = [dll](auto& function, const char* name) {
            function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(
                reinterpret_cast<void*>(::GetProcAddress(dll, name)));
            if (!function)
                ::RaiseFailFastException(nullptr, nullptr, 0);
        };
        get(functions.malloc, "malloc");
        get(functions.free, "free");
        get(functions.realloc, "realloc");
        get(functions.calloc, "calloc");
        get(functions.aligned_malloc, "_aligned_malloc");
        get(functions.aligned_free, "_aligned_free");
        resolved.store(true, std::memory_order_release);
    }
    return functions;
}

// aligned_form: asked through an aligned operator new, whose delete frees with the C
// runtime's aligned free when the block is not the page heap's.
bool watch(std::size_t size) noexcept
{
    count.fetch_add(1, std::memory_order_relaxed);
    std::size_t seen = largest.load(std::memory_order_relaxed);
    while (size > seen && !largest.compare_exchange_weak(seen, size, std::memory_order_relaxed)) {
    }
    return size <= refused_above;
}

void* allocate(std::size_t size, std::size_t alignment = 1, bool aligned_form = false) noexcept
{
    if (!watch(size))
        return nullptr;
    if (page_heap_on.load(std::memory_order_relaxed))
        return fuzz::page_heap::allocate(size, alignment);
    return aligned_form ? crt().aligned_malloc(size ? size : 1, alignment) : crt().malloc(size ? size : 1);
}

void release(void* p, bool aligned = false) noexcept
{
    if (fuzz::page_heap::owns(p))
        fuzz::page_heap::release(p);
    else if (aligned)
        crt().aligned_free(p);
    else if (p)
        crt().free(p);
}

void* new_or_throw(std::size_t size, std::size_t alignment = 1, bool aligned_form = false)
{
    if (void* p = allocate(size, alignment, aligned_form))
        return p;
    throw std::bad_alloc();
}

}  // namespace

namespace fuzz::memory {

void reset_peak() noexcept
{
    largest.store(0, std::memory_order_relaxed);
}

std::size_t largest_request() noexcept
{
    return largest.load(std::memory_order_relaxed);
}

std::uint64_t allocations() noexcept
{
    return count.load(std::memory_order_relaxed);
}

void use_page_heap(bool on) noexcept
{
    page_heap_on.store(on, std::memory_order_relaxed);
}

bool page_heap_in_use() noexcept
{
    return page_heap_on.load(std::memory_order_relaxed);
}

}  // namespace fuzz::memory

extern "C" {

void* malloc(std::size_t size)
{
    return allocate(size);
}

void* calloc(std::size_t number, std::size_t size)
{
    if (size && number > SIZE_MAX / size)
        return nullptr;
    if (!page_heap_on.load(std::memory_order_relaxed))
        return watch(number * size) ? crt().calloc(number, size) : nullptr;
    // Freshly committed pages are zero.
    return allocate(number * size);
}

void* realloc(void* p, std::size_t size)
{
    if (!p)
        return allocate(size);
    if (!fuzz::page_heap::owns(p))
        return crt().realloc(p, size);
    if (size == 0) {
        fuzz::page_heap::release(p);
        return nullptr;
    }
    // Always a new block: a caller that keeps using the old one faults.
    const std::size_t old_size = fuzz::page_heap::block_size(p);
    void* moved = allocate(size);
    if (!moved)
        return nullptr;
    std::memcpy(moved, p, old_size < size ? old_size : size);
    fuzz::page_heap::release(p);
    return moved;
}

void free(void* p)
{
    release(p);
}

}  // extern "C"

void* operator new(std::size_t size)
{
    return new_or_throw(size);
}
void* operator new[](std::size_t size)
{
    return new_or_throw(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}
void* operator new(std::size_t size, std::align_val_t alignment)
{
    return new_or_throw(size, static_cast<std::size_t>(alignment), true);
}
void* operator new[](std::size_t size, std::align_val_t alignment)
{
    return new_or_throw(size, static_cast<std::size_t>(alignment), true);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept
{
    return allocate(size, static_cast<std::size_t>(alignment), true);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept
{
    return allocate(size, static_cast<std::size_t>(alignment), true);
}

void operator delete(void* p) noexcept
{
    release(p);
}
void operator delete[](void* p) noexcept
{
    release(p);
}
void operator delete(void* p, std::size_t) noexcept
{
    release(p);
}
void operator delete[](void* p, std::size_t) noexcept
{
    release(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept
{
    release(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept
{
    release(p);
}
void operator delete(void* p, std::align_val_t) noexcept
{
    release(p, true);
}
void operator delete[](void* p, std::align_val_t) noexcept
{
    release(p, true);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept
{
    release(p, true);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept
{
    release(p, true);
}
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept
{
    release(p, true);
}
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept
{
    release(p, true);
}
