#pragma once
// The local device nodes below one of the server's devices on this machine (a hub's
// ports, a composite device's functions), as the configuration manager and SetupAPI tell
// them. The server does not know them. The window's device tree (with class icons) and
// the console companion's "list --all" (with the facts that tell nodes apart) both take
// them from this one walk, so the two never show different trees.
//
// The walk reads the system through node_source, so that tests can hand it any tree. It
// never visits a node twice: Wine's CM_Get_Child answers success for every node without
// writing its output, so a child equal to its parent, to an ancestor or to the value
// before the call ends that branch; the walk then reads the node's children list
// (DEVPKEY_Device_Children), which Windows keeps equal to what CM_Get_Child says.
//
// Two cases the rules leave open, decided here:
// - A node whose instance ID cannot be read makes no node (and so has no children we
//   could reach); its siblings are still walked.
// - A node whose ID is read but whose device information cannot be opened is still made,
//   without name and class, and its children are visited: what lies below it may well be
//   what the user wants to see. A stale entry of a children list (one that cannot be
//   opened) makes no node.

#include "base/unique_handle.h"
#include "server_link/device_identity.h"

#include <windows.h>
#include <cfgmgr32.h>
#include <setupapi.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace servercfg {

// A device information set (SetupDiCreateDeviceInfoList), destroyed with its owner.
using unique_hdevinfo = tessel::unique_any<tessel::invalid_handle_traits<::SetupDiDestroyDeviceInfoList>>;

// One device opened into a device information set of its own; closing it destroys the set.
class opened_device {
public:
    virtual ~opened_device() = default;
    [[nodiscard]] virtual GUID class_guid() = 0;
    // The device's instance handle, valid while it is open.
    [[nodiscard]] virtual DWORD devinst() = 0;
    // A registry property read into 512 bytes (SPDRP_FRIENDLYNAME, SPDRP_DEVICEDESC);
    // nothing when the call fails.
    [[nodiscard]] virtual std::optional<std::wstring> text_property(DWORD property) = 0;
    // The instance IDs of the node's children as the device's own property lists them
    // (DEVPKEY_Device_Children); asked only when the configuration manager could not tell.
    [[nodiscard]] virtual std::vector<std::wstring> child_instance_ids() = 0;
};

class node_source {
public:
    virtual ~node_source() = default;
    // Empty when it cannot be read.
    [[nodiscard]] virtual std::wstring instance_id(DWORD devinst) = 0;
    // Null when the device cannot be opened.
    [[nodiscard]] virtual std::unique_ptr<opened_device> open(const std::wstring& instance_id) = 0;
    virtual CONFIGRET get_child(DWORD* child, DWORD node) = 0;
    virtual CONFIGRET get_sibling(DWORD* sibling, DWORD node) = 0;
    // What tells the node apart from others (instance ID, vendor and product id, serial
    // number, setup class); this one knows only what the instance ID itself says.
    [[nodiscard]] virtual device_identity identity(const std::wstring& instance_id)
    {
        return identity_from_node_facts(instance_id, {}, {});
    }
};

// The configuration manager and SetupAPI of this machine.
[[nodiscard]] std::unique_ptr<node_source> make_system_node_source();

// A node as the walk finds it.
struct walked_node {
    std::wstring instance_id;
    // Friendly name, else description; empty when neither is known.
    std::wstring name;
    // None when the device information could not be opened.
    std::optional<GUID> setup_class;
    std::vector<walked_node> children;  // in configuration-manager order
};

// The node with this handle and everything below it; nothing when its ID cannot be read.
// Each node's device information stays open while its children are walked. Throws
// std::bad_alloc only.
[[nodiscard]] std::optional<walked_node> walk_local_tree(node_source& source, DWORD devinst);
// The same for a node known by its instance ID; nothing when it cannot be opened.
[[nodiscard]] std::optional<walked_node> walk_local_tree(node_source& source, const std::wstring& instance_id);

// The instance IDs that a node's children list (DEVPKEY_Device_Children) names, in its
// order; empty when it names none or is not a string list.
[[nodiscard]] std::vector<std::wstring> listed_child_ids(HDEVINFO set, SP_DEVINFO_DATA& data);

// The strings of a list of null-terminated strings that ends with an empty one
// (REG_MULTI_SZ, DEVPROP_TYPE_STRING_LIST), up to that empty one or the end.
[[nodiscard]] std::vector<std::wstring> split_multi_string(std::wstring_view units);

// What the console companion shows of a node below a device.
struct local_node {
    std::wstring name;  // friendly name, else description; empty when neither is known
    device_identity identity;
    std::vector<local_node> children;
};

// The children of the node with this instance ID on this machine, in configuration-manager
// order; empty when it has none or cannot be opened. Throws std::bad_alloc only.
[[nodiscard]] std::vector<local_node> read_local_children(const std::wstring& instance_id);

}  // namespace servercfg
