#include "format/ts_printf.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

// Every allocation of the test executable is counted, so that a test can assert that a
// stretch of code allocates nothing.
namespace {
std::atomic<long> allocations{0};
}

void* operator new(std::size_t size)
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

using namespace ts_printf;

TEST(format_allocations, reused_output_and_compiled_format_allocate_nothing)
{
    const std::wstring message = L"The device is in use by another client";
    std::tm calendar{};
    calendar.tm_year = 125;
    calendar.tm_mday = 2;
    const compiled_format formats[] = {
        compiled_format(L"{0}{1}"),
        compiled_format(L"{0arf0w5} {1ub016x} {2l} {3b2} {4p3} {4n}"),
        compiled_format(L"[[[r:{2}:{0?<}:{1}:{0?>} ]]] {3w,10e}"),
        compiled_format(L"{0}.{1t(%Y%m%d-%H%M%S)}.xml {1t(%F %T %G-W%V)}"),
    };
    std::wstring out;
    const auto run = [&] {
        for (int i = 0; i < 3; ++i) {
            out.clear();
            format_to(out, formats[0], message, L"!");
            format_to(out, formats[1], 42, -5, 1234567, 0xA5u, 3.25);
            format_to(out, formats[2], true, message, 7, message);
            format_to(out, formats[3], message, calendar);
        }
    };
    run();  // grows the output once
    const long before = allocations.load();
    run();
    EXPECT_EQ(allocations.load() - before, 0);
}

}  // namespace
