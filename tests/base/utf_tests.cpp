#include "base/utf.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using tessel::utf16_to_utf8;
using tessel::utf8_to_utf16;

TEST(utf, well_formed_text_converts_both_ways)
{
    // ASCII, 2-, 3- and 4-byte sequences, and the edges of each range.
    const std::string utf8 = "A\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80\x7F\xC2\x80\xEF\xBF\xBF\xF4\x8F\xBF\xBF";
    const std::wstring utf16 = L"A\u00E4\u20AC\xD83D\xDE00\u007F\u0080\uFFFF\xDBFF\xDFFF";
    EXPECT_EQ(utf8_to_utf16(utf8), utf16);
    EXPECT_EQ(utf16_to_utf8(utf16), utf8);
    EXPECT_EQ(utf8_to_utf16(""), L"");
    EXPECT_EQ(utf16_to_utf8(L""), "");
    EXPECT_EQ(utf8_to_utf16(std::string_view("a\0b", 3)), std::wstring(L"a\0b", 3));
}

TEST(utf, each_ill_formed_sequence_becomes_one_replacement_character)
{
    const struct {
        std::string input;
        std::wstring expected;
    } cases[] = {
        {"\x80", L"\uFFFD"},                         // stray continuation byte
        {"a\xC3", L"a\uFFFD"},                       // truncated at the end
        {"\xE2\x82x", L"\uFFFDx"},                   // truncated before a plain byte
        {"\xC0\xAF", L"\uFFFD\uFFFD"},               // C0 can never lead
        {"\xE0\x80\xAF", L"\uFFFD"},                 // overlong three-byte form
        {"\xED\xA0\x80", L"\uFFFD"},                 // encoded surrogate
        {"\xF4\x90\x80\x80", L"\uFFFD"},             // above U+10FFFF
        {"\xF5\x80", L"\uFFFD\uFFFD"},               // F5 can never lead
        {"\xFF" "ok", L"\uFFFDok"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(utf8_to_utf16(c.input), c.expected) << testing::PrintToString(c.input);

    EXPECT_EQ(utf16_to_utf8(L"\xD800"), "\xEF\xBF\xBD");       // lone high surrogate
    EXPECT_EQ(utf16_to_utf8(L"\xDC00x"), "\xEF\xBF\xBDx");     // lone low surrogate
    EXPECT_EQ(utf16_to_utf8(L"\xD800\xD800\xDC00"), "\xEF\xBF\xBD\xF0\x90\x80\x80");
}

TEST(utf, random_bytes_never_break_the_converter_and_valid_output_round_trips)
{
    std::mt19937 random(20261122);
    for (int round = 0; round < 2000; ++round) {
        std::string bytes(random() % 40, '\0');
        for (auto& b : bytes)
            b = static_cast<char>(random() % 4 == 0 ? 0x80 + random() % 0x80 : random() % 0x100);
        const std::wstring wide = utf8_to_utf16(bytes);
        // Whatever came in, the UTF-16 produced is well formed, so it survives a round trip.
        EXPECT_EQ(utf8_to_utf16(utf16_to_utf8(wide)), wide);
    }
}

}  // namespace
