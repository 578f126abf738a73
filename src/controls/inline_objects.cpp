#include "controls/inline_objects.h"

#include "base/com_object.h"

#include <wincodec.h>

#include <cmath>

namespace tessel::d2d {
namespace {

thread_local icon_bitmap_cache* current_cache = nullptr;

com_ptr<ID2D1Bitmap> bitmap_from_surface(ID2D1RenderTarget* target, const svg::surface_t& surface)
{
    const D2D1_BITMAP_PROPERTIES properties{{DXGI_FORMAT_B8G8R8A8_UNORM, D2D1_ALPHA_MODE_PREMULTIPLIED}, 96.f, 96.f};
    com_ptr<ID2D1Bitmap> bitmap;
    throw_if_failed(target->CreateBitmap(D2D1_SIZE_U{UINT32(surface.width()), UINT32(surface.height())},
                                         surface.data(), UINT32(surface.stride()), &properties, bitmap.put()));
    return bitmap;
}

// Whole device pixels, so that icons rendered for their exact pixel size stay sharp.
D2D1_RECT_F snapped_box(ID2D1RenderTarget* target, float x, float y, float size, int& pixel_size) noexcept
{
    const float scale = pixels_per_dip(target);
    pixel_size = std::max(1, static_cast<int>(std::lround(size * scale)));
    const float left = std::round(x * scale) / scale;
    const float top = std::round(y * scale) / scale;
    return {left, top, left + pixel_size / scale, top + pixel_size / scale};
}

}  // namespace

ID2D1Bitmap* icon_bitmap_cache::vector_icon(const svg::read_only_collection& collection, std::wstring_view name,
                                            int pixel_size)
{
    auto key = std::make_tuple(static_cast<const void*>(&collection), std::wstring(name), pixel_size);
    if (const auto found = vector_bitmaps_.find(key); found != vector_bitmaps_.end())
        return found->second.get();
    const svg::icon_view icon = collection.find(name);
    com_ptr<ID2D1Bitmap> bitmap;
    if (!icon.empty())
        bitmap = bitmap_from_surface(target_.get(), svg::render_icon(icon, pixel_size));
    // Missing icons are remembered too, so that they are not looked up at every paint.
    return vector_bitmaps_.emplace(std::move(key), std::move(bitmap)).first->second.get();
}

ID2D1Bitmap* icon_bitmap_cache::raster_icon(HICON icon)
{
    if (const auto found = raster_bitmaps_.find(icon); found != raster_bitmaps_.end())
        return found->second.get();
    com_ptr<ID2D1Bitmap> bitmap;
    auto factory = create_instance<IWICImagingFactory>(CLSID_WICImagingFactory);
    com_ptr<IWICBitmap> source;
    if (SUCCEEDED(factory->CreateBitmapFromHICON(icon, source.put()))) {
        com_ptr<IWICFormatConverter> converter;
        throw_if_failed(factory->CreateFormatConverter(converter.put()));
        throw_if_failed(converter->Initialize(source.get(), GUID_WICPixelFormat32bppPBGRA, WICBitmapDitherTypeNone,
                                              nullptr, 0.0, WICBitmapPaletteTypeCustom));
        throw_if_failed(target_->CreateBitmapFromWicBitmap(converter.get(), nullptr, bitmap.put()));
    }
    return raster_bitmaps_.emplace(icon, std::move(bitmap)).first->second.get();
}

draw_scope::draw_scope(icon_bitmap_cache& cache) noexcept : previous_(current_cache) { current_cache = &cache; }
draw_scope::~draw_scope() { current_cache = previous_; }
icon_bitmap_cache* draw_scope::current() noexcept { return current_cache; }

float pixels_per_dip(ID2D1RenderTarget* target) noexcept
{
    FLOAT dpi_x = 96.f, dpi_y = 96.f;
    target->GetDpi(&dpi_x, &dpi_y);
    return dpi_x > 0 ? dpi_x / 96.f : 1.f;
}

namespace details {

// What the three objects share: a box of fixed size that never breaks lines by itself.
class inline_box : public com_object<IDWriteInlineObject> {
public:
    inline_box(float width, float height, float baseline) noexcept : width_(width), height_(height), baseline_(baseline)
    {
    }
    HRESULT STDMETHODCALLTYPE GetMetrics(DWRITE_INLINE_OBJECT_METRICS* metrics) noexcept override
    {
        *metrics = {width_, height_, baseline_, FALSE};
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetOverhangMetrics(DWRITE_OVERHANG_METRICS* overhangs) noexcept override
    {
        *overhangs = {0, 0, 0, 0};
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetBreakConditions(DWRITE_BREAK_CONDITION* before,
                                                 DWRITE_BREAK_CONDITION* after) noexcept override
    {
        *before = DWRITE_BREAK_CONDITION_NEUTRAL;
        *after = DWRITE_BREAK_CONDITION_NEUTRAL;
        return S_OK;
    }

protected:
    float width_, height_, baseline_;
};

class vector_icon_object final : public inline_box {
public:
    vector_icon_object(std::shared_ptr<const svg::read_only_collection> collection, std::wstring name,
                       std::wstring overlay, float size)
        : inline_box(size, size, size * icon_baseline_ratio), collection_(std::move(collection)),
          name_(std::move(name)), overlay_(std::move(overlay))
    {
    }
    HRESULT STDMETHODCALLTYPE Draw(void*, IDWriteTextRenderer*, FLOAT x, FLOAT y, BOOL, BOOL,
                                   IUnknown*) noexcept override try {
        icon_bitmap_cache* cache = draw_scope::current();
        if (!cache || !collection_)
            return S_OK;
        int pixels = 0;
        const D2D1_RECT_F box = snapped_box(cache->target(), x, y, width_, pixels);
        if (ID2D1Bitmap* bitmap = cache->vector_icon(*collection_, name_, pixels))
            cache->target()->DrawBitmap(bitmap, box, 1.f, D2D1_BITMAP_INTERPOLATION_MODE_NEAREST_NEIGHBOR, nullptr);
        if (!overlay_.empty())
            if (ID2D1Bitmap* bitmap = cache->vector_icon(*collection_, overlay_, pixels))
                cache->target()->DrawBitmap(bitmap, box, 1.f, D2D1_BITMAP_INTERPOLATION_MODE_NEAREST_NEIGHBOR,
                                            nullptr);
        return S_OK;
    } catch (...) {
        return hresult_from_caught_exception();
    }

private:
    std::shared_ptr<const svg::read_only_collection> collection_;
    std::wstring name_;
    std::wstring overlay_;
};

class raster_icon_object final : public inline_box {
public:
    raster_icon_object(HICON icon, HICON overlay, float size) noexcept
        : inline_box(size, size, size * icon_baseline_ratio), icon_(icon), overlay_(overlay)
    {
    }
    HRESULT STDMETHODCALLTYPE Draw(void*, IDWriteTextRenderer*, FLOAT x, FLOAT y, BOOL, BOOL,
                                   IUnknown*) noexcept override try {
        icon_bitmap_cache* cache = draw_scope::current();
        if (!cache)
            return S_OK;
        int pixels = 0;
        const D2D1_RECT_F box = snapped_box(cache->target(), x, y, width_, pixels);
        for (HICON icon : {icon_, overlay_})
            if (icon)
                if (ID2D1Bitmap* bitmap = cache->raster_icon(icon))
                    cache->target()->DrawBitmap(bitmap, box, 1.f, D2D1_BITMAP_INTERPOLATION_MODE_LINEAR, nullptr);
        return S_OK;
    } catch (...) {
        return hresult_from_caught_exception();
    }

private:
    HICON icon_;
    HICON overlay_;
};

class gap_object final : public inline_box {
public:
    explicit gap_object(float width) noexcept : inline_box(width, 0.f, 0.f) {}
    HRESULT STDMETHODCALLTYPE Draw(void*, IDWriteTextRenderer*, FLOAT, FLOAT, BOOL, BOOL, IUnknown*) noexcept override
    {
        return S_OK;
    }
};

com_ptr<IDWriteInlineObject> make_vector_icon_object(std::shared_ptr<const svg::read_only_collection> collection,
                                                     std::wstring name, std::wstring overlay, float size)
{
    return make_com_object<vector_icon_object>(std::move(collection), std::move(name), std::move(overlay), size);
}

com_ptr<IDWriteInlineObject> make_raster_icon_object(HICON icon, HICON overlay, float size)
{
    return make_com_object<raster_icon_object>(icon, overlay, size);
}

com_ptr<IDWriteInlineObject> make_gap_object(float width) { return make_com_object<gap_object>(width); }

}  // namespace details
}  // namespace tessel::d2d
