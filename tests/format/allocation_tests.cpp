#include "format/ts_printf.h"

#include "allocation_counter.h"

#include <gtest/gtest.h>

#include <cstdint>

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
    // The first run grows the output, which the counter must see: without the counting
    // operator new in effect every count would be 0 and the check below would pass anyway.
    const std::uint64_t before_growth = test_support::allocation_count();
    run();
    ASSERT_GT(test_support::allocation_count() - before_growth, 0u) << "allocations are not being counted";
    const std::uint64_t before = test_support::allocation_count();
    run();
    EXPECT_EQ(test_support::allocation_count() - before, 0u);
}

}  // namespace
