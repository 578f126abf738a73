// The local device walk over given trees: names, icons, the subtree-icon rule, the Wine
// behaviour that must not make it loop, and the fallback to the children property.

#include "fake_device_source.h"
#include "ui_main/local_devices.h"

#include <gtest/gtest.h>

#include <setupapi.h>

#include <map>

namespace {

using namespace servercfg;
using namespace fake_devices;

std::uint32_t icon_of(const device_icon& icon)
{
    return std::holds_alternative<std::uint32_t>(icon) ? std::get<std::uint32_t>(icon) : 0;
}

// A hub with a mouse (HID function with a mouse below) and a storage device below it.
fake_source hub_with_mouse_and_storage()
{
    fake_source source;
    source.nodes[1] = {L"USB\\HUB\\1", usb_class_guid, std::nullopt, L"Generic USB Hub", {2, 4}};
    source.nodes[2] = {L"USB\\MOUSE\\1", hid_class_guid, std::nullopt, L"USB Input Device", {3}};
    source.nodes[3] = {L"HID\\MOUSE\\1", mouse_class, L"Tern Optical Mouse", L"HID-compliant mouse", {}};
    source.nodes[4] = {L"USB\\DISK\\1", disk_class, std::nullopt, L"USB Mass Storage Device", {}};
    return source;
}

TEST(local_device_walk, names_fall_back_from_friendly_name_to_description_to_unknown_and_the_root_takes_the_server_name)
{
    fake_source source;
    source.nodes[10] = {L"ROOT\\A", disk_class, L"Friendly", L"Description", {11, 12, 13}};
    source.nodes[11] = {L"ROOT\\B", disk_class, std::nullopt, L"Only a description", {}};
    source.nodes[12] = {L"ROOT\\C", disk_class, L"", std::nullopt, {}};
    source.nodes[13] = {L"ROOT\\D", disk_class, std::nullopt, std::nullopt, {}};

    const auto root = build_local_subtree(source, 10, L"Server's name", {16, L"Unbekanntes Gerät"});
    ASSERT_TRUE(root);
    EXPECT_EQ(root->name, L"Server's name");
    ASSERT_EQ(root->children.size(), 3u);
    EXPECT_EQ(root->children[0].name, L"Only a description");
    EXPECT_EQ(root->children[1].name, L"Unbekanntes Gerät") << "an empty friendly name counts as none";
    EXPECT_EQ(root->children[2].name, L"Unbekanntes Gerät");
    EXPECT_EQ(source.open_sets, 0) << "every device information set is closed again";
}

TEST(local_device_walk, the_row_icon_is_the_first_device_that_is_neither_usb_nor_hid_while_each_node_keeps_its_own)
{
    fake_source source = hub_with_mouse_and_storage();
    auto root = build_local_subtree(source, 1, L"Hub", {});
    ASSERT_TRUE(root);
    // Pre-order: hub (usb), input device (hid), mouse, storage: the mouse comes first.
    EXPECT_EQ(icon_of(root->icon), mouse_class.Data1);
    ASSERT_EQ(root->children.size(), 2u);
    EXPECT_FALSE(has_icon(root->children[0].icon)) << "the HID node has no class icon of its own here";
    EXPECT_EQ(icon_of(root->children[0].children[0].icon), mouse_class.Data1);
    EXPECT_EQ(icon_of(root->children[1].icon), disk_class.Data1);

    // Storage first in configuration-manager order: the storage icon, never the hub's.
    source.nodes[1].children = {4, 2};
    root = build_local_subtree(source, 1, L"Hub", {});
    EXPECT_EQ(icon_of(root->icon), disk_class.Data1);

    // Only USB and HID below: the root keeps the hub's own class icon.
    source.nodes[1].children = {2};
    source.nodes[2].children = {};
    root = build_local_subtree(source, 1, L"Hub", {});
    EXPECT_EQ(icon_of(root->icon), usb_class_guid.Data1);
}

TEST(local_device_walk, never_loops_on_a_child_call_that_writes_nothing_a_self_child_or_a_sibling_cycle)
{
    fake_source source = hub_with_mouse_and_storage();
    source.wine_child_call = true;
    auto root = build_local_subtree(source, 1, L"Hub", {});
    ASSERT_TRUE(root);
    EXPECT_TRUE(root->children.empty()) << "without a children list nothing is below";

    source.wine_child_call = false;
    source.forced_child[4] = 4;  // the storage device names itself as its child
    source.forced_child[3] = 1;  // the mouse names the hub, its ancestor
    source.forced_sibling[4] = 2;  // and the storage device's sibling turns back
    root = build_local_subtree(source, 1, L"Hub", {});
    ASSERT_TRUE(root);
    ASSERT_EQ(root->children.size(), 2u);
    EXPECT_TRUE(root->children[1].children.empty());
    EXPECT_TRUE(root->children[0].children[0].children.empty());
}

TEST(local_device_walk, reads_the_children_property_only_when_the_child_call_wrote_nothing)
{
    fake_source source = hub_with_mouse_and_storage();
    source.wine_child_call = true;
    source.nodes[1].child_ids = {L"USB\\DISK\\1", L"USB\\MOUSE\\1", L"NO\\SUCH\\DEVICE", L"USB\\HUB\\1"};
    source.nodes[2].child_ids = {L"HID\\MOUSE\\1"};
    const auto root = build_local_subtree(source, 1, L"Hub", {});
    ASSERT_TRUE(root);
    ASSERT_EQ(root->children.size(), 2u) << "unknown ids and the node itself are left out";
    EXPECT_EQ(root->children[0].name, L"USB Mass Storage Device");
    EXPECT_EQ(root->children[1].children.at(0).name, L"Tern Optical Mouse");
    EXPECT_EQ(icon_of(root->icon), disk_class.Data1);

    // A real child answer wins; the property is not consulted.
    source.wine_child_call = false;
    source.nodes[1].children = {4};
    EXPECT_EQ(build_local_subtree(source, 1, L"Hub", {})->children.size(), 1u);
}

TEST(local_device_walk, a_node_without_id_is_left_out_with_its_siblings_walked_and_one_that_cannot_be_opened_is_unknown)
{
    fake_source source = hub_with_mouse_and_storage();
    EXPECT_FALSE(build_local_subtree(source, 99, L"Gone", {}));

    source.nodes[2].opens = false;
    const auto root = build_local_subtree(source, 1, L"Hub", {16, L"Unknown device"});
    ASSERT_TRUE(root);
    EXPECT_EQ(root->children[0].name, L"Unknown device");
    EXPECT_FALSE(has_icon(root->children[0].icon));
    ASSERT_EQ(root->children[0].children.size(), 1u);
    EXPECT_EQ(root->children[0].children[0].name, L"Tern Optical Mouse");

    // A child whose ID cannot be read is left out; its siblings are still walked.
    source.nodes[1].children = {5, 2, 4};
    EXPECT_EQ(build_local_subtree(source, 1, L"Hub", {})->children.size(), 2u);
}

TEST(local_device_walk, icon_paths_split_into_exactly_a_path_and_a_signed_decimal_index)
{
    const auto good = split_icon_path(L"%SystemRoot%\\System32\\setupapi.dll,-20");
    ASSERT_TRUE(good);
    EXPECT_EQ(good->path, L"%SystemRoot%\\System32\\setupapi.dll");
    EXPECT_EQ(good->index, -20);
    EXPECT_EQ(split_icon_path(L"C:\\icons.dll,7")->index, 7);
    EXPECT_FALSE(split_icon_path(L"C:\\icons.dll"));
    EXPECT_FALSE(split_icon_path(L"C:\\icons.dll,1,2"));
    EXPECT_FALSE(split_icon_path(L"C:\\icons.dll,"));
    EXPECT_FALSE(split_icon_path(L"C:\\icons.dll,-"));
    EXPECT_FALSE(split_icon_path(L"C:\\icons.dll,x1"));
}

}  // namespace
