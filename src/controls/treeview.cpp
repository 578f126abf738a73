#include "controls/treeview.h"

namespace tessel::windows::new_controls::treeview::impl {

struct treeview::expander_cache {};

treeview::treeview(HWND parent, int control_id, const RECT& rect, selection_mode mode)
    : list_(parent, control_id, rect, treeview_class)
{
    list_.set_selection_mode(mode);
}
treeview::~treeview() = default;

tree_node* treeview::insert(tree_node* parent, tree_node* before, node_data data, std::any owner_data)
{
    auto& siblings = parent ? parent->children_ : roots_;
    auto node = std::make_unique<tree_node>();
    node->data_ = std::move(data);
    node->owner_data = std::move(owner_data);
    node->parent_ = parent;
    node->depth_ = parent ? parent->depth_ + 1 : 0;
    tree_node* result = node.get();
    auto at = siblings.end();
    for (auto i = siblings.begin(); i != siblings.end(); ++i)
        if (i->get() == before)
            at = i;
    siblings.insert(at, std::move(node));
    return result;
}
void treeview::remove(tree_node*) {}
void treeview::clear() { roots_.clear(); rows_.clear(); }
void treeview::update(tree_node* node, node_data data) { node->data_ = std::move(data); }
void treeview::set_text(tree_node* node, std::wstring text) { node->data_.text = std::move(text); }
void treeview::set_image(tree_node* node, node_image image, std::uint64_t overlay)
{
    node->data_.image = std::move(image);
    node->data_.overlay = overlay;
}
void treeview::set_column_text(tree_node*, std::size_t, std::wstring) {}
void treeview::set_text_colour(tree_node*, std::optional<D2D1_COLOR_F>) {}
void treeview::set_row_colour(tree_node*, std::optional<D2D1_COLOR_F>) {}
void treeview::set_style(tree_node*, std::shared_ptr<const cell_style>) {}
void treeview::set_flags(tree_node*, std::uint32_t) {}
void treeview::expand(tree_node*) {}
void treeview::collapse(tree_node*) {}
void treeview::toggle(tree_node*) {}
void treeview::expand_all() {}
void treeview::collapse_all() {}
void treeview::set_indentation(float per_level, float base_offset) { indent_ = per_level; base_offset_ = base_offset; }
tree_node* treeview::selected_node() const noexcept { return nullptr; }
std::vector<tree_node*> treeview::selected_nodes() const { return {}; }
tree_node* treeview::focused_node() const noexcept { return nullptr; }
tree_node* treeview::node_of_row(row_index) const noexcept { return nullptr; }
row_index treeview::row_of_node(const tree_node*) const noexcept { return no_row; }
void treeview::select(tree_node*) {}
void treeview::set_focus_node(tree_node*) {}
void treeview::ensure_visible(tree_node*) {}
std::wstring treeview::first_cell_text(const tree_node& node, std::uint32_t) const { return node.data().text; }

}  // namespace tessel::windows::new_controls::treeview::impl
