#pragma once
// What the controls tests share: COM and GDI+ for the whole run, the DirectWrite and
// Direct2D factories, and a WIC bitmap render target whose pixels can be read back
// (GetPixel on window DCs reads nothing under Wine).

#include "base/com_ptr.h"
#include "base/unique_handle.h"

#include <d2d1.h>
#include <dwrite.h>
#include <wincodec.h>

#include <cstdint>
#include <vector>

namespace controls_tests {

IDWriteFactory* dwrite();
ID2D1Factory* d2d();
IWICImagingFactory* wic();

// A text format in the font every Wine prefix has.
tessel::com_ptr<IDWriteTextFormat> text_format(float size = 12.f);

struct pixel_canvas {
    pixel_canvas(UINT width, UINT height, float dpi = 96.f);
    // Premultiplied BGRA, top row first.
    std::vector<std::uint32_t> read() const;
    tessel::com_ptr<IWICBitmap> bitmap;
    tessel::com_ptr<ID2D1RenderTarget> target;
    UINT width, height;
};

// A shown top-level window whose procedure sees what a control tells its parent; the
// class is registered on first use.
tessel::unique_hwnd owner_window(const wchar_t* class_name, WNDPROC procedure, int width, int height);

// What a window draws through WM_PRINTCLIENT onto a bitmap filled with `background`
// first: BGRA pixels of its client area, top row first (`width` per row).
std::vector<std::uint32_t> print_client(HWND window, std::uint32_t background, int& width);

// A key pressed and released, and a left click, as the window's own messages.
void press(HWND window, UINT vk);
void click_at(HWND window, int x, int y);

inline std::uint32_t alpha_of(std::uint32_t p) { return p >> 24; }
inline std::uint32_t red_of(std::uint32_t p) { return (p >> 16) & 0xFF; }
inline std::uint32_t green_of(std::uint32_t p) { return (p >> 8) & 0xFF; }
inline std::uint32_t blue_of(std::uint32_t p) { return p & 0xFF; }

}  // namespace controls_tests
