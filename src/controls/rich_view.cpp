#include "controls/rich_view.h"

#include "base/dpi.h"
#include "base/failure.h"
#include "base/scope_exit.h"
#include "controls/dark_theme.h"
#include "controls/factories.h"

#include <vssym32.h>
#include <windowsx.h>

#include <algorithm>
#include <cmath>

namespace tessel::windows::new_controls {
namespace {

constexpr UINT_PTR placeholder_subclass_id = 0x51C4;

using d2d::d2d_factory;
using d2d::dwrite_factory;

D2D1_COLOR_F colour_of(COLORREF colour) noexcept
{
    return {GetRValue(colour) / 255.f, GetGValue(colour) / 255.f, GetBValue(colour) / 255.f, 1.f};
}

void register_class(WNDPROC window_proc)
{
    static const ATOM atom = [window_proc] {
        WNDCLASSEXW wc{};
        wc.cbSize = sizeof wc;
        wc.style = CS_HREDRAW | CS_VREDRAW | CS_DBLCLKS;
        wc.lpfnWndProc = window_proc;
        wc.hInstance = ::GetModuleHandleW(nullptr);
        wc.hCursor = ::LoadCursorW(nullptr, IDC_ARROW);
        wc.lpszClassName = rich_view_class;
        const ATOM a = ::RegisterClassExW(&wc);
        throw_last_error_if(a == 0);
        return a;
    }();
    (void)atom;
}

}  // namespace

rich_view* rich_view::attach(HWND placeholder)
{
    fail_fast_if(!::IsWindow(placeholder), L"rich_view::attach: the placeholder is no window");
    if (rich_view* existing = from_placeholder(placeholder))
        return existing;
    register_class(&rich_view::window_proc);

    const HWND parent = ::GetParent(placeholder);
    RECT rect{};
    ::GetWindowRect(placeholder, &rect);
    ::MapWindowPoints(nullptr, parent, reinterpret_cast<POINT*>(&rect), 2);
    struct destroy {  // a local class may use the private destructor, as attach may
        void operator()(rich_view* view) const noexcept { delete view; }
    };
    std::unique_ptr<rich_view, destroy> owned(new rich_view(placeholder));
    // From WM_NCCREATE on the window owns the object (WM_NCDESTROY deletes it).
    const HWND window = ::CreateWindowExW(0, rich_view_class, L"", WS_CHILD | WS_CLIPSIBLINGS, rect.left, rect.top,
                                          rect.right - rect.left, rect.bottom - rect.top, parent,
                                          reinterpret_cast<HMENU>(static_cast<INT_PTR>(::GetDlgCtrlID(placeholder))),
                                          ::GetModuleHandleW(nullptr), owned.get());
    throw_last_error_if(!window);
    rich_view* const view = owned.release();
    try {
        view->take_over_placeholder();
    } catch (...) {
        ::DestroyWindow(window);
        throw;
    }
    return view;
}

rich_view* rich_view::from_placeholder(HWND placeholder) noexcept
{
    return static_cast<rich_view*>(::GetPropW(placeholder, rich_view_property));
}

rich_view::rich_view(HWND placeholder) : placeholder_(placeholder) {}

void rich_view::take_over_placeholder()
{
    ::SetPropW(placeholder_, rich_view_property, this);
    ::SetWindowSubclass(placeholder_, &rich_view::placeholder_proc, placeholder_subclass_id,
                        reinterpret_cast<DWORD_PTR>(this));
    // Right after the placeholder, so that the dialog's tab order is kept.
    ::SetWindowPos(window_, placeholder_, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE);
    refresh_theme();
    link_colour_ = read_link_colour();

    const int length = ::GetWindowTextLengthW(placeholder_);
    std::wstring text(static_cast<std::size_t>(length) + 1, L'\0');
    text.resize(static_cast<std::size_t>(::GetWindowTextW(placeholder_, text.data(), length + 1)));
    set_text(std::move(text));
    const bool visible = (::GetWindowLongW(placeholder_, GWL_STYLE) & WS_VISIBLE) != 0;
    ::ShowWindow(placeholder_, SW_HIDE);
    if (visible)
        ::ShowWindow(window_, SW_SHOWNA);
}

rich_view::~rich_view()
{
    if (theme_)
        ::CloseThemeData(theme_);
}

void rich_view::detach() noexcept
{
    ::ShowWindow(placeholder_, ::IsWindowVisible(window_) ? SW_SHOWNA : SW_HIDE);
    ::DestroyWindow(window_);  // WM_NCDESTROY deletes this
}

void rich_view::set_text(std::wstring markup)
{
    markup_ = std::move(markup);
    try {
        parse_markup(markup_, parsed_);
        plain_text_ = parsed_.text();
    } catch (const std::out_of_range&) {
        // The one way parsing fails: an opener cut off at the very end. The text before it
        // is shown, and readers (WM_GETTEXT, screen readers) get exactly what is shown.
        parse_markup(std::wstring_view(markup_).substr(0, markup_.size() - 3), parsed_);
        plain_text_ = parsed_.text();
    }
    store_plain_text();
    text_changed();
}

void rich_view::store_plain_text()
{
    // GetDlgItem finds the placeholder before the view (same id, earlier in Z order), and
    // other processes read a window's stored text without asking it: both must see what
    // the view's WM_GETTEXT answers, the text without markup.
    storing_plain_text_ = true;
    ::SetWindowTextW(placeholder_, plain_text_.c_str());
    storing_plain_text_ = false;
    ::DefWindowProcW(window_, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(plain_text_.c_str()));
}

void rich_view::set_no_underline(bool no_underline)
{
    no_underline_ = no_underline;
    text_changed();
}

void rich_view::text_changed()
{
    // With links the view is a stop of the dialog's Tab order; without, it is only text.
    const bool has_links = std::any_of(parsed_.elements.begin(), parsed_.elements.end(),
                                       [](const markup_element& e) { return e.tag == L'h' || e.tag == L'H'; });
    const LONG style = ::GetWindowLongW(window_, GWL_STYLE);
    ::SetWindowLongW(window_, GWL_STYLE, has_links ? style | WS_TABSTOP : style & ~WS_TABSTOP);
    invalidate_layout();
    focused_link_.reset();
    hot_link_.reset();
    pressed_link_.reset();
    ::InvalidateRect(window_, nullptr, FALSE);
    ::NotifyWinEvent(EVENT_OBJECT_NAMECHANGE, window_, OBJID_CLIENT, CHILDID_SELF);
}

void rich_view::invalidate_layout() noexcept
{
    layout_.reset();
    layout_width_ = -1;
}

float rich_view::dpi() const noexcept
{
    const UINT value = ::GetDpiForWindow(window_);
    return value ? static_cast<float>(value) : 96.f;
}

void rich_view::ensure_text_format()
{
    if (text_format_)
        return;
    // The placeholder's font (the dialog's), else the system's message font.
    LOGFONTW font{};
    const auto hfont = reinterpret_cast<HFONT>(::SendMessageW(placeholder_, WM_GETFONT, 0, 0));
    float size_dips = 0;
    if (hfont && ::GetObjectW(hfont, sizeof font, &font)) {
        size_dips = std::abs(static_cast<float>(font.lfHeight)) * 96.f / dpi();
    } else {
        const dip_font message = message_font_in_dips(static_cast<UINT>(dpi()));
        font = message.font;
        size_dips = message.size_dips;
    }
    if (size_dips < 1)
        size_dips = 12;
    if (font.lfFaceName[0] == L'\0' || std::wstring_view(font.lfFaceName) == L"MS Shell Dlg" ||
        std::wstring_view(font.lfFaceName) == L"MS Shell Dlg 2")
        std::wcscpy(font.lfFaceName, L"Tahoma");
    throw_if_failed(dwrite_factory()->CreateTextFormat(
        font.lfFaceName, nullptr, font.lfWeight >= FW_BOLD ? DWRITE_FONT_WEIGHT_BOLD : DWRITE_FONT_WEIGHT_NORMAL,
        font.lfItalic ? DWRITE_FONT_STYLE_ITALIC : DWRITE_FONT_STYLE_NORMAL, DWRITE_FONT_STRETCH_NORMAL, size_dips,
        L"", text_format_.put()));
    throw_if_failed(text_format_->SetWordWrapping(DWRITE_WORD_WRAPPING_WRAP));
}

dip_font message_font_in_dips(UINT dpi) noexcept
{
    // The system answers in pixels of the DPI it is asked for; text formats take DIPs.
    NONCLIENTMETRICSW metrics{};
    metrics.cbSize = sizeof metrics;
    if (!system_parameters_for_dpi(SPI_GETNONCLIENTMETRICS, sizeof metrics, &metrics, dpi))
        return {};
    const float size = std::abs(static_cast<float>(metrics.lfMessageFont.lfHeight)) * 96.f / static_cast<float>(dpi);
    return {metrics.lfMessageFont, size};
}

rich_layout rich_view::build(float width_dips)
{
    ensure_text_format();
    layout_options options;
    options.factory = dwrite_factory();
    options.format = text_format_.get();
    options.max_width = std::max(width_dips, 1.f);
    options.max_height = 1.0e6f;
    options.default_colour = text_colour_;
    options.link_colour = link_colour_;
    options.no_underline = no_underline_;
    options.icons = svg::program_icons();
    return build_layout(parsed_, options);
}

const rich_layout& rich_view::layout()
{
    RECT client{};
    ::GetClientRect(window_, &client);
    const float width = static_cast<float>(client.right) * 96.f / dpi();
    if (!layout_ || layout_width_ != width) {
        layout_ = build(width);
        layout_width_ = width;
        if (focused_link_ && *focused_link_ >= layout_->links.size())
            focused_link_.reset();
        update_tooltips();
    }
    return *layout_;
}

int rich_view::measure_height(int width)
{
    const float scale = dpi() / 96.f;
    const rich_layout measured = build(static_cast<float>(width) / scale);
    return std::max(1, static_cast<int>(std::ceil(measured.height() * scale)));
}

SIZE rich_view::measure(int max_width)
{
    const float scale = dpi() / 96.f;
    const rich_layout measured = build(static_cast<float>(max_width) / scale);
    DWRITE_TEXT_METRICS metrics{};
    throw_if_failed(measured.layout->GetMetrics(&metrics));
    // Rounded up and one pixel more, so that laying the text out again at exactly this
    // width never wraps a line that fitted here.
    const int width = std::min(max_width, static_cast<int>(std::ceil(metrics.width * scale)) + 1);
    return {std::max(1, width), std::max(1, static_cast<int>(std::ceil(metrics.height * scale)))};
}

void rich_view::refresh_theme()
{
    if (theme_)
        ::CloseThemeData(theme_);
    theme_ = ::OpenThemeData(window_, L"TEXTSTYLE");
    COLORREF text = ::GetSysColor(COLOR_WINDOWTEXT);
    if (theme_)
        ::GetThemeColor(theme_, TEXT_BODYTEXT, 0, TMT_TEXTCOLOR, &text);
    text_colour_ = colour_of(text);
    background_ = colour_of(::GetSysColor(COLOR_BTNFACE));
    if (default_theme_settings().dark_mode_allowed(window_) && default_theme_settings().apps_use_dark_theme()) {
        text_colour_ = {0.94f, 0.94f, 0.94f, 1.f};
        background_ = {0.125f, 0.125f, 0.125f, 1.f};
    }
}

void rich_view::follow_placeholder()
{
    const HWND parent = ::GetParent(window_);
    RECT rect{};
    ::GetWindowRect(placeholder_, &rect);
    ::MapWindowPoints(nullptr, parent, reinterpret_cast<POINT*>(&rect), 2);
    ::SetWindowPos(window_, nullptr, rect.left, rect.top, rect.right - rect.left, rect.bottom - rect.top,
                   SWP_NOZORDER | SWP_NOACTIVATE);
}

void rich_view::update_tooltips()
{
    if (!layout_)
        return;
    bool any_tip = false;
    for (const link_range& link : layout_->links)
        any_tip = any_tip || !link.argument.empty();
    if (!any_tip && !tooltip_)
        return;
    if (!tooltip_) {
        tooltip_ = ::CreateWindowExW(WS_EX_TOPMOST, TOOLTIPS_CLASSW, nullptr, WS_POPUP | TTS_NOPREFIX | TTS_ALWAYSTIP,
                                     CW_USEDEFAULT, CW_USEDEFAULT, CW_USEDEFAULT, CW_USEDEFAULT, window_, nullptr,
                                     ::GetModuleHandleW(nullptr), nullptr);
        if (!tooltip_)
            return;  // links still work without their tips
        ::SetWindowPos(tooltip_, HWND_TOPMOST, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE);
    }
    TTTOOLINFOW tool{};
    tool.cbSize = sizeof tool;
    tool.hwnd = window_;
    for (auto count = ::SendMessageW(tooltip_, TTM_GETTOOLCOUNT, 0, 0); count > 0; --count) {
        tool.uId = static_cast<UINT_PTR>(count);
        ::SendMessageW(tooltip_, TTM_DELTOOLW, 0, reinterpret_cast<LPARAM>(&tool));
    }
    const float scale = dpi() / 96.f;
    UINT_PTR next_id = 1;
    bool multi_line = false;
    for (const link_range& link : layout_->links) {
        if (link.argument.empty())
            continue;
        multi_line = multi_line || link.argument.find(L'\n') != std::wstring::npos;
        for (const D2D1_RECT_F& r : layout_->range_rects(link.range)) {
            TTTOOLINFOW add{};
            add.cbSize = sizeof add;
            add.uFlags = TTF_SUBCLASS;
            add.hwnd = window_;
            add.uId = next_id++;
            add.rect = {static_cast<LONG>(std::floor(r.left * scale)), static_cast<LONG>(std::floor(r.top * scale)),
                        static_cast<LONG>(std::ceil(r.right * scale)), static_cast<LONG>(std::ceil(r.bottom * scale))};
            add.lpszText = const_cast<wchar_t*>(link.argument.c_str());
            ::SendMessageW(tooltip_, TTM_ADDTOOLW, 0, reinterpret_cast<LPARAM>(&add));
        }
    }
    if (multi_line)
        ::SendMessageW(tooltip_, TTM_SETMAXTIPWIDTH, 0, static_cast<LPARAM>(300 * scale));
}

std::optional<std::size_t> rich_view::link_at_pixel(POINT point)
{
    const float scale = dpi() / 96.f;
    return layout().link_at({static_cast<float>(point.x) / scale, static_cast<float>(point.y) / scale});
}

void rich_view::set_hot_link(std::optional<std::size_t> link)
{
    if (hot_link_ == link)
        return;
    hot_link_ = link;
    ::InvalidateRect(window_, nullptr, FALSE);
}

void rich_view::move_focus(int direction)
{
    const std::size_t count = layout().links.size();
    if (count == 0)
        return;
    // Links are listed inner first; move in reading order, by start position.
    std::vector<std::size_t> order(count);
    for (std::size_t i = 0; i < count; ++i)
        order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return layout_->links[a].range.startPosition < layout_->links[b].range.startPosition;
    });
    std::size_t at = 0;
    if (focused_link_) {
        at = static_cast<std::size_t>(std::find(order.begin(), order.end(), *focused_link_) - order.begin());
        at = (at + count + static_cast<std::size_t>(direction)) % count;
    } else if (direction < 0) {
        at = count - 1;
    }
    focused_link_ = order[at];
    ::InvalidateRect(window_, nullptr, FALSE);
}

void rich_view::notify(std::size_t link, bool by_keyboard)
{
    const link_range& record = layout().links.at(link);
    // A copy: the owner may change the text while handling the notification.
    const std::wstring argument = record.argument;
    nm_rich_view_link info{};
    info.header.hwndFrom = window_;
    info.header.idFrom = static_cast<UINT_PTR>(::GetDlgCtrlID(placeholder_));
    info.header.code = rvn_link_activated;
    info.link_index = link;
    info.range = record.range;
    info.argument = argument.c_str();
    info.by_keyboard = by_keyboard;
    ::SendMessageW(::GetParent(window_), WM_NOTIFY, info.header.idFrom, reinterpret_cast<LPARAM>(&info));
}

void rich_view::paint()
{
    const unique_paint ps = begin_paint(window_);

    RECT client{};
    ::GetClientRect(window_, &client);
    if (client.right <= 0 || client.bottom <= 0)
        return;
    if (!target_) {
        // A DC target drawing into the paint DC: a static text view gains nothing from a
        // swap chain, and GDI-composed output shows wherever the window does (under Wine
        // a child window's swap chain may never reach the screen).
        const float dpi_value = dpi();
        const D2D1_RENDER_TARGET_PROPERTIES properties{D2D1_RENDER_TARGET_TYPE_DEFAULT,
                                                       {DXGI_FORMAT_B8G8R8A8_UNORM, D2D1_ALPHA_MODE_PREMULTIPLIED},
                                                       dpi_value, dpi_value, D2D1_RENDER_TARGET_USAGE_NONE,
                                                       D2D1_FEATURE_LEVEL_DEFAULT};
        throw_if_failed(d2d_factory()->CreateDCRenderTarget(&properties, target_.put()));
        icon_bitmaps_ = std::make_unique<d2d::icon_bitmap_cache>(target_.get());
    }
    throw_if_failed(target_->BindDC(ps->hdc, &client));
    const rich_layout& text = layout();
    com_ptr<ID2D1SolidColorBrush> text_brush;
    com_ptr<ID2D1SolidColorBrush> accent;

    target_->BeginDraw();
    HRESULT drawn = S_OK;
    try {
        target_->Clear(background_);
        throw_if_failed(target_->CreateSolidColorBrush(text_colour_, text_brush.put()));
        throw_if_failed(target_->CreateSolidColorBrush(link_colour_, accent.put()));
        // A hovered "H" range gets a soft box so that it reads as a button.
        if (hot_link_ && text.links[*hot_link_].hover_only) {
            accent->SetOpacity(0.18f);
            for (const D2D1_RECT_F& r : text.range_rects(text.links[*hot_link_].range))
                target_->FillRoundedRectangle({r, 2.f, 2.f}, accent.get());
            accent->SetOpacity(1.f);
        }
        text.draw(target_.get(), {0, 0}, text_brush.get(), *icon_bitmaps_);
        if (focused_link_ && ::GetFocus() == window_) {
            for (const D2D1_RECT_F& r : text.range_rects(text.links[*focused_link_].range))
                target_->DrawRectangle({r.left + 0.5f, r.top + 0.5f, r.right - 0.5f, r.bottom - 0.5f},
                                       text_brush.get(), 1.f);
        }
    } catch (...) {
        drawn = hresult_from_caught_exception();
    }
    const HRESULT ended = target_->EndDraw();
    if (ended == static_cast<HRESULT>(D2DERR_RECREATE_TARGET)) {
        target_.reset();
        icon_bitmaps_.reset();
        layout_.reset();  // its drawing effects belong to the old target
        ::InvalidateRect(window_, nullptr, FALSE);
        return;
    }
    throw_if_failed(drawn);
}

LRESULT CALLBACK rich_view::window_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam) noexcept
{
    if (message == WM_NCCREATE) {
        auto* created = static_cast<rich_view*>(reinterpret_cast<const CREATESTRUCTW*>(lparam)->lpCreateParams);
        created->window_ = window;
        ::SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(created));
    }
    auto* view = reinterpret_cast<rich_view*>(::GetWindowLongPtrW(window, GWLP_USERDATA));
    if (!view)
        return ::DefWindowProcW(window, message, wparam, lparam);
    if (message == WM_NCDESTROY) {
        // Cleared first, so that nothing arriving late reaches a deleted object.
        ::SetWindowLongPtrW(window, GWLP_USERDATA, 0);
        ::RemoveWindowSubclass(view->placeholder_, &rich_view::placeholder_proc, placeholder_subclass_id);
        if (::GetPropW(view->placeholder_, rich_view_property) == view)
            ::RemovePropW(view->placeholder_, rich_view_property);
        delete view;
        return ::DefWindowProcW(window, message, wparam, lparam);
    }
    try {
        return view->handle(message, wparam, lparam);
    } catch (...) {
        log_caught_exception(L"rich view: a message failed");
        return ::DefWindowProcW(window, message, wparam, lparam);
    }
}

LRESULT CALLBACK rich_view::placeholder_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam, UINT_PTR,
                                             DWORD_PTR data) noexcept
{
    auto* view = reinterpret_cast<rich_view*>(data);
    try {
        switch (message) {
        case WM_WINDOWPOSCHANGED: {
            const auto* pos = reinterpret_cast<const WINDOWPOS*>(lparam);
            if ((pos->flags & (SWP_NOMOVE | SWP_NOSIZE)) != (SWP_NOMOVE | SWP_NOSIZE))
                view->follow_placeholder();
            break;
        }
        case WM_SETTEXT:
            // Dialog code sets texts on the control it knows: the placeholder. The view
            // shows the markup and stores the plain text back on the placeholder.
            if (view->storing_plain_text_)
                break;
            view->set_text(lparam ? reinterpret_cast<const wchar_t*>(lparam) : L"");
            return TRUE;
        case WM_SETFONT:
            view->text_format_.reset();
            view->invalidate_layout();
            ::InvalidateRect(view->window_, nullptr, FALSE);
            break;
        case WM_NCDESTROY:
            // The placeholder goes first (a dialog destroys its children in order):
            // the view must not outlive the record it is found by.
            ::DestroyWindow(view->window_);
            break;
        default: break;
        }
    } catch (...) {
        log_caught_exception(L"rich view: following the placeholder failed");
    }
    return ::DefSubclassProc(window, message, wparam, lparam);
}

LRESULT rich_view::handle(UINT message, WPARAM wparam, LPARAM lparam)
{
    switch (message) {
    case WM_PAINT: paint(); return 0;
    case WM_ERASEBKGND: return 1;
    case WM_SIZE: ::InvalidateRect(window_, nullptr, FALSE); return 0;
    case WM_DPICHANGED_AFTERPARENT:
        target_.reset();
        icon_bitmaps_.reset();
        text_format_.reset();
        invalidate_layout();
        ::InvalidateRect(window_, nullptr, FALSE);
        return 0;
    case WM_THEMECHANGED:
    case WM_SETTINGCHANGE:
        refresh_theme();
        link_colour_ = read_link_colour();
        invalidate_layout();
        ::InvalidateRect(window_, nullptr, FALSE);
        return 0;
    case WM_GETTEXTLENGTH: return static_cast<LRESULT>(plain_text_.size());
    case WM_GETTEXT: {
        // Screen readers and automation see the plain text, never the markup.
        if (wparam == 0)
            return 0;
        const std::size_t n = std::min<std::size_t>(plain_text_.size(), wparam - 1);
        auto* out = reinterpret_cast<wchar_t*>(lparam);
        std::copy_n(plain_text_.data(), n, out);
        out[n] = L'\0';
        return static_cast<LRESULT>(n);
    }
    case WM_SETTEXT:
        set_text(lparam ? reinterpret_cast<const wchar_t*>(lparam) : L"");
        return TRUE;
    case WM_MOUSEMOVE: {
        if (!tracking_mouse_) {
            TRACKMOUSEEVENT track{sizeof track, TME_LEAVE, window_, 0};
            tracking_mouse_ = ::TrackMouseEvent(&track) != FALSE;
        }
        set_hot_link(link_at_pixel({GET_X_LPARAM(lparam), GET_Y_LPARAM(lparam)}));
        return 0;
    }
    case WM_MOUSELEAVE:
        tracking_mouse_ = false;
        set_hot_link(std::nullopt);
        return 0;
    case WM_SETCURSOR:
        if (LOWORD(lparam) == HTCLIENT && hot_link_) {
            ::SetCursor(::LoadCursorW(nullptr, IDC_HAND));
            return TRUE;
        }
        break;
    case WM_LBUTTONDOWN:
        pressed_link_ = link_at_pixel({GET_X_LPARAM(lparam), GET_Y_LPARAM(lparam)});
        if (pressed_link_) {
            focused_link_ = pressed_link_;
            if (::GetWindowLongW(window_, GWL_STYLE) & WS_TABSTOP)
                ::SetFocus(window_);
            ::SetCapture(window_);
        }
        return 0;
    case WM_LBUTTONUP: {
        const std::optional<std::size_t> pressed = std::exchange(pressed_link_, std::nullopt);
        if (::GetCapture() == window_)
            ::ReleaseCapture();
        if (pressed && link_at_pixel({GET_X_LPARAM(lparam), GET_Y_LPARAM(lparam)}) == pressed)
            notify(*pressed, false);
        return 0;
    }
    case WM_GETDLGCODE:
        // Arrows move between links, Enter and Space activate one; Tab leaves the view.
        if (!layout().links.empty())
            return DLGC_WANTARROWS | (focused_link_ ? DLGC_WANTCHARS : 0) |
                   (lparam && reinterpret_cast<const MSG*>(lparam)->message == WM_KEYDOWN &&
                            reinterpret_cast<const MSG*>(lparam)->wParam == VK_RETURN && focused_link_
                        ? DLGC_WANTMESSAGE
                        : 0);
        return 0;
    case WM_KEYDOWN:
        switch (wparam) {
        case VK_LEFT:
        case VK_UP: move_focus(-1); return 0;
        case VK_RIGHT:
        case VK_DOWN: move_focus(+1); return 0;
        case VK_RETURN:
        case VK_SPACE:
            if (focused_link_)
                notify(*focused_link_, true);
            return 0;
        default: break;
        }
        break;
    case WM_SETFOCUS:
        if (!focused_link_ && !layout().links.empty())
            move_focus(+1);
        ::InvalidateRect(window_, nullptr, FALSE);
        return 0;
    case WM_KILLFOCUS: ::InvalidateRect(window_, nullptr, FALSE); return 0;
    case WM_CAPTURECHANGED: pressed_link_.reset(); return 0;
    default: break;
    }
    return ::DefWindowProcW(window_, message, wparam, lparam);
}

}  // namespace tessel::windows::new_controls
