#pragma once
// Shared pieces of the substitute server's tests: registration, a server per test with
// its own scenario and pipe, a message pump with a time limit, and recording listeners.

#include "scenario.h"

#include "server_link/server_api.h"
#include "base/com_object.h"
#include "base/com_ptr.h"
#include "base/unique_handle.h"

#include "message_pump.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace sim_test {

using test_support::pump_for;
using test_support::pump_until;

std::wstring text_of(BSTR text);

// The device instance ID of a node ("ROOT\\..."), empty when the handle is unknown.
std::wstring device_id_of(DWORD devinst);
// The device-node interface's handle of a server device; ~0u without the interface.
DWORD devinst_of(IUsbDevice* device);

struct local_node {
    bool found = false;
    std::wstring friendly_name;
    std::wstring description;
    GUID class_guid{};
};
// Reads the node the way the program's device walk does.
local_node read_local_node(const std::wstring& instance_id);
std::wstring exe_folder();

// Per test: an STA, the DLL registered, a scenario file (or the built-in one) and a pipe
// name of its own, so that no test sees another's server.
class server_test : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Writes the scenario that the next created server plays.
    void use_scenario(const std::string& json);
    // CoCreateInstance with CLSCTX_ALL, as the program does.
    HRESULT create(tessel::com_ptr<IUsbServer>& server);
    tessel::com_ptr<IUsbServer> create();

    std::vector<tessel::com_ptr<IUsbDevice>> devices(IUsbServer* server);
    std::vector<tessel::com_ptr<IUsbShare>> shares(IUsbServer* server);
    tessel::com_ptr<IUsbDevice> device_named(IUsbServer* server, std::wstring_view name);

    std::wstring pipe_name_;
    std::wstring scenario_path_;
};

struct notification {
    int slot;
    tessel::com_ptr<IUsbDevice> device;
    DWORD thread_id;
};

class recording_listener final : public tessel::com_object<IUsbServerListener> {
public:
    std::vector<notification> received;

    HRESULT STDMETHODCALLTYPE OnDeviceAdded(IUsbDevice* device) noexcept override { return note(3, device); }
    HRESULT STDMETHODCALLTYPE OnDeviceChanged(IUsbDevice* device) noexcept override { return note(4, device); }
    HRESULT STDMETHODCALLTYPE OnClientConnectionChanged(IUsbDevice* device) noexcept override
    {
        return note(5, device);
    }
    HRESULT STDMETHODCALLTYPE OnClientConnectionChanged2(IUsbDevice* device) noexcept override
    {
        return note(6, device);
    }

private:
    HRESULT note(int slot, IUsbDevice* device)
    {
        received.push_back({slot, tessel::com_ptr<IUsbDevice>(device), ::GetCurrentThreadId()});
        return S_OK;
    }
};

class recording_handler final : public tessel::com_object<IUsbServerOperationHandler> {
public:
    int calls = 0;
    DWORD thread_id = 0;
    HRESULT result = E_PENDING;

    HRESULT STDMETHODCALLTYPE OnCompleted(IUsbServerOperation* operation) noexcept override
    {
        ++calls;
        thread_id = ::GetCurrentThreadId();
        operation->GetResult(&result);
        return S_OK;
    }
};

}  // namespace sim_test
