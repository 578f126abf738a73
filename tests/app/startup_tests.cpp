#include "program_process.h"

#include "app/startup.h"

#include "base/module_path.h"
#include "base/unique_handle.h"
#include "base/utf.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

TEST(startup, title_prefix_matches_case_sensitively_and_never_a_shorter_title)
{
    const auto window_titled = [](const wchar_t* text) {
        return tessel::unique_hwnd(
            ::CreateWindowExW(0, L"STATIC", text, WS_POPUP, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr));
    };
    const std::wstring_view prefix = L"Ulmora prefix test window";
    auto shorter = window_titled(L"Ulmora prefix test windo");
    auto other_case = window_titled(L"ULMORA prefix test window");
    EXPECT_EQ(servercfg::find_window_with_title_prefix(prefix), nullptr);

    auto exact = window_titled(L"Ulmora prefix test window");
    EXPECT_EQ(servercfg::find_window_with_title_prefix(prefix), exact.get());
    exact.reset();
    auto longer = window_titled(L"Ulmora prefix test window, and more");
    EXPECT_EQ(servercfg::find_window_with_title_prefix(prefix), longer.get());
}

TEST(startup, error_texts_fall_back_to_the_programs_own_text)
{
    EXPECT_EQ(servercfg::error_text(static_cast<HRESULT>(0xA0DE7777)), L"Unknown error");
    EXPECT_FALSE(servercfg::error_text(E_ACCESSDENIED).empty());
}

TEST(startup, a_new_copy_starts_by_its_own_path_with_the_very_same_command_line)
{
    const std::wstring folder = tessel::module_folder();
    wchar_t temp[MAX_PATH];
    ::GetTempPathW(MAX_PATH, temp);
    const std::wstring record = std::wstring(temp) + L"servercfg-restart-test.txt";
    ::DeleteFileW(record.c_str());

    // The command line's first word names no program: the copy is found by its path alone.
    const std::wstring command_line =
        L"\"" + folder + L"no such folder\\ui_driver.exe\" record \"" + record + L"\" plain \"two words\" --flag \"q\\\"uote\"";
    servercfg::start_new_copy(folder + L"ui_driver.exe", command_line);

    std::string seen;
    EXPECT_TRUE(process_test::eventually(
        [&] {
            if (FILE* file = _wfopen(record.c_str(), L"rb")) {
                char buffer[1024];
                seen.assign(buffer, std::fread(buffer, 1, sizeof buffer, file));
                std::fclose(file);
            }
            return !seen.empty();
        },
        5000));
    EXPECT_EQ(tessel::utf8_to_utf16(seen), command_line);
    ::DeleteFileW(record.c_str());
}

}  // namespace
