#include "controls/listview.h"

#include "base/failure.h"

namespace tessel::windows::new_controls::listview::impl {

// The first compiling outline of the control; the drawing and input follow.
struct listview<uniform_height>::state {
    HWND window = nullptr;
    row_index rows = 0;
    std::vector<column> columns;
    selection_mode mode = selection_mode::single;
    handler_lists handlers;
    std::vector<tab_click_info> tabs;
    std::vector<sep_click_info> separators;
    int updates = 0;
    row_index focus = no_row;
};

listview<uniform_height>::listview(HWND, int, const RECT&, const wchar_t*) : state_(std::make_unique<state>()) {}
listview<uniform_height>::~listview() = default;
HWND listview<uniform_height>::window() const noexcept { return state_->window; }
void listview<uniform_height>::set_row_count(row_index count) { state_->rows = count; }
row_index listview<uniform_height>::row_count() const noexcept { return state_->rows; }
void listview<uniform_height>::insert_rows(row_index, row_index count) { state_->rows += count; }
void listview<uniform_height>::remove_rows(row_index, row_index count) { state_->rows -= count; }
void listview<uniform_height>::invalidate_rows(row_index, row_index) {}
void listview<uniform_height>::invalidate_all() {}
void listview<uniform_height>::set_columns(std::vector<column> columns) { state_->columns = std::move(columns); }
const std::vector<column>& listview<uniform_height>::columns() const noexcept { return state_->columns; }
void listview<uniform_height>::set_column_width(std::size_t column, float width) { state_->columns.at(column).width = width; }
void listview<uniform_height>::set_selection_mode(selection_mode mode) { state_->mode = mode; }
selection_mode listview<uniform_height>::selection_kind() const noexcept { return state_->mode; }
const iselection& listview<uniform_height>::selection() const noexcept
{
    fail_fast(L"listview: no selection model yet");
}
void listview<uniform_height>::set_vector_icon_names(std::function<std::wstring(std::int64_t)>) {}
void listview<uniform_height>::begin_update() noexcept { ++state_->updates; }
void listview<uniform_height>::end_update() { --state_->updates; }
row_index listview<uniform_height>::focus_row() const noexcept { return state_->focus; }
void listview<uniform_height>::set_focus_row(row_index row, bool) { state_->focus = row; }
void listview<uniform_height>::select_row(row_index) {}
void listview<uniform_height>::select_range(row_index, row_index, bool) {}
void listview<uniform_height>::clear_selection() {}
bool listview<uniform_height>::is_selected(row_index) const noexcept { return false; }
row_index listview<uniform_height>::first_selected() const noexcept { return no_row; }
void listview<uniform_height>::ensure_visible(row_index) {}
row_index listview<uniform_height>::top_row() const noexcept { return 0; }
void listview<uniform_height>::scroll_to(row_index) {}
row_index listview<uniform_height>::row_at(POINT) const noexcept { return no_row; }
float listview<uniform_height>::row_height_dips() const noexcept { return 20; }
int listview<uniform_height>::row_height_pixels() const noexcept { return 20; }
int listview<uniform_height>::icon_pixel_size() const noexcept { return 16; }
float listview<uniform_height>::scale_x() const noexcept { return 1; }
float listview<uniform_height>::scale_y() const noexcept { return 1; }
std::wstring listview<uniform_height>::cell_plain_text(row_index, std::size_t) const { return {}; }
row_index listview<uniform_height>::find_row(std::wstring_view) const { return no_row; }
row_index listview<uniform_height>::find_and_focus(std::wstring_view) { return no_row; }
void listview<uniform_height>::create_ui() {}
std::span<const tab_click_info> listview<uniform_height>::tabs() const noexcept { return state_->tabs; }
std::span<const sep_click_info> listview<uniform_height>::separators() const noexcept { return state_->separators; }
handler_lists& listview<uniform_height>::handlers() noexcept { return state_->handlers; }
HWND listview<uniform_height>::tooltip_window() const noexcept { return nullptr; }

}  // namespace tessel::windows::new_controls::listview::impl
