#include "test_support.h"

#include "base/failure.h"
#include "controls/factories.h"

#include <gdiplus.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <type_traits>

using tessel::com_ptr;
using tessel::throw_if_failed;

namespace controls_tests {
namespace {

class environment : public ::testing::Environment {
public:
    void SetUp() override
    {
        ASSERT_TRUE(SUCCEEDED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)));
        Gdiplus::GdiplusStartupInput input;
        ASSERT_EQ(Gdiplus::GdiplusStartup(&gdiplus_token_, &input, nullptr), Gdiplus::Ok);
    }
    void TearDown() override { Gdiplus::GdiplusShutdown(gdiplus_token_); }

private:
    ULONG_PTR gdiplus_token_ = 0;
};

[[maybe_unused]] const auto* const registered = ::testing::AddGlobalTestEnvironment(new environment);

}  // namespace

IDWriteFactory* dwrite()
{
    return tessel::d2d::dwrite_factory();
}

ID2D1Factory* d2d()
{
    return tessel::d2d::d2d_factory();
}

IWICImagingFactory* wic()
{
    static const com_ptr<IWICImagingFactory> factory =
        tessel::create_instance<IWICImagingFactory>(CLSID_WICImagingFactory);
    return factory.get();
}

com_ptr<IDWriteTextFormat> text_format(float size)
{
    com_ptr<IDWriteTextFormat> format;
    throw_if_failed(dwrite()->CreateTextFormat(L"Tahoma", nullptr, DWRITE_FONT_WEIGHT_NORMAL, DWRITE_FONT_STYLE_NORMAL,
                                               DWRITE_FONT_STRETCH_NORMAL, size, L"en-us", format.put()));
    return format;
}

pixel_canvas::pixel_canvas(UINT w, UINT h, float dpi) : width(w), height(h)
{
    throw_if_failed(wic()->CreateBitmap(w, h, GUID_WICPixelFormat32bppPBGRA, WICBitmapCacheOnLoad, bitmap.put()));
    const D2D1_RENDER_TARGET_PROPERTIES properties{D2D1_RENDER_TARGET_TYPE_DEFAULT,
                                                   {DXGI_FORMAT_B8G8R8A8_UNORM, D2D1_ALPHA_MODE_PREMULTIPLIED},
                                                   dpi, dpi, D2D1_RENDER_TARGET_USAGE_NONE,
                                                   D2D1_FEATURE_LEVEL_DEFAULT};
    throw_if_failed(d2d()->CreateWicBitmapRenderTarget(bitmap.get(), &properties, target.put()));
}

tessel::unique_hwnd owner_window(const wchar_t* class_name, WNDPROC procedure, int width, int height)
{
    WNDCLASSW wc{};
    wc.lpfnWndProc = procedure;
    wc.hInstance = ::GetModuleHandleW(nullptr);
    wc.lpszClassName = class_name;
    ::RegisterClassW(&wc);  // refused harmlessly once the class exists
    tessel::unique_hwnd window(::CreateWindowExW(0, class_name, L"owner", WS_OVERLAPPEDWINDOW | WS_CLIPCHILDREN, 0, 0,
                                                 width, height, nullptr, nullptr, wc.hInstance, nullptr));
    ::ShowWindow(window.get(), SW_SHOWNA);
    return window;
}

void press(HWND window, UINT vk)
{
    ::SendMessageW(window, WM_KEYDOWN, vk, 1);
    ::SendMessageW(window, WM_KEYUP, vk, 0xC0000001);
}

void click_at(HWND window, int x, int y)
{
    ::SendMessageW(window, WM_LBUTTONDOWN, MK_LBUTTON, MAKELPARAM(x, y));
    ::SendMessageW(window, WM_LBUTTONUP, 0, MAKELPARAM(x, y));
}

std::vector<std::uint32_t> print_client(HWND window, std::uint32_t background, int& width)
{
    RECT client{};
    ::GetClientRect(window, &client);
    width = client.right;
    BITMAPINFO info{};
    info.bmiHeader = {sizeof info.bmiHeader, client.right, -client.bottom, 1, 32, BI_RGB, 0, 0, 0, 0, 0};
    void* bits = nullptr;
    const tessel::unique_hbitmap dib(::CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, &bits, nullptr, 0));
    const std::unique_ptr<std::remove_pointer_t<HDC>, decltype(&::DeleteDC)> dc(::CreateCompatibleDC(nullptr),
                                                                              &::DeleteDC);
    if (!dib || !dc)
        return {};
    const HGDIOBJ old = ::SelectObject(dc.get(), dib.get());
    auto* pixels = static_cast<std::uint32_t*>(bits);
    const std::size_t count = std::size_t(client.right) * std::size_t(client.bottom);
    std::fill(pixels, pixels + count, background);
    ::SendMessageW(window, WM_PRINTCLIENT, reinterpret_cast<WPARAM>(dc.get()), PRF_CLIENT);
    ::GdiFlush();
    std::vector<std::uint32_t> result(pixels, pixels + count);
    ::SelectObject(dc.get(), old);
    return result;
}

std::vector<std::uint32_t> pixel_canvas::read() const
{
    std::vector<std::uint32_t> pixels(std::size_t(width) * height);
    const WICRect all{0, 0, INT(width), INT(height)};
    throw_if_failed(bitmap->CopyPixels(&all, width * 4, UINT(pixels.size() * 4), reinterpret_cast<BYTE*>(pixels.data())));
    return pixels;
}

}  // namespace controls_tests
