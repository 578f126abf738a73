#include "controls/selection.h"
#include "base/unique_handle.h"
#include "controls/treeview.h"

#include "message_pump.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using namespace tessel::windows::new_controls;
using namespace tessel::windows::new_controls::treeview::impl;
using listview::impl::lvn_button_clicked;
using listview::impl::lvn_context_menu;
using listview::impl::lvn_row_activated;
using listview::impl::nm_listview_button;
using listview::impl::nm_listview_context_menu;
using listview::impl::nm_listview_row;

namespace {

struct tree_notification {
    UINT code;
    row_index row;
    tree_node* node;
    std::size_t column;
};
std::vector<tree_notification> tree_received;

LRESULT CALLBACK tree_owner_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    if (message == WM_NOTIFY) {
        const auto* header = reinterpret_cast<const NMHDR*>(lparam);
        if (header->code == lvn_row_activated) {
            const auto* n = reinterpret_cast<const nm_listview_row*>(lparam);
            tree_received.push_back({header->code, n->row, tree_view::node_of(*n), 0});
        } else if (header->code == lvn_button_clicked) {
            const auto* n = reinterpret_cast<const nm_listview_button*>(lparam);
            tree_received.push_back({header->code, n->row, static_cast<tree_node*>(n->item), n->column});
        } else if (header->code == lvn_context_menu) {
            const auto* n = reinterpret_cast<const nm_listview_context_menu*>(lparam);
            tree_received.push_back({header->code, n->row, static_cast<tree_node*>(n->item), 0});
            return 1;
        }
        return 0;
    }
    return ::DefWindowProcW(window, message, wparam, lparam);
}

struct tree_fixture {
    explicit tree_fixture(selection_mode mode = selection_mode::single)
    {
        owner = controls_tests::owner_window(L"controls_tests.tree_owner", tree_owner_proc, 480, 360);
        tree = std::make_unique<tree_view>(owner.get(), 1003, RECT{0, 0, 440, 300}, mode);
        tree->set_columns({{L"Device", 200, 40}, {L"Shared", 60, 30}, {L"Client", 120, 30}});
        tree_received.clear();
    }
    void key(UINT vk) { controls_tests::press(tree->window(), vk); }
    int row_y(row_index row) const
    {
        auto& list = const_cast<tree_view&>(*tree).list();
        return list.row_height_pixels() * int(row - list.top_row() + 1) + list.row_height_pixels() / 2 + 2;
    }
    tessel::unique_hwnd owner;
    std::unique_ptr<tree_view> tree;
};

// The table as it must be: every node whose ancestors are all expanded, in pre-order.
std::vector<visible_row> recomputed(const tree_view& tree)
{
    std::vector<visible_row> rows;
    std::vector<std::pair<tree_node*, bool>> stack;
    for (std::size_t i = tree.top_level_count(); i-- > 0;)
        stack.push_back({tree.top_level(i), true});
    while (!stack.empty()) {
        auto [node, shown] = stack.back();
        stack.pop_back();
        rows.push_back({node, node->depth()});
        if (node->expanded())
            for (std::size_t i = node->child_count(); i-- > 0;)
                stack.push_back({node->child(i), true});
    }
    return rows;
}

bool same_table(const std::vector<visible_row>& a, const std::vector<visible_row>& b)
{
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (a[i].node != b[i].node || a[i].depth != b[i].depth)
            return false;
    return true;
}

std::vector<tree_node*> all_nodes(const tree_view& tree)
{
    std::vector<tree_node*> nodes, stack;
    for (std::size_t i = 0; i < tree.top_level_count(); ++i)
        stack.push_back(tree.top_level(i));
    while (!stack.empty()) {
        tree_node* n = stack.back();
        stack.pop_back();
        nodes.push_back(n);
        for (std::size_t i = 0; i < n->child_count(); ++i)
            stack.push_back(n->child(i));
    }
    return nodes;
}

}  // namespace

TEST(treeview, first_cell_strings_follow_the_formats_exactly)
{
    tree_fixture f;
    f.tree->set_indentation(20, 0);
    tree_node* plain = f.tree->insert(nullptr, nullptr, {.text = L"Hub", .column_texts = {L"a", L"b", L"c"}});
    EXPECT_EQ(f.tree->first_cell_text(*plain, 3), L"[[[g:60: ]]]Hub") << "indent 20 at depth 3";
    tree_node* vector = f.tree->insert(plain, nullptr, {.text = L"Disk", .image = vector_image{7}});
    EXPECT_EQ(f.tree->first_cell_text(*vector, 1), L"[[[g:20: ]]][[[v:7: ]]] Disk")
        << "without an overlay the conditional part is left out";
    f.tree->set_image(vector, vector_image{7}, 9);
    EXPECT_EQ(f.tree->first_cell_text(*vector, 1), L"[[[g:20: ]]][[[v:7::9: ]]] Disk");
    f.tree->set_indentation(16, 12.6f);
    EXPECT_EQ(f.tree->first_cell_text(*plain, 1), L"[[[g:29: ]]]Hub") << "16 + 12.6 rounds to 29";

    // Through the list: column texts by index, empty beyond them.
    auto& list = f.tree->list();
    EXPECT_EQ(list.cell_plain_text(0, 3), L"c");
    EXPECT_EQ(list.cell_plain_text(0, 5), L"");
    EXPECT_EQ(list.cell_plain_text(1, 1), L"");

    // An image that holds no value fails as visiting an empty variant does; the list
    // still draws the other rows.
    f.tree->set_image(vector, std::monostate{});
    EXPECT_THROW((void)f.tree->first_cell_text(*vector, 1), std::bad_variant_access);
    ::UpdateWindow(f.tree->window());
    EXPECT_EQ(list.cell_plain_text(0, 0), L" Hub");
    f.tree->insert(nullptr, nullptr, {.text = L"Zed"});
    EXPECT_EQ(list.find_row(L"ze"), 2u) << "type-to-find passes over the failing row";

    std::vector<listview::impl::cell> cells(2, {L"old"});
    std::optional<D2D1_COLOR_F> colour;
    EXPECT_TRUE(list.handlers().cell_text.back()(3, 0, cells, colour) && cells[0].text + cells[1].text == L"")
        << "a row past the table is an empty one";
}

TEST(treeview, expanding_and_collapsing_change_only_their_part_of_the_table)
{
    tree_fixture f(selection_mode::multiple);
    std::mt19937 random(1234);
    const auto pick = [&](std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(random); };
    f.tree->begin_update();
    for (int i = 0; i < 300; ++i) {
        const auto nodes = all_nodes(*f.tree);
        tree_node* parent = nodes.empty() || pick(5) == 0 ? nullptr : nodes[pick(nodes.size())];
        tree_node* before = nullptr;
        const std::size_t siblings = parent ? parent->child_count() : f.tree->top_level_count();
        if (siblings && pick(3) == 0)
            before = parent ? parent->child(pick(siblings)) : f.tree->top_level(pick(siblings));
        f.tree->insert(parent, before, {.text = L"n" + std::to_wstring(i)});
    }
    f.tree->end_update();
    ASSERT_TRUE(same_table(f.tree->visible_rows(), recomputed(*f.tree)));

    // Under one update, so that the run does not wait for the window system; the table,
    // the selection and the focus change at once all the same.
    f.tree->begin_update();
    for (int step = 0; step < 600; ++step) {
        const auto nodes = all_nodes(*f.tree);
        tree_node* node = nodes[pick(nodes.size())];
        // Watch one selected and the focused node through the change.
        const row_index visible = f.tree->visible_rows().size();
        tree_node* selected = f.tree->node_of_row(pick(visible));
        f.tree->list().clear_selection();
        f.tree->list().select_range(f.tree->row_of_node(selected), f.tree->row_of_node(selected) + 1, true);
        tree_node* focused = f.tree->node_of_row(pick(visible));
        f.tree->set_focus_node(focused);
        const auto hides = [&](tree_node* n) {
            for (tree_node* up = n->parent(); up; up = up->parent())
                if (up == node)
                    return true;
            return false;
        };
        const bool survives = !hides(selected) && !hides(focused);
        switch (pick(6)) {
        case 0: f.tree->expand(node); break;
        case 1:
        case 2: f.tree->collapse(node); break;
        case 3: f.tree->toggle(node); break;
        case 4:
            if (node != selected && node != focused && !hides(selected) && !hides(focused) && nodes.size() > 50)
                f.tree->remove(node);
            break;
        default: f.tree->insert(node, nullptr, {.text = L"new"}); break;
        }
        ASSERT_TRUE(same_table(f.tree->visible_rows(), recomputed(*f.tree))) << "step " << step;
        ASSERT_EQ(f.tree->list().row_count(), f.tree->visible_rows().size());
        if (survives) {
            ASSERT_EQ(f.tree->focused_node(), focused) << "step " << step;
            ASSERT_EQ(f.tree->selected_nodes(), std::vector<tree_node*>{selected}) << "step " << step;
        }
        for (std::size_t r = 0; r < f.tree->visible_rows().size(); r += 37)
            ASSERT_EQ(f.tree->row_of_node(f.tree->node_of_row(r)), r);
    }
    f.tree->end_update();
    f.tree->collapse_all();
    ASSERT_TRUE(same_table(f.tree->visible_rows(), recomputed(*f.tree)));
    EXPECT_EQ(f.tree->visible_rows().size(), f.tree->top_level_count());
    f.tree->expand_all();
    ASSERT_TRUE(same_table(f.tree->visible_rows(), recomputed(*f.tree)));
    EXPECT_EQ(f.tree->visible_rows().size(), all_nodes(*f.tree).size());
}

TEST(treeview, a_hundred_thousand_descendants_collapse_around_the_selection)
{
    tree_fixture f;
    tree_node* big = f.tree->insert(nullptr, nullptr, {.text = L"big"});
    f.tree->begin_update();
    for (int i = 0; i < 100000; ++i)
        f.tree->insert(big, nullptr, {.text = L"child"});
    f.tree->end_update();
    tree_node* after = f.tree->insert(nullptr, nullptr, {.text = L"after"});
    f.tree->select(after);
    EXPECT_EQ(f.tree->list().first_selected(), 100001u);
    f.tree->collapse(big);
    EXPECT_EQ(f.tree->list().row_count(), 2u);
    EXPECT_EQ(f.tree->selected_node(), after);
    EXPECT_EQ(f.tree->focused_node(), after);
    f.tree->expand(big);
    EXPECT_EQ(f.tree->selected_node(), after);
    // Collapsing the subtree that holds the focus moves focus and selection to its root.
    f.tree->select(big->child(5000));
    f.tree->collapse(big);
    EXPECT_EQ(f.tree->selected_node(), big);
    EXPECT_EQ(f.tree->focused_node(), big);    f.tree->remove(big);
    EXPECT_EQ(f.tree->selected_node(), after) << "a removed node hands the selection to the next one";
}

TEST(treeview, keys_and_expander_clicks_open_and_close_nodes)
{
    tree_fixture f;
    tree_node* a = f.tree->insert(nullptr, nullptr, {.text = L"a"});
    tree_node* a1 = f.tree->insert(a, nullptr, {.text = L"a1"});
    f.tree->insert(a1, nullptr, {.text = L"a1x"});
    tree_node* b = f.tree->insert(nullptr, nullptr, {.text = L"b"});
    f.tree->collapse(a);
    f.tree->select(a);
    f.key(VK_RIGHT);
    EXPECT_TRUE(a->expanded());
    EXPECT_EQ(f.tree->focused_node(), a) << "Right on a closed node opens it";
    f.key(VK_RIGHT);
    EXPECT_EQ(f.tree->focused_node(), a1) << "Right on an open node goes to its first child";
    EXPECT_EQ(f.tree->selected_node(), a1);
    f.key(VK_LEFT);
    EXPECT_FALSE(a1->expanded()) << "Left on an open node closes it";
    EXPECT_EQ(f.tree->focused_node(), a1);
    f.key(VK_LEFT);
    EXPECT_EQ(f.tree->focused_node(), a) << "Left on a closed node goes to its parent";
    f.key(VK_SUBTRACT);
    EXPECT_FALSE(a->expanded());
    f.key(VK_ADD);
    EXPECT_TRUE(a->expanded());
    EXPECT_FALSE(a1->expanded());
    f.key(VK_MULTIPLY);
    EXPECT_TRUE(a1->expanded()) << "* opens the whole subtree";
    EXPECT_EQ(f.tree->visible_rows().size(), 4u);

    // A click on the expander toggles without selecting; elsewhere it selects.
    auto& list = f.tree->list();
    const int expander_x = int((listview::impl::cell_padding + f.tree->base_offset() / 2) * list.scale_x());
    controls_tests::click_at(f.tree->window(), expander_x, f.row_y(0));
    EXPECT_FALSE(a->expanded());
    EXPECT_EQ(f.tree->selected_node(), a);
    controls_tests::click_at(f.tree->window(), expander_x, f.row_y(1));
    EXPECT_EQ(f.tree->selected_node(), b) << "b has no children: its indent is plain row";

    // A double click on the text activates the row, naming the node.
    tree_received.clear();
    ::SendMessageW(f.tree->window(), WM_LBUTTONDBLCLK, MK_LBUTTON, MAKELPARAM(int(120 * list.scale_x()), f.row_y(1)));
    ASSERT_EQ(tree_received.size(), 1u);
    EXPECT_EQ(tree_received[0].code, lvn_row_activated);
    EXPECT_EQ(tree_received[0].node, b);
}

TEST(treeview, share_markers_and_menus_name_their_node)
{
    tree_fixture f;
    const HICON marker = ::LoadIconW(nullptr, IDI_INFORMATION);
    const std::wstring cell = L"[[[H[[[r:" + std::to_wstring(reinterpret_cast<std::uintptr_t>(marker)) + L": ]]]]]]";
    tree_node* one = f.tree->insert(nullptr, nullptr, {.text = L"one", .column_texts = {cell}});
    tree_node* two = f.tree->insert(nullptr, nullptr, {.text = L"two", .column_texts = {cell}});
    ::UpdateWindow(f.tree->window());
    auto& list = f.tree->list();
    const int x = int((200 + listview::impl::cell_padding + 6) * list.scale_x());
    controls_tests::click_at(f.tree->window(), x, f.row_y(1));
    ASSERT_EQ(tree_received.size(), 1u);
    EXPECT_EQ(tree_received[0].code, lvn_button_clicked);
    EXPECT_EQ(tree_received[0].node, two);
    EXPECT_EQ(tree_received[0].column, 1u);

    tree_received.clear();
    f.tree->select(one);
    f.key(VK_APPS);
    ASSERT_EQ(tree_received.size(), 1u);
    EXPECT_EQ(tree_received[0].code, lvn_context_menu);
    EXPECT_EQ(tree_received[0].node, one);

    tree_node* three = f.tree->insert(nullptr, one, {.text = L"three"});
    EXPECT_EQ(f.tree->row_of_node(three), 0u) << "inserted before its sibling";
    EXPECT_EQ(f.tree->selected_node(), one) << "the selection stays on its node";
}
