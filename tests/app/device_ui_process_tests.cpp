// The device window of the real program against the substitute server, driven from
// outside as a user would: the tree read through its screen-reader interface, buttons
// and keys through window messages, the server changed with ulmora-sim-ctl.

#include "base/module_path.h"
#include "base/unique_handle.h"
#include "base/utf.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr wchar_t title[] = L"QMX Software Ulmora Tools Server";
constexpr wchar_t settings_key[] = L"Software\\QMX Software\\Ulmora Tools\\ServerCfg";
constexpr int tree_id = 1003;
constexpr int message_text_id = 1101;

struct run_result {
    DWORD exit_code;
    std::wstring output;
};

// Runs a helper of the build folder and collects its standard output.
run_result run_tool(const std::wstring& exe, const std::wstring& arguments, DWORD timeout_ms = 30000)
{
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    HANDLE read_end = nullptr, write_end = nullptr;
    if (!::CreatePipe(&read_end, &write_end, &inherit, 0))
        return {~0u, {}};
    tessel::unique_handle reader(read_end), writer(write_end);
    ::SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);
    std::wstring line = L"\"" + tessel::module_folder() + exe + L"\" " + arguments;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = write_end;
    startup.hStdError = write_end;
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info))
        return {~0u, {}};
    tessel::unique_handle process_handle(info.hProcess), thread_handle(info.hThread);
    writer.reset();
    // Read until the tool has ended, not until the pipe closes: a helper process that Wine
    // starts on the tool's behalf may inherit the pipe and keep it open.
    std::string output;
    char buffer[4096];
    const auto drain = [&] {
        DWORD available = 0, got = 0;
        while (::PeekNamedPipe(read_end, nullptr, 0, nullptr, &available, nullptr) && available &&
               ::ReadFile(read_end, buffer, std::min<DWORD>(available, sizeof buffer), &got, nullptr) && got)
            output.append(buffer, got);
    };
    const ULONGLONG deadline = ::GetTickCount64() + timeout_ms;
    while (::WaitForSingleObject(info.hProcess, 10) == WAIT_TIMEOUT) {
        drain();
        if (::GetTickCount64() > deadline) {
            ::TerminateProcess(info.hProcess, 99);
            break;
        }
    }
    drain();
    DWORD code = 0;
    ::GetExitCodeProcess(info.hProcess, &code);
    return {code, tessel::utf8_to_utf16(output)};
}

run_result driver(const std::wstring& arguments) { return run_tool(L"ui_driver.exe", arguments); }
run_result sim_ctl(const std::wstring& arguments) { return run_tool(L"ulmora-sim-ctl.exe", arguments); }

std::wstring wait_for(const std::wstring& caption, int control_id, DWORD timeout_ms = 15000)
{
    const auto r = driver(L"wait \"" + caption + L"\" " + std::to_wstring(control_id) + L" " +
                          std::to_wstring(timeout_ms));
    return r.exit_code == 0 ? r.output : std::wstring();
}

// The tree's rows: "<level>\t<name>" each.
std::vector<std::wstring> rows(const std::wstring& window)
{
    std::vector<std::wstring> result;
    std::wistringstream lines(driver(L"rows " + window + L" " + std::to_wstring(tree_id)).output);
    for (std::wstring line; std::getline(lines, line);)
        result.push_back(line);
    return result;
}

std::wstring joined(const std::vector<std::wstring>& lines)
{
    std::wstring text;
    for (const auto& line : lines)
        text += line + L"\n";
    return text;
}

// Polls until the rows satisfy `ok` (a notification travels through two message loops).
template <class predicate>
bool rows_become(const std::wstring& window, predicate ok, DWORD timeout_ms = 10000)
{
    const ULONGLONG deadline = ::GetTickCount64() + timeout_ms;
    do {
        if (ok(rows(window)))
            return true;
        ::Sleep(100);
    } while (::GetTickCount64() < deadline);
    return false;
}

int row_of(const std::vector<std::wstring>& lines, const std::wstring& text)
{
    for (std::size_t i = 0; i < lines.size(); ++i)
        if (lines[i].find(text) != std::wstring::npos)
            return static_cast<int>(i);
    return -1;
}

bool has_row(const std::vector<std::wstring>& lines, const std::wstring& text) { return row_of(lines, text) >= 0; }

class program {
public:
    program()
    {
        std::wstring line = L"\"" + tessel::module_folder() + L"ServerCfg.exe\"";
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION info{};
        if (::CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info)) {
            handle_.reset(info.hProcess);
            ::CloseHandle(info.hThread);
        }
        window = wait_for(title, tree_id, 20000);
    }
    ~program()
    {
        if (handle_ && ::WaitForSingleObject(handle_.get(), 0) == WAIT_TIMEOUT)
            ::TerminateProcess(handle_.get(), 99);
    }
    DWORD close()
    {
        driver(L"close " + window);
        if (::WaitForSingleObject(handle_.get(), 15000) != WAIT_OBJECT_0)
            return STILL_ACTIVE;
        DWORD code = 0;
        ::GetExitCodeProcess(handle_.get(), &code);
        return code;
    }
    // The exit code once it has ended, or STILL_ACTIVE.
    DWORD wait(DWORD timeout_ms)
    {
        if (::WaitForSingleObject(handle_.get(), timeout_ms) != WAIT_OBJECT_0)
            return STILL_ACTIVE;
        DWORD code = 0;
        ::GetExitCodeProcess(handle_.get(), &code);
        return code;
    }
    std::wstring window;

private:
    tessel::unique_handle handle_;
};

using register_fn = HRESULT(STDAPICALLTYPE*)();

class device_window : public testing::Test {
protected:
    void SetUp() override
    {
        ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key);
        ::SetEnvironmentVariableW(L"ULMORA_SIM_SCENARIO", nullptr);
        server_ = ::LoadLibraryW((tessel::module_folder() + L"UlmoraSimServer.dll").c_str());
        ASSERT_NE(server_, nullptr);
        call(on_register);
    }
    void TearDown() override
    {
        call(on_unregister);
        ::FreeLibrary(server_);
        ::SetEnvironmentVariableW(L"ULMORA_SIM_SCENARIO", nullptr);
        ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key);
    }
    static constexpr const char* on_register = "DllRegisterServer";
    static constexpr const char* on_unregister = "DllUnregisterServer";
    void call(const char* entry)
    {
        const auto fn = reinterpret_cast<register_fn>(reinterpret_cast<void*>(::GetProcAddress(server_, entry)));
        ASSERT_NE(fn, nullptr);
        ASSERT_EQ(fn(), S_OK);
    }
    void use_scenario(const std::string& json)
    {
        wchar_t folder[MAX_PATH];
        ::GetTempPathW(MAX_PATH, folder);
        const std::wstring path = std::wstring(folder) + L"servercfg-device-window-test.json";
        std::ofstream(path.c_str(), std::ios::binary) << json;
        ::SetEnvironmentVariableW(L"ULMORA_SIM_SCENARIO", path.c_str());
    }
    HMODULE server_ = nullptr;
};

TEST_F(device_window, lists_the_devices_with_their_subtrees_clients_and_keys_and_follows_the_server)
{
    program p;
    ASSERT_FALSE(p.window.empty()) << "the main window did not appear";
    ASSERT_TRUE(rows_become(p.window, [](const auto& r) { return r.size() == 9; })) << joined(rows(p.window));
    const auto first = rows(p.window);
    EXPECT_EQ(first[0], L"0\tArcturus Flash 32GB, Shared, WORKSTATION-07, correct-horse-battery");
    EXPECT_EQ(first[1], L"0\tGeneric USB 3.0 Hub, Not shared");
    EXPECT_EQ(first[2], L"1\tUSB Mass Storage Device");
    EXPECT_EQ(first[3], L"2\tPellucid Card Reader USB Device");
    EXPECT_EQ(first[5], L"2\tTern Optical Mouse");
    EXPECT_EQ(first[8], L"0\tVaultkey Licence Dongle, Shared, vk-2291");

    // A client connects (by either notification) and leaves; a device is plugged in.
    ASSERT_EQ(sim_ctl(L"connect keyboard \"LAB PC 3\"").exit_code, 0u);
    EXPECT_TRUE(rows_become(p.window, [](const auto& r) { return has_row(r, L"Kestrel K120 Keyboard, Not shared, LAB PC 3"); }));
    ASSERT_EQ(sim_ctl(L"disconnect flash second").exit_code, 0u);
    EXPECT_TRUE(rows_become(p.window, [](const auto& r) {
        return has_row(r, L"0\tArcturus Flash 32GB, Shared, correct-horse-battery");
    })) << joined(rows(p.window));
    ASSERT_EQ(sim_ctl(L"add cam \"Orbis Webcam\" class=image client=DESK-1").exit_code, 0u);
    EXPECT_TRUE(rows_become(p.window, [](const auto& r) { return has_row(r, L"0\tOrbis Webcam, Not shared, DESK-1"); }));
    // Removed: its row goes.
    ASSERT_EQ(sim_ctl(L"remove cam").exit_code, 0u);
    EXPECT_TRUE(rows_become(p.window, [](const auto& r) { return !has_row(r, L"Orbis Webcam"); }));
    EXPECT_EQ(p.close(), 0u);
}

TEST_F(device_window, hide_disconnected_and_collapse_all_act_at_once_and_survive_a_restart)
{
    {
        program p;
        ASSERT_FALSE(p.window.empty());
        ASSERT_TRUE(rows_become(p.window, [](const auto& r) { return r.size() == 9; }));
        driver(L"click " + p.window + L" 1016");  // Hide disconnected
        EXPECT_TRUE(rows_become(p.window, [](const auto& r) { return !has_row(r, L"Vaultkey"); }));
        driver(L"click " + p.window + L" 1017");  // Collapse all
        EXPECT_TRUE(rows_become(p.window, [](const auto& r) { return r.size() == 4; })) << joined(rows(p.window));
        // Unplugged while hidden: the row goes; plugged again: it comes back.
        ASSERT_EQ(sim_ctl(L"unplug printer").exit_code, 0u);
        EXPECT_TRUE(rows_become(p.window, [](const auto& r) { return !has_row(r, L"Labelwise"); }));
        ASSERT_EQ(sim_ctl(L"plug printer").exit_code, 0u);
        EXPECT_TRUE(rows_become(p.window, [](const auto& r) { return has_row(r, L"Labelwise"); }));
        EXPECT_EQ(p.close(), 0u);
    }
    program again;
    ASSERT_FALSE(again.window.empty());
    EXPECT_EQ(driver(L"checked " + again.window + L" 1016").output, L"1");
    EXPECT_EQ(driver(L"checked " + again.window + L" 1017").output, L"1");
    EXPECT_TRUE(rows_become(again.window, [](const auto& r) {
        return r.size() == 4 && !has_row(r, L"Vaultkey") && !has_row(r, L"USB Mass Storage Device");
    })) << joined(rows(again.window));
    EXPECT_EQ(again.close(), 0u);
}

TEST_F(device_window, shares_with_a_key_through_the_share_dialog_and_unshares_with_enter)
{
    program p;
    ASSERT_FALSE(p.window.empty());
    ASSERT_TRUE(rows_become(p.window, [](const auto& r) { return r.size() == 9; }));
    const int hub = row_of(rows(p.window), L"0\tGeneric USB 3.0 Hub");
    ASSERT_GE(hub, 0);
    driver(L"select " + p.window + L" 1003 " + std::to_wstring(hub));
    driver(L"key " + p.window + L" 1003 13");  // Enter: the share action
    const std::wstring share = wait_for(L"Share Device", 1006, 10000);
    ASSERT_FALSE(share.empty()) << "no share dialog";
    EXPECT_EQ(driver(L"text " + share + L" 1005").output, L"Generic USB 3.0 Hub");
    driver(L"settext " + share + L" 1006 \"s3cret key\"");
    driver(L"key " + share + L" 1006 13");  // Enter: OK
    EXPECT_TRUE(rows_become(p.window, [](const auto& r) { return has_row(r, L"0\tGeneric USB 3.0 Hub, Shared, s3cret key"); }))
        << joined(rows(p.window));
    EXPECT_NE(sim_ctl(L"list").output.find(L"share hub key=\"s3cret key\""), std::wstring::npos);

    // Enter again: unshared, the key column cleared.
    driver(L"key " + p.window + L" 1003 13");
    EXPECT_TRUE(rows_become(p.window, [](const auto& r) {
        const int at = row_of(r, L"0\tGeneric USB 3.0 Hub");
        return at >= 0 && r[at] == L"0\tGeneric USB 3.0 Hub, Not shared";
    })) << joined(rows(p.window));
    EXPECT_EQ(sim_ctl(L"list").output.find(L"share hub"), std::wstring::npos);
    EXPECT_EQ(p.close(), 0u);
}

TEST_F(device_window, the_menu_key_and_shift_f10_open_the_rows_context_menu)
{
    program p;
    ASSERT_FALSE(p.window.empty());
    ASSERT_TRUE(rows_become(p.window, [](const auto& r) { return r.size() == 9; }));
    const int hub = row_of(rows(p.window), L"0\tGeneric USB 3.0 Hub");
    driver(L"select " + p.window + L" 1003 " + std::to_wstring(hub));
    // Each opens the menu; its "S" (the mnemonic of Share) asks for the hub's key. The
    // keys are queued in order, so the menu's loop reads the "S".
    for (const wchar_t* opener : {L" 1003 0x5D", L" 1003 0x79 shift"}) {
        driver(L"key " + p.window + opener);
        driver(L"key " + p.window + L" 1003 0x53");
        const std::wstring share = wait_for(L"Share Device", 1006, 10000);
        ASSERT_FALSE(share.empty()) << "no context menu with Share after key" << opener;
        EXPECT_EQ(driver(L"text " + share + L" 1005").output, L"Generic USB 3.0 Hub");
        driver(L"key " + share + L" 1006 0x1B");  // Esc: Cancel
        const ULONGLONG deadline = ::GetTickCount64() + 5000;
        while (driver(L"text " + share + L" 1005").exit_code == 0 && ::GetTickCount64() < deadline)
            ::Sleep(50);
    }
    EXPECT_EQ(p.close(), 0u);
}

TEST_F(device_window, a_failing_share_shows_its_error_and_copy_device_id_fills_the_clipboard)
{
    program p;
    ASSERT_FALSE(p.window.empty());
    ASSERT_TRUE(rows_become(p.window, [](const auto& r) { return r.size() == 9; }));
    ASSERT_EQ(sim_ctl(L"fail ShareDevice 0x80070005").exit_code, 0u);
    const int hub = row_of(rows(p.window), L"0\tGeneric USB 3.0 Hub");
    driver(L"select " + p.window + L" 1003 " + std::to_wstring(hub));
    EXPECT_EQ(driver(L"enabled " + p.window + L" 1014").output, L"1") << "a device row is selected";

    driver(L"click " + p.window + L" 1014");  // Copy device ID
    const ULONGLONG deadline = ::GetTickCount64() + 5000;
    std::wstring copied;
    while (::GetTickCount64() < deadline && copied.empty()) {
        copied = driver(L"clipboard").output;
        ::Sleep(100);
    }
    EXPECT_EQ(copied.rfind(L"ROOT\\ULMORA_SIM_DEVICE\\", 0), 0u) << copied;

    driver(L"key " + p.window + L" 1003 13");
    const std::wstring share = wait_for(L"Share Device", 1006, 10000);
    ASSERT_FALSE(share.empty());
    driver(L"click " + share + L" 1");
    const std::wstring box = wait_for(title, message_text_id, 10000);
    ASSERT_FALSE(box.empty()) << "no error message";
    const std::wstring text = driver(L"text " + box + L" " + std::to_wstring(message_text_id)).output;
    EXPECT_EQ(text.rfind(L"The device could not be shared: ", 0), 0u) << text;
    EXPECT_NE(text.find(L"(0x80070005)"), std::wstring::npos) << text;
    driver(L"click " + box + L" 1");
    EXPECT_EQ(sim_ctl(L"list").output.find(L"share hub"), std::wstring::npos);
    EXPECT_EQ(p.close(), 0u);
}

TEST_F(device_window, settings_ok_reaches_the_server_cancel_changes_nothing_and_a_new_language_restarts_in_german)
{
    program p;
    ASSERT_FALSE(p.window.empty());
    driver(L"click " + p.window + L" 1005");
    std::wstring settings = wait_for(L"Server Settings", 1019, 10000);
    ASSERT_FALSE(settings.empty());
    // Cancel first: nothing reaches the server.
    driver(L"settext " + settings + L" 1010 70000");
    driver(L"key " + settings + L" 1019 0x1B");  // Esc: Cancel
    ::Sleep(500);
    EXPECT_NE(sim_ctl(L"list").output.find(L"port=32032"), std::wstring::npos);

    driver(L"click " + p.window + L" 1005");
    settings = wait_for(L"Server Settings", 1019, 10000);
    ASSERT_FALSE(settings.empty());
    const ULONGLONG deadline = ::GetTickCount64() + 5000;
    while (::GetTickCount64() < deadline && driver(L"enabled " + settings + L" 1").output != L"1")
        ::Sleep(100);
    driver(L"settext " + settings + L" 1010 70000");
    driver(L"key " + settings + L" 1010 13");  // Enter: OK
    bool written = false;
    for (int i = 0; i < 50 && !written; ++i) {
        written = sim_ctl(L"list").output.find(L"port=4464") != std::wstring::npos;
        ::Sleep(100);
    }
    EXPECT_TRUE(written) << "the unchecked port 70000 arrives as 4464";

    // The language: German, confirmed; the program closes and a new copy starts in German.
    driver(L"click " + p.window + L" 1005");
    settings = wait_for(L"Server Settings", 1019, 10000);
    ASSERT_FALSE(settings.empty());
    driver(L"combo " + settings + L" 1019 1");
    const std::wstring question = wait_for(L"UI Language Changed", message_text_id, 10000);
    ASSERT_FALSE(question.empty()) << "no question about the restart";
    driver(L"click " + question + L" 6");  // Yes
    EXPECT_EQ(p.wait(15000), 0u);
    const std::wstring german = wait_for(title, tree_id, 20000);
    ASSERT_FALSE(german.empty()) << "no new copy started";
    EXPECT_EQ(driver(L"text " + german + L" 1016").output, L"Getrennte ausblenden");
    driver(L"close " + german);
    // The new copy is not ours to wait for: wait until its window has gone and it has
    // saved its settings, so that the next test starts alone and in English.
    const ULONGLONG gone_by = ::GetTickCount64() + 15000;
    while (::GetTickCount64() < gone_by && !wait_for(title, tree_id, 200).empty())
        ::Sleep(200);
    ::Sleep(1500);
}

TEST_F(device_window, a_burst_of_ten_thousand_notifications_ends_equal_to_the_server)
{
    program p;
    ASSERT_FALSE(p.window.empty());
    ASSERT_TRUE(rows_become(p.window, [](const auto& r) { return r.size() == 9; }));
    // 10001 changes over 5 devices: 500 cycles of unplug, plug, connect and disconnect
    // leave every device plugged in as before and without a client; one more change
    // unplugs the flash drive.
    ASSERT_EQ(sim_ctl(L"burst 10001").exit_code, 0u);
    EXPECT_TRUE(rows_become(
        p.window,
        [](const auto& r) {
            return r.size() == 9 && has_row(r, L"0\tArcturus Flash 32GB, Shared, correct-horse-battery") &&
                   !has_row(r, L"BURST") && !has_row(r, L"WORKSTATION");
        },
        60000))
        << joined(rows(p.window));
    EXPECT_NE(sim_ctl(L"list").output.find(L"device flash \"Arcturus Flash 32GB\" location=1-1 connected=no"),
              std::wstring::npos);
    // Still answering: Hide disconnected now hides the flash drive and the dongle.
    driver(L"click " + p.window + L" 1016");
    EXPECT_TRUE(rows_become(p.window, [](const auto& r) { return !has_row(r, L"Arcturus") && !has_row(r, L"Vaultkey"); }));
    EXPECT_EQ(p.close(), 0u);
}

TEST_F(device_window, a_server_that_goes_away_is_reported_once_and_the_window_still_closes)
{
    program p;
    ASSERT_FALSE(p.window.empty());
    ASSERT_TRUE(rows_become(p.window, [](const auto& r) { return r.size() == 9; }));
    for (const wchar_t* method : {L"GetName", L"IsConnected", L"GetClientName", L"GetDevices", L"GetShares",
                                  L"GetLocation", L"GetAuthenticationKey"})
        sim_ctl(std::wstring(L"fail ") + method + L" RPC_E_DISCONNECTED");
    sim_ctl(L"burst 20");
    const std::wstring box = wait_for(title, message_text_id, 10000);
    ASSERT_FALSE(box.empty()) << "no message about the server";
    EXPECT_EQ(driver(L"text " + box + L" " + std::to_wstring(message_text_id)).output.rfind(
                  L"Ulmora Tools Server does not answer: ", 0),
              0u);
    driver(L"click " + box + L" 1");
    sim_ctl(L"burst 20");
    ::Sleep(1500);
    EXPECT_TRUE(wait_for(title, message_text_id, 500).empty()) << "one message, not one per row";
    EXPECT_EQ(p.close(), 0u);
}

}  // namespace
