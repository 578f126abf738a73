#include "format/ts_printf.h"

#include "guarded_memory.h"

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace ts_printf;

// Pieces that make the compiler and the formatter take every path, including the
// awkward ones: fields cut short, patterns without ")", numbers far beyond every limit.
const std::vector<std::wstring> pieces = [] {
    std::vector<std::wstring> result = {
        L"{", L"}", L"{{", L"{0", L"{1", L"{2", L"{3", L"{}", L"?<", L"?>", L"?|", L"?", L"a", L"al", L"ac", L"ar",
        L"b", L"b0", L"b2", L"b8", L"b10", L"b16", L"b016x", L"b16X", L"b16xp", L"x", L"X", L"p", L"p3", L"c", L"e",
        L"f", L"f0", L"l", L"n", L"s", L"sa", L"t", L"t(", L"t(%Y%m%d", L")", L"%", L"%E", L"%O", L"%%", L"u", L"w",
        L"w5", L"w,3", L"w5,2", L",", L"+", L"99999999999999999999", L"0", L"7", L"abc", L" ", L"\u2026", L"\xD800",
        std::wstring(1, L'\0')};
    for (const wchar_t c : std::wstring_view(L"aAbBcCdDeFgGhHIjmMnprRStTuUVwWxXyYzZqE"))
        result.push_back(std::wstring(L"%") + c);
    for (wchar_t c = L'+'; c <= L'}'; ++c)
        result.emplace_back(1, c);
    return result;
}();

const std::wstring_view seeds[] = {
    L"{0}{1}", L"{0},{1}", L"{0arf0w5}", L"{1ub016x}", L"{}", L"{0}{2?<}@{1}{2?>}", L"{0}.{1t(%Y%m%d-%H%M%S)}.xml",
    L"[[[r:{2}:{0?<}:{1}:{0?>} ]]] {3}", L"{{0}", L"{0w,4e}{1l}{2p3sa}{3c}{4b16p}",
};

std::wstring generate(std::mt19937& random)
{
    std::wstring text;
    const std::size_t count = std::uniform_int_distribution<std::size_t>(0, 24)(random);
    for (std::size_t i = 0; i < count; ++i)
        text += pieces[std::uniform_int_distribution<std::size_t>(0, pieces.size() - 1)(random)];
    return text;
}

std::wstring mutate(std::wstring text, std::mt19937& random)
{
    const int edits = std::uniform_int_distribution<int>(1, 4)(random);
    for (int i = 0; i < edits; ++i) {
        const std::size_t at = std::uniform_int_distribution<std::size_t>(0, text.size())(random);
        const std::wstring& piece = pieces[std::uniform_int_distribution<std::size_t>(0, pieces.size() - 1)(random)];
        switch (std::uniform_int_distribution<int>(0, 3)(random)) {
        case 0:
            text.insert(at, piece);
            break;
        case 1:
            text.erase(at, 1);
            break;
        case 2:
            text.replace(at, piece.size(), piece);
            break;
        default:
            text.resize(at);  // cut anywhere, also inside a field
            break;
        }
    }
    return text;
}

// Compiling either works or names a position inside the string; formatting the result
// with any arguments either works or throws the library's own exception.
struct outcome {
    int compiled = 0;
    int rejected = 0;
    int formatted = 0;
};

void exercise(std::wstring_view text, outcome& counts)
{
    segment_list segments;
    try {
        segments = compile(text);
    } catch (const bad_extended_format_string& e) {
        EXPECT_LT(e.position(), text.size()) << std::wstring(text);
        ++counts.rejected;
        return;
    }
    ++counts.compiled;
    for (const segment& s : segments) {
        if (s.flags & (segment_flags::literal | segment_flags::time_pattern)) {
            EXPECT_LE(s.start, s.end) << std::wstring(text);
            EXPECT_LE(s.end, text.size()) << std::wstring(text);
        }
    }

    std::tm calendar{};
    calendar.tm_year = 125;
    calendar.tm_mday = 31;
    calendar.tm_hour = 23;
    const auto now = std::chrono::system_clock::now();
    const auto attempt = [&](auto&&... args) {
        std::wstring out;
        try {
            format_to(out, text, segments, args...);
            ++counts.formatted;
        } catch (const bad_extended_format_string&) {
            ADD_FAILURE() << "compile error while formatting: " << std::wstring(text);
        } catch (const generic_exception&) {
            // conditionals too deep, date-time fields the runtime cannot print
        }
    };
    attempt();
    attempt(42, L"text", true, -7LL, 3.5);
    attempt(calendar, now, L'x', std::uint8_t{200}, false, L"");
    attempt(std::tm{}, 0.0f, -1, 0xFFFFFFFFFFFFFFFFull, std::wstring(300, L'w'));
}

TEST(format_random, generated_and_mutated_strings_never_read_outside_the_text)
{
    std::mt19937 random(20250102);
    test_support::guarded_buffer guard;
    outcome counts;
    for (int i = 0; i < 4000; ++i)
        exercise(guard.place(generate(random)), counts);
    for (int i = 0; i < 4000; ++i) {
        const std::wstring_view seed = seeds[i % std::size(seeds)];
        exercise(guard.place(mutate(std::wstring(seed), random)), counts);
    }
    // The generator must reach both outcomes often, or this test proves little.
    EXPECT_GT(counts.compiled, 1500);
    EXPECT_GT(counts.rejected, 1500);
    EXPECT_GT(counts.formatted, 4 * 1000);
}

}  // namespace
