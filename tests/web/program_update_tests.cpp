// The real program at start-up against the loopback update service (pointed at it through
// the administrators' override under HKLM) and the substitute sharing server.

#include "web_test_support.h"

#include "child_process.h"
#include "message_pump.h"

#include "base/module_path.h"
#include "base/window_text.h"
#include "web/staging_folder.h"
#include "web/update_service.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

namespace {

using web_test::server;

constexpr wchar_t product_title[] = L"QMX Software Ulmora Tools Server";
constexpr wchar_t settings_key[] = L"Software\\QMX Software\\Ulmora Tools\\ServerCfg";
constexpr int message_text_id = 1101;
// How long a program that should stay is watched for leaving on its own.
constexpr DWORD settle_ms = 1000;

// A visible top-level window of the program whose control `id` exists.
HWND find_box(int id)
{
    struct search {
        int id;
        HWND found = nullptr;
    } state{id};
    ::EnumWindows(
        [](HWND window, LPARAM lparam) -> BOOL {
            auto& state = *reinterpret_cast<search*>(lparam);
            if (::IsWindowVisible(window) && tessel::windows::window_text(window) == product_title &&
                ::GetDlgItem(window, state.id)) {
                state.found = window;
                return FALSE;
            }
            return TRUE;
        },
        reinterpret_cast<LPARAM>(&state));
    return state.found;
}

HWND wait_for_box(DWORD timeout_ms = 20000)
{
    HWND box = nullptr;
    test_support::pump_until([&] { return (box = find_box(message_text_id)) != nullptr; }, timeout_ms);
    return box;
}

class program_update : public ::testing::Test {
protected:
    void SetUp() override
    {
        ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key);
        ASSERT_TRUE(sim_server_.registered());
        set_service(L"newer/");
        folder = tessel::web::updates_folder_path();
        std::error_code ignored;
        std::filesystem::remove_all(std::filesystem::path(folder), ignored);
    }
    void set_service(const std::wstring& kind)
    {
        const std::wstring address = server().base() + kind;
        ASSERT_EQ(::RegSetKeyValueW(HKEY_LOCAL_MACHINE, std::wstring(tessel::web::update_service_override_key).c_str(),
                                    std::wstring(tessel::web::update_service_override_value).c_str(), REG_SZ,
                                    address.c_str(), static_cast<DWORD>((address.size() + 1) * sizeof(wchar_t))),
                  ERROR_SUCCESS);
    }
    void TearDown() override
    {
        ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, std::wstring(tessel::web::update_service_override_key).c_str(),
                             std::wstring(tessel::web::update_service_override_value).c_str());
        ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key);
    }
    void start_program()
    {
        program.emplace(L"\"" + tessel::module_folder() + L"ServerCfg.exe\"");
        ASSERT_TRUE(program->started());
    }

    test_support::registered_sim_server sim_server_;
    std::optional<test_support::child_process> program;
    std::wstring folder;
};

TEST_F(program_update, accepted_offer_hands_over_to_the_installer_and_the_program_ends)
{
    ASSERT_TRUE(::CopyFileW((tessel::module_folder() + L"\\web_fake_installer.exe").c_str(),
                            (server().files() + L"\\installer.exe").c_str(), FALSE));
    ASSERT_NO_FATAL_FAILURE(start_program());
    const HWND offer = wait_for_box();
    ASSERT_NE(offer, nullptr) << "no offer appeared";
    EXPECT_EQ(tessel::windows::window_text(::GetDlgItem(offer, message_text_id)),
              L"Ulmora Tools version 1.0.0.1 is available. Do you want to upgrade now?");
    ::PostMessageW(::GetDlgItem(offer, IDYES), BM_CLICK, 0, 0);

    // The installer starts with the program's handle, the program closes, the installer
    // notices.
    EXPECT_EQ(program->wait(30000), 0u);
    // The installer ran from its own folder below the updates folder.
    const auto report_text = [&] {
        std::error_code ignored;
        for (const auto& staged : std::filesystem::directory_iterator(std::filesystem::path(folder), ignored)) {
            const std::string text = web_test::read_file(staged.path().wstring() + L"\\UlmoraToolsSetup-1.0.0.1.exe.txt");
            if (!text.empty())
                return text;
        }
        return std::string();
    };
    web_test::pump_until_or_die([&] { return report_text().find("ended") != std::string::npos; }, 20000,
                                "the installer's wait for the program");
    EXPECT_EQ(report_text(), "pid=" + std::to_string(::GetProcessId(program->handle())) + "\nended\n");
}

TEST_F(program_update, check_without_news_keeps_the_promotion_and_the_program_closes_normally)
{
    set_service(L"same/");
    ASSERT_NO_FATAL_FAILURE(start_program());
    HWND main_window = nullptr;
    test_support::pump_until([&] { return (main_window = find_box(1003)) != nullptr; }, 20000);
    ASSERT_NE(main_window, nullptr);
    // The answer's promotion reaches the settings.
    tessel::unique_hkey promo;
    test_support::pump_until([&] {
        return ::RegOpenKeyExW(HKEY_CURRENT_USER, (std::wstring(settings_key) + L"\\promo").c_str(), 0, KEY_READ,
                               promo.put()) == ERROR_SUCCESS &&
               ::RegQueryValueExW(promo.get(), L"Title", nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
    }, 10000);
    EXPECT_EQ(::RegQueryValueExW(promo.get(), L"Title", nullptr, nullptr, nullptr, nullptr), ERROR_SUCCESS);
    // ...and the main window's promotion line, the title without its markup.
    const HWND line = ::GetDlgItem(main_window, 1020);
    test_support::pump_until([&] { return tessel::windows::window_text(line) == L"Test offer"; }, 5000);
    EXPECT_EQ(tessel::windows::window_text(line), L"Test offer");
    ::PostMessageW(main_window, WM_CLOSE, 0, 0);
    EXPECT_EQ(program->wait(), 0u);
    EXPECT_TRUE(find_box(message_text_id) == nullptr);
}

TEST_F(program_update, refused_or_failed_downloads_leave_no_file_and_the_program_running)
{
    const std::wstring bin = tessel::module_folder();
    const struct {
        const wchar_t* kind;
        const wchar_t* installer;  // what the service offers; none: nothing
        const wchar_t* reason;
    } cases[] = {
        {L"newer/", nullptr, L"80070057)"},
        {L"newer/", L"web_fake_installer_foreign.exe", L"The downloaded installer is not signed by QMX Software."},
        {L"redirected/", L"web_fake_installer.exe", L"not secure (https)"},
    };
    for (const auto& refused : cases) {
        SCOPED_TRACE(testing::Message() << (refused.installer ? refused.installer : L"none") << " via " << refused.kind);
        set_service(refused.kind);
        ::DeleteFileW((server().files() + L"\\installer.exe").c_str());
        if (refused.installer) {
            ASSERT_TRUE(::CopyFileW((bin + refused.installer).c_str(), (server().files() + L"\\installer.exe").c_str(), FALSE));
        }
        ASSERT_NO_FATAL_FAILURE(start_program());
        const HWND offer = wait_for_box();
        ASSERT_NE(offer, nullptr) << "no offer appeared";
        ::PostMessageW(::GetDlgItem(offer, IDYES), BM_CLICK, 0, 0);
        web_test::pump_until_or_die([&] { return !::IsWindow(offer); }, 10000, "the offer to close");
        const HWND error = wait_for_box();
        ASSERT_NE(error, nullptr) << "no error appeared";
        const std::wstring text = tessel::windows::window_text(::GetDlgItem(error, message_text_id));
        EXPECT_TRUE(text.starts_with(L"A following error occurred during downloading or installing upgrade: ")) << text;
        EXPECT_NE(text.find(refused.reason), std::wstring::npos) << text;
        EXPECT_TRUE(std::filesystem::is_empty(std::filesystem::path(folder)));
        ::PostMessageW(::GetDlgItem(error, IDOK), BM_CLICK, 0, 0);
        // No WM_CLOSE came with the refusal: the program stays until it is closed.
        EXPECT_EQ(program->wait(settle_ms), STILL_ACTIVE);
        HWND main_window = nullptr;
        test_support::pump_until([&] { return (main_window = find_box(1003)) != nullptr; }, 5000);
        ASSERT_NE(main_window, nullptr);
        ::PostMessageW(main_window, WM_CLOSE, 0, 0);
        EXPECT_EQ(program->wait(), 0u);
    }
}

}  // namespace
