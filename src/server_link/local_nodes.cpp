#include "server_link/local_nodes.h"

#include <devpropdef.h>

#include <set>

namespace servercfg {
namespace {

// Deeper than any real USB tree (seven tiers of hubs): a tree that goes on is a loop the
// visited set did not catch.
constexpr int max_depth = 32;

constexpr DWORD name_buffer_bytes = 512;

class system_opened_device final : public opened_device {
public:
    system_opened_device(unique_hdevinfo set, SP_DEVINFO_DATA data) : set_(std::move(set)), data_(data) {}

    GUID class_guid() override { return data_.ClassGuid; }
    DWORD devinst() override { return data_.DevInst; }

    std::optional<std::wstring> text_property(DWORD property) override
    {
        wchar_t buffer[name_buffer_bytes / sizeof(wchar_t)]{};
        if (!::SetupDiGetDeviceRegistryPropertyW(set_.get(), &data_, property, nullptr,
                                                 reinterpret_cast<BYTE*>(buffer), name_buffer_bytes, nullptr))
            return std::nullopt;
        buffer[std::size(buffer) - 1] = L'\0';
        return std::wstring(buffer);
    }

    std::vector<std::wstring> child_instance_ids() override { return listed_child_ids(set_.get(), data_); }

private:
    unique_hdevinfo set_;
    SP_DEVINFO_DATA data_;
};

class system_node_source final : public node_source {
public:
    std::wstring instance_id(DWORD devinst) override { return instance_id_of(devinst); }

    std::unique_ptr<opened_device> open(const std::wstring& instance_id) override
    {
        unique_hdevinfo set(::SetupDiCreateDeviceInfoList(nullptr, nullptr));
        if (!set)
            return nullptr;
        SP_DEVINFO_DATA data{};
        data.cbSize = sizeof data;
        if (!::SetupDiOpenDeviceInfoW(set.get(), instance_id.c_str(), nullptr, 0, &data))
            return nullptr;
        return std::make_unique<system_opened_device>(std::move(set), data);
    }

    CONFIGRET get_child(DWORD* child, DWORD node) override { return ::CM_Get_Child(child, node, 0); }
    CONFIGRET get_sibling(DWORD* sibling, DWORD node) override { return ::CM_Get_Sibling(sibling, node, 0); }

    device_identity identity(const std::wstring& instance_id) override { return read_node_identity(instance_id); }
};

std::wstring display_name(opened_device& device)
{
    for (const DWORD property : {SPDRP_FRIENDLYNAME, SPDRP_DEVICEDESC})
        if (std::optional<std::wstring> name = device.text_property(property); name && !name->empty())
            return std::move(*name);
    return {};
}

struct walk_state {
    node_source& source;
    // Every node seen in this walk, by instance ID: a node met again (a child that is its
    // own parent, an ancestor, a sibling chain that turns back) ends that branch. IDs,
    // not handles: Wine hands out a new handle each time a device is opened.
    std::set<std::wstring, std::less<>> visited;
};

// devinst: the node's handle when the configuration manager named it; without one the
// node comes from a children list, and one that cannot be opened is a stale entry.
void walk_id(walk_state& state, const std::wstring& id, std::optional<DWORD> devinst,
             std::vector<walked_node>& parent_list, int depth)
{
    if (depth > max_depth || !state.visited.insert(id).second)
        return;
    // Held open while the children are walked; one set per node, closed on the way out.
    const std::unique_ptr<opened_device> device = state.source.open(id);
    if (!device && !devinst)
        return;

    walked_node& self = parent_list.emplace_back(walked_node{id, {}, {}, {}});
    if (device) {
        self.name = display_name(*device);
        self.setup_class = device->class_guid();
        if (!devinst)
            devinst = device->devinst();
    }
    if (!devinst)
        return;
    const DWORD node = *devinst;

    // The value before the call is the node itself, so a call that succeeds without
    // writing (Wine) is told apart from one that names a real child.
    DWORD child = node;
    const CONFIGRET first = state.source.get_child(&child, node);
    if (first == CR_SUCCESS && child != node) {
        // Children whose ID cannot be read, by handle: they have no ID to remember.
        std::set<DWORD> unreadable;
        for (;;) {
            // A child whose ID cannot be read makes no node, but its siblings still do; one
            // met before means the sibling chain turned back on itself.
            const std::wstring child_id = state.source.instance_id(child);
            if (child_id.empty() ? !unreadable.insert(child).second : state.visited.contains(child_id))
                break;
            if (!child_id.empty())
                walk_id(state, child_id, child, self.children, depth + 1);
            DWORD next = child;
            if (state.source.get_sibling(&next, child) != CR_SUCCESS || next == child)
                break;
            child = next;
        }
    } else if (first == CR_SUCCESS && device) {
        // The configuration manager could not say; the device's own list of children can.
        // On Windows the two agree, and this path is not taken there.
        for (const std::wstring& child_id : device->child_instance_ids())
            walk_id(state, child_id, std::nullopt, self.children, depth + 1);
    }
}

std::optional<walked_node> only_root(std::vector<walked_node>& roots)
{
    if (roots.empty())
        return std::nullopt;
    return std::move(roots.front());
}

local_node console_node(walked_node& walked, node_source& source)
{
    local_node node{std::move(walked.name), source.identity(walked.instance_id), {}};
    node.children.reserve(walked.children.size());
    for (walked_node& child : walked.children)
        node.children.push_back(console_node(child, source));
    return node;
}

}  // namespace

std::unique_ptr<node_source> make_system_node_source()
{
    return std::make_unique<system_node_source>();
}

std::optional<walked_node> walk_local_tree(node_source& source, DWORD devinst)
{
    const std::wstring id = source.instance_id(devinst);
    if (id.empty())
        return std::nullopt;
    walk_state state{source, {}};
    std::vector<walked_node> roots;
    walk_id(state, id, devinst, roots, 0);
    return only_root(roots);
}

std::optional<walked_node> walk_local_tree(node_source& source, const std::wstring& instance_id)
{
    if (instance_id.empty())
        return std::nullopt;
    walk_state state{source, {}};
    std::vector<walked_node> roots;
    walk_id(state, instance_id, std::nullopt, roots, 0);
    return only_root(roots);
}

std::vector<std::wstring> listed_child_ids(HDEVINFO set, SP_DEVINFO_DATA& data)
{
    // DEVPKEY_Device_Children, spelt out: through the headers its definition depends on the
    // order in which they were included, and a wrong one links silently.
    static constexpr DEVPROPKEY children_key = {{0x4340a6c5, 0x93fa, 0x4706, {0x97, 0x2c, 0x7b, 0x64, 0x80, 0x08, 0xa5, 0xa7}}, 9};
    DEVPROPTYPE type = 0;
    DWORD size = 0;
    ::SetupDiGetDevicePropertyW(set, &data, &children_key, &type, nullptr, 0, &size, 0);
    if (size < sizeof(wchar_t) || size > 64 * 1024)
        return {};
    std::wstring units(size / sizeof(wchar_t) + 1, L'\0');
    if (!::SetupDiGetDevicePropertyW(set, &data, &children_key, &type, reinterpret_cast<BYTE*>(units.data()), size,
                                     nullptr, 0) ||
        type != DEVPROP_TYPE_STRING_LIST)
        return {};
    return split_multi_string(units);
}

std::vector<std::wstring> split_multi_string(std::wstring_view units)
{
    std::vector<std::wstring> parts;
    for (std::size_t at = 0; at < units.size() && units[at] != L'\0';) {
        const std::size_t end = units.find(L'\0', at);
        parts.emplace_back(units.substr(at, end - at));
        at = end == std::wstring_view::npos ? units.size() : end + 1;
    }
    return parts;
}

std::vector<local_node> read_local_children(const std::wstring& instance_id)
{
    const std::unique_ptr<node_source> source = make_system_node_source();
    std::optional<walked_node> root = walk_local_tree(*source, instance_id);
    std::vector<local_node> children;
    if (root)
        for (walked_node& child : root->children)
            children.push_back(console_node(child, *source));
    return children;
}

}  // namespace servercfg
