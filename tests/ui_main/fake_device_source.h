#pragma once
// A configuration manager over a map, for the device walk and the model built on it.

#include "ui_main/local_devices.h"

#include <setupapi.h>

#include <algorithm>
#include <map>

namespace fake_devices {

using namespace servercfg;

constexpr GUID disk_class = {0x4d36e967, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};
constexpr GUID mouse_class = {0x4d36e96f, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};

struct fake_node {
    fake_node() = default;
    fake_node(std::wstring id_, GUID cls_, std::optional<std::wstring> friendly_, std::optional<std::wstring> description_,
              std::vector<DWORD> children_)
        : id(std::move(id_)), cls(cls_), friendly(std::move(friendly_)), description(std::move(description_)),
          children(std::move(children_))
    {
    }
    std::wstring id;
    GUID cls = usb_class_guid;
    std::optional<std::wstring> friendly;
    std::optional<std::wstring> description;
    std::vector<DWORD> children;
    bool opens = true;
    // The children property, for nodes whose child call writes nothing.
    std::vector<std::wstring> child_ids;
};

// A configuration manager over a map. `wine_child_call` makes CM_Get_Child succeed
// without writing, as Wine's does; `self_child` makes a node its own first child.
class fake_source final : public device_node_source {
public:
    std::map<DWORD, fake_node> nodes;
    bool wine_child_call = false;
    std::map<DWORD, DWORD> forced_child;
    std::map<DWORD, DWORD> forced_sibling;
    int open_sets = 0;
    int opened_total = 0;

    std::wstring instance_id(DWORD devinst) override
    {
        const auto it = nodes.find(devinst);
        return it == nodes.end() ? std::wstring() : it->second.id;
    }

    class opened final : public opened_device {
    public:
        opened(fake_source& owner, const fake_node& node, DWORD devinst) : owner_(owner), node_(node), devinst_(devinst)
        {
            ++owner_.open_sets;
            ++owner_.opened_total;
        }
        ~opened() override { --owner_.open_sets; }
        GUID class_guid() override { return node_.cls; }
        DWORD devinst() override { return devinst_; }
        std::optional<std::wstring> text_property(DWORD property) override
        {
            return property == SPDRP_FRIENDLYNAME ? node_.friendly : node_.description;
        }
        std::vector<std::wstring> child_instance_ids() override { return node_.child_ids; }

    private:
        fake_source& owner_;
        const fake_node& node_;
        DWORD devinst_;
    };

    std::unique_ptr<opened_device> open(const std::wstring& id) override
    {
        for (const auto& [devinst, node] : nodes)
            if (node.id == id && node.opens)
                return std::make_unique<opened>(*this, node, devinst);
        return nullptr;
    }

    CONFIGRET get_child(DWORD* child, DWORD node) override
    {
        if (const auto forced = forced_child.find(node); forced != forced_child.end()) {
            *child = forced->second;
            return CR_SUCCESS;
        }
        if (wine_child_call)
            return CR_SUCCESS;  // and writes nothing
        const auto it = nodes.find(node);
        if (it == nodes.end() || it->second.children.empty())
            return CR_NO_SUCH_DEVNODE;
        *child = it->second.children.front();
        return CR_SUCCESS;
    }

    CONFIGRET get_sibling(DWORD* sibling, DWORD node) override
    {
        if (const auto forced = forced_sibling.find(node); forced != forced_sibling.end()) {
            *sibling = forced->second;
            return CR_SUCCESS;
        }
        for (const auto& [devinst, parent] : nodes) {
            const auto& c = parent.children;
            for (std::size_t i = 0; i + 1 < c.size(); ++i)
                if (c[i] == node) {
                    *sibling = c[i + 1];
                    return CR_SUCCESS;
                }
        }
        return CR_NO_SUCH_DEVNODE;
    }

    // Vector icons stand for class icons: the GUID's first field, or none for HID.
    device_icon class_icon(const GUID& cls, int) override
    {
        if (IsEqualGUID(cls, hid_class_guid))
            return {};
        return std::uint32_t(cls.Data1);
    }
};

}  // namespace fake_devices
