// The real executable against the substitute server: start-up, single instance, settings
// and language as the user meets them.

#include "program_process.h"

#include "base/unique_handle.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdint>
#include <cwchar>
#include <string>

namespace {

using namespace process_test;

TEST_F(program_process, unregistered_server_class_shows_the_connect_error_and_exits_with_1)
{
    register_server(false);
    expect_census_ = false;
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
    // Wine learns of the new foreground window through X focus events, a moment later.
    for (int i = 0; i < 100 && ::GetForegroundWindow() != first_window; ++i)
        ::Sleep(50);
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
