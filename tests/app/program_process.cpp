#include "program_process.h"

#include "base/module_path.h"
#include "base/utf.h"
#include "control_protocol.h"

#include <fstream>
#include <sstream>

namespace process_test {

std::wstring bin_folder()
{
    return tessel::module_folder();
}

std::wstring temp_folder()
{
    wchar_t folder[MAX_PATH];
    const DWORD length = ::GetTempPathW(MAX_PATH, folder);
    return std::wstring(folder, length);
}

process::process(const std::wstring& command_line, const std::wstring& current_folder)
{
    std::wstring line = command_line;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    if (::CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr,
                         current_folder.empty() ? nullptr : current_folder.c_str(), &startup, &info)) {
        handle_.reset(info.hProcess);
        ::CloseHandle(info.hThread);
    }
}

process::~process()
{
    kill();
}

void process::kill()
{
    if (handle_ && ::WaitForSingleObject(handle_.get(), 0) == WAIT_TIMEOUT) {
        ::TerminateProcess(handle_.get(), 99);
        ::WaitForSingleObject(handle_.get(), 5000);
    }
}

DWORD process::wait(DWORD timeout_ms)
{
    if (::WaitForSingleObject(handle_.get(), timeout_ms) != WAIT_OBJECT_0)
        return STILL_ACTIVE;
    DWORD code = 0;
    ::GetExitCodeProcess(handle_.get(), &code);
    return code;
}

driver_result ui_driver(const std::wstring& arguments)
{
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    HANDLE read_end = nullptr, write_end = nullptr;
    if (!::CreatePipe(&read_end, &write_end, &inherit, 0))
        return {~0u, {}};
    tessel::unique_handle reader(read_end), writer(write_end);
    ::SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);

    std::wstring line = L"\"" + bin_folder() + L"ui_driver.exe\" " + arguments;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = write_end;
    startup.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info))
        return {~0u, {}};
    tessel::unique_handle process_handle(info.hProcess), thread_handle(info.hThread);
    writer.reset();

    std::string output;
    char buffer[512];
    DWORD got = 0;
    while (::ReadFile(read_end, buffer, sizeof buffer, &got, nullptr) && got)
        output.append(buffer, got);
    ::WaitForSingleObject(info.hProcess, INFINITE);
    DWORD code = 0;
    ::GetExitCodeProcess(info.hProcess, &code);
    return {code, tessel::utf8_to_utf16(output)};
}

std::wstring wait_for(int control_id, DWORD timeout_ms)
{
    const auto result = ui_driver(L"wait \"" + std::wstring(title) + L"\" " + std::to_wstring(control_id) + L" " +
                                  std::to_wstring(timeout_ms));
    return result.exit_code == 0 ? result.output : std::wstring();
}

std::wstring message_text(const std::wstring& box)
{
    return ui_driver(L"text " + box + L" " + std::to_wstring(message_text_id)).output;
}

using register_fn = HRESULT(STDAPICALLTYPE*)();

void program_process::SetUp()
{
    ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key);
    ::SetEnvironmentVariableW(L"ULMORA_SIM_SCENARIO", nullptr);
    // Each test's program gets its own control pipe and census file.
    const std::wstring test_name = tessel::utf8_to_utf16(testing::UnitTest::GetInstance()->current_test_info()->name());
    pipe_name_ = L"\\\\.\\pipe\\qmx.ulmora.simserver.test." + std::to_wstring(::GetCurrentProcessId()) + L"." + test_name;
    ::SetEnvironmentVariableW(L"ULMORA_SIM_PIPE", pipe_name_.c_str());
    census_path_ = temp_folder() + L"servercfg-census-" + test_name + L".txt";
    ::DeleteFileW(census_path_.c_str());
    ::SetEnvironmentVariableW(L"ULMORA_SIM_REFERENCE_REPORT", census_path_.c_str());
    server_ = ::LoadLibraryW((bin_folder() + L"UlmoraSimServer.dll").c_str());
    ASSERT_NE(server_, nullptr);
    register_server(true);
}

void program_process::TearDown()
{
    // Not this process's own copy of the DLL: it reports nothing when it goes.
    ::SetEnvironmentVariableW(L"ULMORA_SIM_REFERENCE_REPORT", nullptr);
    int ends = 0;
    for (const std::string& line : census_report()) {
        if (line.rfind("live ", 0) == 0)
            ADD_FAILURE() << "the program did not release what the server handed out: " << line.substr(5)
                          << " (kind, objects, references)";
        else if (line.rfind("end ", 0) == 0)
            ++ends;
    }
    if (expect_census_) {
        EXPECT_GT(ends, 0) << "the program's server wrote no census: the program did not end normally";
    }
    ::DeleteFileW(census_path_.c_str());
    if (server_) {
        register_server(false);
        ::FreeLibrary(server_);
    }
    ::SetEnvironmentVariableW(L"ULMORA_SIM_SCENARIO", nullptr);
    ::SetEnvironmentVariableW(L"ULMORA_SIM_PIPE", nullptr);
    ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key);
}

void program_process::register_server(bool on)
{
    const auto entry = reinterpret_cast<register_fn>(
        reinterpret_cast<void*>(::GetProcAddress(server_, on ? "DllRegisterServer" : "DllUnregisterServer")));
    ASSERT_NE(entry, nullptr);
    ASSERT_EQ(entry(), S_OK);
}

std::wstring program_process::program(const std::wstring& arguments)
{
    return L"\"" + bin_folder() + L"ServerCfg.exe\"" + (arguments.empty() ? L"" : L" " + arguments);
}

void program_process::use_scenario(const std::string& json)
{
    const std::wstring path = temp_folder() + L"servercfg-process-test.json";
    std::ofstream(path.c_str(), std::ios::binary) << json;
    ::SetEnvironmentVariableW(L"ULMORA_SIM_SCENARIO", path.c_str());
}

bool program_process::control(const std::vector<std::wstring>& words)
{
    try {
        return sim_server::send_command(pipe_name_, words).ok;
    } catch (...) {
        return false;
    }
}

std::vector<std::string> program_process::census_report() const
{
    std::vector<std::string> lines;
    std::ifstream file(census_path_.c_str(), std::ios::binary);
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

}  // namespace process_test
