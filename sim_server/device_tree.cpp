#include "device_tree.h"

#include "base/failure.h"

#include <cfgmgr32.h>
#include <devpropdef.h>

#include <algorithm>
#include <iterator>

extern "C" IMAGE_DOS_HEADER __ImageBase;

// In setupapi's import library, missing from mingw's header.
extern "C" WINSETUPAPI BOOL WINAPI SetupDiSetDevicePropertyW(HDEVINFO set, PSP_DEVINFO_DATA data,
                                                             const DEVPROPKEY* key, DEVPROPTYPE type,
                                                             const BYTE* buffer, DWORD size, DWORD flags);

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

local_device_tree::local_device_tree() : set_(::SetupDiCreateDeviceInfoList(nullptr, nullptr))
{
    tessel::throw_last_error_if(!set_);
}

local_device_tree::~local_device_tree()
{
    while (!nodes_.empty())
        remove_node(nodes_.back().DevInst);
}

SP_DEVINFO_DATA local_device_tree::create_node(const GUID& class_guid, const std::wstring& description,
                                               const std::optional<std::wstring>& friendly_name,
                                               const std::wstring& location)
{
    ensure_class_icon(class_guid);
    SP_DEVINFO_DATA data{};
    data.cbSize = sizeof data;
    tessel::throw_last_error_if(!::SetupDiCreateDeviceInfoW(set_.get(), node_base_name, &class_guid,
                                                            description.c_str(), nullptr, DICD_GENERATE_ID, &data));
    try {
        set_text_property(set_.get(), data, SPDRP_DEVICEDESC, description);
        if (friendly_name)
            set_text_property(set_.get(), data, SPDRP_FRIENDLYNAME, *friendly_name);
        if (!location.empty())
            set_text_property(set_.get(), data, SPDRP_LOCATION_INFORMATION, location);
        tessel::throw_last_error_if(!::SetupDiRegisterDeviceInfo(set_.get(), &data, 0, nullptr, nullptr, nullptr));
    } catch (...) {
        // A node that was created but not registered is only a phantom; drop it anyway.
        ::SetupDiRemoveDevice(set_.get(), &data);
        ::SetupDiDeleteDeviceInfo(set_.get(), &data);
        throw;
    }
    nodes_.push_back(data);
    return data;
}

void local_device_tree::add_children(SP_DEVINFO_DATA& parent, const std::vector<local_node_spec>& children,
                                     DWORD root)
{
    if (children.empty())
        return;
    std::wstring ids;  // a string list: each ID with its terminator, and one more at the end
    for (const local_node_spec& child : children) {
        SP_DEVINFO_DATA data = create_node(child.class_guid, child.description, child.friendly_name, {});
        descendants_[root].push_back(data.DevInst);
        wchar_t id[MAX_DEVICE_ID_LEN]{};
        tessel::throw_last_error_if(
            !::SetupDiGetDeviceInstanceIdW(set_.get(), &data, id, static_cast<DWORD>(std::size(id)), nullptr));
        ids += id;
        ids.push_back(L'\0');
        add_children(data, child.children, root);
    }
    ids.push_back(L'\0');
    tessel::throw_last_error_if(!::SetupDiSetDevicePropertyW(set_.get(), &parent, &device_children_key,
                                                             DEVPROP_TYPE_STRING_LIST,
                                                             reinterpret_cast<const BYTE*>(ids.data()),
                                                             static_cast<DWORD>(ids.size() * sizeof(wchar_t)), 0));
}

DWORD local_device_tree::add(const device_spec& device)
{
    SP_DEVINFO_DATA data = create_node(device.class_guid, device.description, device.friendly_name, device.location);
    try {
        add_children(data, device.children, data.DevInst);
    } catch (...) {
        remove(data.DevInst);
        throw;
    }
    return data.DevInst;
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

void local_device_tree::remove_node(DWORD devinst) noexcept
{
    const auto it = std::find_if(nodes_.begin(), nodes_.end(),
                                 [devinst](const SP_DEVINFO_DATA& data) { return data.DevInst == devinst; });
    if (it == nodes_.end())
        return;
    SP_DEVINFO_DATA data = *it;
    nodes_.erase(it);
    if (!::SetupDiRemoveDevice(set_.get(), &data))
        tessel::debug_report(L"substitute server: a local device node could not be removed");
    ::SetupDiDeleteDeviceInfo(set_.get(), &data);
}

}  // namespace sim_server
