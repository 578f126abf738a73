#include "scenario.h"

#include "base/failure.h"
#include "base/unique_handle.h"
#include "base/utf.h"

#include <objbase.h>

#include <algorithm>
#include <set>

namespace sim_server {
namespace {

struct named_guid {
    std::wstring_view name;
    GUID guid;
    // The setup class name Windows gives the class.
    std::wstring_view class_name;
};

// The setup classes a scenario names most often; any other class is given as a GUID.
constexpr named_guid device_classes[] = {
    {L"usb", {0x36fc9e60, 0xc465, 0x11cf, {0x80, 0x56, 0x44, 0x45, 0x53, 0x54, 0x00, 0x00}}, L"USB"},
    {L"hid", {0x745a17a0, 0x74d3, 0x11d0, {0xb6, 0xfe, 0x00, 0xa0, 0xc9, 0x0f, 0x57, 0xda}}, L"HIDClass"},
    {L"disk", {0x4d36e967, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}}, L"DiskDrive"},
    {L"keyboard", {0x4d36e96b, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}}, L"Keyboard"},
    {L"mouse", {0x4d36e96f, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}}, L"Mouse"},
    {L"printer", {0x4d36e979, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}}, L"Printer"},
    {L"smartcard", {0x50dd5230, 0xba8a, 0x11d1, {0xbf, 0x5d, 0x00, 0x00, 0xf8, 0x05, 0xf5, 0x30}}, L"SmartCardReader"},
    {L"image", {0x6bdd1fc6, 0x810f, 0x11d0, {0xbe, 0xc7, 0x08, 0x00, 0x2b, 0xe2, 0x09, 0x2f}}, L"Image"},
    {L"media", {0x4d36e96c, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}}, L"MEDIA"},
    {L"net", {0x4d36e972, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}}, L"Net"},
    {L"ports", {0x4d36e978, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}}, L"Ports"},
    {L"bluetooth", {0xe0cbf06c, 0xcd8b, 0x4647, {0xbb, 0x8a, 0x26, 0x3b, 0x43, 0xf0, 0xf9, 0x74}}, L"Bluetooth"},
};

struct named_hresult {
    std::wstring_view name;
    HRESULT code;
};

constexpr named_hresult hresult_names[] = {
    {L"E_FAIL", E_FAIL},
    {L"E_ACCESSDENIED", E_ACCESSDENIED},
    {L"E_INVALIDARG", E_INVALIDARG},
    {L"E_NOTIMPL", E_NOTIMPL},
    {L"E_OUTOFMEMORY", E_OUTOFMEMORY},
    {L"E_UNEXPECTED", E_UNEXPECTED},
    {L"E_ABORT", E_ABORT},
    {L"RPC_E_DISCONNECTED", RPC_E_DISCONNECTED},
    {L"RPC_E_SERVERFAULT", RPC_E_SERVERFAULT},
    {L"RPC_S_SERVER_UNAVAILABLE", HRESULT_FROM_WIN32(RPC_S_SERVER_UNAVAILABLE)},
};

std::string quoted(std::wstring_view text)
{
    std::string result = "\"";
    tessel::append_utf16_as_utf8(result, text);
    result += '"';
    return result;
}

}  // namespace

const std::vector<std::wstring_view>& known_methods()
{
    static const std::vector<std::wstring_view> methods = {
        // server
        L"Initialize", L"IsRunning", L"ShareDevice", L"UnshareDevice", L"GetDevices", L"GetShares",
        L"SetSettingsAsync", L"SetSettingsAsync.completion", L"GetSettingsAsync", L"GetSettingsAsync.completion",
        L"AdviseListener", L"UnadviseListener",
        // device objects
        L"GetName", L"GetLocation", L"IsConnected", L"GetClientName", L"NeedsShareConfirmation",
        // share objects
        L"GetDevice", L"GetAuthenticationKey",
    };
    return methods;
}

bool is_known_method(std::wstring_view method) noexcept
{
    const auto& methods = known_methods();
    return std::find(methods.begin(), methods.end(), method) != methods.end();
}

std::optional<HRESULT> parse_hresult(std::wstring_view text)
{
    for (const auto& [name, code] : hresult_names)
        if (text == name)
            return code;
    bool negative = false;
    unsigned base = 10;
    if (text.starts_with(L'-')) {
        negative = true;
        text.remove_prefix(1);
    }
    if (!negative && (text.starts_with(L"0x") || text.starts_with(L"0X"))) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty() || text.size() > 10)
        return std::nullopt;
    std::uint64_t value = 0;
    for (const wchar_t c : text) {
        unsigned digit;
        if (c >= L'0' && c <= L'9')
            digit = c - L'0';
        else if (base == 16 && c >= L'a' && c <= L'f')
            digit = c - L'a' + 10;
        else if (base == 16 && c >= L'A' && c <= L'F')
            digit = c - L'A' + 10;
        else
            return std::nullopt;
        value = value * base + digit;
    }
    if (negative ? value > 0x80000000u : value > 0xFFFFFFFFu)
        return std::nullopt;
    const auto bits = static_cast<std::uint32_t>(negative ? (~value + 1) : value);
    return static_cast<HRESULT>(bits);
}

std::optional<GUID> parse_device_class(std::wstring_view text)
{
    for (const named_guid& c : device_classes)
        if (text == c.name)
            return c.guid;
    // IIDFromString, unlike CLSIDFromString, never looks the text up as a ProgID.
    if (text.size() != 38 || text.front() != L'{')
        return std::nullopt;
    std::wstring copy(text);
    GUID guid;
    if (FAILED(::IIDFromString(copy.c_str(), &guid)))
        return std::nullopt;
    return guid;
}

std::wstring setup_class_name(const GUID& class_guid)
{
    for (const named_guid& c : device_classes)
        if (IsEqualGUID(c.guid, class_guid))
            return std::wstring(c.class_name);
    return {};
}

std::string check_instance_id(std::wstring_view id)
{
    if (id.size() > 199)
        return "is longer than 199 characters";
    for (const wchar_t c : id)
        if (c <= L' ' || c > L'~' || c == L',')
            return "may hold only printable ASCII without blanks or commas";
    const std::size_t first = id.find(L'\\');
    const std::size_t second = first == std::wstring_view::npos ? first : id.find(L'\\', first + 1);
    if (second == std::wstring_view::npos || id.find(L'\\', second + 1) != std::wstring_view::npos || first == 0 ||
        second == first + 1 || second + 1 == id.size())
        return "must be three parts separated by backslashes (enumerator\\device\\instance)";
    return {};
}

scenario default_scenario()
{
    scenario s;
    s.running = true;
    s.settings.endpoints = L"0.0.0.0:32032, [::]:32032";
    s.settings.port = 32032;
    s.settings.advertisement = true;
    s.settings.statistics = false;
    // Long enough that the settings dialog is seen waiting for the server.
    s.settings_read_delay_ms = 400;
    s.settings_write_delay_ms = 150;

    const auto cls = [](std::wstring_view name) { return *parse_device_class(name); };
    // USB-style identities: the hub has no serial number (Windows made up the last part of
    // its ID, which then holds '&'); the other devices report one.
    s.devices = {
        {L"flash", L"Arcturus Flash 32GB", L"1-1", cls(L"disk"), L"USB Mass Storage Device",
         L"Arcturus Flash 32GB USB Device", true, L"WORKSTATION-07", false, {},
         L"USB\\VID_3F41&PID_2A07\\AC3200417F5E0091", {L"USB\\VID_3F41&PID_2A07&REV_0110", L"USB\\VID_3F41&PID_2A07"}},
        {L"hub", L"Generic USB 3.0 Hub", L"1-2", cls(L"usb"), L"Generic SuperSpeed USB Hub", std::nullopt, true, L"",
         false,
         {{cls(L"usb"), L"USB Mass Storage Device", std::nullopt,
           {{cls(L"disk"), L"Disk drive", L"Pellucid Card Reader USB Device", {},
             L"USBSTOR\\DISK&VEN_PELLUCID&PROD_CARD_READER&REV_1.00\\000000001532&0",
             {L"USBSTOR\\DiskPellucidCard_Reader___1.00", L"GenDisk"}}},
           L"USB\\VID_3F41&PID_0749\\000000001532", {L"USB\\VID_3F41&PID_0749&REV_1532", L"USB\\VID_3F41&PID_0749"}},
          {cls(L"hid"), L"USB Input Device", std::nullopt,
           {{cls(L"mouse"), L"HID-compliant mouse", L"Tern Optical Mouse", {},
             L"HID\\VID_3A72&PID_0005\\7&2A1B3C4D&0&0000", {L"HID\\VID_3A72&PID_0005&REV_0100", L"HID\\VID_3A72&PID_0005"}}},
           L"USB\\VID_3A72&PID_0005\\6&1F2D3C4&0&3", {L"USB\\VID_3A72&PID_0005&REV_0100", L"USB\\VID_3A72&PID_0005"}}},
         L"USB\\VID_1A40&PID_0801\\5&2C4B1A0&0&2", {L"USB\\VID_1A40&PID_0801&REV_0100", L"USB\\VID_1A40&PID_0801"}},
        {L"keyboard", L"Kestrel K120 Keyboard", L"1-2.1", cls(L"keyboard"), L"HID Keyboard Device",
         L"Kestrel K120 Keyboard", true, L"", true, {},
         L"USB\\VID_3A72&PID_C120\\KS1200043981", {L"USB\\VID_3A72&PID_C120&REV_0200", L"USB\\VID_3A72&PID_C120"}},
        {L"printer", L"Labelwise LP-420 Label Printer", L"1-2.3", cls(L"printer"), L"USB Printing Support",
         L"Labelwise LP-420", true, L"", false, {},
         L"USB\\VID_2D14&PID_0420\\LP420A0231977", {L"USB\\VID_2D14&PID_0420&REV_0100", L"USB\\VID_2D14&PID_0420"}},
        {L"dongle", L"Vaultkey Licence Dongle", L"1-4", cls(L"smartcard"), L"Vaultkey USB Token", std::nullopt, false,
         L"", false, {},
         L"USB\\VID_0B7A&PID_2291\\VK2291003851", {L"USB\\VID_0B7A&PID_2291&REV_0100", L"USB\\VID_0B7A&PID_2291"}},
    };
    s.shares = {
        {L"flash", L"correct-horse-battery"},
        {L"printer", L""},
        {L"dongle", L"vk-2291"},
    };
    return s;
}

namespace {

// Instance IDs unique over the whole scenario, whatever their case: Windows keeps them in
// upper case.
void check_node_identity(const std::wstring& instance_id, const std::vector<std::wstring>& hardware_ids,
                         const std::vector<local_node_spec>& children, const std::string& where,
                         std::set<std::wstring>& instance_ids)
{
    if (!instance_id.empty()) {
        if (const std::string fault = check_instance_id(instance_id); !fault.empty())
            throw scenario_error(where + ": the instance ID " + quoted(instance_id) + " " + fault);
        std::wstring key = instance_id;  // checked to be ASCII
        for (wchar_t& c : key)
            if (c >= L'a' && c <= L'z')
                c = static_cast<wchar_t>(c - L'a' + L'A');
        if (!instance_ids.insert(std::move(key)).second)
            throw scenario_error(where + ": the instance ID " + quoted(instance_id) + " is used twice");
    }
    for (const std::wstring& id : hardware_ids)
        if (id.empty() || id.size() > 199 ||
            std::any_of(id.begin(), id.end(), [](wchar_t c) { return c <= L' ' || c > L'~' || c == L','; }))
            throw scenario_error(where + ": the hardware ID " + quoted(id) +
                                 " must be 1 to 199 characters of printable ASCII without blanks or commas");
    for (std::size_t i = 0; i < children.size(); ++i)
        check_node_identity(children[i].instance_id, children[i].hardware_ids, children[i].children,
                            where + ".children[" + std::to_string(i) + "]", instance_ids);
}

}  // namespace

void validate(const scenario& s)
{
    std::set<std::wstring> ids;
    std::set<std::wstring> instance_ids;
    for (size_t i = 0; i < s.devices.size(); ++i) {
        const device_spec& device = s.devices[i];
        const std::string where = "devices[" + std::to_string(i) + "]";
        if (device.id.empty())
            throw scenario_error(where + ": the device id is empty");
        if (!ids.insert(device.id).second)
            throw scenario_error(where + ": the device id " + quoted(device.id) + " is used twice");
        if (device.name.empty())
            throw scenario_error(where + ": the device name is empty");
        check_node_identity(device.instance_id, device.hardware_ids, device.children, where, instance_ids);
    }
    for (size_t i = 0; i < s.shares.size(); ++i)
        if (!ids.contains(s.shares[i].device_id))
            throw scenario_error("shares[" + std::to_string(i) + "]: there is no device " +
                                 quoted(s.shares[i].device_id));
    for (size_t i = 0; i < s.failures.size(); ++i) {
        const failure_spec& failure = s.failures[i];
        const std::string where = "failures[" + std::to_string(i) + "]";
        if (!is_known_method(failure.method))
            throw scenario_error(where + ": " + quoted(failure.method) + " is not a method that can fail");
        if (!failure.device_id.empty() && !ids.contains(failure.device_id))
            throw scenario_error(where + ": there is no device " + quoted(failure.device_id));
        if (SUCCEEDED(failure.code))
            throw scenario_error(where + ": the code must be a failure (negative HRESULT)");
    }
}

scenario load_scenario_file(const std::wstring& path)
{
    const std::string name = quoted(path);
    tessel::unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                           FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        const HRESULT code = tessel::hresult_from_win32(::GetLastError());
        throw scenario_error("the scenario file " + name + " cannot be opened: " +
                                 tessel::utf16_to_utf8(tessel::system_message(code)),
                             code);
    }
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(file.get(), &size) || size.QuadPart > 16 * 1024 * 1024)
        throw scenario_error("the scenario file " + name + " is larger than 16 MB");
    std::string text(static_cast<size_t>(size.QuadPart), '\0');
    DWORD read = 0;
    if (!text.empty() && (!::ReadFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &read, nullptr) ||
                          read != text.size())) {
        const HRESULT code = tessel::hresult_from_win32(::GetLastError());
        throw scenario_error("the scenario file " + name + " cannot be read", FAILED(code) ? code : E_FAIL);
    }
    try {
        return parse_scenario(text);
    } catch (const scenario_error& e) {
        throw scenario_error("scenario file " + name + ", " + e.what(), e.code());
    }
}

}  // namespace sim_server
