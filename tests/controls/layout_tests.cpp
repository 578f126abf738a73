#include "controls/embedded_font.h"
#include "controls/rich_layout.h"

#include "test_support.h"

#include <gtest/gtest.h>

using namespace tessel::windows::new_controls;
using tessel::com_ptr;

namespace {

struct built {
    markup_result markup;
    rich_layout layout;
};

built build(std::wstring_view source, layout_options options = {})
{
    static const com_ptr<IDWriteTextFormat> format = controls_tests::text_format(12.f);
    built result{parse_markup(source), {}};
    if (!options.factory)
        options.factory = controls_tests::dwrite();
    if (!options.format)
        options.format = format.get();
    if (options.max_width == 0)
        options.max_width = 400;
    if (options.max_height == 0)
        options.max_height = 200;
    if (!options.icons)
        options.icons = tessel::svg::program_icons();
    result.layout = build_layout(result.markup, options);
    return result;
}

DWRITE_FONT_WEIGHT weight_at(const rich_layout& l, UINT32 position)
{
    DWRITE_FONT_WEIGHT weight{};
    EXPECT_EQ(l.layout->GetFontWeight(position, &weight), S_OK);
    return weight;
}

DWRITE_FONT_STRETCH stretch_at(const rich_layout& l, UINT32 position)
{
    DWRITE_FONT_STRETCH stretch{};
    EXPECT_EQ(l.layout->GetFontStretch(position, &stretch), S_OK);
    return stretch;
}

FLOAT size_at(const rich_layout& l, UINT32 position)
{
    FLOAT size = 0;
    EXPECT_EQ(l.layout->GetFontSize(position, &size), S_OK);
    return size;
}

bool near_colour(const D2D1_COLOR_F& a, const D2D1_COLOR_F& b)
{
    return std::abs(a.r - b.r) < 0.002f && std::abs(a.g - b.g) < 0.002f && std::abs(a.b - b.b) < 0.002f &&
           std::abs(a.a - b.a) < 0.002f;
}

}  // namespace

TEST(rich_layout, font_properties_of_ranges)
{
    const built b = build(L"n[[[bB]]][[[w:300:W]]][[[iI]]][[[uU]]][[[--]]][[[c:3:C]]][[[s:150:S]]][[[f#[Courier New]#F]]]n");
    ASSERT_EQ(b.markup.text(), L"nBWIU-CSFn");
    const rich_layout& l = b.layout;
    EXPECT_EQ(weight_at(l, 0), DWRITE_FONT_WEIGHT_NORMAL);
    EXPECT_EQ(weight_at(l, 1), DWRITE_FONT_WEIGHT_BOLD);
    EXPECT_EQ(weight_at(l, 2), 300);
    DWRITE_FONT_STYLE style{};
    l.layout->GetFontStyle(3, &style);
    EXPECT_EQ(style, DWRITE_FONT_STYLE_ITALIC);
    l.layout->GetFontStyle(4, &style);
    EXPECT_EQ(style, DWRITE_FONT_STYLE_NORMAL);
    BOOL on = FALSE;
    l.layout->GetUnderline(4, &on);
    EXPECT_TRUE(on);
    l.layout->GetUnderline(5, &on);
    EXPECT_FALSE(on);
    l.layout->GetStrikethrough(5, &on);
    EXPECT_TRUE(on);
    EXPECT_EQ(stretch_at(l, 6), DWRITE_FONT_STRETCH_CONDENSED);
    EXPECT_FLOAT_EQ(size_at(l, 7), 18.f);
    EXPECT_FLOAT_EQ(size_at(l, 8), 12.f);
    wchar_t family[64] = {};
    l.layout->GetFontFamilyName(8, family, 64);
    EXPECT_STREQ(family, L"Courier New");
    l.layout->GetFontFamilyName(9, family, 64);
    EXPECT_STREQ(family, L"Tahoma");
    // Unknown tags change nothing and keep their content.
    const built unknown = build(L"[[[qX]]]");
    EXPECT_EQ(unknown.markup.text(), L"X");
    EXPECT_EQ(weight_at(unknown.layout, 0), DWRITE_FONT_WEIGHT_NORMAL);
}

// A translator's typo must never blank a window: numbers DirectWrite refuses are clamped
// to the nearest it takes instead of failing the layout.
TEST(rich_layout, numbers_directwrite_refuses_are_clamped)
{
    const built b = build(L"[[[w:0:a]]][[[w:5000:b]]][[[c:0:c]]][[[c:10:d]]][[[s:0:e]]][[[s:99999999999:f]]]"
                          L"[[[s:-50:g]]]");
    const rich_layout& l = b.layout;
    EXPECT_EQ(weight_at(l, 0), 1);
    EXPECT_GE(weight_at(l, 1), DWRITE_FONT_WEIGHT_ULTRA_BLACK);  // 999, or 950 where that is the top
    EXPECT_EQ(stretch_at(l, 2), DWRITE_FONT_STRETCH_ULTRA_CONDENSED);
    EXPECT_EQ(stretch_at(l, 3), DWRITE_FONT_STRETCH_ULTRA_EXPANDED);
    EXPECT_FLOAT_EQ(size_at(l, 4), min_markup_font_size);
    EXPECT_FLOAT_EQ(size_at(l, 5), max_markup_font_size);
    EXPECT_FLOAT_EQ(size_at(l, 6), 6.f);  // the sign of a number is ignored: 50 % of 12
    EXPECT_GT(l.height(), 0.f);
}

TEST(rich_layout, enclosing_elements_are_applied_last_and_win)
{
    const built b = build(L"[[[w:300:[[[bX]]]Y]]][[[b[[[w:300:Z]]]]]]");
    EXPECT_EQ(weight_at(b.layout, 0), 300);  // bold inside, weight 300 around: 300
    EXPECT_EQ(weight_at(b.layout, 1), 300);
    EXPECT_EQ(weight_at(b.layout, 2), DWRITE_FONT_WEIGHT_BOLD);

    const built s = build(L"[[[b[[[s:120:Title]]]]]]");
    EXPECT_FLOAT_EQ(size_at(s.layout, 0), 14.4f);
    EXPECT_EQ(weight_at(s.layout, 4), DWRITE_FONT_WEIGHT_BOLD);
}

TEST(rich_layout, colours_backgrounds_and_links)
{
    layout_options options;
    options.default_colour = {0.1f, 0.2f, 0.3f, 1};
    options.link_colour = {0, 0.5f, 0, 1};
    const built b = build(
        L"[[[T#[#777]#grey]]] [[[B#[#ff000080]#back]]] [[[T#[#12345]#odd]]] [[[h#[Tip]#link]]] "
        L"[[[H[[[g:10: ]]]]]] [[[T:16711680:packed]]] [[[hbare]]]",
        options);
    const rich_layout& l = b.layout;
    ASSERT_EQ(l.colours.size(), 5u);
    EXPECT_EQ(l.colours[0].range.startPosition, 0u);
    EXPECT_EQ(l.colours[0].range.length, 4u);
    EXPECT_TRUE(near_colour(l.colours[0].colour, {119 / 255.f, 119 / 255.f, 119 / 255.f, 1}));
    EXPECT_TRUE(near_colour(l.colours[1].colour, options.default_colour));  // 6 digits and a #: 6 units
    EXPECT_TRUE(near_colour(l.colours[2].colour, options.link_colour));
    EXPECT_TRUE(near_colour(l.colours[3].colour, {1, 0, 0, 1}));  // 0xFF0000 packed
    EXPECT_TRUE(near_colour(l.colours[4].colour, options.link_colour));
    ASSERT_EQ(l.backgrounds.size(), 1u);
    EXPECT_EQ(l.backgrounds[0].range.startPosition, 5u);
    EXPECT_TRUE(near_colour(l.backgrounds[0].colour, {1, 0, 0, 128 / 255.f}));

    ASSERT_EQ(l.links.size(), 3u);
    EXPECT_EQ(l.links[0].argument, L"Tip");
    EXPECT_FALSE(l.links[0].hover_only);
    EXPECT_EQ(l.links[1].argument, L"");
    EXPECT_TRUE(l.links[1].hover_only);
    EXPECT_EQ(l.links[1].range.length, 1u);
    EXPECT_EQ(l.links[2].argument, L"");
    EXPECT_TRUE(l.has_hover_ranges);
    BOOL underline = FALSE;
    l.layout->GetUnderline(l.links[0].range.startPosition, &underline);
    EXPECT_TRUE(underline);
    l.layout->GetUnderline(l.links[1].range.startPosition, &underline);
    EXPECT_FALSE(underline);

    options.no_underline = true;
    const built plain = build(L"[[[hlink]]]", options);
    plain.layout.layout->GetUnderline(0, &underline);
    EXPECT_FALSE(underline);
    EXPECT_FALSE(plain.layout.has_hover_ranges);
}

// Each position is drawn with the brush of the last colour element covering it: the
// enclosing red one wins over the inner blue one.
TEST(rich_layout, drawing_effects_reach_the_pixels)
{
    const built b = build(L"aa[[[T#[#f00]#rr[[[T#[#00f]#bb]]]]]][[[h#[x]#ll]]]");
    controls_tests::pixel_canvas canvas(200, 40);
    tessel::d2d::icon_bitmap_cache icons(canvas.target.get());
    com_ptr<ID2D1SolidColorBrush> black;
    ASSERT_EQ(canvas.target->CreateSolidColorBrush(D2D1_COLOR_F{0, 0, 0, 1}, black.put()), S_OK);
    canvas.target->BeginDraw();
    b.layout.draw(canvas.target.get(), {0, 0}, black.get(), icons);
    ASSERT_EQ(canvas.target->EndDraw(), S_OK);

    const std::vector<std::uint32_t> pixels = canvas.read();
    using namespace controls_tests;
    const auto count = [&](DWRITE_TEXT_RANGE range, auto&& is) {
        int n = 0;
        for (const D2D1_RECT_F& r : b.layout.range_rects(range))
            for (UINT y = UINT(r.top); y < UINT(r.bottom); ++y)
                for (UINT x = UINT(r.left); x < UINT(r.right); ++x)
                    n += is(pixels[y * 200 + x]) && alpha_of(pixels[y * 200 + x]) > 200;
        return n;
    };
    const auto red = [](std::uint32_t p) { return red_of(p) > 200 && blue_of(p) < 60; };
    const auto blue = [](std::uint32_t p) { return blue_of(p) > 200 && red_of(p) < 60; };
    const auto black_ink = [](std::uint32_t p) { return red_of(p) < 60 && blue_of(p) < 60; };
    EXPECT_GT(count({0, 2}, black_ink), 5) << "no colour element: the default brush";
    EXPECT_GT(count({2, 4}, red), 10);
    EXPECT_EQ(count({2, 4}, blue) + count({2, 4}, black_ink), 0);
    EXPECT_GT(count({6, 2}, blue), 5) << "the default link colour";
}

TEST(rich_layout, inline_objects_and_their_metrics)
{
    layout_options options;
    options.vector_icon_name = [](std::int64_t id) -> std::wstring {
        return id == 5 ? L"device.usb" : id == 7 ? L"marker.shared" : L"";
    };
    const built b = build(L"[[[g:37: ]]]A[[[v:5::7: ]]]B[[[v#[server.client.connected]# ]]]C[[[v:99: ]]]D"
                          L"[[[V#[message.error]# ]]]E[[[v#[no.such]# ]]]",
                          options);
    const rich_layout& l = b.layout;
    ASSERT_EQ(b.markup.text(), L" A B C D E ");
    EXPECT_EQ(l.inline_objects.size(), 4u);  // gap, two "v" icons, one "V"; unknown icons stay text
    const auto object_at = [&](UINT32 position) {
        com_ptr<IDWriteInlineObject> object;
        EXPECT_EQ(l.layout->GetInlineObject(position, object.put()), S_OK);
        return object;
    };
    const auto metrics_of = [&](UINT32 position) {
        DWRITE_INLINE_OBJECT_METRICS m{};
        if (auto object = object_at(position))
            object->GetMetrics(&m);
        return m;
    };
    EXPECT_FLOAT_EQ(metrics_of(0).width, 37.f);
    EXPECT_FLOAT_EQ(metrics_of(0).height, 0.f);
    EXPECT_FLOAT_EQ(metrics_of(2).width, 16.f);  // 4/3 of a 12 DIP font
    EXPECT_FLOAT_EQ(metrics_of(2).height, 16.f);
    EXPECT_FLOAT_EQ(metrics_of(2).baseline, 16.f * 0.8f);
    EXPECT_FLOAT_EQ(metrics_of(4).width, 16.f);
    EXPECT_FALSE(object_at(6));  // id 99 names no icon
    EXPECT_FLOAT_EQ(metrics_of(8).width, 12.f);  // "V": font size
    EXPECT_FALSE(object_at(10));

    // The layout measures the gap: "A" starts 37 DIPs in.
    const auto& clusters = l.clusters();
    ASSERT_GE(clusters.size(), 2u);
    EXPECT_FLOAT_EQ(clusters[1].rect.left, 37.f);

    // An icon is drawn where it stands: opaque pixels in its box, none before it.
    controls_tests::pixel_canvas canvas(200, 30);
    tessel::d2d::icon_bitmap_cache icons(canvas.target.get());
    com_ptr<ID2D1SolidColorBrush> black;
    canvas.target->CreateSolidColorBrush(D2D1_COLOR_F{0, 0, 0, 1}, black.put());
    canvas.target->BeginDraw();
    canvas.target->Clear(D2D1_COLOR_F{0, 0, 0, 0});
    l.draw(canvas.target.get(), {0, 0}, black.get(), icons);
    ASSERT_EQ(canvas.target->EndDraw(), S_OK);
    const std::vector<std::uint32_t> pixels = canvas.read();
    const D2D1_RECT_F icon_box = clusters[2].rect;
    int opaque = 0;
    for (int y = 0; y < 30; ++y)
        for (int x = int(icon_box.left); x < int(icon_box.right); ++x)
            opaque += controls_tests::alpha_of(pixels[y * 200 + x]) == 255;
    EXPECT_GT(opaque, 20);
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 36; ++x)
            ASSERT_EQ(pixels[y * 200 + x], 0u) << x << "," << y;  // the gap draws nothing

    // "I" places the caller's object, "F" the caller's collection.
    const tessel::ui::embedded_font_loaders fonts(controls_tests::dwrite());
    const com_ptr<IDWriteFontCollection> fluent = fonts.program_font();
    const com_ptr<IDWriteInlineObject> gap = tessel::d2d::details::make_gap_object(5);
    const std::wstring source = L"[[[I:" + std::to_wstring(reinterpret_cast<std::intptr_t>(gap.get())) +
                                L": ]]][[[F:" + std::to_wstring(reinterpret_cast<std::intptr_t>(fluent.get())) +
                                L":[[[f#[Fluent]#3]]]]]] x";
    const built objects = build(source);
    com_ptr<IDWriteInlineObject> placed;
    objects.layout.layout->GetInlineObject(0, placed.put());
    EXPECT_EQ(placed.get(), gap.get());
    com_ptr<IDWriteFontCollection> collection;
    objects.layout.layout->GetFontCollection(1, collection.put());
    EXPECT_EQ(collection.get(), fluent.get());
    wchar_t family[32] = {};
    objects.layout.layout->GetFontFamilyName(1, family, 32);
    EXPECT_STREQ(family, L"Fluent");
}

TEST(rich_layout, hit_testing_from_line_and_cluster_metrics)
{
    layout_options options;
    options.max_width = 120;
    const built b = build(L"Some words [[[h#[first]#link one]]] then more words and [[[hlink two]]] at the end", options);
    const rich_layout& l = b.layout;
    ASSERT_EQ(l.links.size(), 2u);
    const std::vector<D2D1_RECT_F> first = l.range_rects(l.links[0].range);
    ASSERT_FALSE(first.empty());
    const D2D1_RECT_F r = first[0];
    EXPECT_EQ(l.link_at({(r.left + r.right) / 2, (r.top + r.bottom) / 2}), std::optional<std::size_t>(0));
    EXPECT_EQ(l.link_at({1, 1}), std::nullopt);                      // "Some"
    EXPECT_EQ(l.link_at({-5, 1}), std::nullopt);
    EXPECT_EQ(l.link_at({5, l.height() + 10}), std::nullopt);        // below the text
    // Wrapped: more than one line, and the second link is on a later one.
    UINT32 lines = 0;
    l.layout->GetLineMetrics(nullptr, 0, &lines);
    EXPECT_GT(lines, 2u);
    const std::vector<D2D1_RECT_F> second = l.range_rects(l.links[1].range);
    ASSERT_FALSE(second.empty());
    EXPECT_GT(second[0].top, r.top);
    EXPECT_EQ(l.link_at({second[0].left + 1, second[0].top + 1}), std::optional<std::size_t>(1));
    // Positions: the cluster under a point is the character there.
    EXPECT_EQ(l.position_at({0.5f, 1}), std::optional<UINT32>(0));
    // The cluster boxes tile each line without gaps.
    const auto& boxes = l.clusters();
    for (std::size_t i = 1; i < boxes.size(); ++i)
        if (boxes[i].rect.top == boxes[i - 1].rect.top) {
            EXPECT_FLOAT_EQ(boxes[i].rect.left, boxes[i - 1].rect.right);
        }
    EXPECT_EQ(boxes.back().position + boxes.back().length, b.markup.text().size());

    // Centred text starts further in.
    com_ptr<IDWriteTextFormat> centred = controls_tests::text_format(12.f);
    centred->SetTextAlignment(DWRITE_TEXT_ALIGNMENT_CENTER);
    options.format = centred.get();
    const built c = build(L"[[[hx]]]", options);
    const auto rects = c.layout.range_rects(c.layout.links[0].range);
    ASSERT_EQ(rects.size(), 1u);
    EXPECT_NEAR((rects[0].left + rects[0].right) / 2, 60.f, 1.f);
}

TEST(rich_layout, link_colour_setting)
{
    EXPECT_TRUE(near_colour(parse_link_colour(L"0,0,255"), {0, 0, 1, 1}));
    EXPECT_TRUE(near_colour(parse_link_colour(L"255, 128 ,0"), {1, 128 / 255.f, 0, 1}));
    for (const wchar_t* bad : {L"", L"1,2", L"1,2,3,4", L"300,0,0", L"a,b,c", L"1;2;3", L"-1,0,0"})
        EXPECT_TRUE(near_colour(parse_link_colour(bad), {0, 0, 1, 1})) << bad;

    const wchar_t* const key = L"Software\\Microsoft\\Internet Explorer\\Settings";
    HKEY raw = nullptr;
    ASSERT_EQ(::RegCreateKeyExW(HKEY_CURRENT_USER, key, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &raw, nullptr),
              ERROR_SUCCESS);
    const tessel::unique_hkey settings(raw);
    const wchar_t value[] = L"10,20,30";
    ASSERT_EQ(::RegSetValueExW(settings.get(), L"Anchor Color", 0, REG_SZ, reinterpret_cast<const BYTE*>(value),
                               sizeof value),
              ERROR_SUCCESS);
    EXPECT_TRUE(near_colour(read_link_colour(), {10 / 255.f, 20 / 255.f, 30 / 255.f, 1}));
    ::RegDeleteValueW(settings.get(), L"Anchor Color");
    EXPECT_TRUE(near_colour(read_link_colour(), {0, 0, 1, 1}));
}
