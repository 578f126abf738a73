#pragma once
// Process tests: the real executable, started as a process under the same Wine session
// against the substitute server, its windows found and answered through ui_driver.exe.
// Every test ends with the server's census: whatever the program received from the
// server must have been released by the time it ended.

#include "base/unique_handle.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

namespace process_test {

inline constexpr wchar_t title[] = L"QMX Software Ulmora Tools Server";
inline constexpr wchar_t settings_key[] = L"Software\\QMX Software\\Ulmora Tools\\ServerCfg";
inline constexpr int message_text_id = 1101;
inline constexpr int main_tree_placeholder_id = 1003;

std::wstring bin_folder();
std::wstring temp_folder();

class process {
public:
    // current_folder: empty for the caller's.
    explicit process(const std::wstring& command_line, const std::wstring& current_folder = {});
    ~process();
    process(const process&) = delete;
    process& operator=(const process&) = delete;

    [[nodiscard]] bool started() const { return static_cast<bool>(handle_); }
    // The exit code, or STILL_ACTIVE when the process has not ended in time.
    DWORD wait(DWORD timeout_ms = 15000);
    void kill();
    [[nodiscard]] HANDLE handle() const { return handle_.get(); }

private:
    tessel::unique_handle handle_;
};

struct driver_result {
    DWORD exit_code;
    std::wstring output;
};

driver_result ui_driver(const std::wstring& arguments);
// Waits for a window of the program: a message box (its text control) or the main window.
std::wstring wait_for(int control_id, DWORD timeout_ms = 15000);
std::wstring message_text(const std::wstring& box);

class program_process : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    void register_server(bool on);
    static std::wstring program(const std::wstring& arguments = L"");
    // A scenario file of the substitute server, named in the environment the program inherits.
    void use_scenario(const std::string& json);
    // A command to the server inside the running program, through its control pipe;
    // returns whether the server carried it out.
    bool control(const std::vector<std::wstring>& words);
    // The census lines the program's server wrote when it left: "live ..." per kind in use.
    [[nodiscard]] std::vector<std::string> census_report() const;

    // Tests in which the program never loads the server clear this.
    bool expect_census_ = true;
    HMODULE server_ = nullptr;
    std::wstring census_path_;
    std::wstring pipe_name_;
};

}  // namespace process_test
