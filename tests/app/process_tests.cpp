// The real executable against the substitute server: start-up failures and the single
// instance as the user meets them.

#include "program_process.h"

#include "base/unique_handle.h"
#include "app/startup.h"
#include "base/utf.h"
#include "server_link/server_connection.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdint>
#include <cwchar>
#include <string>

namespace {

using namespace process_test;

TEST_F(program_process, start_up_failures_show_their_message_and_exit_with_their_code)
{
    struct failing_start {
        const char* scenario;  // empty: the default one; null: the server class is not registered
        const wchar_t* arguments;
        const wchar_t* text_start;
        const wchar_t* text_part;
        int exit_code;
    };
    const wchar_t* const not_running =
        L"Ulmora Tools Server is not currently running. Either start the server or try to reinstall the product.";
    const failing_start cases[] = {
        {"", L"--no-such-option", L"", L"Invalid command line argument specified",
         servercfg::exit_code_bad_command_line},
        // A server that answers "not running", and one whose running query itself fails.
        {R"({"running": false})", L"", not_running, L"", servercfg::exit_code_server_not_running},
        {R"({"running": true, "failures": [{"method": "IsRunning", "hresult": "0x80010108"}]})", L"", not_running, L"", servercfg::exit_code_server_not_running},
        {nullptr, L"", L"Error connecting to Ulmora Tools Server API: ", L" (0x80040154)\n\nTry to reinstall the product.",
         servercfg::exit_code_server_not_created},
    };
    for (const failing_start& c : cases) {
        SCOPED_TRACE(c.scenario ? c.scenario : "unregistered");
        if (c.scenario && *c.scenario) {
            use_scenario(c.scenario);
        } else if (!c.scenario) {
            register_server(false);
            expect_census_ = false;
        }
        process program_run(program(c.arguments));
        const std::wstring box = wait_for(message_text_id);
        ASSERT_FALSE(box.empty()) << "no message box appeared";
        const std::wstring text = message_text(box);
        EXPECT_EQ(text.rfind(c.text_start, 0), 0u) << tessel::utf16_to_utf8(text);
        EXPECT_NE(text.find(c.text_part), std::wstring::npos) << tessel::utf16_to_utf8(text);
        ui_driver(L"click " + box + L" 1");
        EXPECT_EQ(program_run.wait(), static_cast<DWORD>(c.exit_code));
    }
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
    EXPECT_TRUE(eventually([&] { return ::GetForegroundWindow() == first_window; }, 5000));

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

}  // namespace
