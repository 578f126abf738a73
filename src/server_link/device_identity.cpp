#include "server_link/device_identity.h"

#include "base/com_ptr.h"
#include "base/unique_handle.h"
#include "server_link/local_nodes.h"

#include <cfgmgr32.h>
#include <setupapi.h>

#include <algorithm>
#include <cwctype>
#include <vector>

namespace servercfg {
namespace {

bool starts_with_nocase(std::wstring_view text, std::wstring_view prefix) noexcept
{
    return text.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), text.begin(),
                      [](wchar_t a, wchar_t b) { return std::towupper(a) == std::towupper(b); });
}

int hex_digit(wchar_t c) noexcept
{
    if (c >= L'0' && c <= L'9')
        return c - L'0';
    c = static_cast<wchar_t>(std::towupper(c));
    if (c >= L'A' && c <= L'F')
        return c - L'A' + 10;
    return -1;
}

// One to four hexadecimal digits, all of `text`.
std::optional<std::uint16_t> parse_hex16(std::wstring_view text) noexcept
{
    if (text.empty() || text.size() > 4)
        return std::nullopt;
    unsigned value = 0;
    for (wchar_t c : text) {
        const int digit = hex_digit(c);
        if (digit < 0)
            return std::nullopt;
        value = value * 16 + static_cast<unsigned>(digit);
    }
    return static_cast<std::uint16_t>(value);
}

// The four hexadecimal digits after `tag` ("VID_") at the first place `text` has it.
std::optional<std::uint16_t> tagged_hex(std::wstring_view text, std::wstring_view tag) noexcept
{
    for (std::size_t at = 0; at + tag.size() + 4 <= text.size(); ++at) {
        if (starts_with_nocase(text.substr(at), tag))
            return parse_hex16(text.substr(at + tag.size(), 4));
    }
    return std::nullopt;
}

// A registry property of the device as UTF-16 units, the terminators included.
std::optional<std::wstring> registry_property(HDEVINFO set, SP_DEVINFO_DATA& data, DWORD property)
{
    DWORD type = 0;
    DWORD size = 0;
    ::SetupDiGetDeviceRegistryPropertyW(set, &data, property, &type, nullptr, 0, &size);
    if (size < sizeof(wchar_t) || size > 64 * 1024)
        return std::nullopt;
    std::wstring value(size / sizeof(wchar_t) + 2, L'\0');
    if (!::SetupDiGetDeviceRegistryPropertyW(set, &data, property, &type, reinterpret_cast<BYTE*>(value.data()),
                                             static_cast<DWORD>(value.size() * sizeof(wchar_t)), nullptr))
        return std::nullopt;
    return value;
}

}  // namespace

std::wstring instance_id_of(DWORD devinst)
{
    ULONG length = 0;
    if (::CM_Get_Device_ID_Size(&length, devinst, 0) != CR_SUCCESS || length == 0)
        return {};
    std::wstring id(length + 1, L'\0');
    if (::CM_Get_Device_IDW(devinst, id.data(), length + 1, 0) != CR_SUCCESS)
        return {};
    id.resize(std::wcslen(id.c_str()));
    return id;
}

std::optional<usb_vid_pid> vid_pid_in_id(std::wstring_view id) noexcept
{
    const auto vendor = tagged_hex(id, L"VID_");
    const auto product = tagged_hex(id, L"PID_");
    if (!vendor || !product)
        return std::nullopt;
    return usb_vid_pid{*vendor, *product};
}

std::wstring serial_in_instance_id(std::wstring_view instance_id)
{
    const std::size_t first = instance_id.find(L'\\');
    if (first == std::wstring_view::npos || !starts_with_nocase(instance_id, L"USB\\"))
        return {};
    const std::size_t second = instance_id.find(L'\\', first + 1);
    if (second == std::wstring_view::npos)
        return {};
    const std::wstring_view hardware = instance_id.substr(first + 1, second - first - 1);
    const std::wstring_view last = instance_id.substr(second + 1);
    if (!vid_pid_in_id(hardware) || hardware.find(L"&MI_") != std::wstring_view::npos ||
        hardware.find(L"&mi_") != std::wstring_view::npos)
        return {};
    if (last.empty() || last.find(L'&') != std::wstring_view::npos || last.find(L'\\') != std::wstring_view::npos)
        return {};
    return std::wstring(last);
}

std::wstring format_vid_pid(usb_vid_pid ids)
{
    wchar_t text[10]{};
    ::swprintf(text, std::size(text), L"%04X:%04X", ids.vendor, ids.product);
    return text;
}

std::optional<usb_vid_pid> parse_vid_pid(std::wstring_view text) noexcept
{
    if (starts_with_nocase(text, L"VID_")) {
        const std::size_t amp = text.find(L'&');
        if (amp == std::wstring_view::npos || !starts_with_nocase(text.substr(amp + 1), L"PID_"))
            return std::nullopt;
        const auto vendor = parse_hex16(text.substr(4, amp - 4));
        const auto product = parse_hex16(text.substr(amp + 5));
        if (!vendor || !product)
            return std::nullopt;
        return usb_vid_pid{*vendor, *product};
    }
    const std::size_t colon = text.find(L':');
    if (colon == std::wstring_view::npos)
        return std::nullopt;
    const auto vendor = parse_hex16(text.substr(0, colon));
    const auto product = parse_hex16(text.substr(colon + 1));
    if (!vendor || !product)
        return std::nullopt;
    return usb_vid_pid{*vendor, *product};
}

device_identity identity_from_node_facts(std::wstring instance_id, std::wstring setup_class,
                                         std::span<const std::wstring> hardware_ids)
{
    device_identity identity;
    identity.vid_pid = vid_pid_in_id(instance_id);
    for (std::size_t i = 0; !identity.vid_pid && i < hardware_ids.size(); ++i)
        identity.vid_pid = vid_pid_in_id(hardware_ids[i]);
    identity.serial = serial_in_instance_id(instance_id);
    identity.instance_id = std::move(instance_id);
    identity.setup_class = std::move(setup_class);
    return identity;
}

device_identity read_node_identity(const std::wstring& instance_id)
{
    if (instance_id.empty())
        return {};
    std::wstring setup_class;
    std::vector<std::wstring> hardware_ids;
    unique_hdevinfo set(::SetupDiCreateDeviceInfoList(nullptr, nullptr));
    SP_DEVINFO_DATA data{};
    data.cbSize = sizeof data;
    if (set && ::SetupDiOpenDeviceInfoW(set.get(), instance_id.c_str(), nullptr, 0, &data)) {
        if (auto name = registry_property(set.get(), data, SPDRP_CLASS)) {
            name->resize(std::wcslen(name->c_str()));
            setup_class = std::move(*name);
        }
        if (auto ids = registry_property(set.get(), data, SPDRP_HARDWAREID))
            hardware_ids = split_multi_string(*ids);
    }
    return identity_from_node_facts(instance_id, std::move(setup_class), hardware_ids);
}

device_identity read_device_identity(IUsbDevice& device)
{
    tessel::com_ptr<IUsbDevice> held(&device);
    device_identity identity;
    if (auto node = held.try_query<IUsbDeviceNode>())
        identity = read_node_identity(instance_id_of(node->GetDevInst()));
    tessel::unique_bstr location;
    if (SUCCEEDED(device.GetLocation(location.put())) && location)
        identity.location.assign(location.get(), ::SysStringLen(location.get()));
    return identity;
}

}  // namespace servercfg
