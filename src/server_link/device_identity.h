#pragma once
// What tells one USB device apart from another of the same make: the configuration
// manager's instance ID, the USB vendor and product id, the serial number, the setup class
// and the server's own location text. The window program shows these facts in a device's
// tooltip and to screen readers; the console companion lists them and matches its
// selectors against them. Both take them from here, so the two never disagree on what a
// device's serial number is.
//
// Rules:
// - Windows names a USB device "USB\VID_vvvv&PID_pppp\<last part>". The last part is the
//   device's serial number when the device reports one; otherwise Windows makes one up,
//   and a made-up part always holds an '&' ("5&2c4b1a0&0&3"). Only the USB enumerator's
//   own nodes carry serials this way; a composite device's interface ("&MI_00") does not.
// - The vendor and product id come from the instance ID, or else from the first hardware
//   ID that names both (a HID or storage child often does).
// - `VID:PID` is shown as four upper-case hexadecimal digits each, "0781:5567".

#include "server_link/server_api.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace servercfg {

struct usb_vid_pid {
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    friend bool operator==(const usb_vid_pid&, const usb_vid_pid&) = default;
};

struct device_identity {
    std::wstring instance_id;            // empty when the device is not present on this machine
    std::optional<usb_vid_pid> vid_pid;  // none when neither the ID nor a hardware ID names it
    std::wstring serial;                 // empty when the device has none
    std::wstring setup_class;            // "DiskDrive", "HIDClass", "USB"...; empty when unknown
    std::wstring location;               // the server's location text (IUsbDevice slot 13)
};

// "VID_vvvv&PID_pppp" anywhere in an instance or hardware ID, case-insensitive.
[[nodiscard]] std::optional<usb_vid_pid> vid_pid_in_id(std::wstring_view id) noexcept;

// The serial number in a USB instance ID; empty when Windows made up the last part or the
// ID is not a USB device's.
[[nodiscard]] std::wstring serial_in_instance_id(std::wstring_view instance_id);

// "0781:5567".
[[nodiscard]] std::wstring format_vid_pid(usb_vid_pid ids);

// "0781:5567" or "VID_0781&PID_5567" back to ids (hexadecimal, case-insensitive, one to
// four digits each); nothing for anything else.
[[nodiscard]] std::optional<usb_vid_pid> parse_vid_pid(std::wstring_view text) noexcept;

// The identity made of what the system says of a node: its instance ID, setup class name
// and hardware IDs. `location` is left empty.
[[nodiscard]] device_identity identity_from_node_facts(std::wstring instance_id, std::wstring setup_class,
                                                       std::span<const std::wstring> hardware_ids);

// The configuration manager's instance ID of a device node; empty when it cannot be read.
[[nodiscard]] std::wstring instance_id_of(DWORD devinst);

// The local node's facts (configuration manager and SetupAPI) of one server device
// (IUsbDeviceNode), and the server's location text. Facts that cannot be read stay empty;
// a device that is not present on this machine answers its location only. Never throws
// for a missing fact; throws std::bad_alloc only.
[[nodiscard]] device_identity read_device_identity(IUsbDevice& device);

// The same for a node of the local tree known by its instance ID (a child row).
[[nodiscard]] device_identity read_node_identity(const std::wstring& instance_id);

}  // namespace servercfg
