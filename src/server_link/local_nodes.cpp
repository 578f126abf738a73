#include "server_link/local_nodes.h"

#include "base/unique_handle.h"

#include <cfgmgr32.h>
#include <devpropdef.h>
#include <setupapi.h>

#include <set>

namespace servercfg {
namespace {

// Deeper than any real USB tree (seven tiers of hubs): a tree that goes on is a loop the
// visited set did not catch.
constexpr int max_depth = 32;

std::wstring text_property(HDEVINFO set, SP_DEVINFO_DATA& data, DWORD property)
{
    wchar_t text[256]{};
    if (!::SetupDiGetDeviceRegistryPropertyW(set, &data, property, nullptr, reinterpret_cast<BYTE*>(text),
                                             sizeof text - sizeof(wchar_t), nullptr))
        return {};
    return text;
}

struct walk {
    std::set<std::wstring> visited;

    void children_of(const std::wstring& id, std::vector<local_node>& out, int depth)
    {
        if (depth > max_depth)
            return;
        unique_hdevinfo set(::SetupDiCreateDeviceInfoList(nullptr, nullptr));
        SP_DEVINFO_DATA data{};
        data.cbSize = sizeof data;
        if (!set || !::SetupDiOpenDeviceInfoW(set.get(), id.c_str(), nullptr, 0, &data))
            return;
        // The value before the call is the node itself, so a call that succeeds without
        // writing (Wine) is told apart from one that names a real child.
        DWORD child = data.DevInst;
        if (::CM_Get_Child(&child, data.DevInst, 0) != CR_SUCCESS)
            return;
        if (child != data.DevInst) {
            for (;;) {
                const std::wstring child_id = instance_id_of(child);
                if (child_id.empty() || !add(child_id, out, depth))
                    break;
                DWORD next = child;
                if (::CM_Get_Sibling(&next, child, 0) != CR_SUCCESS || next == child)
                    break;
                child = next;
            }
            return;
        }
        for (const std::wstring& child_id : listed_child_ids(set.get(), data))
            add(child_id, out, depth);
    }

    bool add(const std::wstring& id, std::vector<local_node>& out, int depth)
    {
        if (!visited.insert(id).second)
            return false;
        local_node node;
        node.identity = read_node_identity(id);
        {
            unique_hdevinfo set(::SetupDiCreateDeviceInfoList(nullptr, nullptr));
            SP_DEVINFO_DATA data{};
            data.cbSize = sizeof data;
            if (set && ::SetupDiOpenDeviceInfoW(set.get(), id.c_str(), nullptr, 0, &data)) {
                node.name = text_property(set.get(), data, SPDRP_FRIENDLYNAME);
                if (node.name.empty())
                    node.name = text_property(set.get(), data, SPDRP_DEVICEDESC);
            }
        }
        children_of(id, node.children, depth + 1);
        out.push_back(std::move(node));
        return true;
    }
};

}  // namespace

std::vector<std::wstring> listed_child_ids(HDEVINFO set, SP_DEVINFO_DATA& data)
{
    // DEVPKEY_Device_Children, spelt out: through the headers its definition depends on the
    // order in which they were included, and a wrong one links silently.
    static constexpr DEVPROPKEY children_key = {{0x4340a6c5, 0x93fa, 0x4706, {0x97, 0x2c, 0x7b, 0x64, 0x80, 0x08, 0xa5, 0xa7}}, 9};
    DEVPROPTYPE type = 0;
    DWORD size = 0;
    ::SetupDiGetDevicePropertyW(set, &data, &children_key, &type, nullptr, 0, &size, 0);
    if (size < sizeof(wchar_t) || size > 64 * 1024)
        return {};
    std::wstring units(size / sizeof(wchar_t) + 1, L'\0');
    if (!::SetupDiGetDevicePropertyW(set, &data, &children_key, &type, reinterpret_cast<BYTE*>(units.data()), size,
                                     nullptr, 0) ||
        type != DEVPROP_TYPE_STRING_LIST)
        return {};
    std::vector<std::wstring> ids;
    for (std::size_t at = 0; at < units.size() && units[at] != L'\0';) {
        const std::size_t end = units.find(L'\0', at);
        ids.emplace_back(units.substr(at, end - at));
        at = end + 1;
    }
    return ids;
}

std::vector<local_node> read_local_children(const std::wstring& instance_id)
{
    std::vector<local_node> children;
    if (instance_id.empty())
        return children;
    walk state;
    state.visited.insert(instance_id);
    state.children_of(instance_id, children, 0);
    return children;
}

}  // namespace servercfg
