#include "ui_main/local_devices.h"

#include <objbase.h>
#include <shlobj.h>

#include <algorithm>
#include <map>
#include <tuple>

namespace servercfg {
namespace {

struct subtree_state {
    device_node_source& source;
    const walk_options& options;
    device_icon subtree_icon;
};

// The walked node with its name for the window and its class icon, in the walk's order.
local_device_node shown_node(subtree_state& state, walked_node& walked)
{
    device_icon icon;
    if (walked.setup_class) {
        const GUID& cls = *walked.setup_class;
        icon = state.source.class_icon(cls, state.options.icon_size);
        if (!has_icon(state.subtree_icon) && !IsEqualGUID(cls, usb_class_guid) && !IsEqualGUID(cls, hid_class_guid))
            state.subtree_icon = icon;
    }
    local_device_node node{walked.name.empty() ? state.options.unknown_name : std::move(walked.name), std::move(icon),
                           std::move(walked.instance_id), {}};
    node.children.reserve(walked.children.size());
    for (walked_node& child : walked.children)
        node.children.push_back(shown_node(state, child));
    return node;
}

}  // namespace

std::optional<local_device_node> build_local_subtree(device_node_source& source, DWORD devinst,
                                                     std::wstring_view server_name, const walk_options& options)
{
    std::optional<walked_node> walked = walk_local_tree(source, devinst);
    if (!walked)
        return std::nullopt;
    subtree_state state{source, options, {}};
    local_device_node root = shown_node(state, *walked);
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
    std::wstring instance_id(DWORD devinst) override { return system_->instance_id(devinst); }
    std::unique_ptr<opened_device> open(const std::wstring& instance_id) override { return system_->open(instance_id); }
    CONFIGRET get_child(DWORD* child, DWORD node) override { return system_->get_child(child, node); }
    CONFIGRET get_sibling(DWORD* sibling, DWORD node) override { return system_->get_sibling(sibling, node); }
    device_identity identity(const std::wstring& instance_id) override { return system_->identity(instance_id); }

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
    const std::unique_ptr<node_source> system_ = make_system_node_source();
    std::map<std::tuple<unsigned long, unsigned short, unsigned short, std::uint64_t, int>, device_icon> icons_;
};

}  // namespace

std::unique_ptr<device_node_source> make_system_device_source()
{
    return std::make_unique<system_device_source>();
}

}  // namespace servercfg
