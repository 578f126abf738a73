#include "ui_main/local_devices.h"

#include "server_link/device_identity.h"
#include "server_link/local_nodes.h"

#include <devpropdef.h>
#include <objbase.h>
#include <setupapi.h>
#include <shlobj.h>

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

namespace servercfg {
namespace {

constexpr DWORD name_buffer_bytes = 512;

struct walk_state {
    device_node_source& source;
    const walk_options& options;
    device_icon subtree_icon;
    // Every node seen in this walk, by instance ID: a node met again (a child that is its
    // own parent, an ancestor, a sibling chain that turns back) ends that branch. IDs,
    // not handles: Wine hands out a new handle each time a device is opened.
    std::set<std::wstring, std::less<>> visited;
};

std::wstring display_name(opened_device* device, const std::wstring& unknown_name)
{
    std::optional<std::wstring> name;
    if (device) {
        name = device->text_property(SPDRP_FRIENDLYNAME);
        if (!name)
            name = device->text_property(SPDRP_DEVICEDESC);
    }
    return name && !name->empty() ? std::move(*name) : unknown_name;
}

// devinst: the node's handle when the configuration manager named it; without one the
// node comes from a children list, and one that cannot be opened is a stale entry.
void walk_id(walk_state& state, const std::wstring& id, std::optional<DWORD> devinst,
             std::vector<local_device_node>& parent_list);

// The node with this handle; nothing when its ID cannot be read.
void walk(walk_state& state, DWORD node, std::vector<local_device_node>& parent_list)
{
    const std::wstring id = state.source.instance_id(node);
    if (!id.empty())
        walk_id(state, id, node, parent_list);
}

void walk_id(walk_state& state, const std::wstring& id, std::optional<DWORD> devinst,
             std::vector<local_device_node>& parent_list)
{
    if (!state.visited.insert(id).second)
        return;
    // Held open while the children are walked; one set per node, closed on the way out.
    const std::unique_ptr<opened_device> device = state.source.open(id);
    if (!device && !devinst)
        return;

    device_icon icon;
    if (device) {
        const GUID cls = device->class_guid();
        icon = state.source.class_icon(cls, state.options.icon_size);
        if (!has_icon(state.subtree_icon) && !IsEqualGUID(cls, usb_class_guid) && !IsEqualGUID(cls, hid_class_guid))
            state.subtree_icon = icon;
        if (!devinst)
            devinst = device->devinst();
    }
    local_device_node& self =
        parent_list.emplace_back(local_device_node{display_name(device.get(), state.options.unknown_name), icon, id, {}});
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
                walk_id(state, child_id, child, self.children);
            DWORD next = child;
            if (state.source.get_sibling(&next, child) != CR_SUCCESS || next == child)
                break;
            child = next;
        }
    } else if (first == CR_SUCCESS && device) {
        // The configuration manager could not say; the device's own list of children can.
        // On Windows the two agree, and this path is not taken there.
        for (const std::wstring& child_id : device->child_instance_ids())
            walk_id(state, child_id, std::nullopt, self.children);
    }
}

}  // namespace

std::optional<local_device_node> build_local_subtree(device_node_source& source, DWORD devinst,
                                                     std::wstring_view server_name, const walk_options& options)
{
    walk_state state{source, options, {}, {}};
    std::vector<local_device_node> roots;
    walk(state, devinst, roots);
    if (roots.empty())
        return std::nullopt;
    local_device_node root = std::move(roots.front());
    root.name.assign(server_name);
    if (has_icon(state.subtree_icon))
        root.icon = state.subtree_icon;
    return root;
}

std::optional<icon_location> split_icon_path(std::wstring_view text)
{
    const size_t comma = text.find(L',');
    if (comma == std::wstring_view::npos || text.find(L',', comma + 1) != std::wstring_view::npos)
        return std::nullopt;
    std::wstring_view number = text.substr(comma + 1);
    const bool negative = number.starts_with(L'-');
    if (negative)
        number.remove_prefix(1);
    if (number.empty() || number.size() > 9 || number.find_first_not_of(L"0123456789") != std::wstring_view::npos)
        return std::nullopt;
    int index = 0;
    for (const wchar_t c : number)
        index = index * 10 + (c - L'0');
    return icon_location{std::wstring(text.substr(0, comma)), negative ? -index : index};
}

namespace {

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

std::optional<std::pair<unique_hdevinfo, SP_DEVINFO_DATA>> open_device_info(const std::wstring& instance_id)
{
    unique_hdevinfo set(::SetupDiCreateDeviceInfoList(nullptr, nullptr));
    if (!set)
        return std::nullopt;
    SP_DEVINFO_DATA data{};
    data.cbSize = sizeof data;
    static_assert(sizeof(SP_DEVINFO_DATA) == 32);
    if (!::SetupDiOpenDeviceInfoW(set.get(), instance_id.c_str(), nullptr, 0, &data))
        return std::nullopt;
    return std::make_pair(std::move(set), data);
}

std::optional<std::wstring> read_icon_path(const GUID& class_guid)
{
    wchar_t guid_text[39]{};
    if (::StringFromGUID2(class_guid, guid_text, 39) != 39)
        return std::nullopt;
    const std::wstring key = std::wstring(L"SYSTEM\\CurrentControlSet\\Control\\Class\\") + guid_text;
    DWORD size = 0;
    constexpr DWORD any_text = RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_RT_REG_MULTI_SZ | RRF_NOEXPAND;
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"IconPath", any_text, nullptr, nullptr, &size) !=
            ERROR_SUCCESS ||
        size < sizeof(wchar_t))
        return std::nullopt;
    std::wstring text(size / sizeof(wchar_t) + 1, L'\0');
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"IconPath", any_text, nullptr, text.data(), &size) !=
        ERROR_SUCCESS)
        return std::nullopt;
    text.resize(std::wcslen(text.c_str()));  // a multi-string's first entry
    return text;
}

std::wstring expand_environment(const std::wstring& text)
{
    const DWORD needed = ::ExpandEnvironmentStringsW(text.c_str(), nullptr, 0);
    if (needed == 0)
        return text;
    std::wstring expanded(needed, L'\0');
    if (::ExpandEnvironmentStringsW(text.c_str(), expanded.data(), needed) == 0)
        return text;
    expanded.resize(std::wcslen(expanded.c_str()));
    return expanded;
}

class system_device_source final : public device_node_source {
public:
    std::wstring instance_id(DWORD devinst) override { return instance_id_of(devinst); }

    std::unique_ptr<opened_device> open(const std::wstring& instance_id) override
    {
        auto opened = open_device_info(instance_id);
        if (!opened)
            return nullptr;
        return std::make_unique<system_opened_device>(std::move(opened->first), opened->second);
    }

    CONFIGRET get_child(DWORD* child, DWORD node) override { return ::CM_Get_Child(child, node, 0); }
    CONFIGRET get_sibling(DWORD* sibling, DWORD node) override { return ::CM_Get_Sibling(sibling, node, 0); }

    device_identity identity(const std::wstring& instance_id) override { return read_node_identity(instance_id); }

    device_icon class_icon(const GUID& class_guid, int icon_size) override
    {
        const auto key = std::make_tuple(class_guid.Data1, class_guid.Data2, class_guid.Data3,
                                         *reinterpret_cast<const std::uint64_t*>(class_guid.Data4), icon_size);
        if (const auto found = icons_.find(key); found != icons_.end())
            return found->second;
        device_icon icon;
        if (const auto text = read_icon_path(class_guid))
            if (const auto location = split_icon_path(*text)) {
                HICON large = nullptr;
                const std::wstring path = expand_environment(location->path);
                if (::SHDefExtractIconW(path.c_str(), location->index, 0, &large, nullptr,
                                                  static_cast<UINT>(icon_size)) == S_OK &&
                    large)
                    icon = std::make_shared<const tessel::unique_hicon>(large);
            }
        icons_.emplace(key, icon);
        return icon;
    }

private:
    std::map<std::tuple<unsigned long, unsigned short, unsigned short, std::uint64_t, int>, device_icon> icons_;
};

}  // namespace

std::unique_ptr<device_node_source> make_system_device_source()
{
    return std::make_unique<system_device_source>();
}

}  // namespace servercfg
