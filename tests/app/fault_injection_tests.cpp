// Fault injection through the substitute server: every server method the program calls
// fails in turn with each of the codes a real server link produces, once while the
// program starts and once while its window runs. Everywhere the user must get the
// documented message or the fallback, and the program must not crash or hang, must
// release everything it received, must stay closable and must save its settings.
//
// The table below is the whole matrix: a method the program starts to call is one more
// line.

#include "program_process.h"

#include "base/unique_handle.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <string>

namespace {

using namespace process_test;

// When the program calls the method.
enum class phase {
    start_up,  // before or while the main window is built
    running,   // while the window is open (listener notifications, user commands)
    closing,   // while the window goes
};

// What the user gets when the method fails at start-up.
enum class outcome {
    main_window,          // the failure is not examined or has a fallback: the window comes up
    not_running_message,  // "not currently running", exit code 2
};

struct fault_case {
    const wchar_t* method;
    phase called;
    outcome on_failure;
};

constexpr fault_case matrix[] = {
    {L"Initialize", phase::start_up, outcome::main_window},
    {L"IsRunning", phase::start_up, outcome::not_running_message},
    {L"AdviseListener", phase::start_up, outcome::main_window},
    {L"UnadviseListener", phase::closing, outcome::main_window},
};

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

std::string scenario_failing(const wchar_t* method, HRESULT value)
{
    char text[256];
    std::snprintf(text, sizeof text, R"({"failures": [{"method": "%ls", "hresult": "%ls"}]})", method, hex(value).c_str());
    return text;
}

class fault_injection : public program_process {
protected:
    // What goes on while a window is open: devices come, go and change, clients connect.
    void use_the_window()
    {
        control({L"add", L"cam", L"Orbis Webcam", L"class=image", L"client=DESK-1"});
        control({L"unplug", L"flash"});
        control({L"connect", L"hub", L"LAB PC 3"});
        control({L"disconnect", L"flash", L"second"});
        control({L"share", L"keyboard", L"secret"});
        control({L"remove", L"cam"});
    }

    // The window still answers, a view option can be switched (which saves the settings),
    // the window closes when asked, and the settings were saved.
    void close_and_check(process& program_run, const std::wstring& window)
    {
        EXPECT_FALSE(wait_for(main_tree_placeholder_id, 3000).empty()) << "the main window is gone or hangs";
        ui_driver(L"click " + window + L" 1016");
        ui_driver(L"close " + window);
        EXPECT_EQ(program_run.wait(), 0u) << "the program did not end normally after its window was closed";
        tessel::unique_hkey key;
        ASSERT_EQ(::RegOpenKeyExW(HKEY_CURRENT_USER, settings_key, 0, KEY_READ, key.put()), ERROR_SUCCESS);
        DWORD hidden = 0, size = sizeof hidden;
        EXPECT_EQ(::RegGetValueW(key.get(), nullptr, L"hideDisconnected", RRF_RT_REG_DWORD, nullptr, &hidden, &size),
                  ERROR_SUCCESS)
            << "the settings were not saved";
        EXPECT_EQ(hidden, 1u);
    }
};

TEST_F(fault_injection, every_method_failing_at_start_up_gives_the_message_or_the_fallback)
{
    for (const fault_case& c : matrix) {
        for (const code& failure : codes) {
            SCOPED_TRACE(testing::Message() << "method " << std::wstring(c.method) << " failing with " << failure.name);
            ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key);
            use_scenario(scenario_failing(c.method, failure.value));
            process program_run(program());
            if (c.on_failure == outcome::not_running_message) {
                const std::wstring box = wait_for(message_text_id);
                ASSERT_FALSE(box.empty()) << "no message box appeared";
                EXPECT_EQ(message_text(box), L"Ulmora Tools Server is not currently running. Either start the server "
                                             L"or try to reinstall the product.");
                ui_driver(L"click " + box + L" 1");
                EXPECT_EQ(program_run.wait(), 2u);
                continue;
            }
            const std::wstring window = wait_for(main_tree_placeholder_id);
            ASSERT_FALSE(window.empty()) << "the main window did not appear";
            use_the_window();
            close_and_check(program_run, window);
        }
    }
}

TEST_F(fault_injection, every_method_failing_while_the_window_runs_leaves_it_usable_and_closable)
{
    for (const code& failure : codes) {
        SCOPED_TRACE(testing::Message() << "failing with " << failure.name);
        ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key);
        process program_run(program());
        const std::wstring window = wait_for(main_tree_placeholder_id);
        ASSERT_FALSE(window.empty()) << "the main window did not appear";
        // One method after the other; the ones called at closing stay failed for the close.
        for (const fault_case& c : matrix) {
            SCOPED_TRACE(testing::Message() << "method " << std::wstring(c.method));
            ASSERT_TRUE(control({L"fail", c.method, hex(failure.value)})) << "the server refused the failure";
            use_the_window();
            EXPECT_FALSE(wait_for(main_tree_placeholder_id, 3000).empty()) << "the main window is gone or hangs";
            if (c.called != phase::closing)
                control({L"fail", c.method, L"off"});
        }
        close_and_check(program_run, window);
    }
}

}  // namespace
