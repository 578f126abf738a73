// A window with the tree view as the program uses it (device rows with icons and
// overlays, share markers, clients, a dimmed row, colours, a cut-off name), for a person
// to look at: controls_tree_sample.exe [seconds [output.png [unfocused] [high-contrast]]]
// (default 5 seconds; 0 runs until closed; "unfocused" leaves the focus off the tree, to
// see the selection without it; "high-contrast" takes the system's colours for a
// high-contrast scheme, which Wine cannot switch on: it always reports the flag off).
// Run it at 96 and at 144 dpi, and with a high-contrast scheme's colours.

#include "base/com_ptr.h"
#include "base/failure.h"
#include "controls/dark_theme.h"
#include "controls/factories.h"
#include "controls/treeview.h"
#include <wincodec.h>
#include "controls/vector_icons.h"

#include <gdiplus.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>

using namespace tessel;
using namespace tessel::windows::new_controls;
using namespace tessel::windows::new_controls::treeview::impl;

namespace {

tree_view* the_tree = nullptr;
std::wstring the_output;

// What the control draws, through WM_PRINTCLIENT into a bitmap, saved as a PNG: under
// Wine with Xvfb a window's Direct2D output does not always reach the X screen, so the
// screenshot alone cannot be trusted.
void save_client(HWND window, const std::wstring& path)
{
    RECT client{};
    ::GetClientRect(window, &client);
    BITMAPINFO info{};
    info.bmiHeader = {sizeof info.bmiHeader, client.right, -client.bottom, 1, 32, BI_RGB, 0, 0, 0, 0, 0};
    void* bits = nullptr;
    HDC screen = ::GetDC(nullptr);
    HDC memory = ::CreateCompatibleDC(screen);
    HBITMAP dib = ::CreateDIBSection(screen, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
    HGDIOBJ old = ::SelectObject(memory, dib);
    ::SendMessageW(window, WM_PRINTCLIENT, reinterpret_cast<WPARAM>(memory), PRF_CLIENT);
    ::GdiFlush();
    auto wic = create_instance<IWICImagingFactory>(CLSID_WICImagingFactory);
    com_ptr<IWICBitmap> bitmap;
    throw_if_failed(wic->CreateBitmapFromMemory(UINT(client.right), UINT(client.bottom), GUID_WICPixelFormat32bppBGR,
                                                UINT(client.right) * 4, UINT(client.right * client.bottom * 4),
                                                static_cast<BYTE*>(bits), bitmap.put()));
    com_ptr<IWICStream> stream;
    throw_if_failed(wic->CreateStream(stream.put()));
    throw_if_failed(stream->InitializeFromFilename(path.c_str(), GENERIC_WRITE));
    com_ptr<IWICBitmapEncoder> encoder;
    throw_if_failed(wic->CreateEncoder(GUID_ContainerFormatPng, nullptr, encoder.put()));
    throw_if_failed(encoder->Initialize(stream.get(), WICBitmapEncoderNoCache));
    com_ptr<IWICBitmapFrameEncode> frame;
    throw_if_failed(encoder->CreateNewFrame(frame.put(), nullptr));
    throw_if_failed(frame->Initialize(nullptr));
    throw_if_failed(frame->WriteSource(bitmap.get(), nullptr));
    throw_if_failed(frame->Commit());
    throw_if_failed(encoder->Commit());
    ::SelectObject(memory, old);
    ::DeleteObject(dib);
    ::DeleteDC(memory);
    ::ReleaseDC(nullptr, screen);
}

LRESULT CALLBACK frame_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    switch (message) {
    case WM_SIZE:
        if (the_tree && the_tree->window())
            ::MoveWindow(the_tree->window(), 0, 0, LOWORD(lparam), HIWORD(lparam), TRUE);
        return 0;
    case WM_TIMER:
        if (wparam == 2) {
            ::KillTimer(window, 2);
            if (!the_output.empty())
                save_client(the_tree->window(), the_output);
            return 0;
        }
        ::PostQuitMessage(0);
        return 0;
    case WM_CLOSE: ::PostQuitMessage(0); return 0;
    default: return ::DefWindowProcW(window, message, wparam, lparam);
    }
}

// The system's theme, with the high-contrast flag on.
struct high_contrast_theme final : theme_settings {
    system_theme_settings system;
    bool dark_mode_allowed(HWND) const override { return false; }
    bool apps_use_dark_theme() const override { return system.apps_use_dark_theme(); }
    bool high_contrast() const override { return true; }
    COLORREF system_colour(int index) const override { return system.system_colour(index); }
    void theme_window(HWND window, bool dark) const override { system.theme_window(window, dark); }
};

bool has_option(int argc, wchar_t** argv, const wchar_t* option)
{
    for (int i = 3; i < argc; ++i)
        if (std::wcscmp(argv[i], option) == 0)
            return true;
    return false;
}

unique_hicon icon_of(const char* name, int pixels)
{
    const auto icons = svg::program_icons();
    return svg::create_hicon(svg::render_icon(icons->find(std::string_view(name)), pixels));
}

}  // namespace

int wmain(int argc, wchar_t** argv)
{
    using set_awareness = BOOL(WINAPI*)(DPI_AWARENESS_CONTEXT);
    if (auto set = reinterpret_cast<set_awareness>(
            reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"user32"), "SetProcessDpiAwarenessContext")));
        !set || (!set(DPI_AWARENESS_CONTEXT_PER_MONITOR_AWARE_V2) && !set(DPI_AWARENESS_CONTEXT_PER_MONITOR_AWARE)))
        ::SetProcessDPIAware();
    ::CoInitialize(nullptr);
    Gdiplus::GdiplusStartupInput gdiplus_input;
    ULONG_PTR gdiplus = 0;
    Gdiplus::GdiplusStartup(&gdiplus, &gdiplus_input, nullptr);
    const int seconds = argc > 1 ? std::wcstol(argv[1], nullptr, 10) : 5;
    if (argc > 2)
        the_output = argv[2];
    WNDCLASSW wc{};
    wc.lpfnWndProc = frame_proc;
    wc.hInstance = ::GetModuleHandleW(nullptr);
    wc.hCursor = ::LoadCursorW(nullptr, IDC_ARROW);
    wc.hbrBackground = reinterpret_cast<HBRUSH>(COLOR_BTNFACE + 1);
    wc.lpszClassName = L"controls_tree_sample";
    ::RegisterClassW(&wc);
    const UINT dpi = ::GetDpiForSystem();
    const auto px = [dpi](int dips) { return ::MulDiv(dips, int(dpi), 96); };
    const HWND frame = ::CreateWindowExW(0, wc.lpszClassName, L"Tree view sample", WS_OVERLAPPEDWINDOW | WS_CLIPCHILDREN,
                                         10, 10, px(720), px(330), nullptr, nullptr, wc.hInstance, nullptr);
    RECT client{};
    ::GetClientRect(frame, &client);
    tree_view tree(frame, 1003, client, selection_mode::single);
    the_tree = &tree;
    const high_contrast_theme high_contrast;
    if (has_option(argc, argv, L"high-contrast"))
        tree.list().set_theme_settings(high_contrast);
    tree.set_columns({{L"Device", 300, 80}, {L"Shared", 60, 40}, {L"Client", 170, 60}, {L"Key", 140, 40}});
    tree.set_vector_icon_names([](std::int64_t id) -> std::wstring {
        switch (id) {
        case 1: return L"device.hub";
        case 2: return L"device.storage";
        case 3: return L"device.input";
        case 4: return L"device.usb";
        case 5: return L"server.client.connected";
        default: return L"";
        }
    });
    const int icon = tree.list().icon_pixel_size();
    const unique_hicon shared = icon_of("marker.shared", icon);
    const unique_hicon not_shared = icon_of("marker.not-shared", icon);
    const unique_hicon generic = icon_of("device.generic", icon);
    const auto marker = [&](HICON h) {
        return L"[[[H[[[r:" + std::to_wstring(reinterpret_cast<std::uintptr_t>(h)) + L": ]]]]]]";
    };
    const std::wstring alice = L"[[[v#[server.client.connected]# ]]] alice-laptop";
    const std::wstring nobody = L"[[[v#[server.client.disconnected]# ]]] ";

    tree.begin_update();
    tree_node* hub = tree.insert(nullptr, nullptr,
                                 {.text = L"USB hub (4 ports)", .image = vector_image{1},
                                  .column_texts = {marker(shared.get()), alice, L"s3cret"}});
    tree.insert(hub, nullptr, {.text = L"[[[iMass storage device]]]", .image = vector_image{2}});
    tree_node* kb = tree.insert(hub, nullptr, {.text = L"[[[iHID keyboard device]]]", .image = vector_image{3}, .overlay = 5});
    tree.insert(kb, nullptr, {.text = L"[[[iHID-compliant keyboard]]]", .image = raster_image{generic.get()}});
    tree_node* camera = tree.insert(nullptr, nullptr,
                                    {.text = L"Document camera", .image = raster_image{generic.get()},
                                     .column_texts = {marker(not_shared.get()), nobody}});
    tree.insert(nullptr, nullptr,
                {.text = L"Label printer (text colour and row colour)", .image = vector_image{4},
                 .column_texts = {marker(shared.get()), alice}, .text_colour = D2D1_COLOR_F{0.7f, 0.1f, 0.0f, 1},
                 .row_colour = D2D1_COLOR_F{1.0f, 0.96f, 0.8f, 1}});
    tree.insert(nullptr, nullptr,
                {.text = L"Disconnected scanner", .image = vector_image{4},
                 .column_texts = {marker(not_shared.get()), nobody}, .flags = node_dimmed});
    tree.insert(nullptr, nullptr,
                {.text = L"A very long device name that does not fit into the first column, so it is cut off",
                 .image = vector_image{4}, .column_texts = {marker(not_shared.get()), nobody}});
    tree_node* closed = tree.insert(nullptr, nullptr,
                                    {.text = L"Collapsed hub", .image = vector_image{1},
                                     .column_texts = {marker(not_shared.get())}});
    tree.insert(closed, nullptr, {.text = L"[[[iHidden child]]]", .image = vector_image{2}});
    tree.collapse(closed);
    tree.end_update();
    tree.select(camera);

    ::ShowWindow(frame, SW_SHOW);
    if (!has_option(argc, argv, L"unfocused"))
        ::SetFocus(tree.window());
    // The pointer over the storage row, so that the hot row shows too.
    ::SendMessageW(tree.window(), WM_MOUSEMOVE, 0,
                   MAKELPARAM(px(60), tree.list().row_height_pixels() * 2 + tree.list().row_height_pixels() / 2 + 2));
    if (seconds > 0)
        ::SetTimer(frame, 1, UINT(seconds) * 1000, nullptr);
    ::SetTimer(frame, 2, 1500, nullptr);
    MSG msg;
    while (::GetMessageW(&msg, nullptr, 0, 0) > 0) {
        ::TranslateMessage(&msg);
        ::DispatchMessageW(&msg);
    }
    the_tree = nullptr;
    ::DestroyWindow(frame);
    Gdiplus::GdiplusShutdown(gdiplus);
    return 0;
}
