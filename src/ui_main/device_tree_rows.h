#pragma once
// The device model's rows on the toolkit's tree view: a top-level node per device, the
// local subtree below it, the icons kept alive by the nodes that show them. A cell with a
// tooltip is wrapped in an "H" range that carries it ("[[[H#[tip]#cell]]]"): the list
// shows it over the text and gives it to screen readers as the row's description.

#include "controls/treeview.h"
#include "ui_main/device_model.h"

#include <string>

namespace servercfg {

// The cell's markup with a tooltip; the markup alone when the tip is empty.
[[nodiscard]] std::wstring with_tooltip(std::wstring_view markup, std::wstring_view tip);

// What the main window keeps with every node of its tree.
struct device_node_info {
    // The node's icon, held for as long as the node shows it.
    device_icon icon;
    // What "Copy device ID" copies; empty when the walk found no node.
    std::wstring instance_id;
    bool top_level = false;
};

class device_tree_rows final : public device_rows {
public:
    explicit device_tree_rows(tessel::windows::new_controls::tree_view& tree) : tree_(tree) {}

    void suspend_redraw() override { tree_.begin_update(); }
    void resume_redraw() override { tree_.end_update(); }
    void clear() override { tree_.clear(); }
    row_handle insert_row(row_handle before, const device_row& row, const local_device_node* subtree) override;
    void update_row(row_handle row, const device_row& data) override;
    void replace_children(row_handle row, const local_device_node* subtree) override;
    // The tooltip of a child row: {0} its instance ID. Empty: child rows have none.
    void set_child_tip_format(std::wstring format) { child_tip_format_ = std::move(format); }
    void remove_row(row_handle row) override;
    void set_collapsed(row_handle row, bool collapsed) override;
    [[nodiscard]] bool collapsed(row_handle row) const override;

    // The info of a node of the tree, or null.
    [[nodiscard]] static const device_node_info* info_of(const tessel::windows::new_controls::tree_node* node) noexcept;
    // The top-level node above a node (or the node itself).
    [[nodiscard]] static tessel::windows::new_controls::tree_node* top_level_of(
        tessel::windows::new_controls::tree_node* node) noexcept;

private:
    void insert_children(tessel::windows::new_controls::tree_node* parent, const local_device_node& node);

    tessel::windows::new_controls::tree_view& tree_;
    std::wstring child_tip_format_;
};

}  // namespace servercfg
