// The real program at start-up against the loopback update service (pointed at it through
// the administrators' override under HKLM) and the substitute sharing server.

#include "web_test_support.h"

#include "child_process.h"
#include "message_pump.h"

#include "base/module_path.h"
#include "base/window_text.h"
#include "msgbox/message_box.h"
#include "ui_main/about_dialog.h"
#include "ui_main/main_dialog.h"
#include "web/progress_dialog.h"
#include "web/staging_folder.h"
#include "web/update_service.h"

#include <commctrl.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

namespace {

using web_test::server;
namespace main_ids = servercfg::main_dialog_controls;
namespace about_ids = servercfg::about_dialog_controls;

constexpr wchar_t product_title[] = L"QMX Software Ulmora Tools Server";
constexpr wchar_t settings_key[] = L"Software\\QMX Software\\Ulmora Tools\\ServerCfg";
constexpr int message_text_id = tessel::message_box_text_id;
// How long a program that should stay is watched for leaving on its own.
constexpr DWORD settle_ms = 1000;
// How long the windows are given to settle in their order after one has gone.
constexpr DWORD stacking_settle_ms = 500;

// A visible top-level window of the program whose control `id` exists, with the product
// title unless any title will do.
HWND find_box(int id, bool any_title = false)
{
    struct search {
        int id;
        bool any_title;
        HWND found = nullptr;
    } state{id, any_title};
    ::EnumWindows(
        [](HWND window, LPARAM lparam) -> BOOL {
            auto& state = *reinterpret_cast<search*>(lparam);
            if (::IsWindowVisible(window) && ::GetDlgItem(window, state.id) &&
                (state.any_title || tessel::windows::window_text(window) == product_title)) {
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
    test_support::pump_until([&] { return (main_window = find_box(main_ids::tree_placeholder)) != nullptr; }, 20000);
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
    const HWND line = ::GetDlgItem(main_window, main_ids::promotion);
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
        test_support::pump_until([&] { return (main_window = find_box(main_ids::tree_placeholder)) != nullptr; }, 5000);
        ASSERT_NE(main_window, nullptr);
        ::PostMessageW(main_window, WM_CLOSE, 0, 0);
        EXPECT_EQ(program->wait(), 0u);
    }
}

// The files below a folder, in any of its subfolders.
std::size_t files_below(const std::wstring& folder)
{
    std::size_t count = 0;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(std::filesystem::path(folder), ignored))
        count += entry.is_regular_file(ignored) ? 1 : 0;
    return count;
}

// Whether upper is above lower in the Z-order.
bool above(HWND upper, HWND lower)
{
    for (HWND window = ::GetWindow(lower, GW_HWNDPREV); window; window = ::GetWindow(window, GW_HWNDPREV))
        if (window == upper)
            return true;
    return false;
}

std::wstring megabytes(const wchar_t* whole, wchar_t tenth)
{
    wchar_t decimal[8] = L".";
    ::GetLocaleInfoEx(LOCALE_NAME_USER_DEFAULT, LOCALE_SDECIMAL, decimal, 8);
    return whole + std::wstring(1, decimal[0]) + tenth + L" MB";
}

class program_download : public program_update {
protected:
    // Starts the program against a service whose installer comes in part and then waits,
    // accepts the offer and waits for the progress dialog to show the part: `expected`.
    void start_download(const wchar_t* kind, const std::wstring& expected)
    {
        set_service(kind);
        ASSERT_NO_FATAL_FAILURE(start_program());
        const HWND offer = wait_for_box();
        ASSERT_NE(offer, nullptr) << "no offer appeared";
        ::PostMessageW(::GetDlgItem(offer, IDYES), BM_CLICK, 0, 0);
        test_support::pump_until([&] { return (main_window = find_box(main_ids::tree_placeholder)) != nullptr; },
                                 20000);
        ASSERT_NE(main_window, nullptr);
        const auto text = [&] {
            return tessel::windows::window_text(::GetDlgItem(progress, tessel::web::progress_dialog_text_id));
        };
        test_support::pump_until([&] {
            return (progress = find_box(tessel::web::progress_dialog_bar_id, true)) && text() == expected;
        }, 20000);
        ASSERT_NE(progress, nullptr) << "no progress dialog";
        EXPECT_EQ(text(), expected);
        EXPECT_EQ(::GetWindow(progress, GW_OWNER), main_window);
    }
    // Closes the main window and answers the question.
    void close_and_answer(int answer)
    {
        ::PostMessageW(main_window, WM_CLOSE, 0, 0);
        const HWND question = wait_for_box(10000);
        ASSERT_NE(question, nullptr) << "closing did not ask";
        EXPECT_EQ(tessel::windows::window_text(::GetDlgItem(question, message_text_id)),
                  L"A download is running. Stop it and close?");
        ::PostMessageW(::GetDlgItem(question, answer), BM_CLICK, 0, 0);
        web_test::pump_until_or_die([&] { return !::IsWindow(question); }, 10000, "the question to close");
    }

    HWND main_window = nullptr;
    HWND progress = nullptr;
};

// What the progress dialog shows of the held installer before it is released.
std::wstring held_progress_text()
{
    return L"Downloaded " + megabytes(L"0", L'1') + L" of " + megabytes(L"0", L'3') + L" (33%)";
}

TEST_F(program_download, progress_stays_above_the_main_window_and_closing_asks_first_then_cleans_up)
{
    ASSERT_NO_FATAL_FAILURE(start_download(L"slow/", held_progress_text()));
    EXPECT_EQ(files_below(folder), 1u) << "the partial file";
    // The About box comes over it; its "Check for updates" brings the download forward.
    ::PostMessageW(main_window, WM_COMMAND, main_ids::about, 0);
    HWND about = nullptr;
    test_support::pump_until([&] {
        return (about = find_box(about_ids::check_for_updates, true)) != nullptr && above(about, progress);
    }, 10000);
    ASSERT_NE(about, nullptr);
    ASSERT_TRUE(above(about, progress));
    ::PostMessageW(::GetDlgItem(about, about_ids::check_for_updates), BM_CLICK, 0, 0);
    EXPECT_TRUE(test_support::pump_until([&] { return above(progress, about); }, 10000));
    EXPECT_EQ(find_box(message_text_id), nullptr) << "a second check began";
    // Gone again, it leaves the download above the main window, in reach.
    ::PostMessageW(::GetDlgItem(about, IDOK), BM_CLICK, 0, 0);
    web_test::pump_until_or_die([&] { return !::IsWindow(about); }, 10000, "the About box to close");
    test_support::pump_for(stacking_settle_ms);
    EXPECT_TRUE(above(progress, main_window));
    EXPECT_TRUE(::IsWindowVisible(progress));

    // Closing asks; Yes stops the download, the partial file goes, and then the program.
    ASSERT_NO_FATAL_FAILURE(close_and_answer(IDYES));
    web_test::release_held_response(L"slow");
    EXPECT_EQ(program->wait(20000), 0u);
    EXPECT_TRUE(std::filesystem::is_empty(std::filesystem::path(folder)));
}

TEST_F(program_download, escape_is_heard_and_a_process_that_ends_during_the_download_leaves_no_partial_file)
{
    ASSERT_NO_FATAL_FAILURE(start_download(L"slow/", held_progress_text()));
    ASSERT_EQ(files_below(folder), 1u) << "the partial file";
    // Escape does what Cancel does (the quiet end of a cancelled download is checked in
    // the update tests); the transfer would notice at its next step, which the held
    // response delays.
    const HWND cancel = ::GetDlgItem(progress, IDCANCEL);
    ::PostMessageW(cancel, WM_KEYDOWN, VK_ESCAPE, 0);
    EXPECT_TRUE(test_support::pump_until([&] { return !::IsWindowEnabled(cancel); }, 10000)) << "Escape was not heard";
    // The process ends before that step: the partial file goes with it.
    ASSERT_TRUE(::TerminateProcess(program->handle(), 9));
    EXPECT_EQ(program->wait(20000), 9u);
    web_test::release_held_response(L"slow");
    EXPECT_TRUE(test_support::pump_until([&] { return files_below(folder) == 0; }, 10000));
}

TEST_F(program_download, without_a_size_the_bar_moves_and_no_on_closing_lets_the_download_go_on)
{
    ASSERT_NO_FATAL_FAILURE(start_download(L"unsized/", L"Downloaded " + megabytes(L"0", L'1')));
    const HWND bar = ::GetDlgItem(progress, tessel::web::progress_dialog_bar_id);
    EXPECT_TRUE(::GetWindowLongPtrW(bar, GWL_STYLE) & PBS_MARQUEE);

    ASSERT_NO_FATAL_FAILURE(close_and_answer(IDNO));
    EXPECT_EQ(program->wait(settle_ms), STILL_ACTIVE);
    EXPECT_TRUE(::IsWindowVisible(progress));
    // The download runs to its end: the test server's bytes are no signed installer.
    web_test::release_held_response(L"unsized");
    const HWND error = wait_for_box();
    ASSERT_NE(error, nullptr);
    EXPECT_NE(tessel::windows::window_text(::GetDlgItem(error, message_text_id)).find(L"no valid signature"),
              std::wstring::npos);
    ::PostMessageW(::GetDlgItem(error, IDOK), BM_CLICK, 0, 0);
    web_test::pump_until_or_die([&] { return !::IsWindow(error); }, 10000, "the error to close");
    // Nothing downloads any more: closing closes.
    ::PostMessageW(main_window, WM_CLOSE, 0, 0);
    EXPECT_EQ(program->wait(20000), 0u);
}

}  // namespace
