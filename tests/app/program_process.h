#pragma once
// Process tests: the real executable, started as a process under the same Wine session
// against the substitute server, its windows found and answered through ui_driver.exe and
// the server changed through its control pipe. Every test ends with the server's census:
// whatever the program received from the server must have been released by the time it
// ended.

#include "child_process.h"
#include "control_protocol.h"
#include "msgbox/message_box.h"
#include "ui_main/main_dialog.h"
#include "ui_main/settings_dialog.h"
#include "ui_main/share_dialog.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace process_test {

using process = test_support::child_process;

inline constexpr wchar_t title[] = L"QMX Software Ulmora Tools Server";
inline constexpr wchar_t settings_key[] = L"Software\\QMX Software\\Ulmora Tools\\ServerCfg";
// The programs' own control ids.
inline constexpr int message_text_id = tessel::message_box_text_id;
inline constexpr int main_tree_placeholder_id = servercfg::main_dialog_controls::tree_placeholder;
namespace main_ids = servercfg::main_dialog_controls;
namespace settings_ids = servercfg::settings_dialog_controls;
namespace share_ids = servercfg::share_dialog_controls;
// A control id as an argument of ui_driver: " 1016".
inline std::wstring arg(int control_id)
{
    return L" " + std::to_wstring(control_id);
}
// Where a test checks that nothing happens: long enough for what a posted message would
// have started to show, short enough to be paid for on every such check.
inline constexpr DWORD settle_ms = 500;

std::wstring bin_folder();
std::wstring temp_folder();

test_support::tool_result ui_driver(const std::wstring& arguments);
// Waits for a visible window with this caption and a control of this id: a message box
// (its text control) or the main window (its tree). Empty when none came.
std::wstring wait_for(int control_id, DWORD timeout_ms = 15000, const std::wstring& caption = title);
std::wstring message_text(const std::wstring& box);
// Polls until done() answers true, at most timeout_ms.
template <class predicate>
bool eventually(predicate done, DWORD timeout_ms = 10000)
{
    const ULONGLONG deadline = ::GetTickCount64() + timeout_ms;
    for (;;) {
        if (done())
            return true;
        if (::GetTickCount64() > deadline)
            return false;
        ::Sleep(100);
    }
}

// The rows of the main window's tree as its screen-reader interface gives them:
// "<level>\t<name>" each.
std::vector<std::wstring> rows(const std::wstring& window);
std::string joined(const std::vector<std::wstring>& lines);
// The first row that contains the text, or -1.
int row_of(const std::vector<std::wstring>& lines, const std::wstring& text);
inline bool has_row(const std::vector<std::wstring>& lines, const std::wstring& text) { return row_of(lines, text) >= 0; }
// Polls until the rows satisfy ok (a notification travels through two message loops).
template <class predicate>
bool rows_become(const std::wstring& window, predicate ok, DWORD timeout_ms = 10000)
{
    return eventually([&] { return ok(rows(window)); }, timeout_ms);
}
// Selects the top-level row that starts with the name and presses Enter: the share action.
// False when there is no such row.
bool share_action(const std::wstring& window, const std::wstring& name);

class program_process : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    void register_server(bool on);
    static std::wstring program(const std::wstring& arguments = L"");
    // A scenario file of the substitute server, named in the environment the program inherits.
    void use_scenario(const std::string& json);
    // A command to the server inside the running program, through its control pipe; not ok
    // also when no server answers.
    sim_server::control_answer control(const std::vector<std::wstring>& words);
    // The census lines the program's server wrote when it left: "live ..." per kind in use.
    [[nodiscard]] std::vector<std::string> census_report() const;

    // Tests in which the program never loads the server clear this.
    bool expect_census_ = true;
    std::optional<test_support::registered_sim_server> server_;
    std::wstring census_path_;
    std::wstring pipe_name_;
};

}  // namespace process_test
