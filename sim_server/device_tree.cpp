#include "device_tree.h"

#include "base/failure.h"

#include <cfgmgr32.h>
#include <devpropdef.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cwchar>
#include <iterator>

extern "C" IMAGE_DOS_HEADER __ImageBase;


namespace sim_server {
namespace {

// DEVPKEY_Device_Children, spelt out: through the headers its definition depends on the
// order in which they were included, and a wrong one links silently.
constexpr DEVPROPKEY device_children_key = {{0x4340a6c5, 0x93fa, 0x4706, {0x97, 0x2c, 0x7b, 0x64, 0x80, 0x08, 0xa5, 0xa7}}, 9};

// The root-enumerator name the nodes get ("ROOT\ULMORA_SIM_DEVICE\0000"...).
constexpr wchar_t node_base_name[] = L"ULMORA_SIM_DEVICE";

// ICON resources of this DLL (sim_icons.rc), by the classes they stand for.
constexpr int usb_icon = 101;
constexpr int storage_icon = 102;
constexpr int input_icon = 103;
constexpr int generic_icon = 104;

void set_text_property(HDEVINFO set, SP_DEVINFO_DATA& data, DWORD property, const std::wstring& text)
{
    tessel::throw_last_error_if(!::SetupDiSetDeviceRegistryPropertyW(
        set, &data, property, reinterpret_cast<const BYTE*>(text.c_str()),
        static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))));
}

void set_multi_text_property(HDEVINFO set, SP_DEVINFO_DATA& data, DWORD property, const std::vector<std::wstring>& texts)
{
    std::wstring units;
    for (const std::wstring& text : texts) {
        units += text;
        units.push_back(L'\0');
    }
    units.push_back(L'\0');
    tessel::throw_last_error_if(!::SetupDiSetDeviceRegistryPropertyW(
        set, &data, property, reinterpret_cast<const BYTE*>(units.data()),
        static_cast<DWORD>(units.size() * sizeof(wchar_t))));
}

std::uint64_t to_uint64(const FILETIME& t) noexcept
{
    return (std::uint64_t{t.dwHighDateTime} << 32) | t.dwLowDateTime;
}

// This process's ID and start time: what a node records as its owner.
std::array<std::uint64_t, 2> this_process_as_owner() noexcept
{
    FILETIME created{}, exited{}, kernel{}, user{};
    ::GetProcessTimes(::GetCurrentProcess(), &created, &exited, &kernel, &user);
    return {::GetCurrentProcessId(), to_uint64(created)};
}

// False once the process has ended, or its ID belongs to a later process.
bool owner_is_alive(const std::array<std::uint64_t, 2>& owner) noexcept
{
    const tessel::unique_handle process(
        ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(owner[0])));
    if (!process)
        return ::GetLastError() == ERROR_ACCESS_DENIED;  // one we may not look at is running
    DWORD code = 0;
    FILETIME created{}, exited{}, kernel{}, user{};
    if (::GetExitCodeProcess(process.get(), &code) && code != STILL_ACTIVE)
        return false;
    return !::GetProcessTimes(process.get(), &created, &exited, &kernel, &user) || to_uint64(created) == owner[1];
}

// Removes the node with this ID when a substitute server made it and its process has
// ended. Nodes of live servers, and nodes nobody marked, stay.
bool remove_abandoned_node(const std::wstring& instance_id) noexcept
{
    const unique_hdevinfo set(::SetupDiCreateDeviceInfoList(nullptr, nullptr));
    SP_DEVINFO_DATA data{};
    data.cbSize = sizeof data;
    if (!set || !::SetupDiOpenDeviceInfoW(set.get(), instance_id.c_str(), nullptr, 0, &data))
        return false;
    std::array<std::uint64_t, 2> owner{};
    DEVPROPTYPE type = 0;
    DWORD size = 0;
    if (!::SetupDiGetDevicePropertyW(set.get(), &data, &node_owner_key, &type, reinterpret_cast<BYTE*>(owner.data()),
                                     sizeof owner, &size, 0) ||
        type != DEVPROP_TYPE_BINARY || size != sizeof owner || owner_is_alive(owner))
        return false;
    return ::SetupDiRemoveDevice(set.get(), &data) != FALSE;
}

std::wstring guid_text(const GUID& guid)
{
    wchar_t text[39]{};
    ::StringFromGUID2(guid, text, 39);
    return text;
}

int icon_for_class(const GUID& class_guid)
{
    const std::wstring text = guid_text(class_guid);
    const auto is = [&](const wchar_t* guid) { return _wcsicmp(text.c_str(), guid) == 0; };
    if (is(L"{36FC9E60-C465-11CF-8056-444553540000}"))
        return usb_icon;
    if (is(L"{4D36E967-E325-11CE-BFC1-08002BE10318}"))
        return storage_icon;
    if (is(L"{745A17A0-74D3-11D0-B6FE-00A0C90F57DA}") || is(L"{4D36E96B-E325-11CE-BFC1-08002BE10318}") ||
        is(L"{4D36E96F-E325-11CE-BFC1-08002BE10318}"))
        return input_icon;
    return generic_icon;
}

// Gives a class without "IconPath" one of this DLL's icons ("<dll>,-<id>", as a multi-string).
void ensure_class_icon(const GUID& class_guid) noexcept
{
    const std::wstring key = L"SYSTEM\\CurrentControlSet\\Control\\Class\\" + guid_text(class_guid);
    DWORD size = 0;
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"IconPath", RRF_RT_ANY, nullptr, nullptr, &size) ==
        ERROR_SUCCESS)
        return;
    // The server also runs linked into test and fuzz executables, which carry no icons: a
    // path to them would stay in the class key and hide the DLL's icons from later runs.
    const auto self = reinterpret_cast<HMODULE>(&__ImageBase);
    const int icon = icon_for_class(class_guid);
    if (!::FindResourceW(self, MAKEINTRESOURCEW(icon), RT_GROUP_ICON))
        return;
    wchar_t module[MAX_PATH]{};
    if (!::GetModuleFileNameW(self, module, MAX_PATH))
        return;
    std::wstring value = std::wstring(module) + L",-" + std::to_wstring(icon);
    value.push_back(L'\0');
    HKEY handle = nullptr;
    if (::RegCreateKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr, &handle, nullptr) !=
        ERROR_SUCCESS)
        return;
    ::RegSetValueExW(handle, L"IconPath", 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                     static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
    ::RegCloseKey(handle);
}

}  // namespace

local_device_tree::local_device_tree() = default;

local_device_tree::~local_device_tree()
{
    while (!nodes_.empty())
        remove_node(nodes_.back().data.DevInst);
}

const local_device_tree::node* local_device_tree::find(DWORD devinst) const noexcept
{
    const auto it =
        std::find_if(nodes_.begin(), nodes_.end(), [devinst](const node& n) { return n.data.DevInst == devinst; });
    return it == nodes_.end() ? nullptr : &*it;
}

SP_DEVINFO_DATA local_device_tree::create_named_node(HDEVINFO set, const node_facts& facts, unsigned& made_up_parts)
{
    SP_DEVINFO_DATA data{};
    data.cbSize = sizeof data;
    const auto create = [&](const std::wstring& id) {
        if (::SetupDiCreateDeviceInfoW(set, id.c_str(), &facts.class_guid, facts.description.c_str(), nullptr, 0,
                                       &data))
            return true;
        tessel::throw_last_error_if(::GetLastError() != ERROR_DEVINST_ALREADY_EXISTS);
        return false;
    };
    if (create(facts.instance_id) || (remove_abandoned_node(facts.instance_id) && create(facts.instance_id)))
        return data;
    const std::wstring stem = facts.instance_id.substr(0, facts.instance_id.rfind(L'\\') + 1);
    for (int attempt = 0; attempt < 100; ++attempt) {
        wchar_t made_up[32]{};
        std::swprintf(made_up, std::size(made_up), L"9&%lX&0&%u", ::GetCurrentProcessId(), ++made_up_parts);
        if (create(stem + made_up))
            return data;
    }
    tessel::throw_win32(ERROR_DEVINST_ALREADY_EXISTS);
}

local_device_tree::node& local_device_tree::create_node(const node_facts& facts)
{
    ensure_class_icon(facts.class_guid);
    unique_hdevinfo owned(::SetupDiCreateDeviceInfoList(nullptr, nullptr));
    tessel::throw_last_error_if(!owned);
    const HDEVINFO set = owned.get();
    SP_DEVINFO_DATA data{};
    data.cbSize = sizeof data;
    if (!facts.instance_id.empty())
        data = create_named_node(set, facts, made_up_parts_);
    else
        tessel::throw_last_error_if(!::SetupDiCreateDeviceInfoW(set, node_base_name, &facts.class_guid,
                                                                facts.description.c_str(), nullptr, DICD_GENERATE_ID,
                                                                &data));
    try {
        set_text_property(set, data, SPDRP_DEVICEDESC, facts.description);
        if (facts.friendly_name)
            set_text_property(set, data, SPDRP_FRIENDLYNAME, *facts.friendly_name);
        if (!facts.location.empty())
            set_text_property(set, data, SPDRP_LOCATION_INFORMATION, facts.location);
        if (!facts.hardware_ids.empty())
            set_multi_text_property(set, data, SPDRP_HARDWAREID, facts.hardware_ids);
        // Windows derives the class name from the class and refuses to set it; Wine keeps
        // what it is given and knows no name for some classes (USB) by itself.
        if (const std::wstring name = setup_class_name(facts.class_guid); !name.empty())
            if (!::SetupDiSetDeviceRegistryPropertyW(set, &data, SPDRP_CLASS, reinterpret_cast<const BYTE*>(name.c_str()),
                                                     static_cast<DWORD>((name.size() + 1) * sizeof(wchar_t))))
                tessel::debug_report(L"substitute server: the system keeps the setup class name itself");
        const auto owner = this_process_as_owner();
        tessel::throw_last_error_if(!::SetupDiSetDevicePropertyW(set, &data, &node_owner_key, DEVPROP_TYPE_BINARY,
                                                                 reinterpret_cast<const BYTE*>(owner.data()),
                                                                 sizeof owner, 0));
        tessel::throw_last_error_if(!::SetupDiRegisterDeviceInfo(set, &data, 0, nullptr, nullptr, nullptr));
    } catch (...) {
        // A node that was created but not registered is only a phantom; drop it anyway.
        ::SetupDiRemoveDevice(set, &data);
        throw;
    }
    return nodes_.emplace_back(node{std::move(owned), data});
}

void local_device_tree::add_children(DWORD parent, const std::vector<local_node_spec>& children, DWORD root)
{
    if (children.empty())
        return;
    std::wstring ids;  // a string list: each ID with its terminator, and one more at the end
    for (const local_node_spec& child : children) {
        node& created =
            create_node({child.class_guid, child.description, child.friendly_name, {}, child.instance_id, child.hardware_ids});
        const DWORD devinst = created.data.DevInst;
        descendants_[root].push_back(devinst);
        ids += instance_id(devinst);
        ids.push_back(L'\0');
        add_children(devinst, child.children, root);
    }
    ids.push_back(L'\0');
    const node* const above = find(parent);
    SP_DEVINFO_DATA data = above->data;
    tessel::throw_last_error_if(!::SetupDiSetDevicePropertyW(above->set.get(), &data, &device_children_key,
                                                             DEVPROP_TYPE_STRING_LIST,
                                                             reinterpret_cast<const BYTE*>(ids.data()),
                                                             static_cast<DWORD>(ids.size() * sizeof(wchar_t)), 0));
}

DWORD local_device_tree::add(const device_spec& device)
{
    const DWORD devinst = create_node({device.class_guid, device.description, device.friendly_name, device.location,
                                       device.instance_id, device.hardware_ids})
                              .data.DevInst;
    try {
        add_children(devinst, device.children, devinst);
    } catch (...) {
        remove(devinst);
        throw;
    }
    return devinst;
}

void local_device_tree::remove(DWORD devinst) noexcept
{
    if (const auto below = descendants_.find(devinst); below != descendants_.end()) {
        const std::vector<DWORD> nodes = std::move(below->second);
        descendants_.erase(below);
        for (auto it = nodes.rbegin(); it != nodes.rend(); ++it)
            remove_node(*it);
    }
    remove_node(devinst);
}

std::wstring local_device_tree::instance_id(DWORD devinst) const
{
    const node* n = find(devinst);
    if (!n)
        return {};
    SP_DEVINFO_DATA data = n->data;
    wchar_t id[MAX_DEVICE_ID_LEN]{};
    if (!::SetupDiGetDeviceInstanceIdW(n->set.get(), &data, id, static_cast<DWORD>(std::size(id)), nullptr))
        return {};
    return id;
}

void local_device_tree::remove_node(DWORD devinst) noexcept
{
    const auto it =
        std::find_if(nodes_.begin(), nodes_.end(), [devinst](const node& n) { return n.data.DevInst == devinst; });
    if (it == nodes_.end())
        return;
    node removed = std::move(*it);
    nodes_.erase(it);
    if (!::SetupDiRemoveDevice(removed.set.get(), &removed.data))
        tessel::debug_report(L"substitute server: a local device node could not be removed");
}

}  // namespace sim_server
