// Replaces the global operator new of the fuzz executables, to watch what each input
// makes a reader ask for. A request beyond any sane size fails as the system would fail
// it, without first trying to commit gigabytes.

#include "engine.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> largest{0};
constexpr std::size_t refused_above = std::size_t(1) << 30;

void* allocate(std::size_t size)
{
    std::size_t seen = largest.load(std::memory_order_relaxed);
    while (size > seen && !largest.compare_exchange_weak(seen, size, std::memory_order_relaxed)) {
    }
    if (size > refused_above)
        throw std::bad_alloc();
    if (void* p = std::malloc(size ? size : 1))
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

}  // namespace fuzz::memory

void* operator new(std::size_t size)
{
    return allocate(size);
}
void* operator new[](std::size_t size)
{
    return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    try {
        return allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    try {
        return allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void operator delete(void* p) noexcept
{
    std::free(p);
}
void operator delete[](void* p) noexcept
{
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept
{
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept
{
    std::free(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept
{
    std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept
{
    std::free(p);
}
