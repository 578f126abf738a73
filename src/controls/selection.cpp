#include "controls/selection.h"

#include <algorithm>

namespace tessel::windows::new_controls::listview::impl {

void single_selection::select(row_index row)
{
    if (row == row_)
        return;
    rows_.clear();
    if (row != none)
        rows_.assign(row, row + 1, range_mode::select);
    row_ = row;
}

void single_selection::click(row_index row) { select(row); }

void single_selection::set_range(row_index first, row_index end, range_mode mode)
{
    if (first >= end || first == none)
        return;
    const bool inside = row_ != none && row_ >= first && row_ < end;
    if (mode == range_mode::select)
        select(inside ? row_ : first);
    else if (inside)
        select(none);
    else if (mode == range_mode::toggle)
        select(first);
}

void single_selection::extend_to(row_index row) { select(row); }

void single_selection::clear() noexcept
{
    rows_.clear();
    row_ = none;
}

bool single_selection::truncate(row_index row_count)
{
    if (row_ == none || row_ < row_count)
        return false;
    select(row_count == 0 ? none : row_count - 1);
    return true;
}

void multiple_selection::set_anchor(row_index row) noexcept
{
    anchor_ = row;
    extension_active_ = false;
}

void multiple_selection::click(row_index row)
{
    if (row == none) {
        rows_.clear();
        return;
    }
    rows_.assign(row, row + 1, range_mode::toggle);
    anchor_ = row;
}

void multiple_selection::set_range(row_index first, row_index end, range_mode mode)
{
    rows_.assign(first, end, mode);
}

void multiple_selection::extend_to(row_index row)
{
    if (anchor_ == none) {
        click(row);
        return;
    }
    if (row == none)
        return;
    if (extension_active_)
        rows_.assign(extension_.first, extension_.end, range_mode::deselect);
    extension_ = {std::min(anchor_, row), std::max(anchor_, row) + 1};
    extension_active_ = true;
    rows_.assign(extension_.first, extension_.end, range_mode::select);
}

void multiple_selection::clear() noexcept
{
    rows_.clear();
    anchor_ = none;
    extension_active_ = false;
}

bool multiple_selection::truncate(row_index row_count) { return rows_.truncate(row_count); }

}  // namespace tessel::windows::new_controls::listview::impl
