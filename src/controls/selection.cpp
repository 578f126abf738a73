#include "controls/selection.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace tessel::windows::new_controls::listview::impl {

void check_row(row_index row)
{
    if (row >= max_row_count)
        throw std::length_error("list row " + std::to_string(row) + " is past the last row a list can have");
}

namespace {

// Where a row stands once rows [at, at + removed) gave way to `inserted` new ones; none
// when it went.
row_index moved_row(row_index row, row_index at, row_index removed, row_index inserted) noexcept
{
    if (row == none || row < at)
        return row;
    return row - at < removed ? none : row - removed + inserted;
}

// The same for the first row and the end of a range: a first row inside the removed rows
// comes to the row after the inserted ones, an end to `at`.
row_index moved_first(row_index first, row_index at, row_index removed, row_index inserted) noexcept
{
    if (first < at)
        return first;
    return first - at < removed ? at + inserted : first - removed + inserted;
}

row_index moved_end(row_index end, row_index at, row_index removed, row_index inserted) noexcept
{
    if (end <= at)
        return end;
    return end - at <= removed ? at : end - removed + inserted;
}

}  // namespace

void single_selection::select(row_index row)
{
    if (row == row_)
        return;
    rows_.clear();
    if (row != none)
        rows_.assign(row, row + 1, range_mode::select);
    row_ = row;
}

void single_selection::click(row_index row)
{
    if (row != none)
        check_row(row);
    select(row);
}

void single_selection::set_range(row_index first, row_index end, range_mode mode)
{
    end = std::min(end, max_row_count);
    if (first >= end)
        return;
    const bool inside = row_ != none && row_ >= first && row_ < end;
    if (mode == range_mode::select)
        select(inside ? row_ : first);
    else if (inside)
        select(none);
    else if (mode == range_mode::toggle)
        select(first);
}

void single_selection::extend_to(row_index row) { click(row); }

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
    check_row(row);
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
    check_row(row);
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

bool multiple_selection::truncate(row_index row_count)
{
    return row_count < max_row_count ? replace_rows(row_count, max_row_count - row_count, 0) : false;
}

bool multiple_selection::replace_rows(row_index at, row_index removed, row_index inserted)
{
    anchor_ = moved_row(anchor_, at, removed, inserted);
    if (extension_active_) {
        // An insertion inside the extension widens it: rows that are not selected may lie
        // in it, which deselecting it later does not mind.
        extension_ = {moved_first(extension_.first, at, removed, inserted),
                      moved_end(extension_.end, at, removed, inserted)};
        extension_active_ = extension_.first < extension_.end;
    }
    return rows_.replace_rows(at, removed, inserted);
}

}  // namespace tessel::windows::new_controls::listview::impl
