#pragma once
// Inside the list view: the state its parts share and what they call in each other. Not
// for users of the control. The parts, one file each:
//   listview.cpp             the window, its messages, data, columns and notifications;
//   listview_selection.cpp   selection and focus, and how they follow rows that come and go;
//   listview_paint.cpp       metrics, colours, cell layouts and drawing into the surface;
//   listview_input.cpp       keyboard, mouse, hit testing and scrolling;
//   listview_tips.cpp        the tooltip window and its tools;
//   listview_find.cpp        type-to-find;
//   listview_accessible.cpp  the object screen readers get.
// Everything runs on the thread that owns the window.

#include "base/com_ptr.h"
#include "controls/dark_theme.h"
#include "controls/inline_objects.h"
#include "controls/listview.h"
#include "controls/markup.h"
#include "controls/rich_layout.h"
#include "controls/selection.h"

#include <oleacc.h>
#include <wincodec.h>

#include <array>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

namespace tessel::windows::new_controls::listview::impl {

// One laid-out cell of a row on screen.
struct cached_cell {
    std::wstring text;  // markup as the providers gave it
    std::shared_ptr<const cell_style> style;
    std::optional<D2D1_COLOR_F> text_colour;
    std::uint32_t flags = 0;
    std::wstring plain;  // markup stripped, leading and trailing blanks kept
    std::optional<rich_layout> layout;
    float layout_width = -1;  // DIPs the layout was made for
    float natural_width = 0;  // DIPs the whole text needs
    bool cut_off = false;
};

struct cached_row {
    std::uint64_t generation = 0;
    bool filled = false;
    std::optional<D2D1_COLOR_F> row_colour;
    std::vector<cached_cell> cells;  // one per column
};

struct theme_colours {
    D2D1_COLOR_F window, text, dimmed_text, selection, selection_text, inactive_selection, inactive_selection_text,
        hot, header, header_text, header_line, focus, link;
};

// A tip over a cell whose text is cut off, or over an "h"/"H" range with a tooltip.
struct tip {
    RECT rect;
    std::wstring text;
    friend bool operator==(const tip& a, const tip& b) noexcept
    {
        return a.rect.left == b.rect.left && a.rect.top == b.rect.top && a.rect.right == b.rect.right &&
               a.rect.bottom == b.rect.bottom && a.text == b.text;
    }
};

struct pressed_button {
    row_index row;
    std::size_t column;
    std::size_t link;
};

struct listview<uniform_height>::state {
    listview* owner = nullptr;
    HWND window = nullptr;
    HWND tooltip = nullptr;
    std::wstring class_name;
    int control_id = 0;

    row_index rows = 0;
    std::vector<column> columns;
    std::vector<tab_click_info> tabs;
    std::vector<sep_click_info> separators;
    selection_mode mode = selection_mode::single;
    std::unique_ptr<iselection> selection;
    handler_lists handlers;
    std::function<std::wstring(std::int64_t)> icon_names;

    int updates = 0;
    bool repaint_pending = false;
    bool layout_pending = false;  // row count changed under an update
    bool selection_changed_pending = false;

    row_index focus = no_row;
    row_index hot = no_row;
    row_index top = 0;
    int h_offset = 0;  // pixels scrolled to the right

    // Metrics at the window's DPI.
    float dpi_x = 96, dpi_y = 96, sx = 1, sy = 1;
    std::wstring font_face = L"Tahoma";
    float font_size = 12;  // DIPs
    int row_px = 20;
    int header_px = 22;
    float icon_dips = 16;
    std::map<std::tuple<int, int, int>, std::pair<com_ptr<IDWriteTextFormat>, com_ptr<IDWriteInlineObject>>> formats;

    // Drawing.
    // Rows are drawn into a bitmap the size of the client area and copied to the window
    // with GDI: under Wine neither a child window's own swap chain nor a DC render
    // target's copy ever reaches the screen, while bitmap targets work everywhere.
    struct surface {
        com_ptr<IWICBitmap> bitmap;
        UINT width = 0, height = 0;
        com_ptr<ID2D1RenderTarget> target;
        std::unique_ptr<d2d::icon_bitmap_cache> icons;
        void reset() noexcept
        {
            icons.reset();
            target.reset();
            bitmap.reset();
            width = height = 0;
        }
    };
    // [0] holds the whole client area; [1] a strip of two rows, for the single rows that
    // scrolling uncovers and hovering changes: copying a bitmap back costs its size.
    surface surfaces[2];
    d2d::icon_bitmap_cache* icon_cache = nullptr;  // of the surface being drawn
    theme_colours colours{};
    const theme_settings* theme = nullptr;  // null: the system's
    [[nodiscard]] const theme_settings& theme_source() const { return theme ? *theme : default_theme_settings(); }
    bool dark = false;
    bool dark_parts = false;  // the window and its tooltip have the dark theme
    bool high_contrast = false;

    // Layouts of the cells on screen; an entry is current while its generation is.
    std::uint64_t generation = 1;
    std::unordered_map<row_index, std::unique_ptr<cached_row>> cache;
    std::vector<cell> scratch;
    std::vector<rich_layout> header_layouts;
    std::uint64_t header_generation = 0;

    // Type-to-find.
    std::wstring search;
    DWORD last_char = 0;
    std::wstring find_plain;
    // The first letters of the plain texts of the rows the last searches read: a search
    // typed letter by letter asks the providers once per row, not once per letter. Valid
    // while the generation is and no rows were invalidated, inserted or removed.
    struct find_prefix {
        static constexpr std::size_t capacity = 5;  // small: a search reads one per row
        std::array<wchar_t, capacity> letters;
        std::uint8_t length = 0;
        bool complete = false;  // the whole plain text: longer texts are decided here too
        bool known = false;
    };
    std::vector<find_prefix> find_prefixes;  // rows find_base, find_base + 1, ...
    row_index find_base = 0;
    std::uint64_t find_generation = 0;

    // Mouse.
    bool tracking = false;
    std::optional<std::size_t> hot_tab;
    std::optional<std::size_t> pressed_tab;
    std::optional<std::size_t> sizing_column;
    float sizing_start_width = 0;
    int sizing_start_x = 0;
    std::optional<pressed_button> pressed;
    int wheel_remainder = 0;
    int hwheel_remainder = 0;

    std::vector<tip> tips;
    com_ptr<IAccessible> accessible;

    // -- helpers shared with the screen-reader object
    [[nodiscard]] bool is_tree() const noexcept { return static_cast<bool>(handlers.outline_of_row); }
    [[nodiscard]] bool row_selected(row_index row) const noexcept;
    [[nodiscard]] RECT row_rect(row_index row) const noexcept;  // client pixels; may lie outside
    [[nodiscard]] std::wstring accessible_name(row_index row);
    // What a screen reader reads after the name: the tooltips of the row's cells (the
    // arguments of their "h" and "H" ranges), one per line.
    [[nodiscard]] std::wstring accessible_description(row_index row);
    [[nodiscard]] row_outline outline(row_index row) const;
    [[nodiscard]] row_index visible_count() const noexcept;  // rows that fit, the last partly
    [[nodiscard]] int rows_top() const noexcept { return header_px; }
    // Asks the providers for cells into scratch; cells stay empty when they fail.
    void fill_cells(row_index row, std::size_t first_column, std::size_t count, std::optional<D2D1_COLOR_F>& row_colour);
    void fill_plain(row_index row, std::size_t first_column, std::size_t count);
    void notify_row(UINT code, row_index row, bool by_keyboard);
    void selection_changed();
    void set_focus(row_index row, bool by_keyboard);
    // Tells readers which child has the focus, while the window has it.
    void focus_event() const noexcept;
    void activate(row_index row, bool by_keyboard);
    void ensure_visible(row_index row);
    void invalidate_row(row_index row) noexcept;
    void repaint() noexcept;
};

using list_state = listview<uniform_height>::state;

// listview_paint.cpp
void refresh_metrics(list_state& s);
void refresh_theme(list_state& s);
[[nodiscard]] IDWriteTextFormat* text_format(list_state& s, const cell_style* style,
                                             IDWriteInlineObject** ellipsis = nullptr);
// The row's cells as they are drawn: asked from the providers and laid out when stale.
cached_row& cached(list_state& s, row_index row);
[[nodiscard]] float total_width(const list_state& s) noexcept;  // of all columns, DIPs
[[nodiscard]] int client_width(const list_state& s) noexcept;
// Draws the part `update` of the client area onto `dc` (the window's paint DC, or any
// DC for WM_PRINTCLIENT).
void draw_into(list_state& s, HDC dc, const RECT& update);
void paint(list_state& s);

// listview_input.cpp
// The answer to a keyboard, mouse or scroll message; nothing for other messages and for
// those that go on to DefWindowProc.
[[nodiscard]] std::optional<LRESULT> handle_input(list_state& s, UINT message, WPARAM wparam, LPARAM lparam);
[[nodiscard]] row_index max_top(const list_state& s) noexcept;
void update_scroll_bars(list_state& s);
void scroll_to_top(list_state& s, row_index top);
void scroll_horizontally(list_state& s, int offset);
void send_column_notification(list_state& s, UINT code, std::size_t column);
void resize_column(list_state& s, std::size_t column, float width);
// The widest visible cell of a column, for a double click on its separator.
void fit_column(list_state& s, std::size_t column);

// listview_selection.cpp
void select_only(list_state& s, row_index row);  // a plain click or arrow key: exactly this row
void extend(list_state& s, row_index row);
void toggle(list_state& s, row_index row);
// Moves the focus as a key or click does: plain selects only the row, Shift extends,
// Ctrl moves the focus alone (in a multiple selection).
void move_to(list_state& s, row_index row, bool shift, bool control, bool by_keyboard);

// listview_tips.cpp
void update_tips(list_state& s);

// listview_find.cpp
void on_char(list_state& s, wchar_t c);

// The object screen readers get from WM_GETOBJECT. It outlives the window when a reader
// holds it: the window detaches it, and from then on it answers CO_E_OBJNOTCONNECTED.
[[nodiscard]] com_ptr<IAccessible> make_list_accessible(listview<uniform_height>::state* owner);
void detach_accessible(IAccessible* object) noexcept;

}  // namespace tessel::windows::new_controls::listview::impl
