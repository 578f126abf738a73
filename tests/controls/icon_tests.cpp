#include "controls/inline_objects.h"
#include "controls/vector_icons.h"

#include "test_support.h"
#include "guarded_memory.h"

#include "base/module_path.h"
#include "base/unique_handle.h"

#include <gtest/gtest.h>
#include <lz4.h>

#include <cstring>
#include <random>
#include <thread>

using namespace tessel::svg;
using controls_tests::alpha_of;
using controls_tests::blue_of;
using controls_tests::green_of;
using controls_tests::red_of;

namespace {

std::span<const std::byte> program_resource()
{
    const HMODULE module = ::GetModuleHandleW(nullptr);
    HRSRC found = ::FindResourceW(module, MAKEINTRESOURCEW(icon_collection_resource_id), L"VICON2");
    if (!found)
        return {};
    return {static_cast<const std::byte*>(::LockResource(::LoadResource(module, found))),
            ::SizeofResource(module, found)};
}

}  // namespace

TEST(vector_icons, program_collection_holds_every_icon)
{
    const auto icons = program_icons();
    ASSERT_TRUE(icons);
    ASSERT_FALSE(icons->empty());
    EXPECT_EQ(icons->header() & 0xFFFF, collection_layout_version);
    EXPECT_EQ(icons->header() >> 32, icons->size());
    for (const char* name :
         {"server.client.connected", "server.client.disconnected", "marker.shared", "marker.not-shared",
          "device.usb", "device.hub", "device.storage", "device.input", "device.generic", "message.information",
          "message.warning", "message.error", "message.question", "application"})
        EXPECT_FALSE(icons->find(std::string_view(name)).empty()) << name;
    EXPECT_FALSE(icons->find(std::wstring_view(L"server.client.connected")).empty());
    EXPECT_TRUE(icons->find(std::string_view("server.client")).empty());
    EXPECT_TRUE(icons->find(std::wstring_view(L"s\u00e9rver")).empty());
    // The same object each time: loaded once, shared from the cache.
    EXPECT_EQ(program_icons(), icons);
}

// The generator's real output for SVG features the shipped icons do not use: the reader
// must take the whole collection, and each feature must come out as the SVG means it.
TEST(vector_icons, generator_output_with_every_svg_feature_reads_and_renders)
{
    std::vector<std::byte> file;
    {
        const std::wstring path = tessel::module_folder() + L"controls_test_data\\features.vicon2";
        const tessel::unique_file handle(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                                       OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(handle) << "the build did not compile the feature icons";
        file.resize(::GetFileSize(handle.get(), nullptr));
        DWORD read = 0;
        ASSERT_TRUE(::ReadFile(handle.get(), file.data(), DWORD(file.size()), &read, nullptr));
    }
    const auto collection = read_only_collection::from_resource(file);
    ASSERT_EQ(collection.size(), 6u) << "the reader refused the generator's output";
    const auto icon = [&](const char* name) { return collection.find(std::string_view(name)); };
    const auto paths_of = [&](const char* name) {
        std::vector<path_view> paths;
        icon(name).for_each_path([&](const path_view& p) { paths.push_back(p); });
        return paths;
    };
    const auto pixel = [](const surface_t& s, float x, float y) {  // in view units of a 16-unit box
        return s.pixel(int(x / 16 * s.width()), int(y / 16 * s.height()));
    };

    // Arcs: the top half of a disc of radius 6 around (8, 8), curved, not cut by chords.
    const surface_t arc = render_icon(icon("feature.arc"), 64);
    EXPECT_EQ(arc.pixel(32, 10), 0xFFFF0000u);               // (8, 2.5): inside the curve
    EXPECT_EQ(alpha_of(pixel(arc, 2.5f, 4.f)), 0u);           // in the box, outside the curve
    EXPECT_EQ(alpha_of(pixel(arc, 8.f, 9.5f)), 0u);           // between the two arcs
    EXPECT_EQ(paths_of("feature.arc").size(), 2u);

    // Quadratic curves and their smooth continuation, in blue written as "#00f".
    const surface_t quadratic = render_icon(icon("feature.quadratic"), 64);
    EXPECT_EQ(pixel(quadratic, 4.f, 12.f), 0xFF0000FFu);
    EXPECT_EQ(alpha_of(pixel(quadratic, 4.f, 6.f)), 0u);    // above the curve's peak at 8
    EXPECT_EQ(alpha_of(pixel(quadratic, 12.f, 12.f)), 0u);  // the reflected curve bends below the box

    // Even-odd fill in the named colour green (0, 128, 0).
    const surface_t even_odd = render_icon(icon("feature.even-odd"), 64);
    EXPECT_EQ(pixel(even_odd, 3.f, 8.f), 0xFF008000u);
    EXPECT_EQ(alpha_of(pixel(even_odd, 8.f, 8.f)), 0u);
    EXPECT_TRUE(paths_of("feature.even-odd").at(0).flags & path_even_odd);

    // The same squares under the non-zero rule: filled through. Half-transparent blue is
    // premultiplied alone, and blended over the red where they overlap.
    const surface_t nonzero = render_icon(icon("feature.nonzero"), 64);
    EXPECT_EQ(pixel(nonzero, 8.f, 8.f), 0xFFFF0000u);
    const std::uint32_t half = pixel(nonzero, 1.f, 13.f);
    EXPECT_NEAR(double(alpha_of(half)), 128.0, 1.0);
    EXPECT_NEAR(double(blue_of(half)), 128.0, 1.0);
    EXPECT_EQ(red_of(half), 0u);
    const std::uint32_t mixed = pixel(nonzero, 8.f, 13.f);
    EXPECT_EQ(alpha_of(mixed), 255u);
    EXPECT_NEAR(double(red_of(mixed)), 127.0, 2.0);
    EXPECT_NEAR(double(blue_of(mixed)), 128.0, 2.0);

    // Square caps reach half the width past the line's ends; a bevel join cuts the apex
    // where a miter would reach up to y = 5.5. Named "grey" is (128, 128, 128).
    const auto strokes = paths_of("feature.strokes");
    ASSERT_EQ(strokes.size(), 2u);
    EXPECT_EQ(strokes[0].line_cap, 2);
    EXPECT_EQ(strokes[1].line_join, 2);
    EXPECT_EQ(strokes[1].stroke_rgba, 0xFF808080u);
    const surface_t stroked = render_icon(icon("feature.strokes"), 64);
    EXPECT_EQ(alpha_of(pixel(stroked, 3.3f, 3.f)), 255u);
    EXPECT_EQ(alpha_of(pixel(stroked, 12.7f, 3.f)), 255u);
    EXPECT_EQ(alpha_of(pixel(stroked, 8.f, 5.75f)), 0u);
    EXPECT_EQ(pixel(stroked, 5.f, 10.5f), 0xFF808080u);

    // Ellipse, polygon, named white and red, fill opacity.
    const auto shapes = paths_of("feature.shapes");
    ASSERT_EQ(shapes.size(), 2u);
    EXPECT_EQ(shapes[0].fill_rgba, 0xFFFFFFFFu);
    EXPECT_EQ(shapes[0].stroke_rgba, 0xFF000000u);
    EXPECT_EQ(shapes[1].fill_rgba, 0x800000FFu);
    EXPECT_EQ(icon("feature.shapes").view_width(), 32.f);
}

TEST(vector_icons, rendered_through_direct2d_onto_a_wic_bitmap)
{
    const auto icons = program_icons();
    for (int size : {16, 24, 32, 48}) {
        controls_tests::pixel_canvas canvas(64, 64);
        tessel::d2d::icon_bitmap_cache cache(canvas.target.get());
        canvas.target->BeginDraw();
        canvas.target->Clear(D2D1_COLOR_F{0, 0, 0, 0});
        ID2D1Bitmap* error = cache.vector_icon(*icons, L"message.error", size);
        ID2D1Bitmap* connected = cache.vector_icon(*icons, L"server.client.connected", size);
        ASSERT_NE(error, nullptr);
        ASSERT_NE(connected, nullptr);
        EXPECT_EQ(cache.vector_icon(*icons, L"message.error", size), error);  // cached
        EXPECT_EQ(cache.vector_icon(*icons, L"no.such.icon", size), nullptr);
        canvas.target->DrawBitmap(error, D2D1_RECT_F{0, 0, float(size), float(size)}, 1.f,
                                  D2D1_BITMAP_INTERPOLATION_MODE_NEAREST_NEIGHBOR, nullptr);
        ASSERT_EQ(canvas.target->EndDraw(), S_OK);
        const std::vector<std::uint32_t> pixels = canvas.read();
        const auto pixel = [&](int x, int y) { return pixels[std::size_t(y) * 64 + x]; };

        // Drawn, clear outside the icon's square, and the pixels are the rasterizer's own.
        EXPECT_EQ(alpha_of(pixel(size / 5 + 1, size / 2)), 255u) << size;
        EXPECT_EQ(alpha_of(pixel(size + 2, size / 2)), 0u) << size;
        const surface_t direct = render_icon(icons->find(std::string_view("message.error")), size);
        for (int y = 0; y < size; ++y)
            for (int x = 0; x < size; ++x)
                ASSERT_EQ(pixel(x, y), direct.pixel(x, y)) << size << " at " << x << "," << y;
    }
}

TEST(vector_icons, corrupt_collections_load_empty)
{
    const std::span<const std::byte> good = program_resource();
    ASSERT_GT(good.size(), resource_header_size);
    ASSERT_FALSE(read_only_collection::from_resource(good).empty());
    const std::vector<std::byte> original(good.begin(), good.end());
    const auto with = [&](auto&& change) {
        std::vector<std::byte> copy = original;
        change(copy);
        return read_only_collection::from_resource(copy);
    };
    const auto set_u32 = [](std::vector<std::byte>& b, std::size_t offset, std::uint32_t v) {
        std::memcpy(b.data() + offset, &v, 4);
    };

    EXPECT_TRUE(with([](auto& b) { b[3] ^= std::byte(1); }).empty());                       // bad magic
    EXPECT_TRUE(with([&](auto& b) { set_u32(b, 20, std::uint32_t(b.size())); }).empty());   // compressed past the end
    EXPECT_TRUE(with([&](auto& b) { set_u32(b, 20, 0xFFFFFFFF); }).empty());
    EXPECT_TRUE(with([&](auto& b) { set_u32(b, 16, 0xFFFFFFF0); }).empty());                // absurd decompressed size
    EXPECT_TRUE(with([&](auto& b) { set_u32(b, 16, 7); }).empty());                          // smaller than it is
    EXPECT_TRUE(with([](auto& b) { b.resize(b.size() - 10); }).empty());                    // truncated
    EXPECT_TRUE(with([](auto& b) { b.resize(20); }).empty());                               // header cut
    EXPECT_TRUE(read_only_collection::from_resource({}).empty());
    EXPECT_TRUE(with([](auto& b) {                                                          // broken LZ4 block
                    for (std::size_t i = resource_header_size; i < b.size(); i += 7)
                        b[i] = std::byte(0xFF);
                }).empty());

    // Inside the collection: a version we do not know, an index past the end, an icon
    // record that lies about its contents.
    std::uint32_t inner_size = 0;
    std::memcpy(&inner_size, original.data() + 16, 4);
    std::vector<std::byte> inner(inner_size);
    ASSERT_EQ(LZ4_decompress_safe(reinterpret_cast<const char*>(original.data() + 24),
                                  reinterpret_cast<char*>(inner.data()), int(original.size() - 24), int(inner_size)),
              int(inner_size));
    ASSERT_FALSE(read_only_collection::from_collection(inner).empty());
    const auto inner_with = [&](auto&& change) {
        std::vector<std::byte> copy = inner;
        change(copy);
        return read_only_collection::from_collection(copy);
    };
    EXPECT_TRUE(inner_with([](auto& b) { b[0] = std::byte(2); }).empty());
    EXPECT_TRUE(inner_with([&](auto& b) { set_u32(b, 4, 0x7FFFFFFF); }).empty());     // icon count
    EXPECT_TRUE(inner_with([&](auto& b) { set_u32(b, 8, 0xFFFFFFF0); }).empty());     // name offset
    EXPECT_TRUE(inner_with([&](auto& b) { set_u32(b, 8 + 8, 0xFFFFFFF0); }).empty()); // icon offset
    EXPECT_TRUE(inner_with([&](auto& b) { set_u32(b, 8 + 12, 0xFFFFFFF0); }).empty()); // icon size
    EXPECT_TRUE(inner_with([&](auto& b) {
                    const std::uint32_t icon = *reinterpret_cast<const std::uint32_t*>(b.data() + 16);
                    set_u32(b, icon + 16, 1000);  // path count
                }).empty());
    EXPECT_TRUE(read_only_collection::from_collection({}).empty());
    // A point far outside the view box is damage, not drawing; one on its edge is not.
    const auto with_first_point = [&](float x) {
        return inner_with([&](auto& b) {
            std::uint32_t icon = 0, verbs = 0;
            std::memcpy(&icon, b.data() + 16, 4);
            std::memcpy(&verbs, b.data() + icon + 40, 4);
            std::memcpy(b.data() + icon + 48 + (verbs + 3) / 4 * 4, &x, 4);
        });
    };
    EXPECT_TRUE(with_first_point(90000.f).empty());
    float view_width = 0;
    std::memcpy(&view_width, inner.data() + *reinterpret_cast<const std::uint32_t*>(inner.data() + 16) + 8, 4);
    EXPECT_FALSE(with_first_point(view_width).empty());

    // Random damage never reads out of bounds: whatever still loads also renders. Each
    // icon is drawn from a copy of its record that ends right before a page that faults
    // when touched, so reading past the record crashes here instead of passing by luck.
    std::mt19937 random(12345);
    int still_loading = 0;
    test_support::guarded_buffer guarded(inner.size());
    ASSERT_TRUE(guarded.guarded());
    for (int round = 0; round < 1500; ++round) {
        std::vector<std::byte> copy = inner;
        const int flips = 1 + int(random() % 4);
        for (int f = 0; f < flips; ++f)
            copy[random() % copy.size()] = std::byte(random() & 0xFF);
        const read_only_collection damaged = read_only_collection::from_collection(copy);
        if (damaged.empty())
            continue;
        ++still_loading;
        for (std::size_t i = 0; i < damaged.size(); ++i) {
            std::uint32_t offset = 0, size = 0;  // the icon's index entry
            std::memcpy(&offset, copy.data() + 8 + i * 16 + 8, 4);
            std::memcpy(&size, copy.data() + 8 + i * 16 + 12, 4);
            const icon_view record(guarded.place(std::span(copy).subspan(offset, size)));
            (void)render_icon(record, 16);
        }
    }
    EXPECT_GT(still_loading, 0);  // flips in colours and coordinates are harmless
}

TEST(vector_icons, cache_loads_once_and_reports_missing_resources)
{
    collection_cache cache;
    const HMODULE module = ::GetModuleHandleW(nullptr);
    EXPECT_FALSE(cache.load(module, MAKEINTRESOURCEW(4711)));
    EXPECT_EQ(cache.get(module, MAKEINTRESOURCEW(4711)), nullptr);
    EXPECT_FALSE(cache.load(module, L"NO_SUCH_NAME"));
    ASSERT_TRUE(cache.load(module, MAKEINTRESOURCEW(icon_collection_resource_id)));
    const auto loaded = cache.get(module, MAKEINTRESOURCEW(icon_collection_resource_id));
    ASSERT_TRUE(loaded);
    EXPECT_FALSE(loaded->empty());

    // Readers on several threads while one thread loads again: every reader gets the
    // collection loaded first, which stays.
    std::vector<std::thread> readers;
    std::atomic<int> found{0};
    for (int t = 0; t < 4; ++t)
        readers.emplace_back([&] {
            for (int i = 0; i < 200; ++i)
                if (cache.get(module, MAKEINTRESOURCEW(icon_collection_resource_id)) == loaded)
                    ++found;
        });
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(cache.load(module, MAKEINTRESOURCEW(icon_collection_resource_id)));
    for (auto& r : readers)
        r.join();
    EXPECT_EQ(found.load(), 800);
    EXPECT_EQ(cache.get(module, MAKEINTRESOURCEW(icon_collection_resource_id)), loaded);
}

TEST(vector_icons, hicon_through_gdiplus)
{
    const auto icons = program_icons();
    const surface_t pixels = render_icon(icons->find(std::string_view("application")), 32);
    const tessel::unique_hicon icon = create_hicon(pixels);
    ASSERT_TRUE(icon);
    ICONINFO info{};
    ASSERT_TRUE(::GetIconInfo(icon.get(), &info));
    BITMAP colour{};
    ::GetObjectW(info.hbmColor, sizeof colour, &colour);
    EXPECT_EQ(colour.bmWidth, 32);
    EXPECT_EQ(colour.bmHeight, 32);
    ::DeleteObject(info.hbmColor);
    ::DeleteObject(info.hbmMask);
}
