// The share and server settings dialogs and the about box, run modally as the program runs
// them and driven from a timer inside their own message loop.

#include "child_process.h"
#include "fake_server.h"
#include "ui_main/about_dialog.h"
#include "ui_main/settings_dialog.h"
#include "ui_main/share_dialog.h"

#include "base/module_path.h"
#include "base/window_text.h"
#include "controls/rich_view.h"
#include "localization/localization.h"
#include "nsm/app_settings.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using namespace servercfg;
namespace sids = settings_dialog_controls;

// Calls `step` with the dialog of this caption every 20 ms from inside the modal loop
// until it answers true; gives up (Cancel) after 10 s so that no test hangs.
class dialog_driver {
public:
    dialog_driver(std::wstring caption, std::function<bool(HWND)> step)
        : caption_(std::move(caption)), step_(std::move(step)), deadline_(::GetTickCount64() + 10000)
    {
        current_ = this;
        timer_ = ::SetTimer(nullptr, 0, 20, &dialog_driver::tick);
    }
    ~dialog_driver()
    {
        ::KillTimer(nullptr, timer_);
        current_ = nullptr;
    }
    [[nodiscard]] bool timed_out() const noexcept { return timed_out_; }

private:
    static void CALLBACK tick(HWND, UINT, UINT_PTR, DWORD) noexcept
    {
        dialog_driver* self = current_;
        if (!self || self->done_)
            return;
        HWND dialog = ::FindWindowW(L"#32770", self->caption_.c_str());
        if (!dialog)
            return;
        if (::GetTickCount64() > self->deadline_) {
            self->timed_out_ = true;
            self->done_ = true;
            ::PostMessageW(dialog, WM_COMMAND, IDCANCEL, 0);
            return;
        }
        if (self->busy_)
            return;
        self->busy_ = true;
        self->done_ = self->step_(dialog);
        self->busy_ = false;
    }

    static inline dialog_driver* current_ = nullptr;
    std::wstring caption_;
    std::function<bool(HWND)> step_;
    ULONGLONG deadline_;
    UINT_PTR timer_ = 0;
    bool done_ = false;
    bool busy_ = false;
    bool timed_out_ = false;
};

TEST(port_conversion, is_deliberately_unchecked)
{
    EXPECT_EQ(port_from_text(L"8080"), 8080);
    EXPECT_EQ(port_from_text(L"70000"), 4464);
    EXPECT_EQ(port_from_text(L"65536"), 0);
    EXPECT_EQ(port_from_text(L""), 0);
    EXPECT_EQ(port_from_text(L"1a"), 10 + ('a' - '0'));
}

TEST(share_dialog_test, returns_the_key_as_typed_cut_to_259_characters_and_cancel_keeps_the_old_one)
{
    {
        share_dialog dialog(L"Arcturus Flash 32GB", L"old");
        std::wstring device_text, initial_key;
        dialog_driver driver(L"Share Device", [&](HWND window) {
            device_text = tessel::windows::window_text(::GetDlgItem(window, share_dialog_controls::device));
            initial_key = tessel::windows::window_text(::GetDlgItem(window, share_dialog_controls::key));
            ::SetDlgItemTextW(window, share_dialog_controls::key, std::wstring(300, L'k').c_str());
            ::PostMessageW(window, WM_COMMAND, IDOK, 0);
            return true;
        });
        EXPECT_EQ(dialog.show(nullptr), IDOK);
        EXPECT_EQ(device_text, L"Arcturus Flash 32GB");
        EXPECT_EQ(initial_key, L"old");
        EXPECT_EQ(dialog.key(), std::wstring(259, L'k'));
    }
    {
        share_dialog dialog(L"Printer", L"kept");
        dialog_driver driver(L"Share Device", [&](HWND window) {
            ::SetDlgItemTextW(window, share_dialog_controls::key, L"typed");
            ::PostMessageW(window, WM_COMMAND, IDCANCEL, 0);  // Escape
            return true;
        });
        EXPECT_EQ(dialog.show(nullptr), IDCANCEL);
        EXPECT_EQ(dialog.key(), L"kept");
    }
}

class settings_dialog_test : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        // English, with the German pack beside the tests in the language list.
        std::wstring language = L"en";
        tessel::initialize_localization(tessel::module_folder(), language);
    }
    void SetUp() override
    {
        ASSERT_TRUE(SUCCEEDED(::CoInitialize(nullptr)));
        current_app_settings() = app_settings{};
    }
    void TearDown() override { ::CoUninitialize(); }

    // The substitute server: it answers the settings read after 400 ms.
    tessel::com_ptr<IUsbServer> substitute_server()
    {
        EXPECT_TRUE(registration_.registered());
        tessel::com_ptr<IUsbServer> server;
        EXPECT_EQ(::CoCreateInstance(CLSID_UsbServer, nullptr, CLSCTX_ALL, __uuidof(IUsbServer), server.put_void()),
                  S_OK);
        return server;
    }

    test_support::registered_sim_server registration_;
};

bool enabled(HWND dialog, int id)
{
    return ::IsWindowEnabled(::GetDlgItem(dialog, id)) != FALSE;
}

TEST_F(settings_dialog_test, a_failed_fetch_says_why_and_leaves_the_server_controls_disabled_but_the_language_works)
{
    auto server = tessel::make_com_object<fake_server::server>();  // GetSettingsAsync fails
    int questions = 0;
    settings_dialog dialog(tessel::com_ptr<IUsbServer>(server), [&](HWND) {
        ++questions;
        return IDNO;
    });
    std::vector<bool> states;
    std::wstring status;
    int questions_while_looking = -1;
    int selection_after_no = -2;
    dialog_driver driver(L"Server Settings", [&](HWND window) {
        for (const int id : {sids::endpoints, sids::port, sids::advertisement, IDOK, sids::statistics, sids::language})
            states.push_back(enabled(window, id));
        status = tessel::windows::window_text(::GetDlgItem(window, sids::status));
        // Another language selected (the list sends a change for each item looked at):
        // nothing asked until Enter, which OK's being disabled does not stop.
        const HWND combo = ::GetDlgItem(window, sids::language);
        ::SendMessageW(combo, CB_SETCURSEL, 1, 0);
        ::SendMessageW(window, WM_COMMAND, MAKEWPARAM(sids::language, CBN_SELCHANGE), reinterpret_cast<LPARAM>(combo));
        questions_while_looking = questions;
        ::SendMessageW(window, WM_COMMAND, IDOK, 0);
        selection_after_no = static_cast<int>(::SendMessageW(combo, CB_GETCURSEL, 0, 0));
        ::SendMessageW(window, WM_COMMAND, IDOK, 0);  // English again, OK disabled: nothing happens
        ::PostMessageW(window, WM_COMMAND, IDCANCEL, 0);
        return true;
    });
    EXPECT_EQ(dialog.show(nullptr), IDCANCEL);
    EXPECT_FALSE(driver.timed_out());
    EXPECT_EQ(states, (std::vector<bool>{false, false, false, false, true, true}));
    EXPECT_EQ(status.rfind(L"The server's settings could not be read: ", 0), 0u) << tessel::utf16_to_utf8(status);
    EXPECT_EQ(questions_while_looking, 0);
    EXPECT_EQ(questions, 1);
    EXPECT_EQ(selection_after_no, 0) << "No keeps English selected";
    EXPECT_EQ(current_app_settings().language, L"");
    EXPECT_FALSE(dialog.result().port) << "Cancel sets nothing";
}

TEST_F(settings_dialog_test, ok_reads_the_server_values_as_edited_and_the_port_unchecked)
{
    auto server = substitute_server();
    settings_dialog dialog(server);
    std::wstring endpoints, port, waiting, ready;
    dialog_driver driver(L"Server Settings", [&](HWND window) {
        const std::wstring status = tessel::windows::window_text(::GetDlgItem(window, sids::status));
        if (!enabled(window, IDOK)) {
            waiting = status;
            return false;  // still waiting for the server
        }
        ready = status;
        endpoints = tessel::windows::window_text(::GetDlgItem(window, sids::endpoints));
        port = tessel::windows::window_text(::GetDlgItem(window, sids::port));
        ::SetDlgItemTextW(window, sids::port, L"70000");
        ::CheckDlgButton(window, sids::advertisement, BST_UNCHECKED);
        ::CheckDlgButton(window, sids::statistics, BST_CHECKED);
        ::PostMessageW(window, WM_COMMAND, IDOK, 0);
        return true;
    });
    EXPECT_EQ(dialog.show(nullptr), IDOK);
    EXPECT_EQ(waiting, L"Reading the server's settings\u2026");
    EXPECT_EQ(ready, L"") << "the status line goes once the values are there";
    EXPECT_EQ(endpoints, L"0.0.0.0:32032, [::]:32032");
    EXPECT_EQ(port, L"32032");
    const auto& result = dialog.result();
    EXPECT_EQ(result.endpoints, L"0.0.0.0:32032, [::]:32032");
    EXPECT_EQ(result.port, 4464);
    EXPECT_EQ(result.advertisement, false);
    EXPECT_EQ(result.statistics, true);

    const settings_record record(result);
    EXPECT_EQ(record.get()->fields, 0xFu);
    EXPECT_EQ(record.get()->port, 4464);
    EXPECT_EQ(values_of(*record.get()), result);
}

TEST_F(settings_dialog_test, the_language_list_selects_by_exact_code)
{
    const auto selection_for = [&](const std::wstring& stored) {
        current_app_settings().language = stored;
        settings_dialog dialog(tessel::make_com_object<fake_server::server>());
        int selected = -2;
        std::vector<std::wstring> items;
        dialog_driver driver(L"Server Settings", [&](HWND window) {
            const HWND combo = ::GetDlgItem(window, sids::language);
            selected = static_cast<int>(::SendMessageW(combo, CB_GETCURSEL, 0, 0));
            for (int i = 0; i < ::SendMessageW(combo, CB_GETCOUNT, 0, 0); ++i) {
                wchar_t text[64]{};
                ::SendMessageW(combo, CB_GETLBTEXT, i, reinterpret_cast<LPARAM>(text));
                items.push_back(text);
            }
            ::PostMessageW(window, WM_COMMAND, IDCANCEL, 0);
            return true;
        });
        dialog.show(nullptr);
        EXPECT_EQ(items, (std::vector<std::wstring>{L"English", L"Deutsch"}));
        return selected;
    };
    EXPECT_EQ(selection_for(L""), 0);
    EXPECT_EQ(selection_for(L"en"), 0);
    EXPECT_EQ(selection_for(L"de"), 1);
    EXPECT_EQ(selection_for(L"DE"), -1) << "codes compare exactly";
    EXPECT_EQ(selection_for(L"fr"), -1);
}

TEST(about_dialog_test, its_texts_fill_the_box_and_the_notices_link_opens_the_notices_beside_the_program)
{
    using tessel::windows::new_controls::rich_view;
    namespace aids = about_dialog_controls;
    ASSERT_TRUE(SUCCEEDED(::CoInitialize(nullptr)));
    struct recording_launcher final : tessel::link_launcher {
        std::vector<std::wstring> started;
        bool start_unelevated(const std::wstring& file, const std::wstring& parameters) override
        {
            started.push_back(file + L" " + parameters);
            return true;
        }
        bool start_here(HWND, const std::wstring&, const std::wstring&) override { return false; }
        bool ask(HWND, const std::wstring&) override { return false; }
        void tell(HWND, const std::wstring& text) override { started.push_back(L"told: " + text); }
    } launcher;
    about_dialog dialog([](HWND) {}, launcher);
    dialog_driver driver(L"About", [&](HWND window) {
        const auto rect_of = [window](int id) {
            RECT r{};
            ::GetWindowRect(::GetDlgItem(window, id), &r);
            ::MapWindowPoints(nullptr, window, reinterpret_cast<POINT*>(&r), 2);
            return r;
        };
        RECT client{};
        ::GetClientRect(window, &client);
        const int band = tessel::windows::dialog_units_y(window, 8) + 1;
        for (const int id : {aids::text, aids::notices}) {
            rich_view* view = rich_view::from_placeholder(::GetDlgItem(window, id));
            const RECT r = rect_of(id);
            EXPECT_GE(r.bottom - r.top, view->measure_height(r.right - r.left)) << id << " is cut off";
            EXPECT_LE(r.right, client.right);
        }
        // No empty band between the last link and the buttons, nor below them.
        const RECT notices = rect_of(aids::notices), ok = rect_of(IDOK), check = rect_of(aids::check_for_updates);
        EXPECT_LE(ok.top - notices.bottom, band);
        EXPECT_LE(client.bottom - ok.bottom, band);
        EXPECT_EQ(check.top, ok.top);
        EXPECT_GE(ok.left, check.right);

        // Tab to the link and Enter, as a keyboard user opens it.
        const HWND link = rich_view::from_placeholder(::GetDlgItem(window, aids::notices))->window();
        ::SetFocus(link);
        ::SendMessageW(link, WM_KEYDOWN, VK_RETURN, 0);
        ::PostMessageW(window, WM_COMMAND, IDOK, 0);
        return true;
    });
    EXPECT_EQ(dialog.show(nullptr), IDOK);
    EXPECT_FALSE(driver.timed_out());
    // The build puts the notices beside the executables, as the installers put them beside the program.
    wchar_t system_folder[MAX_PATH]{};
    ::GetSystemDirectoryW(system_folder, MAX_PATH);
    EXPECT_EQ(launcher.started, std::vector<std::wstring>{std::wstring(system_folder) + L"\\notepad.exe \"" +
                                                          tessel::module_folder() + L"ThirdPartyNotices.txt\""});
    ::CoUninitialize();
}

}  // namespace
