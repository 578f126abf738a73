#pragma once
// The tree view ("qmx.tessel.treeview"): the list view with a tree of nodes on top. The
// visible nodes are flattened into list rows (a table of node and depth), so scrolling,
// selection, type-to-find, tooltips, DPI and screen-reader access are the list's.
// Expanding or collapsing a node changes only its part of the table, and the selection
// and focus stay on the same nodes.
//
// Column 0 of a row is "[[[g:<indent>: ]]]" followed by the node's text, or by
// "[[[v:<icon>[:<overlay>]: ]]] <text>" / "[[[r:<HICON>[:<overlay>]: ]]] <text>"; the
// expander mark (a glyph of the "Fluent" icon font) is drawn inside the indent gap.
// Columns 1.. show the node's column texts.
//
// Notifications: those of the list view (listview.h) with `item` set to the node of the
// row (cast it with node_of()). For a node's "H" range ("[[[H[[[r:...: ]]]]]]", a button
// inside a cell) the parent gets lvn_button_clicked with the node and the column.

#include "controls/listview.h"

#include <any>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace tessel::windows::new_controls::treeview::impl {

using listview::impl::cell_style;
using listview::impl::column;
using listview::impl::no_row;
using listview::impl::row_index;
using listview::impl::selection_mode;

inline constexpr wchar_t treeview_class[] = L"qmx.tessel.treeview";

// The image shown before a node's text.
struct no_image {};
struct vector_image {
    std::uint32_t id;  // resolved to a name of the icon collection by set_vector_icon_names
};
struct raster_image {
    HICON icon;  // stays the owner's; must live as long as the node shows it
};
using node_image = std::variant<no_image, vector_image, raster_image>;

// Node flag bit 0 is copied into every cell of the row: listview::impl::cell_dimmed draws
// the row in the tree's dimmed text colour (disconnected devices).
inline constexpr std::uint32_t node_dimmed = listview::impl::cell_dimmed;

// Every member has a default, so that designated initializers name only what they set.
struct node_data {
    std::wstring text{};  // markup, column 0
    node_image image{};
    // 0: none. With a vector image: an icon id like the image's; with a raster image: an
    // HICON drawn over the image.
    std::uint64_t overlay = 0;
    std::vector<std::wstring> column_texts{};  // [c - 1] is column c; missing ones are empty
    std::shared_ptr<const cell_style> style{};
    std::optional<D2D1_COLOR_F> text_colour{};
    std::optional<D2D1_COLOR_F> row_colour{};
    std::uint32_t flags = 0;
};

class treeview;

// A node of the tree. The tree owns it; a node pointer stays valid until the node (or
// an ancestor) is removed or the tree is destroyed.
class tree_node {
public:
    [[nodiscard]] const node_data& data() const noexcept { return data_; }
    [[nodiscard]] tree_node* parent() const noexcept { return parent_; }
    [[nodiscard]] std::size_t child_count() const noexcept { return children_.size(); }
    [[nodiscard]] tree_node* child(std::size_t index) const noexcept { return children_[index].get(); }
    [[nodiscard]] bool expanded() const noexcept { return expanded_; }
    [[nodiscard]] std::uint32_t depth() const noexcept { return depth_; }
    // Whatever the owner attaches (a device record, say); the tree never looks at it.
    std::any owner_data;

private:
    friend class treeview;
    node_data data_;
    tree_node* parent_ = nullptr;
    std::vector<std::unique_ptr<tree_node>> children_;
    std::uint32_t depth_ = 0;
    bool expanded_ = true;
    // Row of the node in the visible-row table when it was last numbered (see treeview).
    mutable row_index row_hint_ = no_row;
};

// One entry of the visible-row table.
struct visible_row {
    tree_node* node;
    std::uint32_t depth;
};

class treeview {
public:
    // Creates the window (class "qmx.tessel.treeview") as a child of `parent`.
    treeview(HWND parent, int control_id, const RECT& rect = {}, selection_mode mode = selection_mode::single);
    ~treeview();
    treeview(const treeview&) = delete;
    treeview& operator=(const treeview&) = delete;

    [[nodiscard]] HWND window() const noexcept { return list_.window(); }
    // The list underneath: columns, selection, metrics, scrolling.
    [[nodiscard]] listview::impl::listview<listview::impl::uniform_height>& list() noexcept { return list_; }

    // -- building the tree. New nodes start expanded.
    // Adds a node under `parent` (null: top level), before `before` (a child of the
    // same parent; null: at the end).
    tree_node* insert(tree_node* parent, tree_node* before, node_data data, std::any owner_data = {});
    // Removes the node and its subtree.
    void remove(tree_node* node);
    void clear();
    void update(tree_node* node, node_data data);
    void set_text(tree_node* node, std::wstring text);
    void set_image(tree_node* node, node_image image, std::uint64_t overlay = 0);
    void set_column_text(tree_node* node, std::size_t column, std::wstring text);  // column >= 1
    void set_text_colour(tree_node* node, std::optional<D2D1_COLOR_F> colour);
    void set_row_colour(tree_node* node, std::optional<D2D1_COLOR_F> colour);
    void set_style(tree_node* node, std::shared_ptr<const cell_style> style);
    void set_flags(tree_node* node, std::uint32_t flags);

    // -- expanding and collapsing
    void expand(tree_node* node);
    void collapse(tree_node* node);
    void toggle(tree_node* node);
    void expand_all();
    void collapse_all();

    // Many changes, one repaint (nested calls count).
    void begin_update() noexcept { list_.begin_update(); }
    void end_update() { list_.end_update(); }

    void set_columns(std::vector<column> columns) { list_.set_columns(std::move(columns)); }
    void set_selection_mode(selection_mode mode) { list_.set_selection_mode(mode); }
    void set_vector_icon_names(std::function<std::wstring(std::int64_t)> names)
    {
        list_.set_vector_icon_names(std::move(names));
    }
    // Indent per level and base offset of column 0, in DIPs (defaults 16 and 16: the
    // base offset is where the expander sits).
    void set_indentation(float per_level, float base_offset);
    [[nodiscard]] float indent_per_level() const noexcept { return indent_; }
    [[nodiscard]] float base_offset() const noexcept { return base_offset_; }

    // -- queries
    [[nodiscard]] std::size_t top_level_count() const noexcept { return roots_.size(); }
    [[nodiscard]] tree_node* top_level(std::size_t index) const noexcept { return roots_[index].get(); }
    [[nodiscard]] tree_node* selected_node() const noexcept;  // the first selected
    [[nodiscard]] std::vector<tree_node*> selected_nodes() const;
    [[nodiscard]] tree_node* focused_node() const noexcept;
    [[nodiscard]] tree_node* node_of_row(row_index row) const noexcept;
    // no_row when a collapsed ancestor hides the node.
    [[nodiscard]] row_index row_of_node(const tree_node* node) const noexcept;
    [[nodiscard]] const std::vector<visible_row>& visible_rows() const noexcept { return rows_; }
    [[nodiscard]] static tree_node* node_of(const listview::impl::nm_listview_row& n) noexcept
    {
        return static_cast<tree_node*>(n.item);
    }

    // -- selection and focus by node (the parent is notified as for user actions)
    void select(tree_node* node);
    void set_focus_node(tree_node* node);
    void ensure_visible(tree_node* node);  // expands its ancestors

    // The text of column 0 of a node at a depth, as the cell shows it (without the
    // expander). Throws std::bad_variant_access when the image holds no value.
    [[nodiscard]] std::wstring first_cell_text(const tree_node& node, std::uint32_t depth) const;

private:
    void append_first_cell_text(std::wstring& text, const tree_node& node, std::uint32_t depth) const;
    bool fill_cells(row_index row, std::size_t first_column, std::span<listview::impl::cell> cells,
                    std::optional<D2D1_COLOR_F>& row_colour);
    bool on_key(const listview::impl::key_event& key);
    bool on_click(const listview::impl::row_click& click);
    void paint_expander(const listview::impl::row_paint& paint);
    void hide_children(tree_node* node, row_index row);
    void show_children(tree_node* node, row_index row);
    row_index append_visible(const tree_node* node, std::vector<visible_row>& into) const;
    void row_changed(const tree_node* node);
    void renumber_from(row_index row) const noexcept;
    void set_expanded(tree_node* node, bool expanded);

    listview::impl::listview<listview::impl::uniform_height> list_;
    std::vector<std::unique_ptr<tree_node>> roots_;
    std::vector<visible_row> rows_;
    // Rows below this have a correct row_hint_ in their node.
    mutable row_index numbered_ = 0;
    float indent_ = 16;
    float base_offset_ = 16;
    struct expander_cache;
    std::unique_ptr<expander_cache> expanders_;
};

}  // namespace tessel::windows::new_controls::treeview::impl

namespace tessel::windows::new_controls {
using tree_view = treeview::impl::treeview;
using tree_node = treeview::impl::tree_node;
using list_view = listview::impl::listview<listview::impl::uniform_height>;
}  // namespace tessel::windows::new_controls
