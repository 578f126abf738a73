#include "test_support.h"

#include "control_protocol.h"
#include "device_tree.h"

#include "base/module_path.h"
#include "base/utf.h"

#include <cfgmgr32.h>
#include <objbase.h>
#include <setupapi.h>

namespace sim_test {
namespace {

// Loaded once and kept: registration needs the DLL's own path, and keeping it loaded
// spares every test a reload.
HMODULE server_module()
{
    static const HMODULE module = [] {
        const HMODULE loaded = ::LoadLibraryW((exe_folder() + L"UlmoraSimServer.dll").c_str());
        if (loaded) {
            using entry = HRESULT(STDAPICALLTYPE*)();
            const auto register_server =
                reinterpret_cast<entry>(reinterpret_cast<void*>(::GetProcAddress(loaded, "DllRegisterServer")));
            if (!register_server || FAILED(register_server()))
                return HMODULE{};
        }
        return loaded;
    }();
    return module;
}

}  // namespace

std::wstring text_of(BSTR text)
{
    std::wstring result = text ? std::wstring(text, ::SysStringLen(text)) : std::wstring();
    ::SysFreeString(text);
    return result;
}

std::wstring exe_folder()
{
    return tessel::module_folder();
}

std::wstring device_id_of(DWORD devinst)
{
    ULONG size = 0;
    if (::CM_Get_Device_ID_Size(&size, devinst, 0) != CR_SUCCESS || size == 0)
        return {};
    std::wstring id(size + 1, L'\0');
    if (::CM_Get_Device_IDW(devinst, id.data(), size + 1, 0) != CR_SUCCESS)
        return {};
    id.resize(size);
    return id;
}

local_node read_local_node(const std::wstring& instance_id)
{
    local_node node;
    const sim_server::unique_hdevinfo devices(::SetupDiCreateDeviceInfoList(nullptr, nullptr));
    const HDEVINFO set = devices.get();
    SP_DEVINFO_DATA data{};
    data.cbSize = sizeof data;
    if (devices && ::SetupDiOpenDeviceInfoW(set, instance_id.c_str(), nullptr, 0, &data)) {
        node.found = true;
        node.class_guid = data.ClassGuid;
        wchar_t text[256];
        if (::SetupDiGetDeviceRegistryPropertyW(set, &data, SPDRP_FRIENDLYNAME, nullptr,
                                                reinterpret_cast<BYTE*>(text), sizeof text, nullptr))
            node.friendly_name = text;
        if (::SetupDiGetDeviceRegistryPropertyW(set, &data, SPDRP_DEVICEDESC, nullptr, reinterpret_cast<BYTE*>(text),
                                                sizeof text, nullptr))
            node.description = text;
    }
    return node;
}

DWORD devinst_of(IUsbDevice* device)
{
    tessel::com_ptr<IUsbDeviceNode> node;
    if (FAILED(device->QueryInterface(__uuidof(IUsbDeviceNode), node.put_void())))
        return ~0u;
    return node->GetDevInst();
}

void server_test::SetUp()
{
    ASSERT_TRUE(SUCCEEDED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)));
    ASSERT_NE(server_module(), nullptr) << "UlmoraSimServer.dll could not be loaded and registered";
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    pipe_name_ = L"\\\\.\\pipe\\qmx.ulmora.simserver.test." + std::to_wstring(::GetCurrentProcessId()) + L"." +
                 tessel::utf8_to_utf16(info->test_suite_name()) + L"." + tessel::utf8_to_utf16(info->name());
    ::SetEnvironmentVariableW(sim_server::pipe_variable, pipe_name_.c_str());
    ::SetEnvironmentVariableW(sim_server::scenario_variable, nullptr);
}

void server_test::TearDown()
{
    pump_for(0);
    ::SetEnvironmentVariableW(sim_server::scenario_variable, nullptr);
    ::SetEnvironmentVariableW(sim_server::pipe_variable, nullptr);
    if (!scenario_path_.empty())
        ::DeleteFileW(scenario_path_.c_str());
    ::CoUninitialize();
}

void server_test::use_scenario(const std::string& json)
{
    wchar_t folder[MAX_PATH];
    ::GetTempPathW(MAX_PATH, folder);
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    scenario_path_ = std::wstring(folder) + L"sim-scenario-" + tessel::utf8_to_utf16(info->name()) + L".json";
    tessel::unique_file file(::CreateFileW(scenario_path_.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                           FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(file);
    DWORD written = 0;
    ASSERT_TRUE(::WriteFile(file.get(), json.data(), static_cast<DWORD>(json.size()), &written, nullptr));
    ::SetEnvironmentVariableW(sim_server::scenario_variable, scenario_path_.c_str());
}

HRESULT server_test::create(tessel::com_ptr<IUsbServer>& server)
{
    return ::CoCreateInstance(CLSID_UsbServer, nullptr, CLSCTX_ALL, __uuidof(IUsbServer), server.put_void());
}

tessel::com_ptr<IUsbServer> server_test::create()
{
    tessel::com_ptr<IUsbServer> server;
    const HRESULT hr = create(server);
    EXPECT_EQ(hr, S_OK);
    return server;
}

std::vector<tessel::com_ptr<IUsbDevice>> server_test::devices(IUsbServer* server)
{
    ULONG count = 0;
    IUsbDevice** array = nullptr;
    std::vector<tessel::com_ptr<IUsbDevice>> result;
    if (FAILED(server->GetDevices(&count, &array)))
        return result;
    for (ULONG i = 0; i < count; ++i)
        result.push_back(tessel::com_ptr<IUsbDevice>::attach(array[i]));
    ::CoTaskMemFree(array);
    return result;
}

std::vector<tessel::com_ptr<IUsbShare>> server_test::shares(IUsbServer* server)
{
    ULONG count = 0;
    IUsbShare** array = nullptr;
    std::vector<tessel::com_ptr<IUsbShare>> result;
    if (FAILED(server->GetShares(&count, &array)))
        return result;
    for (ULONG i = 0; i < count; ++i)
        result.push_back(tessel::com_ptr<IUsbShare>::attach(array[i]));
    ::CoTaskMemFree(array);
    return result;
}

tessel::com_ptr<IUsbDevice> server_test::device_named(IUsbServer* server, std::wstring_view name)
{
    for (auto& device : devices(server)) {
        BSTR text = nullptr;
        if (SUCCEEDED(device->GetName(&text)) && text_of(text) == name)
            return device;
    }
    return nullptr;
}

}  // namespace sim_test
