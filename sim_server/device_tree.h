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

#include "scenario.h"

#include <windows.h>
#include <setupapi.h>

#include "base/unique_handle.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace sim_server {

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

private:
    SP_DEVINFO_DATA create_node(const GUID& class_guid, const std::wstring& description,
                                const std::optional<std::wstring>& friendly_name, const std::wstring& location);
    // Creates the children (and theirs) and lists them on the parent; records them under `root`.
    void add_children(SP_DEVINFO_DATA& parent, const std::vector<local_node_spec>& children, DWORD root);
    void remove_node(DWORD devinst) noexcept;

    unique_hdevinfo set_;
    std::vector<SP_DEVINFO_DATA> nodes_;
    // A device's node -> the nodes below it, deepest last.
    std::map<DWORD, std::vector<DWORD>> descendants_;
};

}  // namespace sim_server
