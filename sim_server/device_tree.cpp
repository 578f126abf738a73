#include "device_tree.h"

#include "base/failure.h"

#include <algorithm>

namespace sim_server {
namespace {

// The root-enumerator name the nodes get ("ROOT\ULMORA_SIM_DEVICE\0000"...).
constexpr wchar_t node_base_name[] = L"ULMORA_SIM_DEVICE";

void set_text_property(HDEVINFO set, SP_DEVINFO_DATA& data, DWORD property, const std::wstring& text)
{
    tessel::throw_last_error_if(!::SetupDiSetDeviceRegistryPropertyW(
        set, &data, property, reinterpret_cast<const BYTE*>(text.c_str()),
        static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))));
}

}  // namespace

local_device_tree::local_device_tree() : set_(::SetupDiCreateDeviceInfoList(nullptr, nullptr))
{
    tessel::throw_last_error_if(!set_);
}

local_device_tree::~local_device_tree()
{
    while (!nodes_.empty())
        remove(nodes_.back().DevInst);
}

DWORD local_device_tree::add(const device_spec& device)
{
    SP_DEVINFO_DATA data{};
    data.cbSize = sizeof data;
    tessel::throw_last_error_if(!::SetupDiCreateDeviceInfoW(set_.get(), node_base_name, &device.class_guid,
                                                            device.description.c_str(), nullptr, DICD_GENERATE_ID,
                                                            &data));
    try {
        set_text_property(set_.get(), data, SPDRP_DEVICEDESC, device.description);
        if (device.friendly_name)
            set_text_property(set_.get(), data, SPDRP_FRIENDLYNAME, *device.friendly_name);
        if (!device.location.empty())
            set_text_property(set_.get(), data, SPDRP_LOCATION_INFORMATION, device.location);
        tessel::throw_last_error_if(
            !::SetupDiRegisterDeviceInfo(set_.get(), &data, 0, nullptr, nullptr, nullptr));
    } catch (...) {
        // A node that was created but not registered is only a phantom; drop it anyway.
        ::SetupDiRemoveDevice(set_.get(), &data);
        ::SetupDiDeleteDeviceInfo(set_.get(), &data);
        throw;
    }
    nodes_.push_back(data);
    return data.DevInst;
}

void local_device_tree::remove(DWORD devinst) noexcept
{
    const auto it = std::find_if(nodes_.begin(), nodes_.end(),
                                 [devinst](const SP_DEVINFO_DATA& data) { return data.DevInst == devinst; });
    if (it == nodes_.end())
        return;
    SP_DEVINFO_DATA data = *it;
    nodes_.erase(it);
    if (!::SetupDiRemoveDevice(set_.get(), &data))
        tessel::debug_report(L"substitute server: a local device node could not be removed");
    ::SetupDiDeleteDeviceInfo(set_.get(), &data);
}

}  // namespace sim_server
