#include "format/ts_printf.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace {

using namespace ts_printf;
using namespace std::string_literals;

std::tm make_tm(int year, int month, int day, int hour, int minute, int second)
{
    std::tm t{};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    t.tm_isdst = -1;
    std::tm normalised = t;
    _mkgmtime(&normalised);  // fills in weekday and day of the year
    t.tm_wday = normalised.tm_wday;
    t.tm_yday = normalised.tm_yday;
    return t;
}

TEST(format_output, width_alignment_fill_and_truncation)
{
    EXPECT_EQ(format(L"{0arf0w5}", 42), L"00042");
    EXPECT_EQ(format(L"{0w5}", L"ab"), L"ab   ");
    EXPECT_EQ(format(L"{0acw5}", L"ab"), L" ab  ");
    EXPECT_EQ(format(L"{0acw6}", L"abc"), L" abc  ");
    EXPECT_EQ(format(L"{0arw6f.}", L"abc"), L"...abc");
    EXPECT_EQ(format(L"{0w3}", L"abcde"), L"abcde");  // width never truncates
    EXPECT_EQ(format(L"{0w,4e}", L"abcdef"), L"abc\u2026");
    EXPECT_EQ(format(L"{0arw,4e}", L"abcdef"), L"\u2026def");
    EXPECT_EQ(format(L"{0w,1e}", L"abc"), L"\u2026");
    EXPECT_EQ(format(L"{0w,4}", L"abcdef"), L"abcd");
    EXPECT_EQ(format(L"{0acw,4}", L"abcdef"), L"abcd");
    EXPECT_EQ(format(L"{0arw,4}", L"abcdef"), L"cdef");
    EXPECT_EQ(format(L"{0w,6e}", L"abcdef"), L"abcdef");
    // Width and max width never both act on one value.
    EXPECT_EQ(format(L"{0w8,2e}", L"abc"), L"abc     ");
    EXPECT_EQ(format(L"{0w2,4e}", L"abcdef"), L"abc\u2026");
    EXPECT_EQ(format(L"{0arf0w6}", -42), L"000-42");
    EXPECT_EQ(format(L"{0arf}w3}", L"a"), L"}}a");  // the fill may be any character
    EXPECT_EQ(format(L"{0w99999}", L"a").size(), 65535u);  // saturates, never wraps to a small width
}

TEST(format_output, literals_escapes_and_missing_arguments)
{
    EXPECT_EQ(format(L"{{0}"), L"{0}");
    EXPECT_EQ(format(L"a}b{{{{c"), L"a}b{{c");
    EXPECT_EQ(format(L"{}{}{5}{}", 0, 1, 2, 3, 4, 5, 6), L"0156");
    EXPECT_EQ(format(L"<{0}|{3}|{1}>", L"a", L"b"), L"<a||b>");
    EXPECT_EQ(format(L"x{0w5}y{0?<}z{0?>}"), L"xyz");
    EXPECT_EQ(format(L"{0},{1}", 1, 2), L"1,2");
    // Texts longer than the run's own buffer, in pieces of every size.
    const std::wstring long_text(700, L'a'), mid_text(100, L'b');
    EXPECT_EQ(format(mid_text + L"{0}{1w600f.}{2}{2}{0}" + long_text, long_text, L"x", mid_text),
              mid_text + long_text + L"x" + std::wstring(599, L'.') + mid_text + mid_text + long_text + long_text);

    std::wstring out = L"keep:";
    const compiled_format compiled(L"{0}-{1}");
    format_to(out, compiled, 1, L"a");
    format_to(out, compiled, 2, L"b");
    EXPECT_EQ(out, L"keep:1-a2-b");

    // A segment list used with a string it does not belong to: clamped end, error on start.
    const std::wstring_view text = L"abcdef";
    segment s;
    s.flags = segment_flags::literal;
    s.start = 2;
    s.end = 100;
    out.clear();
    format_to(out, text, {s});
    EXPECT_EQ(out, L"cdef");
    s.start = 7;
    EXPECT_THROW(format_to(out, text, {s}), generic_exception);
    s.start = 6;
    EXPECT_NO_THROW(format_to(out, text, {s}));
}

// Runs write straight into the string: one that outgrows the capacity must keep what was
// there, come out whole, and a failing run must leave a usable string behind.
TEST(format_output, appends_across_growth_and_failure)
{
    const compiled_format compiled(L"[{0}|{1w40f*}]");
    for (std::size_t prefix : {0u, 3u, 7u, 8u, 15u, 300u}) {
        std::wstring out(prefix, L'p');
        out.shrink_to_fit();
        const std::wstring kept = out;
        format_to(out, compiled, std::wstring(prefix + 5, L'x'), 12345);
        EXPECT_EQ(out, kept + L"[" + std::wstring(prefix + 5, L'x') + L"|12345" + std::wstring(35, L'*') + L"]");
        EXPECT_EQ(out.c_str()[out.size()], L'\0');
    }

    const compiled_format nested(L"start {0?<}{0?<}{0?<}{0?<}{0?<}{0?<}{0?<}{0?<}{0?<} never");
    std::wstring out = L"before ";
    EXPECT_THROW(format_to(out, nested, true), generic_exception);
    EXPECT_EQ(out.substr(0, 7), L"before ");
    EXPECT_EQ(out.c_str()[out.size()], L'\0');
    out.reserve(4096);
    out.clear();
    format_to(out, compiled, L"a", 1);
    EXPECT_EQ(out, L"[a|1" + std::wstring(39, L'*') + L"]");
}

TEST(format_output, every_argument_kind)
{
    const std::wstring string = L"str";
    wchar_t buffer[16] = L"buf";
    const wchar_t* null_text = nullptr;
    EXPECT_EQ(format(L"{}{}{}{}{}{}", string, std::wstring_view(L"view"), L"lit", buffer, null_text, L'c'),
              L"strviewlitbufc");
    EXPECT_EQ(format(L"{}|{}|{}|{}", u'x', true, false, std::int8_t{-8}), L"x|true|false|-8");
    EXPECT_EQ(format(L"{0n}{1n}", true, false), L"10");
    EXPECT_EQ(format(L"{} {} {} {}", std::uint8_t{255}, std::int16_t{-32768}, std::uint16_t{65535}, -2147483647 - 1),
              L"255 -32768 65535 -2147483648");
    EXPECT_EQ(format(L"{} {} {} {}", 4294967295u, std::numeric_limits<std::int64_t>::min(),
                     std::numeric_limits<std::uint64_t>::max(), 123456789L),
              L"4294967295 -9223372036854775808 18446744073709551615 123456789");
    EXPECT_EQ(format(L"{} {p2} {}", 2.5f, 1.0 / 3, 0.0), L"2 0.33 0");
}

TEST(format_output, integer_bases_signs_and_characters)
{
    EXPECT_EQ(format(L"{0b2} {0b8} {0b16} {1b2} {2b16}", 10, 0, -255), L"1010 12 A 0 -FF");
    EXPECT_EQ(format(L"{0b16X} {0b16x} {0b3} {0b0}", 0xBEEF), L"BEEF beef BEEF 0xBEEF");
    EXPECT_EQ(format(L"{1ub016x}", 0, static_cast<std::int32_t>(0x80070005)), L"0x80070005");
    EXPECT_EQ(format(L"{0b16p} {1b16xp} {1b016xp}", 0xAB, 0x123456789ull), L"000000AB 0000000123456789 0x0000000123456789");
    EXPECT_EQ(format(L"{0b016} {0b16p}", 0), L"0x0 00000000");
    EXPECT_EQ(format(L"{0u} {1u} {2ub16} {3b2u}", std::int8_t{-1}, std::int16_t{-2}, -1LL, std::int8_t{-128}),
              L"255 65534 FFFFFFFFFFFFFFFF 10000000");
    EXPECT_EQ(format(L"{0+} {1+} {2+} {0+b016}", 5, -5, 0u), L"+5 -5 +0 +0x5");
    EXPECT_EQ(format(L"{0b2}", std::numeric_limits<std::int64_t>::min()), L"-1" + std::wstring(63, L'0'));
    EXPECT_EQ(format(L"{0c}{1c}{2c}{3c}{4uc}", 0x41, 0x263A, 0x1F600, -1, std::int8_t{-1}),
              L"A\u263A\U0001F600\uFFFD\u00FF");
    EXPECT_EQ(format(L"{0c}", 0x110000), L"\uFFFD");
    EXPECT_EQ(format(L"{0c}{0c}", 0), L"\0\0"s);
}

// Numbers without a width are written straight into the output after their length is
// worked out beforehand: every length boundary in every base must still come out whole.
TEST(format_output, integer_lengths_at_every_digit_boundary)
{
    const auto reference = [](std::uint64_t value, unsigned base) {
        std::wstring text;
        do {
            text.insert(text.begin(), L"0123456789ABCDEF"[value % base]);
            value /= base;
        } while (value);
        return text;
    };
    std::vector<std::uint64_t> values = {0, std::numeric_limits<std::uint64_t>::max()};
    for (std::uint64_t power = 1; power <= 10'000'000'000'000'000'000ull; power *= 10) {
        values.insert(values.end(), {power - 1, power, power + 1});
        if (power > std::numeric_limits<std::uint64_t>::max() / 10)
            break;
    }
    for (int shift = 0; shift < 64; ++shift)
        values.insert(values.end(), {std::uint64_t{1} << shift, (std::uint64_t{1} << shift) - 1});
    for (const std::uint64_t value : values) {
        const std::wstring decimal = reference(value, 10), hex = reference(value, 16);
        const std::wstring padded = std::wstring(hex.size() <= 8 ? 8 - hex.size() : 16 - hex.size(), L'0') + hex;
        std::wstring out = L"<";
        format_to(out, compiled_format(L"{0}|{0b2}|{0b8}|{0b16}|{0b016}|{0b16p}|{0+}|{0w1}>"), value);
        EXPECT_EQ(out, L"<" + decimal + L"|" + reference(value, 2) + L"|" + reference(value, 8) + L"|" + hex + L"|0x" +
                           hex + L"|" + padded + L"|+" + decimal + L"|" + decimal + L">")
            << value;
        if (value != 0 && value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            EXPECT_EQ(format(L"{0}{0b016}", -static_cast<std::int64_t>(value)), L"-" + decimal + L"-0x" + hex) << value;
        }
    }
    // A number that does not fit the string's room makes it grow, like any other piece.
    std::wstring out;
    out.shrink_to_fit();
    format_to(out, compiled_format(L"{0}{1b2}{0b016}"), std::numeric_limits<std::uint64_t>::max(), -1);
    EXPECT_EQ(out, L"18446744073709551615-1" + std::wstring(L"0xFFFFFFFFFFFFFFFF"));
}

TEST(format_output, hexadecimal_case_follows_the_program_wide_switch)
{
    EXPECT_FALSE(default_hex_lowercase());
    const compiled_format compiled(L"{0b16} {0b16p} {0b016} {0b16X} {0b16x} {0b7}");
    std::wstring out;
    format_to(out, compiled, 0xABCu);
    EXPECT_EQ(out, L"ABC 00000ABC 0xABC ABC abc ABC");
    set_default_hex_lowercase(true);
    out.clear();
    format_to(out, compiled, 0xABCu);
    set_default_hex_lowercase(false);
    EXPECT_EQ(out, L"abc 00000abc 0xabc ABC abc ABC");
}

TEST(format_output, thousands_grouping_uses_the_user_separator)
{
    wchar_t expected[8] = {};
    ASSERT_GT(GetLocaleInfoEx(LOCALE_NAME_USER_DEFAULT, LOCALE_STHOUSAND, expected, 8), 0);
    const wchar_t sep = thousands_separator();
    ASSERT_EQ(sep, expected[0]);
    ASSERT_NE(sep, L'\0') << "this environment's user locale groups digits";
    const std::wstring s(1, sep);
    EXPECT_EQ(format(L"{0l}|{1l}|{2l}|{3l}", 0, 999, 1000, -1234567), L"0|999|1" + s + L"000|-1" + s + L"234" + s + L"567");
    EXPECT_EQ(format(L"{0l}", std::numeric_limits<std::uint64_t>::max()),
              L"18" + s + L"446" + s + L"744" + s + L"073" + s + L"709" + s + L"551" + s + L"615");
    EXPECT_EQ(format(L"{0lb16}|{0lb2}|{0l+arw8}", 4096), L"1000|1000000000000|  +4" + s + L"096");
}

TEST(format_output, floating_point_notations)
{
    EXPECT_EQ(format(L"{0}|{0p2}|{1}|{2p3}|{3}", 3.14159, 2.5, 0.125, 1e20), L"3|3.14|2|0.125|100000000000000000000");
    EXPECT_EQ(format(L"{0p2}", 0.125), L"0.12");  // correctly rounded: 0.125 is exact, ties to even
    EXPECT_EQ(format(L"{0sp2}|{0sap3}|{1sa}|{2sap4}", 1500.0, 1e-7, 123456.0), L"1.50e+03|1.5e+03|1e-07|1.235e+05");
    EXPECT_EQ(format(L"{0n}|{1n}|{2n}|{3n}", 0.1, 0.1f, 1e20, 1.0 / 3), L"0.1|0.1|1e+20|0.3333333333333333");
    EXPECT_EQ(format(L"{0+p1}|{1+p1}|{2+}|{3}|{4}", 1.25, -1.25, 0.0, INFINITY, NAN), L"+1.2|-1.2|+0|inf|nan");
    const std::wstring huge = format(L"{0p500}", 1e308);
    EXPECT_EQ(huge.size(), 309u + 1 + 500);
    EXPECT_EQ(huge.substr(0, 6), L"100000");
    EXPECT_EQ(format(L"{0p3w10ar}", -0.5), L"    -0.500");
}

TEST(format_output, conditionals_nest_and_keep_balance_while_suppressed)
{
    const compiled_format compiled(L"{0}{2?<}@{1}{2?>}");
    for (const bool flag : {true, false}) {
        std::wstring out;
        format_to(out, compiled, L"a", L"b", flag);
        EXPECT_EQ(out, flag ? L"a@b" : L"a");
    }
    const std::wstring_view if_else = L"{0?<}yes{0?|}no{0?>}.";
    EXPECT_EQ(format(if_else, true), L"yes.");
    EXPECT_EQ(format(if_else, false), L"no.");
    // The inner level is pushed and popped although its text is never shown.
    const std::wstring_view nested = L"[{0?<}A{1?<}B{1?|}C{1?>}D{0?>}E]";
    EXPECT_EQ(format(nested, true, true), L"[ABDE]");
    EXPECT_EQ(format(nested, true, false), L"[ACDE]");
    EXPECT_EQ(format(nested, false, true), L"[E]");
    EXPECT_EQ(format(nested, false, false), L"[E]");
    // Truth of other kinds.
    const std::wstring_view shown = L"{0?<}1{0?>}";
    EXPECT_EQ(format(shown, L"x") + format(shown, L"") + format(shown, 7) + format(shown, 0u) + format(shown, 0.5) +
                  format(shown, 0.0) + format(shown, L'\0') + format(shown, std::tm{}),
              L"1" L"" L"1" L"" L"1" L"" L"" L"1");
    EXPECT_EQ(format(L"[[[r:{2}:{0?<}:{1}:{0?>} ]]] {3}", true, L"b", L"c", 4), L"[[[r:c::b: ]]] 4");
    // Unbalanced closes and missing marker arguments are harmless.
    EXPECT_EQ(format(L"a{0?>}{0?|}b{0?<}c", false), L"ab");
    EXPECT_EQ(format(L"a{5?<}b{5?>}c", false), L"abc");
    // Eight levels are allowed; a ninth is refused rather than overflowing.
    std::wstring eight, nine;
    for (int i = 0; i < 8; ++i)
        eight += L"{0?<}";
    nine = eight + L"{0?<}";
    EXPECT_EQ(format(eight + L"x", true), L"x");
    EXPECT_THROW((void)format(nine, true), generic_exception);
    EXPECT_THROW((void)format(nine, false), generic_exception);
}

TEST(format_output, time_patterns_for_calendar_values)
{
    const std::tm t = make_tm(2025, 1, 2, 3, 4, 5);
    EXPECT_EQ(format(L"{0}.{1t(%Y%m%d-%H%M%S)}.xml", L"export", t), L"export.20250102-030405.xml");
    EXPECT_EQ(format(L"{0t(%F %T|%D %R|%e|%j|%I|%u %w|%C %y|%%|%Ey %OH)}", t),
              L"2025-01-02 03:04:05|01/02/25 03:04| 2|002|03|4 4|20 25|%|25 03");
    EXPECT_EQ(format(L"{0t(%a %A %b %B %h %p)}", t), L"Thu Thursday Jan January Jan AM");
    EXPECT_EQ(format(L"{0t(%I%p)}", make_tm(2025, 1, 2, 0, 0, 0)), L"12AM");
    // ISO weeks at the turn of the year: 1 Jan 2021 is in week 53 of 2020, 31 Dec 2024 in week 1 of 2025.
    EXPECT_EQ(format(L"{0t(%G-W%V %g)}", make_tm(2021, 1, 1, 0, 0, 0)), L"2020-W53 20");
    EXPECT_EQ(format(L"{0t(%G-W%V %U %W)}", make_tm(2024, 12, 31, 0, 0, 0)), L"2025-W01 52 53");
    // Not conversions: printed as written.
    EXPECT_EQ(format(L"{0t(%q %E %)}", t), L"%q %E %");
    EXPECT_EQ(format(L"{0}", t), L"2025-01-02 03:04:05");
    EXPECT_EQ(format(L"{0w12,4earf_t(%Y)}", t), L"________2025");
    EXPECT_EQ(format(L"{0t(%Y-%m", t), L"2025-01");  // unterminated pattern ends with the string

    // Numbers print whatever the fields hold; the runtime's conversions need valid fields.
    const std::tm zero{};
    EXPECT_EQ(format(L"{0t(%Y %d %H)}", zero), L"1900 00 00");
    std::tm bad = t;
    bad.tm_mon = 50;
    EXPECT_THROW((void)format(L"{0t(%b)}", bad), generic_exception);
    EXPECT_EQ(format(L"{0t(%m)}", bad), L"51");
    // A leap second: the runtime refuses second 60, so the locale's conversions show the
    // last second before it (in the only locale this runtime has, "C").
    bad = t;
    bad.tm_sec = 60;
    EXPECT_EQ(format(L"{0t(%S)}", bad), L"60");
    std::tm last_second = t;
    last_second.tm_sec = 59;
    const std::wstring leap = format(L"{0t(%c|%x|%X|%z)}", bad);
    EXPECT_EQ(leap, format(L"{0t(%c|%x|%X|%z)}", last_second));
    EXPECT_TRUE(leap.starts_with(L"01/02/25 03:04:59|01/02/25|03:04:59|")) << leap;
    const std::wstring offset = leap.substr(leap.rfind(L'|') + 1);
    EXPECT_TRUE(offset.size() == 5 && (offset[0] == L'+' || offset[0] == L'-')) << leap;
    EXPECT_EQ(format(L"{0t(%Z)}", bad), format(L"{0t(%Z)}", last_second));
}

TEST(format_output, time_points_print_in_local_time)
{
    std::tm local = make_tm(2024, 7, 15, 13, 14, 15);
    local.tm_isdst = -1;
    const std::time_t seconds = std::mktime(&local);  // local time to a point in time
    ASSERT_NE(seconds, -1);
    const auto point = std::chrono::system_clock::from_time_t(seconds) + std::chrono::milliseconds(999);
    EXPECT_EQ(format(L"{0t(%Y%m%d-%H%M%S)}", point), L"20240715-131415");
    EXPECT_EQ(format(L"{0}", std::chrono::time_point_cast<std::chrono::seconds>(point)), L"2024-07-15 13:14:15");
    EXPECT_THROW((void)format(L"{0}", std::chrono::system_clock::time_point{} - std::chrono::hours(24 * 400)),
                 generic_exception);
}

}  // namespace
