#include "controls/selection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <vector>

using namespace tessel::windows::new_controls::listview::impl;

namespace tessel::windows::new_controls::listview::impl {
void PrintTo(const row_run& run, std::ostream* out) { *out << '[' << run.first << ", " << run.end << ')'; }
}  // namespace tessel::windows::new_controls::listview::impl

namespace {

std::vector<row_run> runs_of(const range_set& set, row_index first = 0, row_index last = none)
{
    std::vector<row_run> runs;
    for (row_run run = set.run_from(first); run.first < last; run = set.run_from(run.end)) {
        if (run.end <= run.first || (!runs.empty() && run.first <= runs.back().end)) {
            ADD_FAILURE() << "runs out of order";  // and a walk that would never end
            break;
        }
        runs.push_back(run);
    }
    return runs;
}

std::vector<row_run> runs_of(const std::vector<bool>& rows)
{
    std::vector<row_run> runs;
    for (row_index r = 0; r < rows.size(); ++r) {
        if (!rows[r])
            continue;
        if (!runs.empty() && runs.back().end == r)
            ++runs.back().end;
        else
            runs.push_back({r, r + 1});
    }
    return runs;
}

}  // namespace

TEST(single_selection, holds_one_row_and_truncates_to_the_last_remaining_row)
{
    std::unique_ptr<iselection> selection = std::make_unique<single_selection>();
    EXPECT_TRUE(selection->is_empty());
    EXPECT_EQ(selection->first_selected(), none);
    selection->click(7);
    selection->click(7);
    EXPECT_EQ(selection->count(), 1u);
    EXPECT_TRUE(selection->is_selected(7));
    EXPECT_FALSE(selection->is_selected(none));
    EXPECT_EQ(runs_of(selection->selected_rows()), (std::vector<row_run>{{7, 8}}));

    EXPECT_FALSE(selection->truncate(8));
    EXPECT_TRUE(selection->truncate(5));
    EXPECT_EQ(selection->first_selected(), 4u);
    EXPECT_EQ(runs_of(selection->selected_rows()), (std::vector<row_run>{{4, 5}}));
    EXPECT_TRUE(selection->truncate(0));
    EXPECT_TRUE(selection->is_empty());
    EXPECT_EQ(selection->selected_rows().count(), 0u);
    EXPECT_FALSE(selection->truncate(0));

    selection->set_range(10, 20, range_mode::select);
    EXPECT_EQ(selection->first_selected(), 10u);
    selection->set_range(12, 20, range_mode::select);  // keeps a row already inside
    EXPECT_EQ(selection->first_selected(), 12u);
    selection->set_range(0, 12, range_mode::deselect);
    EXPECT_EQ(selection->first_selected(), 12u);
    selection->set_range(12, 13, range_mode::toggle);
    EXPECT_TRUE(selection->is_empty());
    selection->extend_to(3);
    EXPECT_EQ(runs_of(selection->selected_rows()), (std::vector<row_run>{{3, 4}}));
    selection->clear();
    EXPECT_EQ(selection->count(), 0u);
}

// Thousands of random operations on the model and on one flag per row; after every step
// both must agree on the rows, the runs, the count, the first row and emptiness, and the
// generation must have moved whenever a row changed.
TEST(multiple_selection, random_operations_agree_with_a_flag_per_row)
{
    constexpr row_index rows = 160;
    std::mt19937_64 random(20261123);
    const auto any_row = [&] { return row_index(random() % rows); };

    for (int series = 0; series < 20; ++series) {
        multiple_selection selection;
        std::vector<bool> oracle(rows);
        row_index anchor = none, extension_first = 0, extension_end = 0;
        std::uint64_t generation = 0;
        std::vector<row_run> previous_runs;
        bool extension = false;
        const auto toggle = [&](row_index r) { oracle[r] = !oracle[r]; };
        const auto assign = [&](row_index first, row_index end, range_mode mode) {
            for (row_index r = first; r < end; ++r)
                oracle[r] = mode == range_mode::toggle ? !oracle[r] : mode == range_mode::select;
        };

        for (int step = 0; step < 500; ++step) {
            const unsigned op = random() % 16;
            if (op < 4) {
                const row_index r = any_row();
                selection.click(r);
                toggle(r);
                anchor = r;
            } else if (op < 8) {
                const row_index r = any_row();
                selection.extend_to(r);
                if (anchor == none) {
                    toggle(r);
                    anchor = r;
                } else {
                    if (extension)
                        assign(extension_first, extension_end, range_mode::deselect);
                    extension_first = std::min(anchor, r);
                    extension_end = std::max(anchor, r) + 1;
                    extension = true;
                    assign(extension_first, extension_end, range_mode::select);
                }
            } else if (op < 14) {
                const row_index a = any_row(), b = random() % 8 == 0 ? a : any_row() + 1;
                const auto mode = range_mode(random() % 3);
                selection.set_range(std::min(a, b), std::max(a, b), mode);
                assign(std::min(a, b), std::max(a, b), mode);
            } else if (op == 14) {
                const row_index n = random() % 4 == 0 ? 0 : any_row();
                const bool had_beyond = std::find(oracle.begin() + n, oracle.end(), true) != oracle.end();
                ASSERT_EQ(selection.truncate(n), had_beyond) << "step " << step;
                assign(n, rows, range_mode::deselect);
                anchor = anchor != none && anchor >= n ? none : anchor;
                extension_end = std::min(extension_end, n);
                extension = extension && extension_first < extension_end;
            } else if (random() % 4 == 0) {
                selection.clear();
                assign(0, rows, range_mode::deselect);
                anchor = none;
                extension = false;
            } else {
                selection.click(none);
                assign(0, rows, range_mode::deselect);
            }

            const std::vector<row_run> expected = runs_of(oracle);
            if (expected != previous_runs) {
                ASSERT_NE(selection.selected_rows().generation(), generation);
            }
            generation = selection.selected_rows().generation();
            previous_runs = expected;
            ASSERT_EQ(runs_of(selection.selected_rows()), expected) << "series " << series << " step " << step;
            const auto selected = row_index(std::count(oracle.begin(), oracle.end(), true));
            ASSERT_EQ(selection.count(), selected);
            ASSERT_EQ(selection.is_empty(), selected == 0);
            ASSERT_EQ(selection.first_selected(), expected.empty() ? none : expected.front().first);
            ASSERT_EQ(selection.selected_rows().run_count(), expected.size());
            ASSERT_EQ(selection.anchor(), anchor);
            const row_index probe = any_row();
            ASSERT_EQ(selection.is_selected(probe), bool(oracle[probe]));
        }
    }
}

// Deep enough for inner nodes to split, refill and merge; half the operations near the
// previous one, where the tree skips the descent.
TEST(boundary_tree, random_inserts_and_range_erases_agree_with_an_ordered_map)
{
    std::mt19937_64 random(7);
    boundary_tree tree;
    std::map<std::int64_t, bool> expected;
    std::int64_t previous = 0;
    const auto check = [&] {
        ASSERT_EQ(tree.size(), expected.size());
        auto at = tree.begin();
        for (const auto& [row, selected] : expected) {
            ASSERT_EQ(at.row(), row);
            ASSERT_EQ(at.selected(), selected);
            ++at;
        }
        ASSERT_TRUE(at == tree.end());
        for (auto back = expected.rbegin(); back != expected.rend(); ++back)
            ASSERT_EQ((--at).row(), back->first);
    };
    for (int round = 0; round < 6; ++round) {
        const std::int64_t span = round % 2 ? 40000 : 3000;
        for (int step = 0; step < 6000; ++step) {
            const std::int64_t row = random() % 2 ? std::int64_t(random() % std::uint64_t(span))
                                                  : std::max<std::int64_t>(0, previous - 40 + std::int64_t(random() % 80));
            previous = row;
            if (random() % 3) {
                if (expected.emplace(row, (row & 1) != 0).second)
                    tree.insert(row, (row & 1) != 0);
            } else {
                const std::int64_t last = row + std::int64_t(random() % 300);
                tree.erase(row, last);
                expected.erase(expected.lower_bound(row), expected.upper_bound(last));
            }
            const std::int64_t probe = std::int64_t(random() % std::uint64_t(span));
            const auto found = tree.lower_bound(probe);
            const auto wanted = expected.lower_bound(probe);
            ASSERT_EQ(found == tree.end(), wanted == expected.end());
            if (wanted != expected.end()) {
                ASSERT_EQ(found.row(), wanted->first);
            }
            if (step % 500 == 0)
                check();
        }
        check();
        for (std::int64_t row = span; row < span + 5000; ++row) {  // appends fill leaves
            if (expected.emplace(row, false).second)
                tree.insert(row, false);
        }
        check();
        if (round == 1) {
            EXPECT_GE(tree.height(), 3);
        }
        tree.erase(span / 3, span + 2000);
        expected.erase(expected.lower_bound(span / 3), expected.upper_bound(span + 2000));
        check();
    }
    tree.erase(-1, std::int64_t{1} << 62);
    EXPECT_EQ(tree.size(), 0u);
    EXPECT_EQ(tree.height(), 0);
}

// Rows that go in the middle take the anchor along and the extension moves with its
// rows (truncation is in the random series above); rows end below 2^63 - 1, and this file
// is built with the undefined-behaviour checks.
TEST(multiple_selection, rows_removed_in_the_middle_and_rows_at_the_bound)
{
    multiple_selection s;
    s.click(2);
    s.extend_to(6);
    EXPECT_TRUE(s.replace_rows(4, 2, 0));
    s.extend_to(3);
    EXPECT_EQ(runs_of(s.selected_rows()), (std::vector<row_run>{{2, 4}})) << "the moved extension is replaced";
    EXPECT_FALSE(s.replace_rows(0, 0, 3));
    EXPECT_TRUE(s.replace_rows(4, 2, 0));
    EXPECT_EQ(s.anchor(), none) << "row 5, the anchor, went";

    s.clear();
    s.set_range(0, none, range_mode::select);
    EXPECT_EQ(s.count(), max_row_count);
    EXPECT_TRUE(s.truncate(10));
    s.click(max_row_count - 1);
    s.extend_to(max_row_count - 3);
    EXPECT_EQ(runs_of(s.selected_rows()), (std::vector<row_run>{{0, 10}, {max_row_count - 3, max_row_count}}));
    EXPECT_THROW(single_selection().click(max_row_count), std::length_error);
}
