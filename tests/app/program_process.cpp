#include "program_process.h"

#include "base/module_path.h"
#include "base/utf.h"

#include <cstdio>
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

test_support::tool_result ui_driver(const std::wstring& arguments)
{
    return test_support::run_tool(L"ui_driver.exe", arguments);
}

std::wstring wait_for(int control_id, DWORD timeout_ms, const std::wstring& caption)
{
    // The tool answers a window, or exit code 1 once the time is up. Anything else is the
    // tool's own failure (twice seen in full runs: an empty answer within seconds), which
    // says nothing about the program: it is asked again for the time that is left.
    const ULONGLONG deadline = ::GetTickCount64() + timeout_ms;
    for (;;) {
        const ULONGLONG now = ::GetTickCount64();
        const DWORD left = now < deadline ? static_cast<DWORD>(deadline - now) : 0;
        const auto result = ui_driver(L"wait \"" + caption + L"\" " + std::to_wstring(control_id) + L" " +
                                      std::to_wstring(left));
        if (result.exit_code == 0 && !result.output.empty())
            return result.output;
        if (result.exit_code == 1 || left == 0)
            return {};
        std::fprintf(stderr, "ui_driver wait failed itself (exit code %lu, answer \"%s\"); asked again\n",
                     static_cast<unsigned long>(result.exit_code), tessel::utf16_to_utf8(result.output).c_str());
    }
}

std::wstring message_text(const std::wstring& box)
{
    return ui_driver(L"text " + box + L" " + std::to_wstring(message_text_id)).output;
}

std::vector<std::wstring> rows(const std::wstring& window)
{
    std::vector<std::wstring> result;
    std::wistringstream lines(ui_driver(L"rows " + window + L" " + std::to_wstring(main_tree_placeholder_id)).output);
    for (std::wstring line; std::getline(lines, line);)
        result.push_back(line);
    return result;
}

std::string joined(const std::vector<std::wstring>& lines)
{
    std::wstring text;
    for (const auto& line : lines)
        text += line + L"\n";
    return tessel::utf16_to_utf8(text);
}

int row_of(const std::vector<std::wstring>& lines, const std::wstring& text)
{
    for (std::size_t i = 0; i < lines.size(); ++i)
        if (lines[i].find(text) != std::wstring::npos)
            return static_cast<int>(i);
    return -1;
}

bool share_action(const std::wstring& window, const std::wstring& name)
{
    const int row = row_of(rows(window), L"0\t" + name);
    if (row < 0)
        return false;
    ui_driver(L"select " + window + L" 1003 " + std::to_wstring(row));
    ui_driver(L"key " + window + L" 1003 13");
    return true;
}

void program_process::SetUp()
{
    ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key);
    ::SetEnvironmentVariableW(L"ULMORA_SIM_SCENARIO", nullptr);
    // Each test's program gets its own control pipe and census file.
    const std::wstring test_name = tessel::utf8_to_utf16(testing::UnitTest::GetInstance()->current_test_info()->name());
    pipe_name_ = L"\\\\.\\pipe\\qmx.ulmora.simserver.test." + std::to_wstring(::GetCurrentProcessId()) + L"." + test_name;
    ::SetEnvironmentVariableW(sim_server::pipe_variable, pipe_name_.c_str());
    census_path_ = temp_folder() + L"servercfg-census-" + test_name + L".txt";
    ::DeleteFileW(census_path_.c_str());
    ::SetEnvironmentVariableW(L"ULMORA_SIM_REFERENCE_REPORT", census_path_.c_str());
    server_.emplace();
    ASSERT_TRUE(server_->registered());
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
    server_.reset();
    ::SetEnvironmentVariableW(L"ULMORA_SIM_SCENARIO", nullptr);
    ::SetEnvironmentVariableW(sim_server::pipe_variable, nullptr);
    ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key);
}

void program_process::register_server(bool on)
{
    ASSERT_TRUE(server_->set(on));
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

sim_server::control_answer program_process::control(const std::vector<std::wstring>& words)
{
    try {
        return sim_server::send_command(pipe_name_, words);
    } catch (...) {
        return {};
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
