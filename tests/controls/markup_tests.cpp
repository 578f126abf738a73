#include "controls/markup.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include <windows.h>

using namespace tessel::windows::new_controls;

namespace {

std::wstring tags_of(const markup_result& r)
{
    std::wstring tags;
    for (const markup_element& e : r.elements)
        tags += e.tag;
    return tags;
}

}  // namespace

TEST(markup, plain_text_and_simple_elements)
{
    EXPECT_EQ(parse_markup(L"abc").text(), L"abc");
    EXPECT_TRUE(parse_markup(L"").elements.empty());

    // An element starts where the plain text has got to; an empty one has an empty range.
    const struct {
        const wchar_t* source;
        const wchar_t* text;
        wchar_t tag;
        UINT32 start, length;
    } cases[] = {
        {L"[[[bBold]]] text", L"Bold text", L'b', 0, 4},
        {L"ab[[[iCD]]]ef", L"abCDef", L'i', 2, 2},
        {L"x[[[u]]]y", L"xy", L'u', 1, 0},
    };
    for (const auto& c : cases) {
        const markup_result r = parse_markup(c.source);
        EXPECT_EQ(r.text(), c.text);
        ASSERT_EQ(r.elements.size(), 1u) << c.source;
        EXPECT_EQ(r.elements[0].tag, c.tag);
        EXPECT_EQ(r.elements[0].range.startPosition, c.start) << c.source;
        EXPECT_EQ(r.elements[0].range.length, c.length) << c.source;
        EXPECT_TRUE(r.elements[0].argument.empty());
        EXPECT_EQ(r.elements[0].first_number, 0);
    }
}

TEST(markup, number_arguments)
{
    const struct {
        const wchar_t* source;
        std::int64_t first, second;
        const wchar_t* text;
    } cases[] = {
        {L"[[[s:120:Big]]]", 120, 0, L"Big"},
        {L"[[[s:-120:Big]]]", 120, 0, L"Big"},  // the sign is read and deliberately not applied
        {L"[[[v:5::7: ]]]x", 5, 7, L" x"},
        {L"[[[g:12Xab]]]", 12, 0, L"ab"},        // exactly one unit ends a number, whatever it is
        {L"[[[v:5:7: ]]]", 5, 0, L"7: "},        // without a second ":" pair the rest is content
        {L"[[[x::]]]", 0, 0, L"::"},             // "::" means no number; both colons stay content
        {L"[[[w:18446744073709551621:x]]]", 5, 0, L"x"},  // overflow wraps silently: 2^64 + 5 reads as 5
        {L"[[[w:9223372036854775808:x]]]", INT64_MIN, 0, L"x"},
    };
    for (const auto& c : cases) {
        const markup_result r = parse_markup(c.source);
        ASSERT_EQ(r.elements.size(), 1u) << c.source;
        EXPECT_EQ(r.elements[0].first_number, c.first) << c.source;
        EXPECT_EQ(r.elements[0].second_number, c.second) << c.source;
        EXPECT_EQ(r.text(), c.text) << c.source;
    }
    // A number ending the input consumes what there is and no more; the element never closes.
    markup_result r = parse_markup(L"[[[s:12");
    EXPECT_EQ(r.text(), L"");
    EXPECT_TRUE(r.elements.empty());

    // Digits are read several at a time: every run length, against every kind of unit
    // that can end it, whether or not the text goes on after it.
    const std::wstring digits = L"9876543210123456789";
    for (std::size_t count = 0; count <= digits.size(); ++count) {
        std::uint64_t expected = 0;
        for (std::size_t k = 0; k < count; ++k)
            expected = expected * 10 + static_cast<std::uint64_t>(digits[k] - L'0');
        for (const wchar_t end : {L':', L'/', L';', L'x', L' ', L'\x660', L'\xFF10', L'\xD800'}) {
            if (count == 0 && end == L':')
                continue;  // "::", no number at all
            const std::wstring number = digits.substr(0, count) + end;
            r = parse_markup(L"[[[n:" + number + L"Q]]]");
            ASSERT_EQ(r.elements.size(), 1u) << count;
            EXPECT_EQ(static_cast<std::uint64_t>(r.elements[0].first_number), expected) << count << ' ' << int(end);
            EXPECT_EQ(r.text(), L"Q") << count << ' ' << int(end);
            r = parse_markup(L"[[[n#[s]#:" + number + L"]]]");
            EXPECT_EQ(static_cast<std::uint64_t>(r.elements[0].second_number), expected) << count << ' ' << int(end);
            EXPECT_EQ(r.text(), L"") << count << ' ' << int(end);
        }
        r = parse_markup(L"x[[[n:" + digits.substr(0, count));
        EXPECT_EQ(r.text(), L"x") << count;
    }
}

TEST(markup, string_arguments)
{
    markup_result r = parse_markup(L"[[[h#[Tip]#Label]]]");
    ASSERT_EQ(r.elements.size(), 1u);
    EXPECT_EQ(r.elements[0].argument, L"Tip");
    EXPECT_EQ(r.text(), L"Label");

    r = parse_markup(L"[[[f#[Fluent]#3]]]");
    EXPECT_EQ(r.elements[0].argument, L"Fluent");
    EXPECT_EQ(r.text(), L"3");

    // Without "]#" nothing is consumed and "#[" is content.
    r = parse_markup(L"[[[f#[Fluent3]]]");
    EXPECT_TRUE(r.elements[0].argument.empty());
    EXPECT_EQ(r.text(), L"#[Fluent3");

    // The argument is a view into the source, and may be empty.
    const std::wstring source = L"[[[T#[#777]#grey]]]";
    r = parse_markup(source);
    EXPECT_EQ(r.elements[0].argument, L"#777");
    EXPECT_GE(r.elements[0].argument.data(), source.data());
    EXPECT_LT(r.elements[0].argument.data(), source.data() + source.size());
    r = parse_markup(L"[[[h#[]#x]]]");
    EXPECT_TRUE(r.elements[0].argument.empty());
    EXPECT_EQ(r.text(), L"x");

    // A second number may follow a string argument; a first number excludes a string.
    r = parse_markup(L"[[[v#[server.client.connected]#:9: ]]]");
    EXPECT_EQ(r.elements[0].argument, L"server.client.connected");
    EXPECT_EQ(r.elements[0].second_number, 9);
    EXPECT_EQ(r.text(), L" ");
    r = parse_markup(L"[[[v:3:#[name]# ]]]");
    EXPECT_EQ(r.elements[0].first_number, 3);
    EXPECT_TRUE(r.elements[0].argument.empty());
    EXPECT_EQ(r.text(), L"#[name]# ");
}

TEST(markup, nesting_lists_inner_elements_first)
{
    markup_result r = parse_markup(L"[[[H[[[r:7: ]]]]]]");
    EXPECT_EQ(tags_of(r), L"rH");
    EXPECT_EQ(r.text(), L" ");
    EXPECT_EQ(r.elements[0].first_number, 7);
    EXPECT_EQ(r.elements[1].range.startPosition, 0u);
    EXPECT_EQ(r.elements[1].range.length, 1u);

    r = parse_markup(L"[[[b[[[s:120:Title]]]]]] and [[[i[[[uA]]]B[[[-C]]]]]]");
    EXPECT_EQ(r.text(), L"Title and ABC");
    EXPECT_EQ(tags_of(r), L"sbu-i");
    EXPECT_EQ(r.elements[4].range.startPosition, 10u);
    EXPECT_EQ(r.elements[4].range.length, 3u);
    EXPECT_EQ(r.elements[2].range.startPosition, 10u);
    EXPECT_EQ(r.elements[3].range.startPosition, 12u);

    // The program's expander cell: a collection element around a family element.
    r = parse_markup(L"[[[F:123:[[[f#[Fluent]#3]]]]]] Name");
    EXPECT_EQ(tags_of(r), L"fF");
    EXPECT_EQ(r.elements[1].first_number, 123);
    EXPECT_EQ(r.text(), L"3 Name");

    // Past the first growth of the open stack and of the element list, and again into the
    // same result, whose buffers then already have room.
    std::wstring deep, flat;
    for (int k = 0; k < 40; ++k) {
        deep += L"[[[b:" + std::to_wstring(k) + L":x";
        flat += L"[[[i:" + std::to_wstring(k) + L":y]]]";
    }
    deep += std::wstring(120, L']');
    for (int pass = 0; pass < 2; ++pass) {
        parse_markup(deep, r);
        ASSERT_EQ(r.elements.size(), 40u);
        EXPECT_EQ(r.text(), std::wstring(40, L'x'));
        for (UINT32 k = 0; k < 40; ++k) {
            EXPECT_EQ(r.elements[k].first_number, 39 - k);
            EXPECT_EQ(r.elements[k].range.startPosition, 39 - k);
            EXPECT_EQ(r.elements[k].range.length, k + 1);
        }
        parse_markup(flat, r);
        ASSERT_EQ(r.elements.size(), 40u);
        EXPECT_EQ(r.text(), std::wstring(40, L'y'));
        for (UINT32 k = 0; k < 40; ++k) {
            EXPECT_EQ(r.elements[k].first_number, k);
            EXPECT_EQ(r.elements[k].range.startPosition, k);
            EXPECT_EQ(r.elements[k].range.length, 1u);
        }
    }
}

TEST(markup, stray_closers_and_truncated_openers)
{
    // A closer with nothing open is plain text, however often it comes.
    markup_result r = parse_markup(L"a]]]b");
    EXPECT_EQ(r.text(), L"a]]]b");
    EXPECT_TRUE(r.elements.empty());
    r = parse_markup(L"[[[bX]]]]]]]]]");
    EXPECT_EQ(r.text(), L"X]]]]]]");
    EXPECT_EQ(r.elements.size(), 1u);

    // Fewer than three brackets are content.
    r = parse_markup(L"[[x]] [y]");
    EXPECT_EQ(r.text(), L"[[x]] [y]");

    // An opener without a tag letter at the very end is the string library's error.
    EXPECT_THROW((void)parse_markup(L"abc[[["), std::out_of_range);
    EXPECT_THROW((void)strip_markup(L"[[["), std::out_of_range);
    // With the letter present it is an element that never closes.
    r = parse_markup(L"abc[[[b");
    EXPECT_EQ(r.text(), L"abc");
    EXPECT_TRUE(r.elements.empty());
}

TEST(markup, colours)
{
    const auto close_to = [](const D2D1_COLOR_F& c, float r, float g, float b, float a) {
        const auto same = [](float x, float y) { return std::abs(x - y) < 0.0005f; };
        return same(c.r, r / 255) && same(c.g, g / 255) && same(c.b, b / 255) && same(c.a, a / 255);
    };
    const struct {
        const wchar_t* text;
        float r, g, b, a;
    } valid[] = {
        {L"#777", 119, 119, 119, 255},   {L"#FF8000", 255, 128, 0, 255}, {L"#ff800040", 255, 128, 0, 64},
        {L"#aBc", 0xAA, 0xBB, 0xCC, 255}, {L"#zz10gg", 0, 16, 0, 255},    {L"#f0x", 255, 0, 0, 255},  // bad digits: 0
    };
    for (const auto& v : valid) {
        const auto c = parse_markup_colour(v.text);
        ASSERT_TRUE(c) << v.text;
        EXPECT_TRUE(close_to(*c, v.r, v.g, v.b, v.a)) << v.text;
    }
    // Other lengths leave the choice to the caller.
    for (const wchar_t* text : {L"", L"#", L"#12", L"#1234", L"#12345", L"#1234567", L"#123456789"})
        EXPECT_FALSE(parse_markup_colour(text)) << text;

    // Packed numbers: 0xAARRGGBB, alpha 0 meaning opaque.
    EXPECT_TRUE(close_to(unpack_markup_colour(0x00FF0080), 255, 0, 128, 255));
    EXPECT_TRUE(close_to(unpack_markup_colour(0x80000000), 0, 0, 0, 128));
}

TEST(markup, every_length_and_position_of_delimiters)
{
    // The scanners work on blocks of eight code units, aligned or not, with a partial last one:
    // delimiters and stray brackets at every offset of texts of every short length must
    // come out exactly as a one-by-one reading gives them.
    const auto reference = [](std::wstring_view s) {
        std::wstring text;
        std::size_t depth = 0;
        for (std::size_t i = 0; i < s.size();) {
            if (i + 3 <= s.size() && s.substr(i, 3) == L"]]]" && depth > 0) {
                --depth;
                i += 3;
            } else if (i + 4 <= s.size() && s.substr(i, 3) == L"[[[" ) {
                ++depth;
                i += 4;  // these samples use a bare tag letter
            } else {
                text += s[i++];
            }
        }
        return text;
    };
    markup_result reused;
    std::wstring stripped;
    for (std::size_t length = 0; length <= 26; ++length) {
        for (std::size_t at = 0; at < length; ++at) {
            std::wstring base(length, L'x');
            for (std::size_t k = 0; k < length; ++k)
                base[k] = static_cast<wchar_t>(L'a' + k % 26);
            for (const wchar_t* insert : {L"[", L"]", L"[[", L"]]]", L"[[[b", L"[[[bZ]]]", L"]]]]"}) {
                std::wstring s = base;
                s.insert(at, insert);
                parse_markup(s, reused);
                ASSERT_EQ(reused.text(), reference(s)) << std::string(s.begin(), s.end());
                strip_markup(s, stripped);
                ASSERT_EQ(stripped, reference(s)) << std::string(s.begin(), s.end());
            }
        }
    }
}

TEST(markup, texts_at_the_edges_of_a_page_are_read_safely)
{
    // The scanners read whole blocks around a text: a text that starts right after an
    // inaccessible page, or ends right before one, must be read without a fault, and the
    // parser and the stripper must agree on it.
    SYSTEM_INFO info;
    ::GetSystemInfo(&info);
    const std::size_t page = info.dwPageSize;
    auto* const memory = static_cast<char*>(::VirtualAlloc(nullptr, 3 * page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    ASSERT_NE(memory, nullptr);
    DWORD old_protection = 0;
    ASSERT_TRUE(::VirtualProtect(memory, page, PAGE_NOACCESS, &old_protection));
    ASSERT_TRUE(::VirtualProtect(memory + 2 * page, page, PAGE_NOACCESS, &old_protection));
    auto* const first = reinterpret_cast<wchar_t*>(memory + page);
    const std::size_t units = page / sizeof(wchar_t);

    markup_result reused;
    std::wstring stripped;
    for (const std::wstring_view sample :
         {std::wstring_view(L"plain"), std::wstring_view(L"[[[bX]]]"), std::wstring_view(L"ab[[[h#[tip]#link]]]]"),
          std::wstring_view(L"[[[g:0: ]]][[[v:5::7: ]]] Mass Storage Device"), std::wstring_view(L"x[[[s:12"),
          std::wstring_view(L"[[[F:1:[[[f#[Fluent]#4]]]]]] Hub"), std::wstring_view(L"[[[f#[Fluent3]]]"),
          std::wstring_view(L"[[[b[[[s:120:Title]]]]]]\nBody [[[T#[#777]#grey]]]")}) {
        const std::wstring expected = strip_markup(std::wstring(sample));
        for (wchar_t* at : {first, first + units - sample.size()}) {
            std::copy(sample.begin(), sample.end(), at);
            const std::wstring_view text(at, sample.size());
            parse_markup(text, reused);  // reused: nothing of the previous parse may stay behind
            EXPECT_EQ(reused.text(), expected);
            EXPECT_EQ(reused.elements.size(), parse_markup(sample).elements.size());
            strip_markup(text, stripped);
            EXPECT_EQ(stripped, expected);
        }
    }
    ::VirtualFree(memory, 0, MEM_RELEASE);
}
