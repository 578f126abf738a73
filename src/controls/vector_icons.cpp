#include "controls/vector_icons.h"

#include "base/failure.h"

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_OUTLINE_H
#include FT_STROKER_H
#include <lz4.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <gdiplus.h>

namespace tessel::svg {
namespace {

// A corrupt size field must not turn into a huge allocation.
constexpr std::uint32_t max_collection_size = 64u << 20;
constexpr std::size_t index_entry_size = 16;
constexpr std::size_t icon_header_size = 20;
constexpr std::size_t path_header_size = 28;

template <class T>
T read_at(std::span<const std::byte> data, std::size_t offset) noexcept
{
    T value;
    std::memcpy(&value, data.data() + offset, sizeof value);
    return value;
}

std::size_t padded_to_4(std::size_t n) noexcept { return (n + 3) & ~std::size_t(3); }

constexpr std::size_t points_of(std::uint8_t verb) noexcept
{
    switch (static_cast<path_verb>(verb)) {
    case path_verb::move:
    case path_verb::line: return 1;
    case path_verb::quadratic: return 2;
    case path_verb::cubic: return 3;
    case path_verb::close: return 0;
    }
    return 0;
}

// Coordinates far outside any view box would overflow FreeType's 26.6 arithmetic.
bool sane(float v) noexcept { return std::isfinite(v) && std::fabs(v) < 1.0e5f; }

bool validate_icon(std::span<const std::byte> icon) noexcept
{
    if (icon.size() < icon_header_size)
        return false;
    const float view_x = read_at<float>(icon, 0), view_y = read_at<float>(icon, 4);
    const float view_w = read_at<float>(icon, 8), view_h = read_at<float>(icon, 12);
    if (!sane(view_x) || !sane(view_y) || !(view_w >= 0.01f && view_w <= 1.0e4f) || !(view_h >= 0.01f && view_h <= 1.0e4f))
        return false;
    // Drawing stays near the view box: a point far outside it would make the rasterizer
    // walk a huge outline for nothing (and is a sign of damage anyway).
    const float extent = std::max(view_w, view_h);
    const auto near_box = [&](float v, float origin) { return sane(v) && v >= origin - 2 * extent && v <= origin + 3 * extent; };
    const auto paths = read_at<std::uint32_t>(icon, 16);
    std::size_t offset = icon_header_size;
    for (std::uint32_t p = 0; p < paths; ++p) {
        if (icon.size() - offset < path_header_size)
            return false;
        const auto flags = read_at<std::uint8_t>(icon, offset);
        if (flags & ~(path_filled | path_even_odd | path_stroked))
            return false;
        if (read_at<std::uint8_t>(icon, offset + 1) > 2 || read_at<std::uint8_t>(icon, offset + 2) > 2)
            return false;
        const float stroke_width = read_at<float>(icon, offset + 12), miter = read_at<float>(icon, offset + 16);
        if (!(stroke_width >= 0 && stroke_width <= extent) || !(miter >= 0 && miter <= 100))
            return false;
        const std::size_t verbs = read_at<std::uint32_t>(icon, offset + 20);
        const std::size_t points = read_at<std::uint32_t>(icon, offset + 24);
        offset += path_header_size;
        const std::size_t rest = icon.size() - offset;
        if (verbs > rest || padded_to_4(verbs) > rest || points > (rest - padded_to_4(verbs)) / 8)
            return false;
        std::size_t needed = 0;
        for (std::size_t v = 0; v < verbs; ++v) {
            const auto verb = read_at<std::uint8_t>(icon, offset + v);
            if (verb > static_cast<std::uint8_t>(path_verb::close))
                return false;
            if (v == 0 && verb != static_cast<std::uint8_t>(path_verb::move))
                return false;
            needed += points_of(verb);
        }
        if (needed != points)
            return false;
        offset += padded_to_4(verbs);
        for (std::size_t i = 0; i < points; ++i)
            if (!near_box(read_at<float>(icon, offset + i * 8), view_x) ||
                !near_box(read_at<float>(icon, offset + i * 8 + 4), view_y))
                return false;
        offset += points * 8;
    }
    return true;
}

}  // namespace

point_f path_view::point(std::size_t index) const noexcept
{
    return {read_at<float>(points, index * 8), read_at<float>(points, index * 8 + 4)};
}

float icon_view::view_x() const noexcept { return read_at<float>(record_, 0); }
float icon_view::view_y() const noexcept { return read_at<float>(record_, 4); }
float icon_view::view_width() const noexcept { return read_at<float>(record_, 8); }
float icon_view::view_height() const noexcept { return read_at<float>(record_, 12); }
std::uint32_t icon_view::path_count() const noexcept { return record_.empty() ? 0 : read_at<std::uint32_t>(record_, 16); }

path_view icon_view::path_at(std::size_t& offset) const noexcept
{
    path_view path{};
    path.flags = read_at<std::uint8_t>(record_, offset);
    path.line_cap = read_at<std::uint8_t>(record_, offset + 1);
    path.line_join = read_at<std::uint8_t>(record_, offset + 2);
    path.fill_rgba = read_at<std::uint32_t>(record_, offset + 4);
    path.stroke_rgba = read_at<std::uint32_t>(record_, offset + 8);
    path.stroke_width = read_at<float>(record_, offset + 12);
    path.miter_limit = read_at<float>(record_, offset + 16);
    const std::size_t verbs = read_at<std::uint32_t>(record_, offset + 20);
    const std::size_t points = read_at<std::uint32_t>(record_, offset + 24);
    offset += path_header_size;
    path.verbs = {reinterpret_cast<const std::uint8_t*>(record_.data() + offset), verbs};
    offset += padded_to_4(verbs);
    path.points = record_.subspan(offset, points * 8);
    offset += points * 8;
    return path;
}

read_only_collection read_only_collection::from_resource(std::span<const std::byte> resource)
{
    if (resource.size() < resource_header_size || std::memcmp(resource.data(), &collection_magic, 16) != 0)
        return {};
    const auto decompressed_size = read_at<std::uint32_t>(resource, 16);
    const auto compressed_size = read_at<std::uint32_t>(resource, 20);
    // An LZ4 block expands at most 255-fold (a length byte of 255 per input byte): a size
    // beyond that is a lie, refused before a buffer of that size is allocated and cleared.
    if (compressed_size > resource.size() - resource_header_size || decompressed_size > max_collection_size ||
        decompressed_size < 8 || compressed_size > static_cast<std::uint32_t>(LZ4_MAX_INPUT_SIZE) ||
        decompressed_size > std::uint64_t{compressed_size} * 255 + 16)
        return {};
    std::vector<std::byte> data(decompressed_size);
    const int written = LZ4_decompress_safe(reinterpret_cast<const char*>(resource.data() + resource_header_size),
                                            reinterpret_cast<char*>(data.data()), static_cast<int>(compressed_size),
                                            static_cast<int>(decompressed_size));
    if (written < 0 || static_cast<std::uint32_t>(written) != decompressed_size)
        return {};
    return from_collection(std::move(data));
}

read_only_collection read_only_collection::from_collection(std::vector<std::byte> data)
{
    read_only_collection result;
    if (data.size() < 8)
        return result;
    result.data_ = std::move(data);
    result.header_ = read_at<std::uint64_t>(result.data_, 0);
    result.count_ = static_cast<std::size_t>(result.header_ >> 32);
    if (!result.validate())
        return {};
    return result;
}

bool read_only_collection::validate() const noexcept
{
    const std::span<const std::byte> data = data_;
    if ((header_ & 0xFFFFFFFF) != collection_layout_version)
        return false;
    if (count_ > (data.size() - 8) / index_entry_size)
        return false;
    std::string_view previous;
    for (std::size_t i = 0; i < count_; ++i) {
        const std::size_t entry = 8 + i * index_entry_size;
        const std::size_t name_offset = read_at<std::uint32_t>(data, entry);
        const std::size_t name_length = read_at<std::uint32_t>(data, entry + 4);
        const std::size_t icon_offset = read_at<std::uint32_t>(data, entry + 8);
        const std::size_t icon_size = read_at<std::uint32_t>(data, entry + 12);
        if (name_offset > data.size() || name_length > data.size() - name_offset)
            return false;
        if (icon_offset > data.size() || icon_size > data.size() - icon_offset)
            return false;
        const std::string_view current(reinterpret_cast<const char*>(data.data() + name_offset), name_length);
        if (i > 0 && !(previous < current))
            return false;  // lookups rely on the order
        previous = current;
        if (!validate_icon(data.subspan(icon_offset, icon_size)))
            return false;
    }
    return true;
}

std::string_view read_only_collection::name(std::size_t index) const noexcept
{
    if (index >= count_)
        return {};
    const std::span<const std::byte> data = data_;
    const std::size_t entry = 8 + index * index_entry_size;
    return {reinterpret_cast<const char*>(data.data() + read_at<std::uint32_t>(data, entry)),
            read_at<std::uint32_t>(data, entry + 4)};
}

icon_view read_only_collection::icon(std::size_t index) const noexcept
{
    if (index >= count_)
        return {};
    const std::span<const std::byte> data = data_;
    const std::size_t entry = 8 + index * index_entry_size;
    return icon_view(data.subspan(read_at<std::uint32_t>(data, entry + 8), read_at<std::uint32_t>(data, entry + 12)));
}

icon_view read_only_collection::find(std::string_view wanted) const noexcept
{
    std::size_t low = 0, high = count_;
    while (low < high) {
        const std::size_t middle = (low + high) / 2;
        const std::string_view candidate = name(middle);
        if (candidate == wanted)
            return icon(middle);
        if (candidate < wanted)
            low = middle + 1;
        else
            high = middle;
    }
    return {};
}

icon_view read_only_collection::find(std::wstring_view wanted) const noexcept
{
    // Icon names are ASCII; anything else cannot match.
    char narrow[128];
    if (wanted.size() > sizeof narrow)
        return {};
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        if (wanted[i] > 0x7F)
            return {};
        narrow[i] = static_cast<char>(wanted[i]);
    }
    return find(std::string_view(narrow, wanted.size()));
}

collection_cache::key collection_cache::make_key(HMODULE module, const wchar_t* resource_name)
{
    if (IS_INTRESOURCE(resource_name))
        return {module, L"#" + std::to_wstring(reinterpret_cast<ULONG_PTR>(resource_name))};
    return {module, resource_name};
}

bool collection_cache::load(HMODULE module, const wchar_t* resource_name)
{
    // Once loaded, a collection stays: everything already handed out keeps sharing it.
    if (get(module, resource_name))
        return true;
    HRSRC found = ::FindResourceW(module, resource_name, L"VICON2");
    if (!found)
        return false;
    HGLOBAL loaded = ::LoadResource(module, found);
    const void* bytes = loaded ? ::LockResource(loaded) : nullptr;
    if (!bytes)
        return false;
    const DWORD size = ::SizeofResource(module, found);
    auto collection = std::make_shared<const read_only_collection>(
        read_only_collection::from_resource({static_cast<const std::byte*>(bytes), size}));
    key k = make_key(module, resource_name);
    ::AcquireSRWLockExclusive(&lock_);
    collections_.try_emplace(std::move(k), std::move(collection));  // a racing load may have come first
    ::ReleaseSRWLockExclusive(&lock_);
    return true;
}

std::shared_ptr<const read_only_collection> collection_cache::get(HMODULE module, const wchar_t* resource_name) const
{
    const key k = make_key(module, resource_name);
    ::AcquireSRWLockShared(&lock_);
    const auto it = collections_.find(k);
    std::shared_ptr<const read_only_collection> result = it == collections_.end() ? nullptr : it->second;
    ::ReleaseSRWLockShared(&lock_);
    return result;
}

collection_cache& collection_cache::instance()
{
    static collection_cache cache;
    return cache;
}

std::shared_ptr<const read_only_collection> program_icons()
{
    const HMODULE module = ::GetModuleHandleW(nullptr);
    const wchar_t* const name = MAKEINTRESOURCEW(icon_collection_resource_id);
    collection_cache& cache = collection_cache::instance();
    if (auto found = cache.get(module, name))
        return found;
    if (!cache.load(module, name))
        return std::make_shared<const read_only_collection>();
    return cache.get(module, name);
}

// --- rendering -------------------------------------------------------------------------

namespace {

class freetype_library {
public:
    freetype_library()
    {
        if (FT_Init_FreeType(&library_) != 0)
            throw_hresult(E_OUTOFMEMORY);
    }
    ~freetype_library() { FT_Done_FreeType(library_); }
    freetype_library(const freetype_library&) = delete;
    freetype_library& operator=(const freetype_library&) = delete;
    FT_Library get() const noexcept { return library_; }

private:
    FT_Library library_ = nullptr;
};

class freetype_stroker {
public:
    explicit freetype_stroker(FT_Library library)
    {
        if (FT_Stroker_New(library, &stroker_) != 0)
            throw_hresult(E_OUTOFMEMORY);
    }
    ~freetype_stroker() { FT_Stroker_Done(stroker_); }
    freetype_stroker(const freetype_stroker&) = delete;
    freetype_stroker& operator=(const freetype_stroker&) = delete;
    FT_Stroker get() const noexcept { return stroker_; }

private:
    FT_Stroker stroker_ = nullptr;
};

struct segment {
    path_verb verb;
    FT_Vector points[3];
};

struct subpath {
    FT_Vector start;
    std::vector<segment> segments;
    bool closed = false;
};

// View-box coordinates to FreeType's: 26.6 fixed point, y growing upwards.
struct transform {
    float scale, offset_x, offset_y, surface_height;
    FT_Vector operator()(point_f p) const noexcept
    {
        const float x = offset_x + p.x * scale;
        const float y = surface_height - (offset_y + p.y * scale);
        return {static_cast<FT_Pos>(std::lround(x * 64)), static_cast<FT_Pos>(std::lround(y * 64))};
    }
};

std::vector<subpath> split_subpaths(const path_view& path, const transform& to_ft)
{
    std::vector<subpath> result;
    std::size_t next_point = 0;
    for (const std::uint8_t raw : path.verbs) {
        const auto verb = static_cast<path_verb>(raw);
        if (verb == path_verb::move) {
            result.push_back({to_ft(path.point(next_point++)), {}, false});
            continue;
        }
        if (result.back().closed)  // drawing on after a close starts again where it began
            result.push_back({result.back().start, {}, false});
        if (verb == path_verb::close) {
            result.back().closed = true;
            continue;
        }
        segment s{verb, {}};
        for (std::size_t i = 0; i < points_of(raw); ++i)
            s.points[i] = to_ft(path.point(next_point++));
        result.back().segments.push_back(s);
    }
    return result;
}

struct span_painter {
    surface_t* surface;
    std::uint32_t r, g, b, a;  // straight colour, 0-255
};

void paint_spans(int y, int count, const FT_Span* spans, void* user) noexcept
{
    auto& painter = *static_cast<span_painter*>(user);
    const int row = painter.surface->height() - 1 - y;
    if (row < 0 || row >= painter.surface->height())
        return;
    std::uint32_t* line = painter.surface->data() + std::size_t(row) * painter.surface->width();
    for (int s = 0; s < count; ++s) {
        const std::uint32_t alpha = (painter.a * spans[s].coverage + 127) / 255;
        if (alpha == 0)
            continue;
        const std::uint32_t sr = (painter.r * alpha + 127) / 255;
        const std::uint32_t sg = (painter.g * alpha + 127) / 255;
        const std::uint32_t sb = (painter.b * alpha + 127) / 255;
        const std::uint32_t keep = 255 - alpha;
        const int end = std::min<int>(spans[s].x + spans[s].len, painter.surface->width());
        for (int x = std::max<int>(spans[s].x, 0); x < end; ++x) {
            const std::uint32_t d = line[x];
            const std::uint32_t db = d & 0xFF, dg = (d >> 8) & 0xFF, dr = (d >> 16) & 0xFF, da = d >> 24;
            const std::uint32_t ob = sb + (db * keep + 127) / 255;
            const std::uint32_t og = sg + (dg * keep + 127) / 255;
            const std::uint32_t orr = sr + (dr * keep + 127) / 255;
            const std::uint32_t oa = alpha + (da * keep + 127) / 255;
            line[x] = ob | (og << 8) | (orr << 16) | (oa << 24);
        }
    }
}

void paint_outline(FT_Library library, FT_Outline& outline, surface_t& surface, std::uint32_t rgba)
{
    span_painter painter{&surface, rgba & 0xFF, (rgba >> 8) & 0xFF, (rgba >> 16) & 0xFF, rgba >> 24};
    if (painter.a == 0 || outline.n_points == 0)
        return;
    FT_Raster_Params params{};
    params.flags = FT_RASTER_FLAG_AA | FT_RASTER_FLAG_DIRECT | FT_RASTER_FLAG_CLIP;
    params.gray_spans = paint_spans;
    params.user = &painter;
    params.clip_box = {0, 0, surface.width(), surface.height()};
    FT_Outline_Render(library, &outline, &params);
}

void fill_path(FT_Library library, const std::vector<subpath>& subpaths, bool even_odd, surface_t& surface,
               std::uint32_t rgba)
{
    std::vector<FT_Vector> points;
    std::vector<char> tags;
    std::vector<short> contours;
    for (const subpath& sp : subpaths) {
        if (sp.segments.empty())
            continue;
        points.push_back(sp.start);
        tags.push_back(FT_CURVE_TAG_ON);
        for (const segment& s : sp.segments) {
            switch (s.verb) {
            case path_verb::line:
                points.push_back(s.points[0]);
                tags.push_back(FT_CURVE_TAG_ON);
                break;
            case path_verb::quadratic:
                points.insert(points.end(), {s.points[0], s.points[1]});
                tags.insert(tags.end(), {FT_CURVE_TAG_CONIC, FT_CURVE_TAG_ON});
                break;
            case path_verb::cubic:
                points.insert(points.end(), {s.points[0], s.points[1], s.points[2]});
                tags.insert(tags.end(), {FT_CURVE_TAG_CUBIC, FT_CURVE_TAG_CUBIC, FT_CURVE_TAG_ON});
                break;
            default: break;
            }
        }
        if (points.size() > 0x7FFF)
            return;  // beyond what an outline can index; no icon of ours comes near
        contours.push_back(static_cast<short>(points.size() - 1));
    }
    if (contours.empty())
        return;
    FT_Outline outline{};
    outline.n_points = static_cast<decltype(outline.n_points)>(points.size());
    outline.n_contours = static_cast<decltype(outline.n_contours)>(contours.size());
    outline.points = points.data();
    outline.tags = tags.data();
    outline.contours = reinterpret_cast<decltype(outline.contours)>(contours.data());
    outline.flags = even_odd ? FT_OUTLINE_EVEN_ODD_FILL : FT_OUTLINE_NONE;
    paint_outline(library, outline, surface, rgba);
}

void stroke_path(FT_Library library, const std::vector<subpath>& subpaths, const path_view& path, float scale,
                 surface_t& surface)
{
    // Half the width in 26.6 fixed point. A stroke too thin for it to reach one unit
    // shows nothing, and FreeType's stroker breaks on a radius of zero.
    const FT_Fixed radius = static_cast<FT_Fixed>(std::lround(path.stroke_width * scale * 32));
    if (!(radius > 0))
        return;
    static constexpr FT_Stroker_LineCap caps[] = {FT_STROKER_LINECAP_BUTT, FT_STROKER_LINECAP_ROUND,
                                                  FT_STROKER_LINECAP_SQUARE};
    // Miter, then bevel past the limit, as in SVG (FreeType's "fixed" miter).
    static constexpr FT_Stroker_LineJoin joins[] = {FT_STROKER_LINEJOIN_MITER_FIXED, FT_STROKER_LINEJOIN_ROUND,
                                                    FT_STROKER_LINEJOIN_BEVEL};
    freetype_stroker stroker(library);
    FT_Stroker_Set(stroker.get(), radius, caps[path.line_cap],
                   joins[path.line_join], static_cast<FT_Fixed>(std::max(path.miter_limit, 1.0f) * 65536));
    for (const subpath& sp : subpaths) {
        // FreeType's stroker cannot end a subpath in which the pen never moved (its
        // borders were never begun, and closing them writes before their start); such a
        // subpath has nothing to stroke anyway.
        const bool moves = std::any_of(sp.segments.begin(), sp.segments.end(), [&](const segment& s) {
            const std::size_t count = s.verb == path_verb::cubic ? 3 : s.verb == path_verb::quadratic ? 2 : 1;
            return std::any_of(s.points, s.points + count,
                               [&](const FT_Vector& p) { return p.x != sp.start.x || p.y != sp.start.y; });
        });
        if (!moves)
            continue;
        FT_Vector start = sp.start;
        FT_Stroker_BeginSubPath(stroker.get(), &start, sp.closed ? 0 : 1);
        for (const segment& s : sp.segments) {
            FT_Vector p[3] = {s.points[0], s.points[1], s.points[2]};
            switch (s.verb) {
            case path_verb::line: FT_Stroker_LineTo(stroker.get(), &p[0]); break;
            case path_verb::quadratic: FT_Stroker_ConicTo(stroker.get(), &p[0], &p[1]); break;
            case path_verb::cubic: FT_Stroker_CubicTo(stroker.get(), &p[0], &p[1], &p[2]); break;
            default: break;
            }
        }
        FT_Stroker_EndSubPath(stroker.get());
    }
    FT_UInt point_count = 0, contour_count = 0;
    if (FT_Stroker_GetCounts(stroker.get(), &point_count, &contour_count) != 0 || point_count == 0)
        return;
    FT_Outline outline{};
    if (FT_Outline_New(library, point_count, static_cast<FT_Int>(contour_count), &outline) != 0)
        return;
    outline.n_points = 0;
    outline.n_contours = 0;
    FT_Stroker_Export(stroker.get(), &outline);
    paint_outline(library, outline, surface, path.stroke_rgba);
    FT_Outline_Done(library, &outline);
}

}  // namespace

void render_icon(const icon_view& icon, surface_t& surface, int x, int y, int size)
{
    if (icon.empty() || size <= 0)
        return;
    freetype_library library;
    const float scale = size / std::max(icon.view_width(), icon.view_height());
    const transform to_ft{scale, x + (size - icon.view_width() * scale) / 2 - icon.view_x() * scale,
                          y + (size - icon.view_height() * scale) / 2 - icon.view_y() * scale,
                          static_cast<float>(surface.height())};
    icon.for_each_path([&](const path_view& path) {
        const std::vector<subpath> subpaths = split_subpaths(path, to_ft);
        if (path.flags & path_filled)
            fill_path(library.get(), subpaths, (path.flags & path_even_odd) != 0, surface, path.fill_rgba);
        if (path.flags & path_stroked)
            stroke_path(library.get(), subpaths, path, scale, surface);
    });
}

surface_t render_icon(const icon_view& icon, int size)
{
    surface_t surface(size, size);
    render_icon(icon, surface, 0, 0, size);
    return surface;
}

unique_hicon create_hicon(const surface_t& surface)
{
    Gdiplus::Bitmap bitmap(surface.width(), surface.height(), surface.stride(), PixelFormat32bppPARGB,
                           reinterpret_cast<BYTE*>(const_cast<std::uint32_t*>(surface.data())));
    HICON icon = nullptr;
    if (bitmap.GetLastStatus() != Gdiplus::Ok || bitmap.GetHICON(&icon) != Gdiplus::Ok || !icon)
        throw_hresult(E_FAIL);
    return unique_hicon(icon);
}

}  // namespace tessel::svg
