#pragma once
// The rich view ("qmx.tessel.richview"): one markup text, wrapped to the client width,
// with links that the mouse and the keyboard activate. It takes the place of a
// placeholder control of a dialog (an "EDIT" or "STATIC" laid out in the dialog
// resource): it sits where the placeholder is, follows it when the dialog moves or
// resizes it, shows its text, and is found from it with GetPropW(placeholder,
// rich_view_property).

#include "base/com_ptr.h"
#include "controls/rich_layout.h"

#include <commctrl.h>
#include <d2d1.h>
#include <dwrite.h>
#include <uxtheme.h>

#include <memory>
#include <optional>
#include <string>

namespace tessel::windows::new_controls {

inline constexpr wchar_t rich_view_class[] = L"qmx.tessel.richview";
inline constexpr wchar_t rich_view_property[] = L"qmx.tessel.richview";

// WM_NOTIFY code sent to the view's parent when a link is activated; lParam points to
// an nm_rich_view_link. The idFrom is the placeholder's control id.
inline constexpr UINT rvn_link_activated = 0u - 4200u;

struct nm_rich_view_link {
    NMHDR header;
    std::size_t link_index;     // into the layout's links, inner links first
    DWRITE_TEXT_RANGE range;    // of the link in the plain text
    const wchar_t* argument;    // the link's string argument (its tooltip), or ""
    bool by_keyboard;
};

// The system's message font for a window at `dpi`, its height converted to DIPs (the
// font of a rich view whose window has none). size_dips is 0 when the system has none.
struct dip_font {
    LOGFONTW font{};
    float size_dips = 0;
};
[[nodiscard]] dip_font message_font_in_dips(UINT dpi) noexcept;

class rich_view {
public:
    // Creates the view over `placeholder`, takes over its text and font, hides it and
    // records the view on it. From then on the placeholder holds the text without markup
    // (what readers of either window get), and texts set on it go to the view. The view belongs to its window: it is deleted when the
    // window is destroyed (with the dialog, or by detach()).
    static rich_view* attach(HWND placeholder);
    // The view recorded on a placeholder, or null.
    [[nodiscard]] static rich_view* from_placeholder(HWND placeholder) noexcept;

    // Destroys the view and shows the placeholder again; `this` is gone afterwards.
    void detach() noexcept;

    [[nodiscard]] HWND window() const noexcept { return window_; }
    [[nodiscard]] HWND placeholder() const noexcept { return placeholder_; }
    void set_text(std::wstring markup);
    [[nodiscard]] const std::wstring& text() const noexcept { return markup_; }
    void set_no_underline(bool no_underline);
    // Height in pixels that the text needs when wrapped to `width` pixels; at least 1.
    [[nodiscard]] int measure_height(int width);
    // Width of the widest line and height in pixels when wrapped to at most `max_width`
    // pixels: what an auto-layout gives the view so that nothing wraps further. Each at
    // least 1.
    [[nodiscard]] SIZE measure(int max_width);
    // The laid-out text at the current client width (for tests and owners).
    [[nodiscard]] const rich_layout& layout();
    // The link that has the keyboard focus inside the view, if any.
    [[nodiscard]] std::optional<std::size_t> focused_link() const noexcept { return focused_link_; }

private:
    rich_view(HWND placeholder);
    ~rich_view();
    rich_view(const rich_view&) = delete;
    rich_view& operator=(const rich_view&) = delete;

    static LRESULT CALLBACK window_proc(HWND, UINT, WPARAM, LPARAM) noexcept;
    static LRESULT CALLBACK placeholder_proc(HWND, UINT, WPARAM, LPARAM, UINT_PTR, DWORD_PTR) noexcept;
    LRESULT handle(UINT message, WPARAM wparam, LPARAM lparam);

    void take_over_placeholder();
    void paint();
    void follow_placeholder();
    void text_changed();
    void store_plain_text();
    void invalidate_layout() noexcept;
    [[nodiscard]] float dpi() const noexcept;
    [[nodiscard]] rich_layout build(float width_dips);
    void ensure_text_format();
    void refresh_theme();
    void update_tooltips();
    void notify(std::size_t link, bool by_keyboard);
    [[nodiscard]] std::optional<std::size_t> link_at_pixel(POINT point);
    void set_hot_link(std::optional<std::size_t> link);
    void move_focus(int direction);

    HWND placeholder_ = nullptr;
    HWND window_ = nullptr;
    HWND tooltip_ = nullptr;
    std::wstring markup_;
    markup_result parsed_;    // views into markup_
    std::wstring plain_text_;  // what readers and WM_GETTEXT get
    bool storing_plain_text_ = false;
    bool no_underline_ = false;
    com_ptr<IDWriteTextFormat> text_format_;
    std::optional<rich_layout> layout_;
    float layout_width_ = -1;
    com_ptr<ID2D1DCRenderTarget> target_;
    std::unique_ptr<d2d::icon_bitmap_cache> icon_bitmaps_;
    HTHEME theme_ = nullptr;
    D2D1_COLOR_F text_colour_{0, 0, 0, 1};
    D2D1_COLOR_F background_{1, 1, 1, 1};
    D2D1_COLOR_F link_colour_{0, 0, 1, 1};
    std::optional<std::size_t> hot_link_;
    std::optional<std::size_t> pressed_link_;
    std::optional<std::size_t> focused_link_;
    bool tracking_mouse_ = false;
};

}  // namespace tessel::windows::new_controls
