#pragma once
// The list view ("qmx.tessel.listview"): an owner-data list of uniform-height rows whose
// cells are markup texts, drawn with Direct2D and DirectWrite. It holds no texts itself:
// cell text providers fill the cells of the rows that are on screen, so a million rows
// cost what a screenful costs. Columns with clickable, resizable headers; a choice of two
// selection models; type-to-find; a tooltip per visible cell whose text is cut off;
// keyboard, mouse and screen-reader access.
//
// Notifications reach the parent as WM_NOTIFY with the codes below (idFrom is the
// control id). They are sent while the control is in a consistent state; the owner may
// change rows, columns or the selection while handling any of them.

#include "base/com_ptr.h"

#include <commctrl.h>
#include <d2d1.h>
#include <dwrite.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tessel::windows::new_controls {
class theme_settings;  // controls/dark_theme.h
}

namespace tessel::windows::new_controls::listview::impl {

// Rows are addressed by 64-bit indices; all bits set means "no row".
using row_index = std::uint64_t;
inline constexpr row_index no_row = ~row_index{0};
// Screen readers name a row by a 32-bit child id, row + 1: rows from here on have none.
inline constexpr row_index max_accessible_rows = 0x7ffffffe;

inline constexpr wchar_t listview_class[] = L"qmx.tessel.listview";

class iselection;  // controls/selection.h

enum class selection_mode { single, multiple };

// ---- Cells ---------------------------------------------------------------------------

// What a row's cells share; views hand the same object to every cell of a row.
struct cell_style {
    DWRITE_FONT_WEIGHT weight = DWRITE_FONT_WEIGHT_NORMAL;
    DWRITE_FONT_STYLE style = DWRITE_FONT_STYLE_NORMAL;
    DWRITE_TEXT_ALIGNMENT alignment = DWRITE_TEXT_ALIGNMENT_LEADING;
};

// Cell flag bit 0: the cell is drawn dimmed, in the theme's grey text colour (rows of
// things that are present but not usable, such as a disconnected device). An explicit
// text colour wins over it.
inline constexpr std::uint32_t cell_dimmed = 1;

struct cell {
    std::wstring text{};  // markup
    std::shared_ptr<const cell_style> style{};  // null: the default style
    std::optional<D2D1_COLOR_F> text_colour{};
    std::uint32_t flags = 0;
};

// Fills `cells` (cells.size() consecutive columns from `first_column`) of `row`, and may
// set a colour for the whole row. Every provider of the list is called in order; the
// result of the last one says whether the cells were filled (false: drawn empty).
using cell_text_provider = std::function<bool(row_index row, std::size_t first_column, std::span<cell> cells,
                                              std::optional<D2D1_COLOR_F>& row_colour)>;

// ---- Columns and their headers ---------------------------------------------------------

// Space between a cell's edges and its text, DIPs.
inline constexpr float cell_padding = 4;

struct column {
    std::wstring header{};  // markup
    float width = 100;      // device-independent pixels
    float min_width = 24;   // dragging a separator stops here
};

// Made by create_ui for every column header ("tab") and every separator after a header;
// handlers get the record of what was clicked.
struct tab_click_info {
    std::size_t column;
    D2D1_RECT_F rect;  // header rectangle, DIPs, client coordinates before horizontal scrolling
    bool double_click;
};
struct sep_click_info {
    std::size_t column;  // the column whose right edge the separator is
    D2D1_RECT_F rect;
    bool double_click;   // a double click sizes the column to its widest visible cell
};

// ---- Notifications (WM_NOTIFY codes) ---------------------------------------------------

// nm_listview_row: the selection changed (row is the first selected row or no_row).
inline constexpr UINT lvn_selection_changed = 0u - 4300u;
// nm_listview_row: the focus row changed.
inline constexpr UINT lvn_focus_changed = 0u - 4301u;
// nm_listview_row: a row was activated by Enter or a double click.
inline constexpr UINT lvn_row_activated = 0u - 4302u;
// nm_listview_context_menu: right click, Shift+F10 or the menu key. Return nonzero
// from the WM_NOTIFY when a menu was shown (otherwise the parent gets WM_CONTEXTMENU).
inline constexpr UINT lvn_context_menu = 0u - 4303u;
// nm_listview_button: a click on a clickable "H" range of a cell ("[[[H...]]]").
inline constexpr UINT lvn_button_clicked = 0u - 4304u;
// nm_listview_column: a column header was clicked.
inline constexpr UINT lvn_header_clicked = 0u - 4305u;
// nm_listview_column: the user resized a column (its new width is in columns()).
inline constexpr UINT lvn_column_resized = 0u - 4306u;

struct nm_listview_row {
    NMHDR header;
    row_index row;
    void* item;        // the tree view's node of the row (treeview::node*); null in a plain list
    bool by_keyboard;
};

struct nm_listview_context_menu {
    NMHDR header;
    row_index row;     // the row under the pointer, or the focus row from the keyboard; may be no_row
    void* item;
    POINT screen;      // where to open the menu, screen coordinates
    bool by_keyboard;
};

struct nm_listview_button {
    NMHDR header;
    row_index row;
    void* item;
    std::size_t column;
    std::size_t link_index;    // into the cell's links (inner first)
    DWRITE_TEXT_RANGE range;   // of the clickable range in the cell's plain text
    const wchar_t* argument;   // the range's string argument, or ""
};

struct nm_listview_column {
    NMHDR header;
    std::size_t column;
};

// ---- Hooks for views built on the list ----------------------------------------------

struct key_event {
    UINT key;        // virtual key
    bool shift, control, alt;
};

// A primary-button press on a cell, before the list acts on it.
struct row_click {
    row_index row;
    std::size_t column;
    D2D1_POINT_2F in_cell;  // DIPs from the cell's top left (before any padding)
    bool double_click;
    bool shift, control;
};

// What a screen reader learns of a row beyond its texts.
struct row_outline {
    std::uint32_t level = 0;  // 0 in a flat list; tree depth + 1 in a tree
    bool expandable = false;
    bool expanded = false;
};

// Drawn after a row's cells, inside the row: lets a view add marks (the tree's
// expanders). Coordinates in DIPs, already scrolled.
struct row_paint {
    ID2D1RenderTarget* target;
    row_index row;
    D2D1_RECT_F row_rect;
    D2D1_RECT_F first_cell;  // column 0, before its padding
    D2D1_COLOR_F text_colour;
    bool selected;
};

struct handler_lists {
    std::vector<cell_text_provider> cell_text;
    // Return true to consume the key (the list does nothing more with it).
    std::vector<std::function<bool(const key_event&)>> key_down;
    std::vector<std::function<bool(const row_click&)>> row_click;
    std::vector<std::function<void(const tab_click_info&)>> tab_click;
    std::vector<std::function<void(const sep_click_info&)>> sep_click;
    std::vector<std::function<void(const row_paint&)>> row_paint;
    std::function<void*(row_index)> item_of_row;
    // What a screen reader says for a cell that shows only pictures (a marker icon, say);
    // empty: the cell adds nothing to its row's accessible name.
    std::function<std::wstring(row_index, std::size_t column)> picture_cell_text;
    // Words a screen reader hears after the row's first cell for what the row shows only
    // by its look (a dimmed row: "disconnected"); empty: nothing.
    std::function<std::wstring(row_index)> row_state_text;
    std::function<row_outline(row_index)> outline_of_row;
};

// ---- The control -----------------------------------------------------------------------

// Row height policy: every row has the same height, from the font (and the icon size).
struct uniform_height {};

template <class height_policy>
class listview;

template <>
class listview<uniform_height> {
public:
    // Creates the window as a child of `parent` (WS_CHILD | WS_VISIBLE | WS_TABSTOP, with
    // a vertical and a horizontal scroll bar when needed). `class_name` lets views built
    // on the list use their own window class (registered once per name).
    listview(HWND parent, int control_id, const RECT& rect = {}, const wchar_t* class_name = listview_class);
    // Destroys the window, if it still exists.
    ~listview();
    listview(const listview&) = delete;
    listview& operator=(const listview&) = delete;

    // Null once the window has been destroyed (with its parent, say).
    [[nodiscard]] HWND window() const noexcept;

    // -- data
    void set_row_count(row_index count);  // rows removed: the selection is truncated
    [[nodiscard]] row_index row_count() const noexcept;
    // Rows inserted or removed in the middle: rows, the selection, the focus, hot and
    // anchor rows at or after `at` move with them. Removed rows leave the selection.
    void insert_rows(row_index at, row_index count);
    void remove_rows(row_index at, row_index count);
    // Cell texts of these rows changed: their layouts are rebuilt at the next paint.
    void invalidate_rows(row_index first, row_index count = 1);
    void invalidate_all();

    void set_columns(std::vector<column> columns);
    [[nodiscard]] const std::vector<column>& columns() const noexcept;
    void set_column_width(std::size_t column, float width);

    void set_selection_mode(selection_mode mode);  // clears the selection
    [[nodiscard]] selection_mode selection_kind() const noexcept;
    [[nodiscard]] const iselection& selection() const noexcept;

    // Number icons of "v" cells ("[[[v:7: ]]]") name icons of the program's collection
    // through this.
    void set_vector_icon_names(std::function<std::wstring(std::int64_t)> names);

    // Many changes, one repaint: nested calls count; the last end_update repaints.
    void begin_update() noexcept;
    void end_update();

    // -- selection and focus (these notify the parent like user actions do)
    [[nodiscard]] row_index focus_row() const noexcept;
    void set_focus_row(row_index row, bool select = true);  // and scrolls it into view
    void select_row(row_index row);                         // only this row
    void select_range(row_index first, row_index end, bool selected);
    void clear_selection();
    [[nodiscard]] bool is_selected(row_index row) const noexcept;
    [[nodiscard]] row_index first_selected() const noexcept;
    void ensure_visible(row_index row);
    [[nodiscard]] row_index top_row() const noexcept;
    void scroll_to(row_index top);
    [[nodiscard]] row_index row_at(POINT client) const noexcept;

    // -- metrics
    [[nodiscard]] float row_height_dips() const noexcept;
    [[nodiscard]] int row_height_pixels() const noexcept;
    // Side of the icons in the cells, in pixels at the window's current DPI (owners
    // load raster icons of this size).
    [[nodiscard]] int icon_pixel_size() const noexcept;
    // The text format of cells in the default style (views lay out their own marks
    // with it); it changes with the DPI and the system font.
    [[nodiscard]] IDWriteTextFormat* default_text_format();
    [[nodiscard]] float scale_x() const noexcept;
    [[nodiscard]] float scale_y() const noexcept;

    // The plain text of a cell (markup stripped), asked from the providers.
    [[nodiscard]] std::wstring cell_plain_text(row_index row, std::size_t column) const;
    // Type-to-find: the first row from the focus row on (at most 10000 rows, no wrap)
    // whose column-0 text, without markup and leading blanks, starts with `text`
    // (case-insensitive), or no_row.
    [[nodiscard]] row_index find_row(std::wstring_view text) const;
    // As if `text` had been typed: the row found becomes the focus row and the
    // selection follows it as it does for the arrow keys. Returns the row or no_row.
    row_index find_and_focus(std::wstring_view text);
    // Typed characters within this pause of each other extend the search text; after a
    // longer pause the next character starts a new search. Backspace removes the last.
    static constexpr DWORD type_to_find_reset_ms = 1000;

    // The header ("tab") and separator records of the current columns.
    void create_ui();
    [[nodiscard]] std::span<const tab_click_info> tabs() const noexcept;
    [[nodiscard]] std::span<const sep_click_info> separators() const noexcept;

    // Views built on the list register their handlers here.
    [[nodiscard]] handler_lists& handlers() noexcept;

    // The tooltip window, created on first need (null before).
    [[nodiscard]] HWND tooltip_window() const noexcept;

    // Where the list learns the system's colours, high contrast and dark mode (the system
    // itself unless a test gives its own, which must outlive the list).
    void set_theme_settings(const theme_settings& settings);

    struct state;  // the implementation, in listview.cpp

private:
    std::unique_ptr<state> state_;
};

}  // namespace tessel::windows::new_controls::listview::impl
