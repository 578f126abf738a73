// Selection and focus of the list view: what a click, a key or the owner does to them,
// and how the selection, the anchor of shift-clicks and the focus follow rows that are
// inserted or removed. The models (selection.h) only cut rows off at the end; rows that
// move in the middle are renumbered here, and here the owner is told.

#include "controls/listview_state.h"

#include <algorithm>
#include <stdexcept>

namespace tessel::windows::new_controls::listview::impl {
namespace {

// What a selection looked like, to tell whether an operation changed it.
struct selection_snapshot {
    row_index count, first, last_end;
    friend bool operator==(const selection_snapshot&, const selection_snapshot&) = default;
};

selection_snapshot snapshot(const iselection& s) noexcept
{
    return {s.count(), s.first_selected(), s.selected_rows().last_end()};
}

multiple_selection* as_multiple(list_state& s) noexcept
{
    return s.mode == selection_mode::multiple ? static_cast<multiple_selection*>(s.selection.get()) : nullptr;
}

}  // namespace

// A plain click or arrow key: exactly this row.
void select_only(list_state& s, row_index row)
{
    const selection_snapshot before = snapshot(*s.selection);
    if (s.mode == selection_mode::multiple) {
        if (s.selection->count() == 1 && s.selection->is_selected(row)) {
            as_multiple(s)->set_anchor(row);
            return;
        }
        s.selection->clear();
    }
    if (!s.selection->is_selected(row))
        s.selection->click(row);
    if (snapshot(*s.selection) != before) {
        s.repaint();
        s.selection_changed();
    }
}

void extend(list_state& s, row_index row)
{
    s.selection->extend_to(row);
    s.repaint();
    s.selection_changed();
}

void toggle(list_state& s, row_index row)
{
    if (s.mode == selection_mode::single && s.selection->is_selected(row))
        return;
    s.selection->click(row);
    s.invalidate_row(row);
    s.selection_changed();
}

// Moves the focus as a key or click does: plain selects only the row, Shift extends,
// Ctrl moves the focus alone (in a multiple selection).
void move_to(list_state& s, row_index row, bool shift, bool control, bool by_keyboard)
{
    if (row == no_row || row >= s.rows)
        return;
    if (shift)
        extend(s, row);
    else if (!(control && s.mode == selection_mode::multiple))
        select_only(s, row);
    s.set_focus(row, by_keyboard);
    s.ensure_visible(row);
}

namespace {

// Rows [at, at + removed) gave way to `inserted` new ones and the list now has `rows`
// rows: the selection moves with its rows. A single selection whose row went lands on the
// row that took its place, or on the new last row, as it does when rows are cut off at
// the end: the list keeps a row selected while it has one. Returns whether a selected row
// went.
bool move_selection(list_state& s, row_index at, row_index removed, row_index inserted, row_index rows)
{
    if (multiple_selection* m = as_multiple(s))
        return m->replace_rows(at, removed, inserted);
    const row_index row = s.selection->first_selected();
    if (row == none || row < at)
        return false;
    if (row - at >= removed) {
        s.selection->click(row - removed + inserted);
        return false;
    }
    s.selection->click(rows ? std::min(at, rows - 1) : none);
    return true;
}

// The focus row kept its row but not its number: readers hear of the focus child anew.
void focus_moved(list_state& s, row_index focus)
{
    if (focus == s.focus)
        return;
    s.focus = focus;
    s.focus_event();
}

}  // namespace

void listview<uniform_height>::set_row_count(row_index count)
{
    state& s = *state_;
    if (count > max_row_count)
        throw std::length_error("a list has at most 2^63 - 1 rows");
    const row_index old = s.rows;
    s.rows = count;
    s.find_prefixes.clear();
    if (count < old) {
        for (auto i = s.cache.begin(); i != s.cache.end();)
            i = i->first >= count ? s.cache.erase(i) : std::next(i);
        if (s.selection->truncate(count))
            s.selection_changed();
        if (s.focus != no_row && s.focus >= count)
            s.set_focus(count ? count - 1 : no_row, false);
        if (s.hot != no_row && s.hot >= count)
            s.hot = no_row;
    }
    if (s.window) {
        if (s.updates == 0)
            s.top = std::min(s.top, max_top(s));
        update_scroll_bars(s);
        if (s.window && s.updates == 0)
            ::NotifyWinEvent(EVENT_OBJECT_REORDER, s.window, OBJID_CLIENT, CHILDID_SELF);
    }
    s.repaint();
}

row_index listview<uniform_height>::row_count() const noexcept { return state_->rows; }

void listview<uniform_height>::insert_rows(row_index at, row_index count)
{
    state& s = *state_;
    if (count == 0)
        return;
    if (count > max_row_count - s.rows)
        throw std::length_error("a list has at most 2^63 - 1 rows");
    at = std::min(at, s.rows);
    s.rows += count;
    s.find_prefixes.clear();
    const auto moved = [&](row_index row) { return row != no_row && row >= at ? row + count : row; };
    move_selection(s, at, 0, count, s.rows);
    focus_moved(s, moved(s.focus));
    s.hot = no_row;
    // Cached rows after the insertion keep their layouts under their new numbers.
    std::unordered_map<row_index, std::unique_ptr<cached_row>> cache;
    for (auto& [row, entry] : s.cache)
        cache.emplace(moved(row), std::move(entry));
    s.cache.swap(cache);
    if (at < s.top)
        s.top += count;  // what the user looks at stays where it is
    update_scroll_bars(s);
    if (s.window && s.updates == 0)
        ::NotifyWinEvent(EVENT_OBJECT_REORDER, s.window, OBJID_CLIENT, CHILDID_SELF);
    s.repaint();
}

void listview<uniform_height>::remove_rows(row_index at, row_index count)
{
    state& s = *state_;
    if (at >= s.rows || count == 0)
        return;
    count = std::min(count, s.rows - at);
    const selection_snapshot before = snapshot(*s.selection);
    const bool selected_went = move_selection(s, at, count, 0, s.rows - count);
    s.rows -= count;
    s.find_prefixes.clear();
    std::unordered_map<row_index, std::unique_ptr<cached_row>> cache;
    for (auto& [row, entry] : s.cache)
        if (row < at)
            cache.emplace(row, std::move(entry));
        else if (row >= at + count)
            cache.emplace(row - count, std::move(entry));
    s.cache.swap(cache);
    s.hot = no_row;
    if (s.focus != no_row && s.focus >= at) {
        if (s.focus >= at + count)
            focus_moved(s, s.focus - count);
        else {
            // The focus row went: the row that took its place, or the new last row.
            s.focus = no_row;
            s.set_focus(s.rows ? std::min(at, s.rows - 1) : no_row, false);
        }
    }
    if (s.top >= at + count)
        s.top -= count;
    else if (s.top > at)
        s.top = at;
    if (s.window && s.updates == 0)
        s.top = std::min(s.top, max_top(s));
    update_scroll_bars(s);
    if (s.window && s.updates == 0)
        ::NotifyWinEvent(EVENT_OBJECT_REORDER, s.window, OBJID_CLIENT, CHILDID_SELF);
    s.repaint();
    if (selected_went || snapshot(*s.selection) != before)
        s.selection_changed();
}

void listview<uniform_height>::set_selection_mode(selection_mode mode)
{
    state& s = *state_;
    const bool had = !s.selection->is_empty();
    s.mode = mode;
    if (mode == selection_mode::multiple)
        s.selection = std::make_unique<multiple_selection>();
    else
        s.selection = std::make_unique<single_selection>();
    s.repaint();
    if (had)
        s.selection_changed();
}

selection_mode listview<uniform_height>::selection_kind() const noexcept { return state_->mode; }
const iselection& listview<uniform_height>::selection() const noexcept { return *state_->selection; }

row_index listview<uniform_height>::focus_row() const noexcept { return state_->focus; }

void listview<uniform_height>::set_focus_row(row_index row, bool select)
{
    state& s = *state_;
    if (row == no_row || row >= s.rows) {
        s.set_focus(no_row, false);
        return;
    }
    if (select)
        select_only(s, row);
    s.set_focus(row, false);
    s.ensure_visible(row);
}

void listview<uniform_height>::select_row(row_index row)
{
    state& s = *state_;
    if (row == no_row || row >= s.rows) {
        clear_selection();
        return;
    }
    select_only(s, row);
}

void listview<uniform_height>::select_range(row_index first, row_index end, bool selected)
{
    state& s = *state_;
    end = std::min(end, s.rows);
    if (first >= end)
        return;
    const selection_snapshot before = snapshot(*s.selection);
    s.selection->set_range(first, end, selected ? range_mode::select : range_mode::deselect);
    if (snapshot(*s.selection) != before) {
        s.repaint();
        s.selection_changed();
    }
}

void listview<uniform_height>::clear_selection()
{
    state& s = *state_;
    if (s.selection->is_empty())
        return;
    s.selection->clear();
    s.repaint();
    s.selection_changed();
}

bool listview<uniform_height>::is_selected(row_index row) const noexcept { return state_->row_selected(row); }
row_index listview<uniform_height>::first_selected() const noexcept { return state_->selection->first_selected(); }

}  // namespace tessel::windows::new_controls::listview::impl
