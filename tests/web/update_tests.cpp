// The update path: versions, downloads, the hand-over to the installer and the whole check
// against the loopback server, with a scripted user answering the boxes.

#include "web_test_support.h"

#include "message_pump.h"

#include "base/module_path.h"
#include "nsm/app_settings.h"
#include "web/download.h"
#include "format/ts_printf.h"
#include "web/product_version.h"
#include "web/progress_dialog.h"
#include "web/update_check.h"

#include <gtest/gtest.h>

#include <deque>
#include <filesystem>
#include <thread>
#include <memory>

namespace {

using namespace tessel::web;
using web_test::code_of;
using web_test::files_in;
using web_test::run_task;
using web_test::server;

TEST(product_version, packs_unpacks_and_compares)
{
    static_assert(packed_version(product_version{3, 1, 0, 1234}) == 301001234);
    static_assert(is_newer_release(301001235, 301001234) && !is_newer_release(301001234, 301001234));
    EXPECT_EQ(dotted_version(unpacked_version(607020007)), L"6.7.2.7");
    EXPECT_EQ(dotted_version(unpacked_version(99999999999)), L"999.99.99.9999");

    // The program's own resource; a module without one has no version.
    const std::wstring program = tessel::module_folder() + L"\\ServerCfg.exe";
    tessel::unique_hmodule module(
        ::LoadLibraryExW(program.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
    ASSERT_TRUE(module);
    const auto own = module_product_version(module.get());
    ASSERT_TRUE(own.has_value());
    EXPECT_EQ(*own, (product_version{1, 0, 0, 0}));
    EXPECT_FALSE(module_product_version().has_value());
}

TEST(download_progress, tells_sizes_percentage_and_once_steady_rate_and_time_left)
{
    // The separators are the user's: the expectations take them from the same place.
    wchar_t decimal[8] = {};
    ASSERT_GT(::GetLocaleInfoEx(LOCALE_NAME_USER_DEFAULT, LOCALE_SDECIMAL, decimal, 8), 1);
    const auto mb = [&](std::wstring whole, wchar_t tenth) { return whole + decimal[0] + tenth + L" MB"; };
    const wchar_t thousand = ts_printf::thousands_separator();
    constexpr std::uint64_t mib = 1 << 20;
    EXPECT_EQ(size_text(1536 * mib + mib * 96 / 100),
              mb(thousand ? L"1" + std::wstring(1, thousand) + L"537" : L"1537", L'0'));
    EXPECT_EQ(progress_text(14811136, 51200000, std::nullopt),
              L"Downloaded " + mb(L"14", L'1') + L" of " + mb(L"48", L'8') + L" (28%)");
    EXPECT_EQ(progress_text(100000, -1, std::nullopt), L"Downloaded " + mb(L"0", L'1'));
    // Once steady: the rate, and with a known size the time left, in the unit that suits it.
    EXPECT_TRUE(
        progress_text(10 * mib, 50 * mib, 2.0 * mib).ends_with(L" (20%)\n" + mb(L"2", L'0') + L"/s, 20 s left"));
    EXPECT_TRUE(progress_text(10 * mib, 50 * mib, 0.5 * mib).ends_with(L"/s, 1 min 20 s left"));
    EXPECT_TRUE(progress_text(0, 50 * mib, 10240.0).ends_with(L"/s, 1 h 25 min left"));
    EXPECT_EQ(progress_text(mib, -1, 0.5 * mib), L"Downloaded " + mb(L"1", L'0') + L"\n" + mb(L"0", L'5') + L"/s");

    // The rate waits for the transfer to settle, then follows the last seconds only.
    transfer_rate rate;
    rate.add(1000, 100000);
    rate.add(2000, 1100000);
    EXPECT_FALSE(rate.bytes_per_second());
    rate.add(4000, 3100000);
    EXPECT_EQ(rate.bytes_per_second(), 1000000.0);
    for (std::uint64_t tick = 5000; tick <= 12000; tick += 1000)
        rate.add(tick, 3100000 + (tick - 4000) * 100);
    EXPECT_EQ(rate.bytes_per_second(), 100000.0);
}

class download_test : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(client.initialize(server().base())); }

    auto download(std::wstring path, std::uint64_t limit = 1 << 24, stop_token stop = {})
    {
        return run_task<downloaded_file>([this, path, limit, stop]() {
            return download_file(client, path.starts_with(L"http") ? path : server().base() + path, folder,
                                 L"setup.exe", limit, stop, nullptr);
        });
    }

    HttpClient client;
    std::wstring folder = web_test::fresh_folder(L"download");
};

TEST_F(download_test, arrives_under_its_final_name_and_stays_locked_against_writers)
{
    auto [file, error] = download(L"bytes/300000");
    ASSERT_FALSE(error) << std::hex << code_of(error);
    EXPECT_EQ(file->path, folder + L"\\setup.exe");
    EXPECT_EQ(file->size, 300000u);
    EXPECT_EQ(files_in(folder), std::vector<std::wstring>{L"setup.exe"});
    EXPECT_EQ(web_test::read_file(file->path).size(), 300000u);

    // While the program holds it, nobody may write, delete or rename it; reading is fine.
    tessel::unique_file writer(::CreateFileW(file->path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                             nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_FALSE(writer);
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    EXPECT_FALSE(::DeleteFileW(file->path.c_str()));
    EXPECT_FALSE(::MoveFileW(file->path.c_str(), (folder + L"\\other.exe").c_str()));
    tessel::unique_file reader(::CreateFileW(file->path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                             nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(reader);
    file->handle.reset();
    EXPECT_TRUE(::DeleteFileW(file->path.c_str()));
}

TEST_F(download_test, failures_and_cancellation_leave_no_file_behind)
{
    EXPECT_EQ(code_of(download(L"cut").second), HRESULT_FROM_WIN32(ERROR_INTERNET_CONNECTION_ABORTED));
    EXPECT_EQ(code_of(download(L"status/404").second), E_INVALIDARG);
    EXPECT_EQ(code_of(download(L"bytes/5000", 4999).second), HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE));
    EXPECT_EQ(code_of(download(L"http://localhost:" + std::to_wstring(server().http_port) + L"/bytes/10").second),
              e_insecure_address);
    EXPECT_EQ(code_of(download(L"redirect-http").second), e_insecure_address);
    auto cancelled = std::make_shared<fibra::details::cancellation_source_body>();
    cancelled->cancel();
    EXPECT_EQ(code_of(download(L"bytes/1000", 1 << 20, stop_token{nullptr, cancelled}).second), E_ABORT);
    EXPECT_TRUE(files_in(folder).empty());
}

// ---- the whole check ------------------------------------------------------------------

// Stands for the main window: counts WM_CLOSE instead of closing.
LRESULT CALLBACK counting_window_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    if (message == WM_CLOSE) {
        ::SetWindowLongPtrW(window, GWLP_USERDATA, ::GetWindowLongPtrW(window, GWLP_USERDATA) + 1);
        return 0;
    }
    return ::DefWindowProcW(window, message, wparam, lparam);
}

HWND create_counting_window()
{
    static const ATOM registered = [] {
        WNDCLASSW window_class{};
        window_class.lpfnWndProc = counting_window_procedure;
        window_class.hInstance = ::GetModuleHandleW(nullptr);
        window_class.lpszClassName = L"web_test_main_window";
        return ::RegisterClassW(&window_class);
    }();
    (void)registered;
    return ::CreateWindowExW(0, L"web_test_main_window", L"", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
}

std::wstring per_test_folder(const wchar_t* name)
{
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::wstring folder = name;
    for (const char* c = test->name(); *c; ++c)
        folder += static_cast<wchar_t>(*c);
    return web_test::fresh_folder(folder);
}

struct scripted_user {
    std::deque<int> answers;
    std::vector<std::wstring> texts;
};

class update_check_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        server();
        window.reset(create_counting_window());
        downloads = per_test_folder(L"downloads-");
        program = per_test_folder(L"program-");
        current_app_settings() = app_settings{};
        ASSERT_TRUE(::CopyFileW((tessel::module_folder() + L"\\web_fake_installer.exe").c_str(),
                                (server().files() + L"\\installer.exe").c_str(), FALSE));
    }

    // Runs one check against base/<kind>/ and answers the boxes in order (No once the
    // answers run out). Returns what the boxes said.
    std::vector<std::wstring> check(const std::wstring& kind, update_check_mode mode, std::deque<int> answers)
    {
        auto user = std::make_shared<scripted_user>();
        user->answers = std::move(answers);
        bool finished = false;
        // A window's cancellation, as the main window hands it over: the check must give
        // back every reference it took.
        const auto cancellation = std::make_shared<fibra::details::cancellation_source_body>();
        update_check_options options;
        options.ui = tessel::windows::impl::async_context(::GetCurrentThreadId(), cancellation);
        options.main_window = window.get();
        options.mode = mode;
        options.show_message = [user](const tessel::message_box_request& request) {
            user->texts.emplace_back(request.text);
            const int answer = user->answers.empty() ? IDNO : user->answers.front();
            if (!user->answers.empty())
                user->answers.pop_front();
            return answer;
        };
        options.promotion_changed = [] {};
        options.service_address = server().base() + kind + L"/";
        options.download_folder = downloads;
        options.program_folder = program;
        options.own_version = product_version{1, 0, 0, 0};
        options.finished = [&finished] { finished = true; };
        EXPECT_TRUE(start_update_check(std::move(options)));
        web_test::pump_until_or_die([&] { return finished; }, 30000, "the update check");
        EXPECT_EQ(cancellation.use_count(), 1);
        return user->texts;
    }

    bool close_posted()
    {
        test_support::pump_for(50);
        return ::GetWindowLongPtrW(window.get(), GWLP_USERDATA) != 0;
    }

    tessel::unique_hhook hook = tessel::windows::impl::install_ui_return_hook();
    tessel::unique_hwnd window;
    std::wstring downloads;
    std::wstring program;
};

TEST_F(update_check_test, installer_that_cannot_start_is_reported_and_the_program_stays)
{
    web_test::write_file(server().files() + L"\\installer.exe", "MZ but not really a program");
    const auto texts = check(L"newer", update_check_mode::automatic, {IDYES});
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_TRUE(texts[1].starts_with(L"A following error occurred during downloading or installing upgrade: ")) << texts[1];
    EXPECT_FALSE(close_posted());

    // A plain http installer address is refused before anything is fetched.
    const auto insecure = check(L"insecure", update_check_mode::on_demand, {IDYES});
    ASSERT_EQ(insecure.size(), 2u);
    EXPECT_NE(insecure[1].find(L"not secure (https)"), std::wstring::npos) << insecure[1];
    EXPECT_FALSE(close_posted());
    EXPECT_TRUE(std::filesystem::is_empty(std::filesystem::path(downloads)));
}

TEST_F(update_check_test, cancel_in_the_progress_dialog_ends_the_download_quietly)
{
    // The installer comes slowly: the server holds its second part until the user has
    // pressed Cancel and the dialog has taken the click (the button goes grey). Then, or
    // when the dialog never came, the rest is let go, so the check ends either way.
    std::vector<std::wstring> texts;
    bool cancel_seen = false;
    std::thread user([&] {
        const ULONGLONG deadline = ::GetTickCount64() + 20000;
        HWND progress = nullptr;
        while (!(progress && ::IsWindowVisible(progress)) && ::GetTickCount64() < deadline) {
            ::Sleep(25);
            progress = ::FindWindowW(L"#32770", L"Downloading Update");
        }
        if (const HWND cancel = progress ? ::GetDlgItem(progress, IDCANCEL) : nullptr) {
            cancel_seen = ::IsWindowVisible(cancel) != FALSE;
            ::PostMessageW(cancel, BM_CLICK, 0, 0);
            while (::IsWindowEnabled(cancel) && ::GetTickCount64() < deadline)
                ::Sleep(25);
        }
        web_test::release_held_response(L"slow");
    });
    texts = check(L"slow", update_check_mode::on_demand, {IDYES});
    user.join();
    EXPECT_TRUE(cancel_seen);
    EXPECT_EQ(texts.size(), 1u);  // the offer, and no error
    EXPECT_FALSE(close_posted());
    EXPECT_TRUE(files_in(downloads).empty());
    EXPECT_FALSE(::FindWindowW(L"#32770", L"Downloading Update"));
}

TEST_F(update_check_test, declined_and_failed_checks_follow_the_mode)
{
    // Declined at start-up: the program asks whether to stop checking; Yes switches it off.
    const auto declined = check(L"newer", update_check_mode::automatic, {IDNO, IDYES});
    ASSERT_EQ(declined.size(), 2u);
    EXPECT_TRUE(declined[1].starts_with(L"Do you want to disable automatic checking")) << declined[1];
    EXPECT_FALSE(current_app_settings().check_for_updates);
    EXPECT_FALSE(close_posted());
    EXPECT_TRUE(files_in(downloads).empty());

    // Asked for by the user: no such question, and "up to date" or the failure is said.
    EXPECT_EQ(check(L"newer", update_check_mode::on_demand, {IDNO}).size(), 1u);
    EXPECT_EQ(check(L"same", update_check_mode::on_demand, {}),
              std::vector<std::wstring>{L"Ulmora Tools 1.0.0.0 is the latest version."});
    EXPECT_TRUE(check(L"same", update_check_mode::automatic, {}).empty());
    EXPECT_TRUE(check(L"broken", update_check_mode::automatic, {}).empty());
    const auto failed = check(L"broken", update_check_mode::on_demand, {});
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_TRUE(failed[0].starts_with(L"The program could not check for updates: ")) << failed[0];
    EXPECT_TRUE(failed[0].ends_with(L"80070057)")) << failed[0];
}

TEST_F(update_check_test, language_packs_for_this_version_are_offered_validated_and_kept)
{
    const std::wstring languages = tessel::module_folder() + L"\\languages";
    const std::vector<std::wstring> built = files_in(languages);
    ASSERT_FALSE(built.empty());
    ASSERT_TRUE(::CopyFileW((languages + L"\\" + built[0]).c_str(), (server().files() + L"\\pack.lpack").c_str(), FALSE));
    web_test::write_file(server().files() + L"\\bad.lpack", std::string(4096, 'x'));

    const auto texts = check(L"packs", update_check_mode::automatic, {IDYES, IDYES});
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[0], L"A language pack for [[[bDeutsch]]] is available. Do you want to download it now?");
    EXPECT_EQ(texts[1], L"A language pack for [[[bFran\u00e7ais]]] is available. Do you want to download it now?");
    EXPECT_TRUE(texts[2].starts_with(L"The language pack for Fran\u00e7ais could not be installed: The downloaded file is not a valid language pack.")) << texts[2];
    EXPECT_EQ(files_in(program + L"\\languages"), std::vector<std::wstring>{L"de-de.Deutsch.7.lpack"});
    const auto packs = tessel::enumerate_packs(program);
    ASSERT_EQ(packs.size(), 1u);
    EXPECT_EQ(packs[0].code, L"de-de");

    // Installed now: not offered again.
    EXPECT_EQ(check(L"packs", update_check_mode::automatic, {IDNO}).size(), 1u);
}

}  // namespace
