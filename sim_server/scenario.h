#pragma once
// What the substitute server plays: its devices, shares, settings, running flag and the
// failures it is told to inject. A scenario comes from a JSON file or is the built-in
// one the demo uses.

#include <windows.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace sim_server {

// A device node below a server device on this machine (a hub's ports, a composite
// device's functions): shown by the program's local device walk, unknown to the server.
struct local_node_spec {
    GUID class_guid{};
    std::wstring description;
    std::optional<std::wstring> friendly_name;
    std::vector<local_node_spec> children;
    // The node's instance ID as Windows would name it ("USB\VID_3F41&PID_2A07\AC32..."),
    // see check_instance_id; empty: a root-enumerated one is made up.
    std::wstring instance_id{};
    // What the node's SPDRP_HARDWAREID lists, most specific first; may be empty.
    std::vector<std::wstring> hardware_ids{};
};

struct device_spec {
    // How scenario files, the control tool and tests name the device; unique.
    std::wstring id;
    // What the server reports (GetName, GetLocation).
    std::wstring name;
    std::wstring location;
    // The local device node the server creates for it.
    GUID class_guid{};
    std::wstring description;
    // Absent: the node has no friendly name, so a device walk falls back to the description.
    std::optional<std::wstring> friendly_name;
    bool connected = true;
    // Empty: no client holds the device.
    std::wstring client;
    bool needs_share_confirmation = false;
    // The local nodes below the device's own node.
    std::vector<local_node_spec> children{};
    // As for local nodes: the device node's instance ID (empty: made up) and hardware IDs.
    std::wstring instance_id{};
    std::vector<std::wstring> hardware_ids{};
};

struct share_spec {
    std::wstring device_id;
    // Empty: the share has no key (reported as a null BSTR).
    std::wstring key;
};

// A method that fails from now on. An empty device_id means every device (for methods of
// device and share objects) or the server's own method.
struct failure_spec {
    std::wstring method;
    std::wstring device_id;
    HRESULT code = E_FAIL;
};

// Each member that is set is a value the server knows.
struct server_settings {
    std::optional<std::wstring> endpoints;
    std::optional<std::uint16_t> port;
    std::optional<bool> advertisement;
    std::optional<bool> statistics;
};

struct scenario {
    bool running = true;
    server_settings settings;
    // How long the asynchronous settings calls take before they complete.
    DWORD settings_read_delay_ms = 0;
    DWORD settings_write_delay_ms = 0;
    std::vector<device_spec> devices;
    std::vector<share_spec> shares;
    std::vector<failure_spec> failures;
};

// A scenario that cannot be used. what() is UTF-8 text that says where and why; code()
// is the HRESULT the server's creation fails with.
class scenario_error : public std::runtime_error {
public:
    scenario_error(const std::string& message, HRESULT code = HRESULT_FROM_WIN32(ERROR_INVALID_DATA))
        : std::runtime_error(message), code_(code)
    {
    }
    [[nodiscard]] HRESULT code() const noexcept { return code_; }

private:
    HRESULT code_;
};

// The demo's machine: a flash drive shared with a key and used by a client, a hub with a
// storage device and a mouse plugged into it, a keyboard that asks before it is shared, a label printer shared without a key, and a
// licence dongle that is shared but unplugged.
[[nodiscard]] scenario default_scenario();

// Reads a scenario document; throws scenario_error naming the line, column or member at fault.
[[nodiscard]] scenario parse_scenario(std::string_view json_text);
// Reads the file (a Windows path); throws scenario_error naming the file.
[[nodiscard]] scenario load_scenario_file(const std::wstring& path);
// The document parse_scenario reads back as the same scenario.
[[nodiscard]] std::string write_scenario(const scenario& s);
// Checks the rules that hold however the scenario was made (unique device ids, shares
// and failures that name existing devices, known method names); throws scenario_error.
void validate(const scenario& s);

// The environment variable that names the scenario file the server plays; unset or
// empty: the built-in scenario.
inline constexpr wchar_t scenario_variable[] = L"ULMORA_SIM_SCENARIO";

// The environment variable that names the server's state file: when it exists, a new
// server plays it instead of the scenario, and every server writes its state there after
// each change, so that servers of consecutive processes behave as one service that keeps
// its shares and settings.
inline constexpr wchar_t state_variable[] = L"ULMORA_SIM_STATE";

// Method names that failures may name. The ".completion" forms make an asynchronous call
// succeed but end with the code; the plain forms make the call itself fail.
[[nodiscard]] bool is_known_method(std::wstring_view method) noexcept;
[[nodiscard]] const std::vector<std::wstring_view>& known_methods();

// "0x80070005", "-2147024891", "2147942405" or a name such as "E_ACCESSDENIED".
[[nodiscard]] std::optional<HRESULT> parse_hresult(std::wstring_view text);
// "usb", "hid", "disk", "keyboard", "mouse", "printer", "smartcard", "image", "media",
// "net", "ports", "bluetooth" or a GUID in braces.
[[nodiscard]] std::optional<GUID> parse_device_class(std::wstring_view text);
// The setup class name of one of those classes ("USB", "DiskDrive"...); empty for others.
[[nodiscard]] std::wstring setup_class_name(const GUID& class_guid);

// What an instance ID given by a scenario must look like: "<enumerator>\<device>\<instance>",
// three non-empty parts of printable ASCII without blanks or commas, at most 199
// characters (Windows' limit). Empty when it does; otherwise what is wrong.
[[nodiscard]] std::string check_instance_id(std::wstring_view id);

}  // namespace sim_server
