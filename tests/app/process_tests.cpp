// The real executable, started as a process under the same Wine session, against the
// substitute server. Its windows are found and answered through ui_driver.exe.

#include "base/module_path.h"
#include "base/unique_handle.h"
#include "base/utf.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdint>
#include <cwchar>
#include <fstream>
#include <string>

namespace {

constexpr wchar_t title[] = L"QMX Software Ulmora Tools Server";
constexpr wchar_t settings_key[] = L"Software\\QMX Software\\Ulmora Tools\\ServerCfg";
constexpr int message_text_id = 1101;
constexpr int main_tree_placeholder_id = 1003;

std::wstring bin_folder()
{
    return tessel::module_folder();
}

class process {
public:
    explicit process(const std::wstring& command_line)
    {
        std::wstring line = command_line;
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION info{};
        if (::CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info)) {
            handle_.reset(info.hProcess);
            ::CloseHandle(info.hThread);
        }
    }
    ~process()
    {
        if (handle_ && ::WaitForSingleObject(handle_.get(), 0) == WAIT_TIMEOUT)
            ::TerminateProcess(handle_.get(), 99);
    }
    [[nodiscard]] bool started() const { return static_cast<bool>(handle_); }
    // The exit code, or STILL_ACTIVE when the process has not ended in time.
    DWORD wait(DWORD timeout_ms = 15000)
    {
        if (::WaitForSingleObject(handle_.get(), timeout_ms) != WAIT_OBJECT_0)
            return STILL_ACTIVE;
        DWORD code = 0;
        ::GetExitCodeProcess(handle_.get(), &code);
        return code;
    }

private:
    tessel::unique_handle handle_;
};

struct driver_result {
    DWORD exit_code;
    std::wstring output;
};

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

// Waits for a window of the program: a message box (its text control) or the main window.
std::wstring wait_for(int control_id, DWORD timeout_ms = 15000)
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

class program_process : public testing::Test {
protected:
    void SetUp() override
    {
        ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key);
        ::SetEnvironmentVariableW(L"ULMORA_SIM_SCENARIO", nullptr);
        server_ = ::LoadLibraryW((bin_folder() + L"UlmoraSimServer.dll").c_str());
        ASSERT_NE(server_, nullptr);
        register_server(true);
    }
    void TearDown() override
    {
        register_server(false);
        ::FreeLibrary(server_);
        ::SetEnvironmentVariableW(L"ULMORA_SIM_SCENARIO", nullptr);
        ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key);
    }
    void register_server(bool on)
    {
        const auto entry = reinterpret_cast<register_fn>(
            reinterpret_cast<void*>(::GetProcAddress(server_, on ? "DllRegisterServer" : "DllUnregisterServer")));
        ASSERT_NE(entry, nullptr);
        ASSERT_EQ(entry(), S_OK);
    }
    static std::wstring program(const std::wstring& arguments = L"")
    {
        return L"\"" + bin_folder() + L"ServerCfg.exe\"" + (arguments.empty() ? L"" : L" " + arguments);
    }
    // A scenario file of the substitute server, named in the environment the program inherits.
    void use_scenario(const std::string& json)
    {
        wchar_t folder[MAX_PATH];
        ::GetTempPathW(MAX_PATH, folder);
        const std::wstring path = std::wstring(folder) + L"servercfg-process-test.json";
        std::ofstream(path.c_str(), std::ios::binary) << json;
        ::SetEnvironmentVariableW(L"ULMORA_SIM_SCENARIO", path.c_str());
    }

    HMODULE server_ = nullptr;
};

TEST_F(program_process, unregistered_server_class_shows_the_connect_error_and_exits_with_1)
{
    register_server(false);
    process program_run(program());
    ASSERT_TRUE(program_run.started());
    const std::wstring box = wait_for(message_text_id);
    ASSERT_FALSE(box.empty()) << "no message box appeared";
    const std::wstring text = message_text(box);
    EXPECT_EQ(text.rfind(L"Error connecting to Ulmora Tools Server API: ", 0), 0u) << text;
    EXPECT_NE(text.find(L" (0x80040154)\n\nTry to reinstall the product."), std::wstring::npos) << text;
    ui_driver(L"click " + box + L" 1");
    EXPECT_EQ(program_run.wait(), 1u);
}

TEST_F(program_process, stopped_server_or_failing_running_query_shows_not_running_and_exits_with_2)
{
    // A server that answers "not running", and one whose running query itself fails.
    for (const char* scenario : {R"({"running": false})",
                                 R"({"running": true, "failures": [{"method": "IsRunning", "hresult": "0x80010108"}]})"}) {
        use_scenario(scenario);
        process program_run(program());
        const std::wstring box = wait_for(message_text_id);
        ASSERT_FALSE(box.empty()) << "no message box appeared: " << scenario;
        EXPECT_EQ(message_text(box), L"Ulmora Tools Server is not currently running. Either start the server or try "
                                     L"to reinstall the product.")
            << scenario;
        ui_driver(L"click " + box + L" 1");
        EXPECT_EQ(program_run.wait(), 2u) << scenario;
    }
}

TEST_F(program_process, unreadable_command_line_is_reported_and_ends_with_a_nonzero_code)
{
    process program_run(program(L"--no-such-option"));
    const std::wstring box = wait_for(message_text_id);
    ASSERT_FALSE(box.empty()) << "no message box appeared";
    const std::wstring text = message_text(box);
    EXPECT_NE(text.find(L"Invalid command line argument specified"), std::wstring::npos) << text;
    ui_driver(L"click " + box + L" 1");
    EXPECT_EQ(program_run.wait(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST_F(program_process, second_start_defers_to_the_first_and_closing_leaves_only_the_defaults)
{
    process first(program(L"positional-arguments are-ignored"));
    const std::wstring main_window = wait_for(main_tree_placeholder_id);
    ASSERT_FALSE(main_window.empty()) << "the main window did not appear";

    // Another window has the foreground when the second copy starts; the first copy's
    // window takes it over.
    const HWND first_window = reinterpret_cast<HWND>(static_cast<std::uintptr_t>(std::wcstoull(main_window.c_str(), nullptr, 16)));
    const tessel::unique_hwnd other(::CreateWindowExW(0, L"STATIC", L"in front", WS_POPUP | WS_VISIBLE, 0, 0, 50, 50,
                                                      nullptr, nullptr, nullptr, nullptr));
    ::SetForegroundWindow(other.get());
    ASSERT_EQ(::GetForegroundWindow(), other.get());

    process second(program());
    EXPECT_EQ(second.wait(), 0u);
    EXPECT_EQ(first.wait(0), STILL_ACTIVE) << "the first copy must keep running";
    EXPECT_EQ(::GetForegroundWindow(), first_window);

    ui_driver(L"close " + main_window);
    EXPECT_EQ(first.wait(), 0u);

    // A user who changed nothing leaves the key with an empty "promo" subkey only.
    tessel::unique_hkey key;
    ASSERT_EQ(::RegOpenKeyExW(HKEY_CURRENT_USER, settings_key, 0, KEY_READ, key.put()), ERROR_SUCCESS);
    DWORD subkeys = 0, values = 0;
    ::RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, &values, nullptr, nullptr,
                       nullptr, nullptr);
    EXPECT_EQ(values, 0u);
    EXPECT_EQ(subkeys, 1u);
    tessel::unique_hkey promo;
    ASSERT_EQ(::RegOpenKeyExW(key.get(), L"promo", 0, KEY_READ, promo.put()), ERROR_SUCCESS);
    ::RegQueryInfoKeyW(promo.get(), nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, &values, nullptr, nullptr,
                       nullptr, nullptr);
    EXPECT_EQ(values + subkeys, 0u);
}

TEST_F(program_process, the_chosen_language_pack_beside_the_program_translates_the_main_window)
{
    tessel::unique_hkey key;
    ASSERT_EQ(::RegCreateKeyExW(HKEY_CURRENT_USER, settings_key, 0, nullptr, 0, KEY_SET_VALUE, nullptr, key.put(), nullptr),
              ERROR_SUCCESS);
    const wchar_t german[] = L"de";
    ::RegSetValueExW(key.get(), L"language", 0, REG_SZ, reinterpret_cast<const BYTE*>(german), sizeof german);
    key.reset();

    process program_run(program());
    const std::wstring main_window = wait_for(main_tree_placeholder_id);
    ASSERT_FALSE(main_window.empty()) << "the main window did not appear";
    EXPECT_EQ(ui_driver(L"text " + main_window + L" 1016").output, L"Getrennte ausblenden");
    EXPECT_EQ(ui_driver(L"text " + main_window + L" 2").output, L"Schlie\u00DFen");
    ui_driver(L"close " + main_window);
    EXPECT_EQ(program_run.wait(), 0u);
}

TEST_F(program_process, a_foreign_window_with_the_title_as_prefix_counts_but_another_case_does_not)
{
    const auto window_titled = [](const wchar_t* text) {
        return tessel::unique_hwnd(::CreateWindowExW(0, L"STATIC", text, WS_POPUP, 0, 0, 10, 10, nullptr, nullptr,
                                                     nullptr, nullptr));
    };
    {
        auto foreign = window_titled(L"QMX Software Ulmora Tools Server - another tool");
        process program_run(program());
        EXPECT_EQ(program_run.wait(), 0u);
        EXPECT_TRUE(wait_for(main_tree_placeholder_id, 300).empty());
    }
    {
        auto other_case = window_titled(L"QMX Software Ulmora Tools SERVER");
        auto shorter = window_titled(L"QMX Software Ulmora Tools");
        process program_run(program());
        const std::wstring main_window = wait_for(main_tree_placeholder_id);
        ASSERT_FALSE(main_window.empty()) << "the program must not take these windows for itself";
        ui_driver(L"close " + main_window);
        EXPECT_EQ(program_run.wait(), 0u);
    }
}

}  // namespace
