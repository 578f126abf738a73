#pragma once
// The local device nodes that stand for the server's devices on this machine. A real
// server's devices exist in the configuration manager's tree; the substitute creates a
// root-enumerated node per device with SetupAPI and removes it again, so that the
// program's device walk finds a name, a description and a setup class.
//
// Nodes below a device (a hub's storage device and mouse) are root-enumerated nodes too:
// the parent lists their instance IDs in its children property (DEVPKEY_Device_Children),
// which is where the walk finds them when the configuration manager cannot say (Wine).
// A setup class that has no "IconPath" in the class registry (Wine registers none) gets
// one pointing at an icon of this DLL, as a class installer would have left it; the value
// stays, like any class registration.
//
// A node the scenario gives a USB-style instance ID gets exactly that ID, its hardware
// IDs and its setup class name. Instance IDs are unique on a machine, and a second server
// may be asked for the same one (a program restarting while the old copy still runs, two
// servers in one test): a node whose owner process has ended (it was killed) is taken
// over; one that still belongs to a live process leaves the new node an ID with a
// made-up last part, as Windows gives a second device that reports the same serial
// number. Each node records its owner (process ID and start time) in a property of its own.

#include "scenario.h"

#include <windows.h>
#include <setupapi.h>
#include <devpropdef.h>

#include "base/unique_handle.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

// In setupapi's import library, missing from mingw's header.
extern "C" WINSETUPAPI BOOL WINAPI SetupDiSetDevicePropertyW(HDEVINFO set, PSP_DEVINFO_DATA data,
                                                             const DEVPROPKEY* key, DEVPROPTYPE type,
                                                             const BYTE* buffer, DWORD size, DWORD flags);

namespace sim_server {

// The handle a server device reports while it has no node on this machine (unplugged or
// removed): no configuration manager call accepts it.
inline constexpr DWORD no_devinst = ~DWORD{0};

// The property in which a node records the process that made it: its ID and start time
// (DEVPROP_TYPE_BINARY, two 64-bit values).
inline constexpr DEVPROPKEY node_owner_key = {
    {0x6a1f0c3e, 0x52d4, 0x4b8e, {0x9d, 0x21, 0x3c, 0x7e, 0x58, 0xa0, 0x14, 0xb6}}, 2};

using unique_hdevinfo = tessel::unique_any<tessel::invalid_handle_traits<::SetupDiDestroyDeviceInfoList>>;

class local_device_tree {
public:
    local_device_tree();
    ~local_device_tree();
    local_device_tree(const local_device_tree&) = delete;
    local_device_tree& operator=(const local_device_tree&) = delete;

    // Creates and registers the node and the nodes below it; returns the device's device
    // instance handle. Throws fibra::details::hresult_error.
    DWORD add(const device_spec& device);
    // Removes the node and those below it from the system; unknown handles are ignored.
    void remove(DWORD devinst) noexcept;
    // The instance ID the node got; empty for unknown handles.
    [[nodiscard]] std::wstring instance_id(DWORD devinst) const;

private:
    // Each node in a device information set of its own: a set keeps the IDs of nodes
    // removed through it (Wine refuses to make one of them again in the same set), and a
    // node's instance handle is valid only while its set is.
    struct node {
        unique_hdevinfo set;
        SP_DEVINFO_DATA data;
    };
    struct node_facts {
        const GUID& class_guid;
        const std::wstring& description;
        const std::optional<std::wstring>& friendly_name;
        const std::wstring& location;
        const std::wstring& instance_id;
        const std::vector<std::wstring>& hardware_ids;
    };
    node& create_node(const node_facts& facts);
    // The node made with the scenario's instance ID or, when that is taken, with another.
    static SP_DEVINFO_DATA create_named_node(HDEVINFO set, const node_facts& facts, unsigned& made_up_parts);
    // Creates the children (and theirs) and lists them on the parent; records them under `root`.
    void add_children(DWORD parent, const std::vector<local_node_spec>& children, DWORD root);
    [[nodiscard]] const node* find(DWORD devinst) const noexcept;
    void remove_node(DWORD devinst) noexcept;

    std::vector<node> nodes_;
    // A device's node -> the nodes below it, deepest last.
    std::map<DWORD, std::vector<DWORD>> descendants_;
    // Made-up last parts handed out, for IDs that another server holds.
    unsigned made_up_parts_ = 0;
};

}  // namespace sim_server
