// Draws every markup tag and every icon of the collection at 96 and 144 dpi into one
// PNG, for a person to look at: controls_visual_sample.exe [output.png]
// (default: controls_visual_sample.png beside the executable).

#include "base/com_ptr.h"
#include "base/failure.h"
#include "base/module_path.h"
#include "base/utf.h"
#include "controls/embedded_font.h"
#include "controls/factories.h"
#include "controls/rich_layout.h"
#include "controls/vector_icons.h"

#include <d2d1.h>
#include <dwrite.h>
#include <gdiplus.h>
#include <wincodec.h>

#include <cstdio>
#include <string>
#include <vector>

using namespace tessel;
using namespace tessel::windows::new_controls;

namespace {

constexpr float panel_width = 560;   // DIPs
constexpr float panel_height = 700;  // DIPs

struct sample_context {
    IDWriteFactory* dwrite;
    IDWriteTextFormat* format;
    IDWriteTextFormat* caption;
    std::shared_ptr<const svg::read_only_collection> icons;
    IDWriteFontCollection* fluent;
    HICON raster;
    IDWriteInlineObject* custom;
};

float draw_markup(ID2D1RenderTarget* target, d2d::icon_bitmap_cache& cache, const sample_context& c,
                  std::wstring_view markup, float x, float y, float width, ID2D1Brush* brush)
{
    const markup_result parsed = parse_markup(markup);
    layout_options options;
    options.factory = c.dwrite;
    options.format = c.format;
    options.max_width = width;
    options.max_height = 400;
    options.icons = c.icons;
    options.link_colour = read_link_colour();
    options.vector_icon_name = [&](std::int64_t id) -> std::wstring {
        return id == 1 ? L"device.usb" : id == 2 ? L"marker.shared" : id == 3 ? L"marker.not-shared" : L"";
    };
    const rich_layout layout = build_layout(parsed, options);
    layout.draw(target, {x, y}, brush, cache);
    return layout.height();
}

void draw_panel(ID2D1RenderTarget* target, const sample_context& c)
{
    float dpi = 96, dpi_y = 96;
    target->GetDpi(&dpi, &dpi_y);
    const float scale = dpi / 96.f;
    d2d::icon_bitmap_cache cache(target);
    com_ptr<ID2D1SolidColorBrush> ink, rule;
    throw_if_failed(target->CreateSolidColorBrush(D2D1_COLOR_F{0.1f, 0.1f, 0.1f, 1}, ink.put()));
    throw_if_failed(target->CreateSolidColorBrush(D2D1_COLOR_F{0.8f, 0.8f, 0.8f, 1}, rule.put()));

    const std::wstring title = L"[[[b[[[s:130:Markup and icons at " + std::to_wstring(int(dpi)) + L" dpi]]]]]]";
    float y = 8;
    y += draw_markup(target, cache, c, title, 12, y, panel_width, ink.get()) + 6;

    const std::wstring fluent = std::to_wstring(reinterpret_cast<std::intptr_t>(c.fluent));
    const std::wstring raster = std::to_wstring(reinterpret_cast<std::intptr_t>(c.raster));
    const std::wstring custom = std::to_wstring(reinterpret_cast<std::intptr_t>(c.custom));
    const std::wstring lines[] = {
        L"b: [[[bbold]]]   w: [[[w:300:weight 300]]] [[[w:900:weight 900]]]   i: [[[iitalic]]]",
        L"u: [[[uunderline]]]   -: [[[-strikethrough]]]   c: [[[c:3:condensed]]] [[[c:7:expanded]]]",
        L"s: [[[s:80:80 %]]] normal [[[s:120:120 %]]] [[[s:160:160 %]]]",
        L"f/F: [[[F:" + fluent + L":[[[f#[Fluent]#3]]]]]] collapsed  [[[F:" + fluent + L":[[[f#[Fluent]#4]]]]]] expanded  "
            L"[[[F:" + fluent + L":[[[f#[Fluent]#56ar]]]]]] (5 6 a r)",
        L"T: [[[T#[#777]#grey #777]]] [[[T#[#c00000]#red #c00000]]] [[[T#[#0080ff80]#half blue]]] "
            L"[[[T#[#12]#odd length]]]",
        L"B: [[[B#[#ffe080]#highlighted]]] and [[[B#[#80c0ff]#[[[T#[#fff]#white on blue]]]]]]",
        L"h: see [[[h#[A tooltip]#the manual]]] for more   H: [[[H[[[r:" + raster + L": ]]]]]] (clickable icon)",
        L"g: |[[[g:0: ]]]|[[[g:20: ]]]|[[[g:40: ]]]| gaps of 0, 20 and 40",
        L"v: [[[v#[server.client.connected]# ]]] Alice   [[[v#[server.client.disconnected]# ]]] Bob   "
            L"[[[v:1::2: ]]] shared   [[[v:1::3: ]]] not shared",
        L"V: text-sized [[[V#[message.warning]# ]]] icon   r: [[[r:" + raster + L": ]]] raster   "
            L"I: [[[I:" + custom + L": ]]] object",
        L"Nested: [[[b[[[s:120:Bold title]]]]]] [[[w:300:[[[bweight 300 wins]]]]]] "
            L"[[[i[[[uA]]]B[[[-C]]]]]]   stray ]]] closer",
        L"Wrapped: [[[T#[#777]#Some longer grey text that wraps to the width of the panel, with a "
            L"[[[h#[Tip]#link inside]]] and an icon [[[v#[message.information]# ]]] in the middle.]]]",
    };
    for (const std::wstring& line : lines) {
        y += draw_markup(target, cache, c, line, 12, y, panel_width - 24, ink.get()) + 4;
        target->DrawLine({12, y - 2}, {panel_width - 12, y - 2}, rule.get(), 0.5f);
    }

    // Every icon at 16, 24, 32 and 48 DIPs.
    y += 8;
    for (std::size_t i = 0; i < c.icons->size(); ++i) {
        const std::wstring name = utf8_to_utf16(c.icons->name(i));
        const float row = y + float(i / 2) * 52;
        const float column = 12 + float(i % 2) * 275;
        float x = column;
        for (int size : {16, 24, 32, 48}) {
            const int pixels = int(size * scale + 0.5f);
            if (ID2D1Bitmap* bitmap = cache.vector_icon(*c.icons, name, pixels))
                target->DrawBitmap(bitmap, D2D1_RECT_F{x, row, x + float(size), row + float(size)}, 1.f,
                                   D2D1_BITMAP_INTERPOLATION_MODE_NEAREST_NEIGHBOR, nullptr);
            x += float(size) + 6;
        }
        draw_markup(target, cache, c, L"[[[s:85:" + name + L"]]]", x, row + 16, 150, ink.get());
    }
}

// Each dpi gets a target of its own, as each window of the program has.
com_ptr<IWICBitmap> render_panel(IWICImagingFactory* wic, ID2D1Factory* d2d, const sample_context& c, float dpi)
{
    const float scale = dpi / 96.f;
    com_ptr<IWICBitmap> bitmap;
    throw_if_failed(wic->CreateBitmap(UINT(panel_width * scale), UINT(panel_height * scale), GUID_WICPixelFormat32bppPBGRA,
                                      WICBitmapCacheOnLoad, bitmap.put()));
    const D2D1_RENDER_TARGET_PROPERTIES properties{D2D1_RENDER_TARGET_TYPE_DEFAULT,
                                                   {DXGI_FORMAT_B8G8R8A8_UNORM, D2D1_ALPHA_MODE_PREMULTIPLIED},
                                                   dpi, dpi, D2D1_RENDER_TARGET_USAGE_NONE, D2D1_FEATURE_LEVEL_DEFAULT};
    com_ptr<ID2D1RenderTarget> target;
    throw_if_failed(d2d->CreateWicBitmapRenderTarget(bitmap.get(), &properties, target.put()));
    target->BeginDraw();
    target->Clear(D2D1_COLOR_F{1, 1, 1, 1});
    draw_panel(target.get(), c);
    throw_if_failed(target->EndDraw());
    return bitmap;
}

int run(const std::wstring& output)
{
    throw_if_failed(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED));
    Gdiplus::GdiplusStartupInput gdiplus_input;
    ULONG_PTR gdiplus_token = 0;
    Gdiplus::GdiplusStartup(&gdiplus_token, &gdiplus_input, nullptr);

    const com_ptr<IDWriteFactory> dwrite(tessel::d2d::dwrite_factory());
    const com_ptr<ID2D1Factory> d2d(tessel::d2d::d2d_factory());
    auto wic = create_instance<IWICImagingFactory>(CLSID_WICImagingFactory);
    const ui::embedded_font_loaders fonts(dwrite.get());
    const com_ptr<IDWriteFontCollection> fluent = fonts.program_font();

    com_ptr<IDWriteTextFormat> format, caption;
    throw_if_failed(dwrite->CreateTextFormat(L"Tahoma", nullptr, DWRITE_FONT_WEIGHT_NORMAL, DWRITE_FONT_STYLE_NORMAL,
                                             DWRITE_FONT_STRETCH_NORMAL, 12.f, L"en-us", format.put()));
    caption = format;
    const auto icons = svg::program_icons();
    const unique_hicon raster = svg::create_hicon(svg::render_icon(icons->find(std::string_view("device.storage")), 16));
    const com_ptr<IDWriteInlineObject> custom =
        d2d::details::make_vector_icon_object(icons, L"message.question", L"", 16);
    const sample_context context{dwrite.get(), format.get(), caption.get(), icons, fluent.get(), raster.get(), custom.get()};

    // The 96 dpi panel on top, the 144 dpi one below it.
    const UINT width = UINT(panel_width * 1.5f);
    const UINT height = UINT(panel_height + panel_height * 1.5f);
    com_ptr<IWICBitmap> bitmap;
    throw_if_failed(wic->CreateBitmap(width, height, GUID_WICPixelFormat32bppPBGRA, WICBitmapCacheOnLoad, bitmap.put()));
    const D2D1_RENDER_TARGET_PROPERTIES properties{D2D1_RENDER_TARGET_TYPE_DEFAULT,
                                                   {DXGI_FORMAT_B8G8R8A8_UNORM, D2D1_ALPHA_MODE_PREMULTIPLIED},
                                                   96.f, 96.f, D2D1_RENDER_TARGET_USAGE_NONE, D2D1_FEATURE_LEVEL_DEFAULT};
    com_ptr<ID2D1RenderTarget> target;
    throw_if_failed(d2d->CreateWicBitmapRenderTarget(bitmap.get(), &properties, target.put()));
    const com_ptr<IWICBitmap> panels[] = {render_panel(wic.get(), d2d.get(), context, 96.f),
                                          render_panel(wic.get(), d2d.get(), context, 144.f)};
    target->BeginDraw();
    target->Clear(D2D1_COLOR_F{1, 1, 1, 1});
    float top = 0;
    for (const com_ptr<IWICBitmap>& panel : panels) {
        com_ptr<ID2D1Bitmap> pixels;
        throw_if_failed(target->CreateBitmapFromWicBitmap(panel.get(), nullptr, pixels.put()));
        const D2D1_SIZE_U size = pixels->GetPixelSize();
        target->DrawBitmap(pixels.get(), D2D1_RECT_F{0, top, float(size.width), top + float(size.height)}, 1.f,
                           D2D1_BITMAP_INTERPOLATION_MODE_NEAREST_NEIGHBOR, nullptr);
        top += float(size.height);
    }
    throw_if_failed(target->EndDraw());

    com_ptr<IWICStream> stream;
    throw_if_failed(wic->CreateStream(stream.put()));
    throw_if_failed(stream->InitializeFromFilename(output.c_str(), GENERIC_WRITE));
    com_ptr<IWICBitmapEncoder> encoder;
    throw_if_failed(wic->CreateEncoder(GUID_ContainerFormatPng, nullptr, encoder.put()));
    throw_if_failed(encoder->Initialize(stream.get(), WICBitmapEncoderNoCache));
    com_ptr<IWICBitmapFrameEncode> frame;
    throw_if_failed(encoder->CreateNewFrame(frame.put(), nullptr));
    throw_if_failed(frame->Initialize(nullptr));
    throw_if_failed(frame->SetSize(width, height));
    WICPixelFormatGUID pixel_format = GUID_WICPixelFormat32bppBGRA;
    throw_if_failed(frame->SetPixelFormat(&pixel_format));
    throw_if_failed(frame->WriteSource(bitmap.get(), nullptr));
    throw_if_failed(frame->Commit());
    throw_if_failed(encoder->Commit());
    std::fwprintf(stdout, L"wrote %ls (%ux%u)\n", output.c_str(), width, height);
    Gdiplus::GdiplusShutdown(gdiplus_token);
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv)
try {
    std::wstring output;
    if (argc > 1) {
        output = argv[1];
    } else {
        output = tessel::module_folder() + L"controls_visual_sample.png";
    }
    return run(output);
} catch (...) {
    std::fwprintf(stderr, L"visual sample failed: %ls\n", system_message(hresult_from_caught_exception()).c_str());
    return 1;
}
