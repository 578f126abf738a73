// The DLL's entry points: class object, unload test and self-registration.

#include "scenario.h"
#include "server.h"

#include "base/failure.h"
#include "base/module_path.h"
#include "base/unique_handle.h"
#include "base/utf.h"

#include <objbase.h>

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace sim_server {
namespace {

HINSTANCE this_module() noexcept
{
    return reinterpret_cast<HINSTANCE>(&__ImageBase);
}

std::wstring clsid_key()
{
    wchar_t clsid[40];
    ::StringFromGUID2(CLSID_UsbServer, clsid, static_cast<int>(std::size(clsid)));
    return std::wstring(L"Software\\Classes\\CLSID\\") + clsid;
}

std::wstring environment_path(const wchar_t* name)
{
    wchar_t path[MAX_PATH * 4];
    const DWORD length = ::GetEnvironmentVariableW(name, path, static_cast<DWORD>(std::size(path)));
    if (length >= std::size(path))
        throw scenario_error("the path in " + tessel::utf16_to_utf8(name) + " is too long");
    return std::wstring(path, length);
}

scenario scenario_from_environment()
{
    // A state file that exists is what the service left the last time.
    if (const std::wstring state = environment_path(state_variable);
        !state.empty() && ::GetFileAttributesW(state.c_str()) != INVALID_FILE_ATTRIBUTES)
        return load_scenario_file(state);
    const std::wstring path = environment_path(scenario_variable);
    return path.empty() ? default_scenario() : load_scenario_file(path);
}

void set_string_value(HKEY key, const wchar_t* name, const std::wstring& value)
{
    tessel::throw_if_win32_error(::RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                                                  static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))));
}

tessel::unique_hkey create_key(HKEY parent, const std::wstring& path)
{
    tessel::unique_hkey key;
    tessel::throw_if_win32_error(::RegCreateKeyExW(parent, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr,
                                                   key.put(), nullptr));
    return key;
}

class class_factory final : public module_object<IClassFactory> {
public:
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** out) noexcept override
    {
        if (!out)
            return E_POINTER;
        *out = nullptr;
        if (outer)
            return CLASS_E_NOAGGREGATION;
        // A stopped server's service has not started again yet.
        if (::GetTickCount64() < creation_refused_until)
            return CO_E_SERVER_EXEC_FAILURE;
        try {
            const auto server = usb_server::create(scenario_from_environment(), control_pipe_name());
            server->keep_state_in(environment_path(state_variable));
            return server->QueryInterface(iid, out);
        } catch (const scenario_error& e) {
            // The caller only sees the code; whoever runs the program sees why.
            tessel::debug_report(L"substitute server: " + tessel::utf8_to_utf16(e.what()));
            return e.code();
        } catch (...) {
            const HRESULT hr = tessel::hresult_from_caught_exception();
            tessel::debug_report(L"substitute server: cannot start: " + tessel::system_message(hr));
            return hr;
        }
    }

    HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) noexcept override
    {
        if (lock)
            ++module_references;
        else
            --module_references;
        return S_OK;
    }
};

}  // namespace
}  // namespace sim_server

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void* reserved)
{
    if (reason == DLL_PROCESS_ATTACH)
        ::DisableThreadLibraryCalls(module);
    if (reason == DLL_PROCESS_DETACH)
        sim_server::write_census_report();
    // Only on FreeLibrary: at process exit the class goes with the process.
    if (reason == DLL_PROCESS_DETACH && !reserved)
        sim_server::unregister_window_class(module);
    return TRUE;
}

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID iid, void** out)
{
    if (!out)
        return E_POINTER;
    *out = nullptr;
    if (clsid != CLSID_UsbServer)
        return CLASS_E_CLASSNOTAVAILABLE;
    try {
        const auto factory = tessel::make_com_object<sim_server::class_factory>();
        return factory->QueryInterface(iid, out);
    } catch (...) {
        return tessel::hresult_from_caught_exception();
    }
}

extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow()
{
    return sim_server::module_references == 0 ? S_OK : S_FALSE;
}

// Registers the class for the whole machine: Wine reads in-process servers only from
// HKLM\Software\Classes, and the program runs elevated anyway.
extern "C" HRESULT STDAPICALLTYPE DllRegisterServer()
{
    try {
        const std::wstring path = tessel::module_path(sim_server::this_module());

        const std::wstring key_path = sim_server::clsid_key();
        const auto key = sim_server::create_key(HKEY_LOCAL_MACHINE, key_path);
        sim_server::set_string_value(key.get(), nullptr, L"Ulmora Tools Server (substitute)");
        const auto inproc = sim_server::create_key(key.get(), L"InprocServer32");
        sim_server::set_string_value(inproc.get(), nullptr, path);
        sim_server::set_string_value(inproc.get(), L"ThreadingModel", L"Apartment");
        return S_OK;
    } catch (...) {
        return tessel::hresult_from_caught_exception();
    }
}

extern "C" HRESULT STDAPICALLTYPE DllUnregisterServer()
{
    const LSTATUS status = ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, sim_server::clsid_key().c_str());
    if (status == ERROR_SUCCESS || status == ERROR_FILE_NOT_FOUND)
        return S_OK;
    return tessel::hresult_from_win32(static_cast<DWORD>(status));
}
