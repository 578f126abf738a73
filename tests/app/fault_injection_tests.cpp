// Fault injection through the substitute server: every server method the program calls
// fails in turn with each of the codes a real server link produces, once while the
// program starts and once while its window runs. Everywhere the user must get the
// documented message or the fallback, and the program must not crash or hang, must
// release everything it received, must stay closable and must save its settings.
//
// The table below is the whole matrix: a method the program starts to call is one more
// line. Methods reached by a user action are driven as a user would (the share action,
// the Settings command). Methods of devices and shares fail with one code per device, so
// one program start takes all four codes; while the window runs, one program takes the
// whole table, its codes switched through the control pipe.

#include "program_process.h"

#include "base/unique_handle.h"
#include "base/utf.h"
#include "server_link/server_connection.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace process_test;

// When the program calls the method, and so what makes it call it.
enum class phase {
    before_window, // only while the program starts
    start_up,      // while the main window is built; again on every full refresh and notification
    closing,       // while the window goes
    share,         // the share action on a device that is not shared
    unshare,       // the share action on a shared device
    settings,      // the Settings command, ended with Cancel
    settings_ok,   // the Settings command, ended with OK
};

// What the user gets when the method fails at start-up.
enum class outcome {
    main_window,          // the failure is not examined or has a fallback: the window comes up
    not_running_message,  // "not currently running", exit code 2
    error_message,        // a message with the code, then the window
};

// Which objects the failure is set on. Methods of devices and shares fail on one device
// each, so that one start of the program takes every code at once.
enum class scope {
    server,
    each_device,
    each_share,
};

struct fault_case {
    const wchar_t* method;
    phase called;
    outcome on_failure;
    scope on = scope::server;
};

constexpr fault_case matrix[] = {
    {L"Initialize", phase::before_window, outcome::main_window},
    {L"IsRunning", phase::before_window, outcome::not_running_message},
    {L"AdviseListener", phase::before_window, outcome::main_window},
    {L"GetShares", phase::start_up, outcome::error_message},
    {L"GetDevices", phase::start_up, outcome::error_message},
    {L"GetDevice", phase::start_up, outcome::main_window, scope::each_share},
    {L"GetAuthenticationKey", phase::start_up, outcome::main_window, scope::each_share},
    {L"GetName", phase::start_up, outcome::main_window, scope::each_device},
    {L"GetLocation", phase::start_up, outcome::main_window, scope::each_device},
    {L"IsConnected", phase::start_up, outcome::main_window, scope::each_device},
    {L"GetClientName", phase::start_up, outcome::main_window, scope::each_device},
    {L"NeedsShareConfirmation", phase::share, outcome::main_window},
    {L"ShareDevice", phase::share, outcome::main_window},
    {L"UnshareDevice", phase::unshare, outcome::main_window},
    {L"GetSettingsAsync", phase::settings, outcome::main_window},
    {L"GetSettingsAsync.completion", phase::settings, outcome::main_window},
    {L"SetSettingsAsync", phase::settings_ok, outcome::main_window},
    {L"SetSettingsAsync.completion", phase::settings_ok, outcome::main_window},
    {L"UnadviseListener", phase::closing, outcome::main_window},
};

// The devices of the start-up scenario, all shared: a method of devices or shares fails
// with one code per device.
constexpr const wchar_t* devices[] = {L"flash", L"hub", L"keyboard", L"printer"};
constexpr char start_up_devices[] =
    R"("devices": [{"id": "flash", "name": "Arcturus Flash 32GB", "location": "1-1", "class": "disk", "client": "WS-7"},
                   {"id": "hub", "name": "Generic USB 3.0 Hub", "location": "1-2", "class": "usb"},
                   {"id": "keyboard", "name": "Kestrel K120 Keyboard", "location": "1-4", "class": "keyboard"},
                   {"id": "printer", "name": "Labelwise Printer", "location": "1-6", "class": "printer",
                    "connected": false}],
       "shares": [{"device": "flash", "key": "k1"}, {"device": "hub"}, {"device": "keyboard", "key": "k3"},
                  {"device": "printer"}],)";

// Whether the program has a message box, shown or not yet: a dialog box shows itself
// only once its loop has nothing to do, which may be after it is looked for.
bool message_box_exists()
{
    bool found = false;
    ::EnumWindows(
        [](HWND window, LPARAM found) -> BOOL {
            wchar_t text[std::size(title) + 1] = {};
            if (::GetWindowTextW(window, text, static_cast<int>(std::size(text))) &&
                std::wstring_view(text) == title && ::GetDlgItem(window, message_text_id)) {
                *reinterpret_cast<bool*>(found) = true;
                return FALSE;
            }
            return TRUE;
        },
        reinterpret_cast<LPARAM>(&found));
    return found;
}

struct code {
    const char* name;
    HRESULT value;
};

constexpr code codes[] = {
    {"E_FAIL", E_FAIL},
    {"E_ACCESSDENIED", E_ACCESSDENIED},
    {"RPC_E_DISCONNECTED", RPC_E_DISCONNECTED},
    {"RPC_S_SERVER_UNAVAILABLE", HRESULT_FROM_WIN32(RPC_S_SERVER_UNAVAILABLE)},
};

std::wstring hex(HRESULT value)
{
    wchar_t text[16];
    std::swprintf(text, std::size(text), L"0x%08lX", static_cast<unsigned long>(value));
    return text;
}

struct failure_on {
    HRESULT value;
    const wchar_t* device;  // null: every object
};

std::string scenario_failing(const wchar_t* method, const std::vector<failure_on>& failures)
{
    std::string json = std::string("{") + start_up_devices + R"("failures": [)";
    for (const failure_on& f : failures) {
        char text[256];
        std::snprintf(text, sizeof text, R"(%s{"method": "%ls", "hresult": "%ls")", json.back() == '[' ? "" : ", ",
                      method, hex(f.value).c_str());
        json += text;
        if (f.device)
            json += R"(, "device": ")" + tessel::utf16_to_utf8(f.device) + "\"";
        json += "}";
    }
    return json + "]}";
}

// The failures that make a method fail with every code: one set per program start, or
// one set for all the codes when each device fails with a code of its own.
std::vector<std::vector<failure_on>> failure_sets(const fault_case& c)
{
    std::vector<std::vector<failure_on>> sets;
    for (std::size_t i = 0; i < std::size(codes); ++i) {
        if (c.on == scope::server)
            sets.push_back({{codes[i].value, nullptr}});
        else if (i == 0)
            sets.push_back({{codes[i].value, devices[i]}});
        else
            sets.back().push_back({codes[i].value, devices[i]});
    }
    return sets;
}

static_assert(std::size(devices) == std::size(codes));

class fault_injection : public program_process {
protected:
    // What goes on while a window is open: devices change and clients come and go (every
    // notification method, eight changes), and the view is rebuilt twice (Hide
    // disconnected on and off, a full refresh each).
    void use_the_window(const std::wstring& window)
    {
        control({L"burst", L"8"});
        control({L"add", L"cam", L"Orbis Webcam", L"class=image", L"client=DESK-1"});
        control({L"remove", L"cam"});
        answer_messages();
        for (int rebuilds = 0; rebuilds < 2; ++rebuilds) {
            ui_driver(L"click " + window + arg(main_ids::hide_disconnected));
            answer_messages();
        }
    }

    // Returns once the program has handled everything asked of it so far, or shows a box
    // while doing so. The server's control channel is answered from the program's message
    // loop (a box's loop too) and a notification takes two trips through that loop, so two
    // round trips end after everything queued before them; settings calls end from the
    // server's timers, so those are waited for in between.
    void settle()
    {
        const auto round_trips = [&] {
            for (int trip = 0; trip < 2; ++trip)  // each tried again while a loaded machine keeps the loop busy
                EXPECT_TRUE(eventually([&] { return control({L"list"}).ok; }, 30000))
                    << "the program's message loop does not answer";
        };
        round_trips();
        EXPECT_TRUE(eventually([&] { return control({L"list"}).text.find(L"\npending 0") != std::wstring::npos; }))
            << "a settings call of the program never ended";
        round_trips();
    }

    // Answers every message that comes up until the program has settled; each must name
    // one of the failing codes and close with OK. Returns how many came.
    int answer_messages()
    {
        int answered = 0;
        for (std::wstring previous;;) {
            settle();
            if (!message_box_exists())
                return answered;
            const std::wstring box = wait_for(message_text_id);
            if (box.empty() || box == previous || ++answered > 20) {
                ADD_FAILURE() << "messages that do not end after OK";
                return answered;
            }
            previous = box;
            std::wstring text = message_text(box);
            std::transform(text.begin(), text.end(), text.begin(), ::towupper);
            EXPECT_TRUE(std::any_of(failing_.begin(), failing_.end(),
                                    [&](HRESULT code) { return text.find(hex(code).substr(2)) != std::wstring::npos; }))
                << "a message that does not name the failure: " << tessel::utf16_to_utf8(text);
            ui_driver(L"click " + box + arg(IDOK));
        }
    }

    // The share action on a device's row; when it is not shared, the share dialog comes
    // up whatever the confirmation question answered, and is ended with this button.
    void share_action(const std::wstring& window, const std::wstring& device, int dialog_button)
    {
        ASSERT_TRUE(process_test::share_action(window, device)) << "no row for " << tessel::utf16_to_utf8(device);
        if (dialog_button == 0)
            return;
        const std::wstring dialog = wait_for(share_ids::key, 10000, L"Share Device");
        ASSERT_FALSE(dialog.empty()) << "no share dialog";
        ui_driver(L"click " + dialog + L" " + std::to_wstring(dialog_button));
    }

    // The Settings command: the dialog comes up whatever the server answers; OK is
    // pressed once the settings have been read.
    void settings_action(const std::wstring& window, bool press_ok)
    {
        ui_driver(L"click " + window + arg(main_ids::settings));
        const std::wstring dialog = wait_for(settings_ids::language, 10000, L"Server Settings");
        ASSERT_FALSE(dialog.empty()) << "no settings dialog";
        if (press_ok) {
            ASSERT_TRUE(eventually([&] { return ui_driver(L"enabled " + dialog + arg(IDOK)).output == L"1"; }, 5000))
                << "the settings were not read";
        }
        ui_driver(L"click " + dialog + arg(press_ok ? IDOK : IDCANCEL));
    }

    // Makes the program call the method while the window runs.
    void act(const fault_case& c, const std::wstring& window)
    {
        switch (c.called) {
        case phase::before_window:
        case phase::closing: break;
        case phase::start_up: use_the_window(window); break;
        case phase::share: share_action(window, L"Generic USB 3.0 Hub", c.method == std::wstring(L"ShareDevice") ? 1 : 2); break;
        case phase::unshare:
            // A failed unshare still clears the row; a full refresh shows the server's share again.
            ui_driver(L"click " + window + arg(main_ids::hide_disconnected));
            ui_driver(L"click " + window + arg(main_ids::hide_disconnected));
            share_action(window, L"Labelwise", 0);
            break;
        case phase::settings: settings_action(window, false); break;
        case phase::settings_ok: settings_action(window, true); break;
        }
        answer_messages();
    }

    // The window still answers, a view option can be switched on (which saves the
    // settings), the window closes when asked, and the settings were saved.
    void close_and_check(process& program_run, const std::wstring& window)
    {
        // Asked directly rather than looked for: a search by title and visibility can miss
        // a window that is there.
        const HWND main_window = reinterpret_cast<HWND>(static_cast<std::uintptr_t>(std::wcstoull(window.c_str(), nullptr, 16)));
        DWORD_PTR answer = 0;
        EXPECT_TRUE(::IsWindow(main_window)) << "the main window is gone";
        EXPECT_NE(::SendMessageTimeoutW(main_window, WM_NULL, 0, 0, SMTO_ABORTIFHUNG, 10000, &answer), 0)
            << "the main window hangs";
        const auto switched_on = [&] { return ui_driver(L"checked " + window + arg(main_ids::hide_disconnected)).output == L"1"; };
        for (int click = 0; click < 2 && !switched_on(); ++click) {  // a second time only if a click went astray
            ui_driver(L"click " + window + arg(main_ids::hide_disconnected));
            answer_messages();
        }
        EXPECT_TRUE(switched_on()) << "the view option does not switch";
        ui_driver(L"close " + window);
        EXPECT_EQ(program_run.wait(60000), 0u) << "the program did not end normally after its window was closed";
        tessel::unique_hkey key;
        ASSERT_EQ(::RegOpenKeyExW(HKEY_CURRENT_USER, settings_key, 0, KEY_READ, key.put()), ERROR_SUCCESS);
        DWORD hidden = 0, size = sizeof hidden;
        EXPECT_EQ(::RegGetValueW(key.get(), nullptr, L"hideDisconnected", RRF_RT_REG_DWORD, nullptr, &hidden, &size),
                  ERROR_SUCCESS)
            << "the settings were not saved";
        EXPECT_EQ(hidden, 1u);
    }

    // The codes a message of the moment may name.
    std::vector<HRESULT> failing_;
};

TEST_F(fault_injection, every_method_failing_at_start_up_gives_the_message_or_the_fallback)
{
    // The window closes with UnadviseListener failing, by turns with each code.
    std::size_t closing_code = 0;
    for (const fault_case& c : matrix) {
        if (c.called != phase::before_window && c.called != phase::start_up)
            continue;
        for (const auto& failures : failure_sets(c)) {
            SCOPED_TRACE(testing::Message() << "method " << tessel::utf16_to_utf8(c.method) << " failing with "
                                            << tessel::utf16_to_utf8(hex(failures.front().value))
                                            << (failures.size() > 1 ? " and the other codes, one per device" : ""));
            ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key);
            use_scenario(scenario_failing(c.method, failures));
            failing_.clear();
            for (const failure_on& f : failures)
                failing_.push_back(f.value);
            process program_run(program());
            if (c.on_failure == outcome::not_running_message) {
                const std::wstring box = wait_for(message_text_id);
                ASSERT_FALSE(box.empty()) << "no message box appeared";
                EXPECT_EQ(message_text(box), L"Ulmora Tools Server is not currently running. Either start the server "
                                             L"or try to reinstall the product.");
                ui_driver(L"click " + box + arg(IDOK));
                EXPECT_EQ(program_run.wait(), static_cast<DWORD>(servercfg::exit_code_server_not_running));
                continue;
            }
            if (c.on_failure == outcome::error_message) {
                ASSERT_FALSE(wait_for(message_text_id).empty()) << "no message box appeared";
                answer_messages();
            }
            const std::wstring window = wait_for(main_tree_placeholder_id);
            ASSERT_FALSE(window.empty()) << "the main window did not appear"
                                         << (wait_for(message_text_id, 0).empty() ? "" : "; a message box is open");
            if (c.on_failure == outcome::main_window) {
                EXPECT_EQ(answer_messages(), 0) << "a message came up where the window goes on without one";
            }
            use_the_window(window);
            const HRESULT closing = codes[closing_code++ % std::size(codes)].value;
            control({L"fail", L"UnadviseListener", hex(closing)});
            failing_.push_back(closing);
            close_and_check(program_run, window);
        }
    }
}

TEST_F(fault_injection, every_method_failing_while_the_window_runs_leaves_it_usable_and_closable)
{
    // One program for the whole table: the codes are switched at run time. Methods called
    // only before the window exists are left to the start-up test.
    ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key);
    process program_run(program());
    const std::wstring window = wait_for(main_tree_placeholder_id);
    ASSERT_FALSE(window.empty()) << "the main window did not appear";
    for (const fault_case& c : matrix) {
        if (c.called == phase::before_window || c.called == phase::closing)
            continue;
        for (const auto& failures : failure_sets(c)) {
            SCOPED_TRACE(testing::Message() << "method " << tessel::utf16_to_utf8(c.method) << " failing with "
                                            << tessel::utf16_to_utf8(hex(failures.front().value))
                                            << (failures.size() > 1 ? " and the other codes, one per device" : ""));
            failing_.clear();
            for (const failure_on& f : failures) {
                std::vector<std::wstring> command{L"fail", c.method, hex(f.value)};
                if (f.device)
                    command.push_back(std::wstring(L"device=") + f.device);
                ASSERT_TRUE(control(command).ok) << "the server refused the failure";
                failing_.push_back(f.value);
            }
            act(c, window);
            // Asked directly rather than looked for: a search by title and visibility can miss
        // a window that is there.
        const HWND main_window = reinterpret_cast<HWND>(static_cast<std::uintptr_t>(std::wcstoull(window.c_str(), nullptr, 16)));
        DWORD_PTR answer = 0;
        EXPECT_TRUE(::IsWindow(main_window)) << "the main window is gone";
        EXPECT_NE(::SendMessageTimeoutW(main_window, WM_NULL, 0, 0, SMTO_ABORTIFHUNG, 10000, &answer), 0)
            << "the main window hangs";
            for (const failure_on& f : failures) {
                std::vector<std::wstring> command{L"fail", c.method, L"off"};
                if (f.device)
                    command.push_back(std::wstring(L"device=") + f.device);
                control(command);
            }
        }
    }
    failing_.clear();
    close_and_check(program_run, window);
}

}  // namespace
