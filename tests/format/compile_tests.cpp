#include "format/ts_printf.h"

#include "guarded_memory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace ts_printf;
namespace flag = ts_printf::segment_flags;

segment literal(std::uint32_t start, std::uint32_t end, std::uint32_t extra = 0)
{
    segment s;
    s.start = start;
    s.end = end;
    s.flags = flag::literal | extra;
    return s;
}

segment field(std::uint16_t argument, std::uint32_t flags = 0)
{
    segment s;
    s.argument = argument;
    s.flags = flags;
    return s;
}

// The one field of "{...}".
segment only_field(std::wstring_view format)
{
    const segment_list segments = compile(format);
    EXPECT_EQ(segments.size(), 1u) << std::wstring(format);
    return segments.empty() ? segment{} : segments.front();
}

TEST(format_compile, splits_literals_and_fields_into_one_allocation)
{
    const segment_list segments = compile(L"{0}{2?<}@{1}{2?>}");
    EXPECT_THAT(segments, testing::ElementsAre(field(0), field(2, flag::condition_marker | flag::condition_open),
                                               literal(8, 9), field(1),
                                               field(2, flag::condition_marker | flag::condition_close)));
    EXPECT_EQ(segments.capacity(), 2 * 4 + 1u);

    // The escape mark belongs to the run it was found in.
    EXPECT_THAT(compile(L"{{{0}}x"), testing::ElementsAre(literal(0, 2, flag::collapse_escapes), field(0), literal(5, 7)));
    EXPECT_TRUE(compile(L"").empty());
}

TEST(format_compile, automatic_indexes_continue_from_the_previous_field)
{
    const auto arguments = [](std::wstring_view format) {
        std::vector<int> result;
        for (const segment& s : compile(format))
            if (!(s.flags & flag::literal))
                result.push_back(s.argument);
        return result;
    };
    EXPECT_THAT(arguments(L"{3}{}{0}{}"), testing::ElementsAre(3, 4, 0, 1));
    EXPECT_THAT(arguments(L"{007}"), testing::ElementsAre(7));
    // Absurd numbers saturate rather than wrap round to a real argument.
    EXPECT_THAT(arguments(L"{99999999999999999999}{}{65536}"), testing::ElementsAre(65535, 65535, 65535));
}

TEST(format_compile, base_letters_and_their_hexadecimal_options)
{
    const auto check = [](std::wstring_view format, int base, std::uint32_t flags) {
        const segment s = only_field(format);
        EXPECT_EQ(s.base, base) << std::wstring(format);
        EXPECT_EQ(s.flags, flags) << std::wstring(format);
    };
    check(L"{b16", 16, flag::hex_default_case);
    check(L"{b0}", 0, flag::hex_prefix);
    check(L"{b}", 0, 0);
    check(L"{b1000}", 255, 0);  // saturates, never wraps to 16 or 10
    EXPECT_EQ(only_field(L"{b2p3}").precision, 3);  // "p" pads only after base 16
    EXPECT_THROW(compile(L"{b8x}"), bad_extended_format_string);
}

TEST(format_compile, string_ending_inside_a_field_keeps_the_field)
{
    EXPECT_THAT(compile(L"ab{1w5"), testing::ElementsAre(literal(0, 2), [] {
                    segment s = field(1);
                    s.width = 5;
                    return s;
                }()));
    for (const wchar_t* format : {L"{0", L"{0?", L"{0a", L"{0f", L"{0t", L"{0b0", L"{0w5,"})
        EXPECT_EQ(compile(format).size(), 1u) << format;
}

TEST(format_compile, malformed_strings_throw_at_the_offending_character)
{
    const std::pair<std::wstring_view, std::size_t> cases[] = {
        {L"abc{", 3},      {L"{{{", 2},        {L"{0q}", 2},      {L"{0 }", 2},     {L"{0w5x}", 4},
        {L"{0?}", 3},      {L"{0?x}", 3},      {L"{0tx}", 3},     {L"{0t(%Y}", 6},   {L"{0t(}", 4},
        {L"{0\u00e9}", 2}, {L"{0*}", 2},       {L"{0~}", 2},      {L"{0b16xx}", 6}, {L"{0b16p4}", 6},
    };
    for (const auto& [format, position] : cases) {
        try {
            (void)compile(format);
            ADD_FAILURE() << "compiled: " << std::wstring(format);
        } catch (const bad_extended_format_string& e) {
            EXPECT_EQ(e.position(), position) << std::wstring(format) << ": " << e.what();
        }
    }
    // Unknown alignment letters and missing digits are no errors.
    EXPECT_NO_THROW(compile(L"{0a?}{w}{p}{b}{}}"));
}

TEST(format_compile, brace_search_sees_every_position_without_reading_past_the_end)
{
    // Lengths and positions across the 16-, 8- and 4-unit blocks and the scalar tail.
    test_support::guarded_buffer guard;
    for (std::size_t length = 3; length <= 70; ++length) {
        for (std::size_t at = 0; at + 3 <= length; ++at) {
            std::wstring text(length, L'.');
            text.replace(at, 3, L"{7}");
            const segment_list segments = compile(guard.place(text));
            std::size_t field_index = 0;
            while (field_index < segments.size() && (segments[field_index].flags & flag::literal))
                ++field_index;
            ASSERT_LT(field_index, segments.size()) << length << " " << at;
            EXPECT_EQ(segments[field_index].argument, 7);
            EXPECT_EQ(field_index, at == 0 ? 0u : 1u);
            EXPECT_EQ(segments.size(), 1u + (at != 0) + (at + 3 != length));
        }
        EXPECT_THROW(compile(guard.place(std::wstring(length - 1, L'x') + L"{")), bad_extended_format_string);
        // Every "{" is counted for the single reservation: n escaped pairs reserve 2n + 1.
        std::wstring pairs;
        for (std::size_t i = 0; i < length; ++i)
            pairs += i % 2 ? L"{{" : L"a";
        EXPECT_EQ(compile(guard.place(pairs)).capacity(), 2 * 2 * (length / 2) + 1) << length;
    }
}

}  // namespace
