#pragma once
// The local device tree below one of the server's devices, as Windows sees it on this
// machine: the device node and everything under it, each with its display name and the
// class icon of its setup class.
//
// The nodes come from the walk of server_link (local_nodes.h), which both this program and
// the console companion take; this side adds the names shown for nameless nodes and the
// class icons. "IconPath" is read as a plain or a multi-string (then its first entry);
// environment variables in the path part ("%SystemRoot%") are expanded before extraction.

#include "base/unique_handle.h"
#include "server_link/local_nodes.h"

#include <windows.h>
#include <cfgmgr32.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace servercfg {

// One HICON shared by every node that shows it; the last holder destroys it.
using shared_icon = std::shared_ptr<const tessel::unique_hicon>;
// None; a vector icon of the program's collection; a raster icon.
using device_icon = std::variant<std::monostate, std::uint32_t, shared_icon>;

[[nodiscard]] inline bool has_icon(const device_icon& icon) noexcept
{
    return !std::holds_alternative<std::monostate>(icon);
}

struct local_device_node {
    std::wstring name;
    device_icon icon;
    // The configuration manager's instance ID ("USB\\VID_...\\..."), what "Copy device ID" copies.
    std::wstring instance_id;
    std::vector<local_device_node> children;  // in configuration-manager order
};

// {36FC9E60-C465-11CF-8056-444553540000}: host controllers and hubs.
inline constexpr GUID usb_class_guid = {0x36fc9e60, 0xc465, 0x11cf, {0x80, 0x56, 0x44, 0x45, 0x53, 0x54, 0x00, 0x00}};
// {745A17A0-74D3-11D0-B6FE-00A0C90F57DA}: HID collections.
inline constexpr GUID hid_class_guid = {0x745a17a0, 0x74d3, 0x11d0, {0xb6, 0xfe, 0x00, 0xa0, 0xc9, 0x0f, 0x57, 0xda}};

// The system's nodes, and the class icons to show for them.
class device_node_source : public node_source {
public:
    [[nodiscard]] virtual device_icon class_icon(const GUID& class_guid, int icon_size) = 0;
};

struct walk_options {
    int icon_size = 16;
    // The name of a node that has neither a friendly name nor a description.
    std::wstring unknown_name = L"Unknown device";
};

// The subtree of one device: the root carries the server's name and, once a device
// below it is neither a USB controller or hub nor a HID collection, that device's icon.
// Nothing when the root yields no node.
[[nodiscard]] std::optional<local_device_node> build_local_subtree(device_node_source& source, DWORD devinst,
                                                                   std::wstring_view server_name,
                                                                   const walk_options& options);

// "path,index" split into exactly two parts, the index a decimal integer with an optional
// leading "-". Anything else answers nothing.
struct icon_location {
    std::wstring path;
    int index = 0;
};
[[nodiscard]] std::optional<icon_location> split_icon_path(std::wstring_view text);

// The configuration manager, SetupAPI and the class registry of this machine. Class icons
// are extracted once per class and size and shared by every node of that class.
[[nodiscard]] std::unique_ptr<device_node_source> make_system_device_source();

}  // namespace servercfg
