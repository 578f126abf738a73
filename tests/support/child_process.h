#pragma once
// Other processes in tests: the program under test, its helpers and the substitute
// server's DLL, which must be registered as the server class before the program starts.

#include "base/module_path.h"
#include "base/unique_handle.h"
#include "base/utf.h"

#include <windows.h>

#include <algorithm>
#include <string>

namespace test_support {

class child_process {
public:
    // current_folder: empty for the caller's. inherit: the child inherits inheritable handles.
    explicit child_process(std::wstring command_line, const std::wstring& current_folder = {}, bool inherit = false)
    {
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION info{};
        if (::CreateProcessW(nullptr, command_line.data(), nullptr, nullptr, inherit, 0, nullptr,
                             current_folder.empty() ? nullptr : current_folder.c_str(), &startup, &info)) {
            handle_.reset(info.hProcess);
            ::CloseHandle(info.hThread);
        }
    }
    ~child_process() { kill(); }
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;

    [[nodiscard]] bool started() const { return static_cast<bool>(handle_); }
    [[nodiscard]] HANDLE handle() const { return handle_.get(); }
    // The exit code, or STILL_ACTIVE when the process has not ended in time.
    DWORD wait(DWORD timeout_ms = 15000)
    {
        if (::WaitForSingleObject(handle_.get(), timeout_ms) != WAIT_OBJECT_0)
            return STILL_ACTIVE;
        DWORD code = 0;
        ::GetExitCodeProcess(handle_.get(), &code);
        return code;
    }
    void kill()
    {
        if (handle_ && ::WaitForSingleObject(handle_.get(), 0) == WAIT_TIMEOUT) {
            ::TerminateProcess(handle_.get(), 99);
            ::WaitForSingleObject(handle_.get(), 5000);
        }
    }

private:
    tessel::unique_handle handle_;
};

struct tool_result {
    DWORD exit_code;
    std::wstring output;
};

// Runs an executable of the build folder and collects its standard output and error.
// answer_messages: this thread's messages are handled while the tool runs (a tool that
// talks to this thread's windows needs their answers). A tool that overruns the timeout
// is ended with exit code 99.
inline tool_result run_tool(const std::wstring& exe, const std::wstring& arguments, DWORD timeout_ms = 30000,
                            bool answer_messages = false)
{
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    HANDLE read_end = nullptr, write_end = nullptr;
    if (!::CreatePipe(&read_end, &write_end, &inherit, 0))
        return {~0u, {}};
    tessel::unique_handle reader(read_end), writer(write_end);
    ::SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);
    std::wstring line = L"\"" + tessel::module_folder() + exe + L"\" " + arguments;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = write_end;
    startup.hStdError = write_end;
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info))
        return {~0u, {}};
    tessel::unique_handle process_handle(info.hProcess), thread_handle(info.hThread);
    writer.reset();
    // Read until the tool has ended, not until the pipe closes: a helper process that Wine
    // starts on the tool's behalf may inherit the pipe and keep it open.
    std::string output;
    char buffer[4096];
    const auto drain = [&] {
        DWORD available = 0, got = 0;
        while (::PeekNamedPipe(read_end, nullptr, 0, nullptr, &available, nullptr) && available &&
               ::ReadFile(read_end, buffer, std::min<DWORD>(available, sizeof buffer), &got, nullptr) && got)
            output.append(buffer, got);
    };
    const ULONGLONG deadline = ::GetTickCount64() + timeout_ms;
    const auto wait = [&] {
        if (!answer_messages)
            return ::WaitForSingleObject(info.hProcess, 10);
        const DWORD woke = ::MsgWaitForMultipleObjects(1, &info.hProcess, FALSE, 10, QS_ALLINPUT);
        for (MSG message; ::PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE);) {
            ::TranslateMessage(&message);
            ::DispatchMessageW(&message);
        }
        return woke == WAIT_OBJECT_0 ? WAIT_OBJECT_0 : ::WaitForSingleObject(info.hProcess, 0);
    };
    while (wait() == WAIT_TIMEOUT) {
        drain();
        if (::GetTickCount64() > deadline) {
            ::TerminateProcess(info.hProcess, 99);
            break;
        }
    }
    drain();
    DWORD code = 0;
    ::GetExitCodeProcess(info.hProcess, &code);
    return {code, tessel::utf8_to_utf16(output)};
}

// The substitute server's DLL beside the tests, registered while this object lives.
class registered_sim_server {
public:
    registered_sim_server()
        : module_(::LoadLibraryW((tessel::module_folder() + L"UlmoraSimServer.dll").c_str())), registered_(set(true))
    {
    }
    ~registered_sim_server() { set(false); }
    registered_sim_server(const registered_sim_server&) = delete;
    registered_sim_server& operator=(const registered_sim_server&) = delete;

    // Registers or unregisters the class; false when the DLL or its entry is missing or fails.
    bool set(bool on) const
    {
        using entry = HRESULT(STDAPICALLTYPE*)();
        const auto function = module_ ? reinterpret_cast<entry>(reinterpret_cast<void*>(
                                            ::GetProcAddress(module_.get(), on ? "DllRegisterServer" : "DllUnregisterServer")))
                                      : nullptr;
        return function && function() == S_OK;
    }
    // Whether the DLL was found and registered itself.
    [[nodiscard]] bool registered() const { return registered_; }

private:
    tessel::unique_hmodule module_;
    bool registered_;
};

}  // namespace test_support
