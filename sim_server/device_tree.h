#pragma once
// The local device nodes that stand for the server's devices on this machine. A real
// server's devices exist in the configuration manager's tree; the substitute creates a
// root-enumerated node per device with SetupAPI and removes it again, so that the
// program's device walk finds a name, a description and a setup class.

#include "scenario.h"

#include <windows.h>
#include <setupapi.h>

#include "base/unique_handle.h"

#include <vector>

namespace sim_server {

using unique_hdevinfo = tessel::unique_any<tessel::invalid_handle_traits<::SetupDiDestroyDeviceInfoList>>;

class local_device_tree {
public:
    local_device_tree();
    ~local_device_tree();
    local_device_tree(const local_device_tree&) = delete;
    local_device_tree& operator=(const local_device_tree&) = delete;

    // Creates and registers the node; returns its device instance handle. Throws
    // fibra::details::hresult_error.
    DWORD add(const device_spec& device);
    // Removes the node from the system; unknown handles are ignored.
    void remove(DWORD devinst) noexcept;

private:
    unique_hdevinfo set_;
    std::vector<SP_DEVINFO_DATA> nodes_;
};

}  // namespace sim_server
