#include "ui_main/device_tree_rows.h"

#include "format/ts_printf.h"

namespace servercfg {
namespace {

namespace tv = tessel::windows::new_controls::treeview::impl;

tv::node_image image_of(const device_icon& icon)
{
    if (const auto* vector = std::get_if<std::uint32_t>(&icon))
        return tv::vector_image{*vector};
    if (const auto* raster = std::get_if<shared_icon>(&icon); raster && *raster && (*raster)->get())
        return tv::raster_image{(*raster)->get()};
    return tv::no_image{};
}

tv::node_data top_level_data(const device_row& row)
{
    tv::node_data data;
    data.text = with_tooltip(row.name, row.name_tip);
    data.image = image_of(row.icon);
    data.column_texts = {with_tooltip(row.share, row.share_tip), with_tooltip(row.client, row.client_tip), row.key};
    data.flags = row.disconnected ? tv::node_dimmed : 0;
    return data;
}

}  // namespace

std::wstring with_tooltip(std::wstring_view markup, std::wstring_view tip)
{
    if (tip.empty())
        return std::wstring(markup);
    std::wstring text = L"[[[H#[";
    // "]#" would end the tip early.
    for (std::size_t i = 0; i < tip.size(); ++i) {
        text += tip[i];
        if (tip[i] == L']' && i + 1 < tip.size() && tip[i + 1] == L'#')
            text += L' ';
    }
    text += L"]#";
    text += markup;
    text += L"]]]";
    return text;
}

device_rows::row_handle device_tree_rows::insert_row(row_handle before, const device_row& row,
                                                     const local_device_node* subtree)
{
    device_node_info info{row.icon, subtree ? subtree->instance_id : std::wstring(), true};
    tv::tree_node* node = tree_.insert(nullptr, static_cast<tv::tree_node*>(before), top_level_data(row), std::move(info));
    if (subtree)
        insert_children(node, *subtree);
    return node;
}

void device_tree_rows::insert_children(tv::tree_node* parent, const local_device_node& node)
{
    for (const local_device_node& child : node.children) {
        tv::node_data data;
        data.text = with_tooltip(child_row_text(child.name),
                                 child_tip_format_.empty() || child.instance_id.empty()
                                     ? std::wstring()
                                     : ts_printf::format(child_tip_format_, child.instance_id));
        data.image = image_of(child.icon);
        tv::tree_node* inserted =
            tree_.insert(parent, nullptr, std::move(data), device_node_info{child.icon, child.instance_id, false});
        insert_children(inserted, child);
    }
}

void device_tree_rows::update_row(row_handle row, const device_row& data)
{
    auto* node = static_cast<tv::tree_node*>(row);
    if (auto* info = std::any_cast<device_node_info>(&node->owner_data))
        info->icon = data.icon;
    tree_.update(node, top_level_data(data));
}

void device_tree_rows::replace_children(row_handle row, const local_device_node* subtree)
{
    auto* node = static_cast<tv::tree_node*>(row);
    tree_.begin_update();
    while (node->child_count() > 0)
        tree_.remove(node->child(node->child_count() - 1));
    if (auto* info = std::any_cast<device_node_info>(&node->owner_data))
        info->instance_id = subtree ? subtree->instance_id : std::wstring();
    if (subtree)
        insert_children(node, *subtree);
    tree_.end_update();
}

void device_tree_rows::remove_row(row_handle row)
{
    tree_.remove(static_cast<tv::tree_node*>(row));
}

void device_tree_rows::set_collapsed(row_handle row, bool collapsed)
{
    auto* node = static_cast<tv::tree_node*>(row);
    if (collapsed)
        tree_.collapse(node);
    else
        tree_.expand(node);
}

bool device_tree_rows::collapsed(row_handle row) const
{
    return !static_cast<const tv::tree_node*>(row)->expanded();
}

const device_node_info* device_tree_rows::info_of(const tv::tree_node* node) noexcept
{
    return node ? std::any_cast<device_node_info>(&node->owner_data) : nullptr;
}

tv::tree_node* device_tree_rows::top_level_of(tv::tree_node* node) noexcept
{
    while (node && node->parent())
        node = node->parent();
    return node;
}

}  // namespace servercfg
