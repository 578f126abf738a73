#pragma once
// The list view's selection models. A list addresses its rows by 64-bit indices; `none`
// (all bits set) means "no row". Every model implements iselection, whose virtual
// operations keep this slot order (views built on the list call them through it):
//   destructor, first_selected, selected_rows, count, click, set_range, extend_to, clear,
//   is_selected, is_empty, truncate.
// single_selection holds one row; multiple_selection holds a range set plus the anchor of
// shift-clicks. Both hand out their rows as a range_set, so a painter asks the same
// question of either: which selected runs intersect the visible rows.
//
// The range set stores only run boundaries: each says that the state changes at that row
// and what it is from there on. Boundaries are kept minimal (consecutive ones alternate),
// and the count of selected rows is kept up to date by every operation, so count,
// is_empty and first_selected are constant-time and everything else is logarithmic in the
// number of runs plus the boundaries an operation removes (each was inserted once).

#include "controls/boundary_tree.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tessel::windows::new_controls::listview::impl {

using row_index = std::uint64_t;
inline constexpr row_index none = ~row_index{0};

enum class range_mode : int { select = 0, deselect = 1, toggle = 2 };

// Rows are numbered below 2^63 - 1, so that every row and every end of a run is a key of
// the signed boundary store. A row at or past it throws std::length_error; the end of a
// range is cut to it (none as an end means "to the last row there can be").
inline constexpr row_index max_row_count = row_index{INT64_MAX};
void check_row(row_index row);  // throws std::length_error for a row at or past the bound

// Rows [first, end).
struct row_run {
    row_index first = none;
    row_index end = none;
    friend bool operator==(const row_run&, const row_run&) = default;
};

// `store` holds the boundaries keyed by signed 64-bit row, as boundary_tree does:
// begin/end/lower_bound giving bidirectional iterators with row() and selected(),
// set_selected(iterator, bool), insert(row, selected) where no boundary is yet,
// erase(first, last) of every boundary in [first, last], size, clear. Inserting or
// erasing may invalidate every iterator.
template <class store>
class basic_range_set {
public:
    [[nodiscard]] row_index count() const noexcept { return count_; }
    [[nodiscard]] bool empty() const noexcept { return count_ == 0; }
    // Goes up whenever a row changes, never when an operation changes nothing: an owner
    // compares it before and after an operation to tell whether to report a change (a
    // shift-click that ends with the rows it began with still moves it).
    [[nodiscard]] std::uint64_t generation() const noexcept { return generation_; }
    // Number of selected runs (what the store's size is proportional to).
    [[nodiscard]] std::size_t run_count() const noexcept { return (boundaries_.size() + 1) / 2; }

    [[nodiscard]] bool contains(row_index row) const
    {
        return row < max_row_count && state_before(boundaries_.lower_bound(key(row) + 1));
    }

    // The first boundary at which the state becomes selected; none when empty.
    [[nodiscard]] row_index first() const noexcept
    {
        if (empty())
            return none;
        auto at = boundaries_.begin();
        if (!at.selected())
            ++at;
        return row_index(at.row());
    }

    // The end of the last selected run; 0 when empty.
    [[nodiscard]] row_index last_end() const noexcept
    {
        if (empty())
            return 0;
        auto at = boundaries_.end();
        --at;
        return row_index(at.row());
    }

    // The selected run that contains `from` or else the first one after it ({none, none}
    // when there is none). A painter walks the visible rows [first, last) with
    //   for (auto run = set.run_from(first); run.first < last; run = set.run_from(run.end))
    [[nodiscard]] row_run run_from(row_index from) const
    {
        if (from >= max_row_count)
            return {};
        auto after = boundaries_.lower_bound(key(from) + 1);
        if (state_before(after)) {
            row_index first = 0;
            if (after != boundaries_.begin()) {
                auto at = after;
                --at;
                first = row_index(at.row());
            }
            return {first, row_index(after.row())};
        }
        if (after == boundaries_.end())
            return {};
        auto end = after;
        ++end;
        return {row_index(after.row()), row_index(end.row())};
    }

    // Returns whether any row changed.
    bool assign(row_index first, row_index end, range_mode mode)
    {
        end = end < max_row_count ? end : max_row_count;
        if (first >= end)
            return false;
        const std::int64_t a = key(first), b = key(end);
        // One walk over the boundaries inside [a, b): how many rows there are selected and
        // what the state is just before a, at b - 1 and at b.
        auto at = boundaries_.lower_bound(a);
        const bool before_a = state_before(at);
        bool state = before_a;
        std::int64_t from = a;
        std::uint64_t selected_inside = 0;
        const bool boundary_at_a = at != boundaries_.end() && at.row() == a;
        const bool at_a = boundary_at_a ? at.selected() : before_a;
        for (; at != boundaries_.end() && at.row() < b; ++at) {
            if (state)
                selected_inside += std::uint64_t(at.row() - from);
            from = at.row();
            state = at.selected();
            // The boundary at a is settled below, against the state before it.
            if (mode == range_mode::toggle && at.row() != a)
                boundaries_.set_selected(at, !state);
        }
        if (state)
            selected_inside += std::uint64_t(b - from);
        const bool at_b_before = state;  // state at b - 1
        const bool boundary_at_b = at != boundaries_.end() && at.row() == b;
        const bool at_b = boundary_at_b ? at.selected() : state;
        const std::uint64_t length = std::uint64_t(b - a);

        if (mode == range_mode::toggle) {
            ++generation_;
            count_ += length - 2 * selected_inside;
            // The boundary at b: needed when the toggled row b - 1 differs from row b.
            place(b, boundary_at_b, !at_b_before != at_b, at_b);
            // The boundary at a: needed when row a, toggled, differs from the row before.
            place(a, boundary_at_a, !at_a != before_a, !at_a);
            return true;
        }
        const bool select = mode == range_mode::select;
        if (selected_inside == (select ? length : 0))
            return false;
        ++generation_;
        count_ = select ? count_ + (length - selected_inside) : count_ - selected_inside;
        boundaries_.erase(a, b);
        if (select != before_a)
            boundaries_.insert(a, select);
        if (at_b != select)
            boundaries_.insert(b, at_b);
        return true;
    }

    // Deselects from `row_count` on; returns whether anything was selected there.
    bool truncate(row_index row_count)
    {
        if (empty() || row_count >= last_end())
            return false;
        if (row_count == 0)
            clear();
        else
            assign(row_count, last_end(), range_mode::deselect);
        return true;
    }

    // Rows [at, at + removed) went and `inserted` unselected rows took their place: the
    // runs after them move. Returns whether a selected row went.
    bool replace_rows(row_index at, row_index removed, row_index inserted)
    {
        if (empty() || at >= last_end())
            return false;
        std::vector<row_run> after;  // the parts of runs behind the removed rows
        for (row_run run = run_from(at + removed < at ? none : at + removed); run.first != none;
             run = run_from(run.end))
            after.push_back({run.first > at + removed ? run.first : at + removed, run.end});
        const row_index before = count_;
        assign(at, last_end(), range_mode::deselect);
        for (const row_run& run : after)
            assign(run.first - removed + inserted, run.end - removed + inserted, range_mode::select);
        return count_ != before;
    }

    void clear() noexcept
    {
        generation_ += count_ != 0;
        boundaries_.clear();
        count_ = 0;
    }

    [[nodiscard]] const store& boundaries() const noexcept { return boundaries_; }

private:
    // Row indices are unsigned, boundaries are keyed by signed rows; every row and end the
    // set holds is at most max_row_count, so the conversion is the identity for them.
    static std::int64_t key(row_index row) noexcept { return std::int64_t(row); }

    // The state that holds just before the boundary `at` (or after the last one).
    [[nodiscard]] bool state_before(typename store::iterator at) const noexcept
    {
        if (at == boundaries_.begin())
            return before_first_;
        --at;
        return at.selected();
    }

    void place(std::int64_t row, bool present, bool needed, bool selected)
    {
        if (present && needed)
            boundaries_.set_selected(boundaries_.lower_bound(row), selected);
        else if (present)
            boundaries_.erase(row, row);
        else if (needed)
            boundaries_.insert(row, selected);
    }

    store boundaries_;
    row_index count_ = 0;
    std::uint64_t generation_ = 0;
    // Rows are never negative, so nothing is selected before the first boundary; the
    // lookups still honour this state rather than assume it.
    bool before_first_ = false;
};

// The boundary store of the list's selection. Measured with a million rows and half a
// million runs against std::map, boost::container::map and boost::container::map over a
// node pool (bench/controls/selection_bench.cpp): the maps take 80 to 96 bytes per run,
// the B+ tree 19 to 28; near the previous operation (a user works within one page) the
// tree costs 3 to 17 % more at a million rows than at a thousand (the maps 12 to 45 %)
// and is 1.5 to 4 times as fast as they are; at scattered rows, where every store misses
// the cache, it is about three times as fast.
using range_set = basic_range_set<boundary_tree>;

class iselection {
public:
    virtual ~iselection() = default;
    [[nodiscard]] virtual row_index first_selected() const noexcept = 0;
    [[nodiscard]] virtual const range_set& selected_rows() const noexcept = 0;
    [[nodiscard]] virtual row_index count() const noexcept = 0;
    virtual void click(row_index row) = 0;
    virtual void set_range(row_index first, row_index end, range_mode mode) = 0;
    virtual void extend_to(row_index row) = 0;
    virtual void clear() noexcept = 0;
    [[nodiscard]] virtual bool is_selected(row_index row) const = 0;
    [[nodiscard]] virtual bool is_empty() const noexcept = 0;
    // Called when rows are removed; returns whether the selection changed.
    virtual bool truncate(row_index row_count) = 0;
};

// At most one row. Selecting a range keeps the selected row when it lies in the range and
// otherwise selects the range's first row; deselecting or toggling a range that holds the
// selected row clears it, toggling one that does not selects its first row. Extending
// selects the row, like a click.
class single_selection final : public iselection {
public:
    [[nodiscard]] row_index row() const noexcept { return row_; }

    [[nodiscard]] row_index first_selected() const noexcept override { return row_; }
    [[nodiscard]] const range_set& selected_rows() const noexcept override { return rows_; }
    [[nodiscard]] row_index count() const noexcept override { return row_ == none ? 0 : 1; }
    void click(row_index row) override;
    void set_range(row_index first, row_index end, range_mode mode) override;
    void extend_to(row_index row) override;
    void clear() noexcept override;
    [[nodiscard]] bool is_selected(row_index row) const noexcept override { return row != none && row == row_; }
    [[nodiscard]] bool is_empty() const noexcept override { return row_ == none; }
    // When the selected row is removed the selection moves to the new last row rather
    // than vanishing: the list keeps a row selected as long as it has one.
    bool truncate(row_index row_count) override;

private:
    void select(row_index row);
    row_index row_ = none;
    range_set rows_;  // mirrors row_ for selected_rows
};

class multiple_selection final : public iselection {
public:
    [[nodiscard]] row_index anchor() const noexcept { return anchor_; }
    // Makes `row` the anchor of the next extend_to, which then replaces nothing.
    void set_anchor(row_index row) noexcept;

    [[nodiscard]] row_index first_selected() const noexcept override { return rows_.first(); }
    [[nodiscard]] const range_set& selected_rows() const noexcept override { return rows_; }
    [[nodiscard]] row_index count() const noexcept override { return rows_.count(); }
    // Toggles the row and makes it the anchor; a click on none clears the rows.
    void click(row_index row) override;
    void set_range(row_index first, row_index end, range_mode mode) override;
    // Selects anchor..row inclusive after deselecting the previous extension, so
    // successive shift-clicks replace each other while rows toggled before remain.
    void extend_to(row_index row) override;
    void clear() noexcept override;
    [[nodiscard]] bool is_selected(row_index row) const override { return rows_.contains(row); }
    [[nodiscard]] bool is_empty() const noexcept override { return rows_.empty(); }
    // The anchor and the active extension refer only to rows that exist: rows that go
    // take them along (the anchor becomes none, the extension loses those rows and ends
    // when it has none left), rows that move carry them.
    bool truncate(row_index row_count) override;
    // Rows [at, at + removed) went and `inserted` unselected rows took their place (an
    // insertion when removed is 0). Returns whether a selected row went.
    bool replace_rows(row_index at, row_index removed, row_index inserted);

private:
    range_set rows_;
    row_index anchor_ = none;
    row_run extension_{};
    bool extension_active_ = false;
};

}  // namespace tessel::windows::new_controls::listview::impl
