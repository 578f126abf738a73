#pragma once
// The local device nodes below one of the server's devices on this machine (a hub's
// ports, a composite device's functions), with the facts that tell them apart: what the
// console companion's "list --all" shows. The server does not know them.
//
// The walk never visits a node twice: Wine's CM_Get_Child answers success for every node
// without writing its output, and the walk then reads the node's children list
// (DEVPKEY_Device_Children) instead, which Windows keeps equal to what CM_Get_Child says.

#include "base/unique_handle.h"
#include "server_link/device_identity.h"

#include <windows.h>
#include <setupapi.h>

#include <string>
#include <vector>

namespace servercfg {

struct local_node {
    std::wstring name;  // friendly name, else description; empty when neither is known
    device_identity identity;
    std::vector<local_node> children;
};

// The children of the node with this instance ID, in configuration-manager order; empty
// when it has none or cannot be opened. Throws std::bad_alloc only.
[[nodiscard]] std::vector<local_node> read_local_children(const std::wstring& instance_id);

// A device information set (SetupDiCreateDeviceInfoList), destroyed with its owner.
using unique_hdevinfo = tessel::unique_any<tessel::invalid_handle_traits<::SetupDiDestroyDeviceInfoList>>;

// The instance IDs that a node's children list (DEVPKEY_Device_Children) names, in its
// order; empty when it names none or is not a string list.
[[nodiscard]] std::vector<std::wstring> listed_child_ids(HDEVINFO set, SP_DEVINFO_DATA& data);

}  // namespace servercfg
