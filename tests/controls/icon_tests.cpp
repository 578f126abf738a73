#include "controls/inline_objects.h"
#include "controls/vector_icons.h"

#include "test_support.h"

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

// Writes collections the way tools/icons/build_icons.py does, so that tests can make
// icons with exactly the features they check.
struct path_spec {
    std::uint8_t flags = path_filled;
    std::uint8_t cap = 0, join = 0;
    std::uint32_t fill = 0xFF0000FF;    // opaque red (bytes R, G, B, A)
    std::uint32_t stroke = 0xFF00FF00;  // opaque green
    float width = 1, miter = 4;
    std::vector<std::uint8_t> verbs;
    std::vector<float> points;
};

template <class T>
void put(std::vector<std::byte>& out, T value)
{
    const auto* p = reinterpret_cast<const std::byte*>(&value);
    out.insert(out.end(), p, p + sizeof value);
}

std::vector<std::byte> icon_record(const std::vector<path_spec>& paths, float view = 16)
{
    std::vector<std::byte> out;
    for (float v : {0.f, 0.f, view, view})
        put(out, v);
    put(out, std::uint32_t(paths.size()));
    for (const path_spec& p : paths) {
        put(out, p.flags);
        put(out, p.cap);
        put(out, p.join);
        put(out, std::uint8_t(0));
        put(out, p.fill);
        put(out, p.stroke);
        put(out, p.width);
        put(out, p.miter);
        put(out, std::uint32_t(p.verbs.size()));
        put(out, std::uint32_t(p.points.size() / 2));
        for (auto v : p.verbs)
            put(out, v);
        while (out.size() % 4)
            out.push_back(std::byte(0));
        for (float f : p.points)
            put(out, f);
    }
    return out;
}

std::vector<std::byte> collection_bytes(std::vector<std::pair<std::string, std::vector<std::byte>>> icons)
{
    std::sort(icons.begin(), icons.end());
    std::vector<std::byte> out;
    put(out, std::uint64_t(collection_layout_version) | (std::uint64_t(icons.size()) << 32));
    const std::size_t index_size = 8 + 16 * icons.size();
    std::vector<std::byte> blob;
    for (const auto& [name, record] : icons) {
        const auto name_offset = std::uint32_t(index_size + blob.size());
        for (char c : name)
            blob.push_back(std::byte(c));
        while (blob.size() % 4)
            blob.push_back(std::byte(0));
        put(out, name_offset);
        put(out, std::uint32_t(name.size()));
        put(out, std::uint32_t(index_size + blob.size()));
        put(out, std::uint32_t(record.size()));
        blob.insert(blob.end(), record.begin(), record.end());
    }
    out.insert(out.end(), blob.begin(), blob.end());
    return out;
}

std::vector<std::byte> resource_bytes(const std::vector<std::byte>& collection)
{
    std::vector<std::byte> out(resource_header_size + LZ4_compressBound(int(collection.size())));
    const int n = LZ4_compress_default(reinterpret_cast<const char*>(collection.data()),
                                       reinterpret_cast<char*>(out.data() + resource_header_size),
                                       int(collection.size()), int(out.size() - resource_header_size));
    out.resize(resource_header_size + std::size_t(n));
    std::memcpy(out.data(), &collection_magic, 16);
    const std::uint32_t sizes[2] = {std::uint32_t(collection.size()), std::uint32_t(n)};
    std::memcpy(out.data() + 16, sizes, 8);
    return out;
}

std::span<const std::byte> program_resource()
{
    const HMODULE module = ::GetModuleHandleW(nullptr);
    HRSRC found = ::FindResourceW(module, MAKEINTRESOURCEW(icon_collection_resource_id), L"VICON2");
    if (!found)
        return {};
    return {static_cast<const std::byte*>(::LockResource(::LoadResource(module, found))),
            ::SizeofResource(module, found)};
}

// A square ring: outer 2..14, inner 5..11, both drawn in the same direction.
path_spec square_ring(bool even_odd)
{
    path_spec p;
    p.flags = path_filled | (even_odd ? path_even_odd : 0);
    p.verbs = {0, 1, 1, 1, 4, 0, 1, 1, 1, 4};
    p.points = {2, 2, 14, 2, 14, 14, 2, 14, 5, 5, 11, 5, 11, 11, 5, 11};
    return p;
}

std::uint32_t at(const surface_t& s, float fx, float fy)
{
    return s.pixel(int(fx * s.width()), int(fy * s.height()));
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
    ASSERT_EQ(collection.size(), 5u) << "the reader refused the generator's output";
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

TEST(vector_icons, fill_rules_strokes_curves_and_opacity)
{
    path_spec quad;  // a quadratic bump filled in half-transparent blue
    quad.fill = 0x80FF0000;
    quad.verbs = {0, 2, 4};
    quad.points = {0, 16, 8, 0, 16, 16};
    path_spec line_butt;  // horizontal line at y = 8 from x = 4 to 12, 2 wide
    line_butt.flags = path_stroked;
    line_butt.width = 2;
    line_butt.verbs = {0, 1};
    line_butt.points = {4, 8, 12, 8};
    path_spec line_round = line_butt;
    line_round.cap = 1;

    const auto collection = read_only_collection::from_resource(resource_bytes(collection_bytes({
        {"nonzero", icon_record({square_ring(false)})},
        {"evenodd", icon_record({square_ring(true)})},
        {"quad", icon_record({quad})},
        {"butt", icon_record({line_butt})},
        {"round", icon_record({line_round})},
        {"wide", icon_record({square_ring(false)}, 32)},
    })));
    ASSERT_EQ(collection.size(), 6u);

    for (int size : {16, 32, 48}) {
        // Same direction inside: non-zero fills the middle, even-odd leaves a hole.
        const surface_t nonzero = render_icon(collection.find(std::string_view("nonzero")), size);
        const surface_t evenodd = render_icon(collection.find(std::string_view("evenodd")), size);
        EXPECT_EQ(at(nonzero, 0.5f, 0.5f), 0xFFFF0000u) << size;  // premultiplied BGRA: opaque red
        EXPECT_EQ(at(evenodd, 0.5f, 0.5f), 0u) << size;
        EXPECT_EQ(at(evenodd, 0.2f, 0.5f), 0xFFFF0000u) << size;
        EXPECT_EQ(at(nonzero, 0.05f, 0.05f), 0u) << size;

        const surface_t quad_pixels = render_icon(collection.find(std::string_view("quad")), size);
        const std::uint32_t half = at(quad_pixels, 0.5f, 0.8f);
        EXPECT_NEAR(double(alpha_of(half)), 128.0, 1.0);
        EXPECT_NEAR(double(blue_of(half)), 128.0, 1.0);  // premultiplied
        EXPECT_EQ(red_of(half), 0u);
        EXPECT_EQ(alpha_of(at(quad_pixels, 0.1f, 0.3f)), 0u);

        // Caps: round reaches past the end point, butt does not.
        const surface_t butt = render_icon(collection.find(std::string_view("butt")), size);
        const surface_t round = render_icon(collection.find(std::string_view("round")), size);
        EXPECT_EQ(at(butt, 0.5f, 0.5f) >> 24, 255u);
        EXPECT_EQ(green_of(at(butt, 0.5f, 0.5f)), 255u);
        EXPECT_EQ(alpha_of(at(butt, 0.5f, 0.35f)), 0u);
        const float past_end = 12.6f / 16;
        EXPECT_EQ(alpha_of(at(butt, past_end, 0.5f)), 0u) << size;
        EXPECT_GT(alpha_of(at(round, past_end, 0.5f)), 128u) << size;

        // A view box of 32 scales down: the ring's outside is the whole icon less 1/16.
        const surface_t wide = render_icon(collection.find(std::string_view("wide")), size);
        EXPECT_EQ(alpha_of(at(wide, 0.3f, 0.3f)), 255u);
        EXPECT_EQ(alpha_of(at(wide, 0.6f, 0.6f)), 0u);
    }

    // Drawing onto a surface that already holds something blends over it.
    surface_t both(16, 16);
    render_icon(collection.find(std::string_view("nonzero")), both, 0, 0, 16);
    render_icon(collection.find(std::string_view("quad")), both, 0, 0, 16);
    const std::uint32_t mixed = both.pixel(8, 13);
    EXPECT_EQ(alpha_of(mixed), 255u);
    EXPECT_NEAR(double(red_of(mixed)), 127.0, 2.0);
    EXPECT_NEAR(double(blue_of(mixed)), 128.0, 2.0);
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
    // A point far outside the view box is damage, not drawing.
    path_spec distant;
    distant.verbs = {0, 1, 1, 4};
    distant.points = {1, 1, 90000, 1, 1, 8};
    EXPECT_TRUE(read_only_collection::from_collection(collection_bytes({{"far", icon_record({distant})}})).empty());
    distant.points[2] = 15;
    EXPECT_FALSE(read_only_collection::from_collection(collection_bytes({{"far", icon_record({distant})}})).empty());

    // Random damage never reads out of bounds: whatever still loads also renders.
    std::mt19937 random(12345);
    int still_loading = 0;
    for (int round = 0; round < 1500; ++round) {
        std::vector<std::byte> copy = inner;
        const int flips = 1 + int(random() % 4);
        for (int f = 0; f < flips; ++f)
            copy[random() % copy.size()] = std::byte(random() & 0xFF);
        const read_only_collection damaged = read_only_collection::from_collection(std::move(copy));
        if (damaged.empty())
            continue;
        ++still_loading;
        for (std::size_t i = 0; i < damaged.size(); ++i)
            (void)render_icon(damaged.icon(i), 16);
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

    // Readers on several threads while one thread inserts.
    std::vector<std::thread> readers;
    std::atomic<int> found{0};
    for (int t = 0; t < 4; ++t)
        readers.emplace_back([&] {
            for (int i = 0; i < 200; ++i)
                if (cache.get(module, MAKEINTRESOURCEW(icon_collection_resource_id)))
                    ++found;
        });
    for (int i = 0; i < 20; ++i)
        cache.load(module, MAKEINTRESOURCEW(icon_collection_resource_id));
    for (auto& r : readers)
        r.join();
    EXPECT_EQ(found.load(), 800);
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
