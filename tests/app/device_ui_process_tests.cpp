// The device window of the real program against the substitute server, driven from
// outside as a user would: the tree read through its screen-reader interface, buttons
// and keys through window messages, the server changed through its control pipe.

#include "program_process.h"

#include "base/utf.h"
#include "ui_main/main_dialog.h"
#include "ui_main/settings_dialog.h"

#include <gtest/gtest.h>

#include <setupapi.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace process_test;
namespace ids = servercfg::main_dialog_controls;
namespace sids = servercfg::settings_dialog_controls;

const auto nine_rows = [](const std::vector<std::wstring>& r) { return r.size() == 9; };
const std::wstring tree = L" " + std::to_wstring(ids::tree) + L" ";

constexpr wchar_t hub_id[] = L"USB\\VID_1A40&PID_0801\\5&2C4B1A0&0&2";
constexpr wchar_t card_reader_id[] = L"USBSTOR\\DISK&VEN_PELLUCID&PROD_CARD_READER&REV_1.00\\000000001532&0";

class device_window : public program_process {
protected:
    // Starts the program and waits for the scenario's rows.
    void start(const std::function<bool(const std::vector<std::wstring>&)>& ready = nine_rows)
    {
        run_.emplace(program());
        window = wait_for(main_tree_placeholder_id, 20000);
        ASSERT_FALSE(window.empty()) << "the main window did not appear";
        ASSERT_TRUE(rows_become(window, ready)) << joined(rows(window));
    }
    DWORD close()
    {
        ui_driver(L"close " + window);
        return run_->wait();
    }
    std::wstring server_list() { return control({L"list"}).text; }
    void select(const std::wstring& row_text)
    {
        ui_driver(L"select " + window + tree + std::to_wstring(row_of(rows(window), row_text)));
    }
    std::wstring description(const std::wstring& row_text)
    {
        return ui_driver(L"describe " + window + tree + std::to_wstring(row_of(rows(window), row_text))).output;
    }
    // Waits for the share dialog; checks it names the device.
    std::wstring share_dialog(const std::wstring& device)
    {
        const std::wstring dialog = wait_for(share_ids::key, 10000, L"Share Device");
        EXPECT_FALSE(dialog.empty()) << "no share dialog";
        EXPECT_EQ(ui_driver(L"text " + dialog + arg(share_ids::device)).output, device);
        return dialog;
    }
    std::wstring open_settings()
    {
        ui_driver(L"click " + window + arg(ids::settings));
        return wait_for(sids::language, 10000, L"Server Settings");
    }
    // Whether the dialog has gone (its control with this id no longer answers).
    static bool gone(const std::wstring& dialog, int control_id)
    {
        return eventually([&] { return ui_driver(L"text " + dialog + L" " + std::to_wstring(control_id)).exit_code != 0; },
                          5000);
    }

    std::optional<process> run_;
    std::wstring window;
};

TEST_F(device_window, lists_the_devices_tells_them_apart_and_follows_the_server)
{
    ASSERT_NO_FATAL_FAILURE(start());
    const auto first = rows(window);
    EXPECT_EQ(first[0], L"0\tArcturus Flash 32GB, Shared, WORKSTATION-07, correct-horse-battery");
    EXPECT_EQ(first[1], L"0\tGeneric USB 3.0 Hub, Not shared");
    EXPECT_EQ(first[2], L"1\tUSB Mass Storage Device");
    EXPECT_EQ(first[3], L"2\tPellucid Card Reader USB Device");
    EXPECT_EQ(first[5], L"2\tTern Optical Mouse");
    EXPECT_EQ(first[8], L"0\tVaultkey Licence Dongle, disconnected, Shared, vk-2291")
        << "greyed out, and said in words";

    // What tells a device apart, for the mouse in tooltips and for screen readers here:
    // with a serial number, without one (the hub's ID ends in a part Windows made up),
    // and a child row's instance ID. Never the key.
    EXPECT_EQ(description(L"0\tArcturus"),
              L"Location: 1-1\nInstance ID: USB\\VID_3F41&PID_2A07\\AC3200417F5E0091\nVendor and product ID: 3F41:2A07\n"
              L"Serial number: AC3200417F5E0091\nSetup class: DiskDrive\nShared, protected by an authentication key\n"
              L"Click to stop sharing this device\nWORKSTATION-07 uses this device");
    EXPECT_EQ(description(L"0\tGeneric USB 3.0 Hub"),
              std::wstring(L"Location: 1-2\nInstance ID: ") + hub_id +
                  L"\nVendor and product ID: 1A40:0801\nSetup class: USB\nNot shared\nClick to share this device\n"
                  L"No client uses this device");
    EXPECT_EQ(description(L"2\tPellucid"), std::wstring(L"Instance ID: ") + card_reader_id);

    // A client connects (by either notification) and leaves; a device is plugged in.
    ASSERT_TRUE(control({L"connect", L"keyboard", L"LAB PC 3"}).ok);
    EXPECT_TRUE(rows_become(window, [](const auto& r) { return has_row(r, L"Kestrel K120 Keyboard, Not shared, LAB PC 3"); }));
    ASSERT_TRUE(control({L"disconnect", L"flash", L"second"}).ok);
    EXPECT_TRUE(rows_become(window, [](const auto& r) {
        return has_row(r, L"0\tArcturus Flash 32GB, Shared, correct-horse-battery");
    })) << joined(rows(window));
    ASSERT_TRUE(control({L"add", L"cam", L"Orbis Webcam", L"class=image", L"client=DESK-1"}).ok);
    EXPECT_TRUE(rows_become(window, [](const auto& r) { return has_row(r, L"0\tOrbis Webcam, Not shared, DESK-1"); }));
    // Removed: its row goes.
    ASSERT_TRUE(control({L"remove", L"cam"}).ok);
    EXPECT_TRUE(rows_become(window, [](const auto& r) { return !has_row(r, L"Orbis Webcam"); }));
    EXPECT_EQ(close(), 0u);
}

TEST_F(device_window, hide_disconnected_and_collapse_all_act_at_once_and_survive_a_restart)
{
    ASSERT_NO_FATAL_FAILURE(start());
    ui_driver(L"click " + window + arg(ids::hide_disconnected));  // Hide disconnected
    EXPECT_TRUE(rows_become(window, [](const auto& r) { return !has_row(r, L"Vaultkey"); }));
    ui_driver(L"click " + window + arg(ids::collapse_all));  // Collapse all
    EXPECT_TRUE(rows_become(window, [](const auto& r) { return r.size() == 4; })) << joined(rows(window));
    // Unplugged while hidden: the row goes; plugged again: it comes back.
    ASSERT_TRUE(control({L"unplug", L"printer"}).ok);
    EXPECT_TRUE(rows_become(window, [](const auto& r) { return !has_row(r, L"Labelwise"); }));
    ASSERT_TRUE(control({L"plug", L"printer"}).ok);
    EXPECT_TRUE(rows_become(window, [](const auto& r) { return has_row(r, L"Labelwise"); }));
    EXPECT_EQ(close(), 0u);

    run_.emplace(program());
    window = wait_for(main_tree_placeholder_id, 20000);
    ASSERT_FALSE(window.empty());
    EXPECT_EQ(ui_driver(L"checked " + window + arg(ids::hide_disconnected)).output, L"1");
    EXPECT_EQ(ui_driver(L"checked " + window + arg(ids::collapse_all)).output, L"1");
    EXPECT_TRUE(rows_become(window, [](const auto& r) {
        return r.size() == 4 && !has_row(r, L"Vaultkey") && !has_row(r, L"USB Mass Storage Device");
    })) << joined(rows(window));
    EXPECT_EQ(close(), 0u);
}

TEST_F(device_window, shares_with_a_key_through_the_share_dialog_and_unshares_with_enter)
{
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_TRUE(share_action(window, L"Generic USB 3.0 Hub"));
    const std::wstring share = share_dialog(L"Generic USB 3.0 Hub");
    ASSERT_FALSE(share.empty());
    ui_driver(L"settext " + share + arg(share_ids::key) + L" \"s3cret key\"");
    ui_driver(L"key " + share + arg(share_ids::key) + L" 13");  // Enter: OK
    EXPECT_TRUE(rows_become(window, [](const auto& r) { return has_row(r, L"0\tGeneric USB 3.0 Hub, Shared, s3cret key"); }))
        << joined(rows(window));
    EXPECT_NE(server_list().find(L"share hub key=\"s3cret key\""), std::wstring::npos);

    // Enter again: unshared, the key column cleared.
    ui_driver(L"key " + window + tree + L"13");
    EXPECT_TRUE(rows_become(window, [](const auto& r) {
        const int at = row_of(r, L"0\tGeneric USB 3.0 Hub");
        return at >= 0 && r[at] == L"0\tGeneric USB 3.0 Hub, Not shared";
    })) << joined(rows(window));
    EXPECT_EQ(server_list().find(L"share hub"), std::wstring::npos);
    EXPECT_EQ(close(), 0u);
}

TEST_F(device_window, the_menu_key_and_shift_f10_open_the_rows_context_menu)
{
    ASSERT_NO_FATAL_FAILURE(start());
    select(L"0\tGeneric USB 3.0 Hub");
    // Each opens the menu; its "S" (the mnemonic of Share) asks for the hub's key. The
    // keys are queued in order, so the menu's loop reads the "S".
    for (const wchar_t* opener : {L"0x5D", L"0x79 shift"}) {
        SCOPED_TRACE(testing::Message() << "key " << tessel::utf16_to_utf8(opener));
        ui_driver(L"key " + window + tree + opener);
        ui_driver(L"key " + window + tree + L"0x53");
        const std::wstring share = share_dialog(L"Generic USB 3.0 Hub");
        ASSERT_FALSE(share.empty());
        ui_driver(L"key " + share + arg(share_ids::key) + L" 0x1B");  // Esc: Cancel
        ASSERT_TRUE(gone(share, share_ids::key)) << "Esc did not close the share dialog";
    }
    EXPECT_EQ(close(), 0u);
}

// The menu runs a message loop of its own, in which the server's notifications still
// arrive: the device goes while the menu is open, and its row's node is freed. Wine's
// heap checking fills freed memory, so a command that still reads the old node crashes.
TEST_F(device_window, a_row_that_goes_while_its_context_menu_is_open_is_left_alone)
{
    ::SetEnvironmentVariableW(L"WINEDEBUG", L"warn+heap");
    start();
    ::SetEnvironmentVariableW(L"WINEDEBUG", L"-all");
    ASSERT_FALSE(HasFatalFailure());
    select(L"0\tGeneric USB 3.0 Hub");
    ui_driver(L"key " + window + tree + L"0x5D");
    ASSERT_EQ(ui_driver(L"menu 10000").exit_code, 0u) << "the context menu did not open";
    ASSERT_TRUE(control({L"remove", L"hub"}).ok);
    ASSERT_TRUE(rows_become(window, [](const auto& r) { return r.size() == 4 && !has_row(r, L"Generic USB"); }))
        << joined(rows(window));
    ui_driver(L"key " + window + tree + L"0x53");  // Share
    ASSERT_TRUE(eventually([] { return ui_driver(L"menu 0").exit_code == 1; }, 5000)) << "the menu stayed open";
    // A round trip through the window's thread after the command: a share dialog it had
    // opened would be there by now.
    EXPECT_EQ(rows(window).size(), 4u);
    EXPECT_TRUE(wait_for(share_ids::key, settle_ms, L"Share Device").empty()) << "a share dialog for a device that has gone";
    EXPECT_EQ(close(), 0u) << "the program did not survive the command";
}

TEST_F(device_window, a_failing_share_shows_its_error_and_copy_device_id_fills_the_clipboard)
{
    ASSERT_NO_FATAL_FAILURE(start());
    // Ctrl+C on a row below a device copies that node's ID.
    select(L"2\tPellucid");
    ui_driver(L"char " + window + tree + L"3");
    EXPECT_TRUE(eventually([&] { return ui_driver(L"clipboard").output == card_reader_id; }, 5000))
        << tessel::utf16_to_utf8(ui_driver(L"clipboard").output);

    ASSERT_TRUE(control({L"fail", L"ShareDevice", L"0x80070005"}).ok);
    select(L"0\tGeneric USB 3.0 Hub");
    EXPECT_EQ(ui_driver(L"enabled " + window + arg(ids::copy_device_id)).output, L"1") << "a device row is selected";
    ui_driver(L"key " + window + tree + L"13");
    const std::wstring share = share_dialog(L"Generic USB 3.0 Hub");
    ASSERT_FALSE(share.empty());
    ui_driver(L"click " + share + arg(IDOK));
    const std::wstring box = wait_for(message_text_id, 10000);
    ASSERT_FALSE(box.empty()) << "no error message";
    const std::wstring text = message_text(box);
    EXPECT_EQ(text.rfind(L"The device could not be shared: ", 0), 0u) << tessel::utf16_to_utf8(text);
    EXPECT_NE(text.find(L"(0x80070005)"), std::wstring::npos) << tessel::utf16_to_utf8(text);
    ui_driver(L"click " + box + arg(IDOK));
    ASSERT_TRUE(gone(box, message_text_id));
    EXPECT_EQ(server_list().find(L"share hub"), std::wstring::npos);

    // Copy device ID, then the program is killed: only a clipboard flushed at once keeps
    // the ID (a process that ends normally flushes on its way out anyway).
    ui_driver(L"click " + window + arg(ids::copy_device_id) + L" wait");
    run_->kill();
    expect_census_ = false;
    EXPECT_EQ(ui_driver(L"clipboard").output, hub_id) << "the ID must outlive the program that copied it";
}

TEST_F(device_window, settings_ok_reaches_the_server_one_write_at_a_time_and_cancel_changes_nothing)
{
    ASSERT_NO_FATAL_FAILURE(start());
    std::wstring settings = open_settings();
    ASSERT_FALSE(settings.empty());
    // Cancel first: nothing reaches the server.
    ui_driver(L"settext " + settings + arg(sids::port) + L" 70000");
    ui_driver(L"key " + settings + arg(sids::language) + L" 0x1B");  // Esc: Cancel
    ASSERT_TRUE(gone(settings, sids::language));

    settings = open_settings();
    ASSERT_FALSE(settings.empty());
    EXPECT_TRUE(eventually([&] { return ui_driver(L"enabled " + settings + arg(IDOK)).output == L"1"; }, 5000));
    ui_driver(L"settext " + settings + arg(sids::port) + L" 70000");
    ui_driver(L"key " + settings + arg(sids::port) + L" 13");  // Enter: OK
    EXPECT_TRUE(eventually([&] { return server_list().find(L"port=4464") != std::wstring::npos; }, 5000))
        << "the unchecked port 70000 arrives as 4464";
    EXPECT_NE(server_list().find(L"settings writes 1"), std::wstring::npos) << "Cancel sent a write";

    // Two writes the server does not answer: closing the window ends the waits of both,
    // and the census shows that nothing is left.
    ASSERT_TRUE(control({L"delay", L"write", L"600000"}).ok);
    for (int write = 0; write < 2; ++write) {
        settings = open_settings();
        ASSERT_FALSE(settings.empty());
        ASSERT_TRUE(eventually([&] { return ui_driver(L"enabled " + settings + arg(IDOK)).output == L"1"; }, 5000));
        ui_driver(L"key " + settings + arg(sids::port) + L" 13");
        ASSERT_TRUE(gone(settings, sids::language));
    }
    EXPECT_NE(server_list().find(L"settings writes 3"), std::wstring::npos);
    EXPECT_EQ(close(), 0u);
}

TEST_F(device_window, the_language_list_asks_once_per_choice_and_a_new_language_restarts_in_german)
{
    ASSERT_NO_FATAL_FAILURE(start());
    // The server's settings never arrive, so OK stays disabled: the language is the
    // dialog's own and Enter on it must still be the choice.
    ASSERT_TRUE(control({L"delay", L"read", L"600000"}).ok);
    std::wstring settings = open_settings();
    ASSERT_FALSE(settings.empty());
    const std::wstring language = L"key " + settings + arg(sids::language) + L" ";
    const std::wstring combo = L"text " + settings + arg(sids::language);
    const auto choose = [&](int answer) {
        ui_driver(language + L"0x28");  // Down: Deutsch, which asks nothing yet
        EXPECT_TRUE(eventually([&] { return ui_driver(combo).output == L"Deutsch"; }, 5000));
        EXPECT_TRUE(wait_for(message_text_id, settle_ms, L"UI Language Changed").empty()) << "asked while looking";
        ui_driver(language + L"13");  // Enter: the choice
        const std::wstring question = wait_for(message_text_id, 10000, L"UI Language Changed");
        ASSERT_FALSE(question.empty()) << "no question after Enter";
        ui_driver(L"click " + question + arg(answer));
    };
    ASSERT_NO_FATAL_FAILURE(choose(IDNO));  // No: English again
    EXPECT_TRUE(eventually([&] { return ui_driver(combo).output == L"English"; }, 5000));
    ASSERT_NO_FATAL_FAILURE(choose(IDYES));  // Yes: the program closes, a new copy starts in German
    EXPECT_EQ(run_->wait(), 0u);
    const std::wstring german = wait_for(main_tree_placeholder_id, 20000);
    ASSERT_FALSE(german.empty()) << "no new copy started";
    EXPECT_EQ(ui_driver(L"text " + german + arg(IDCANCEL)).output, L"Schlie\u00DFen");
    ui_driver(L"close " + german);
    // The new copy is not ours to wait for: its server adds the census line of its end to
    // the file, after the first copy's.
    EXPECT_TRUE(eventually([&] { return std::ranges::count_if(census_report(), [](const std::string& line) {
                                            return line.starts_with("end ");
                                        }) == 2; },
                           20000))
        << "the new copy did not end normally";
}

TEST_F(device_window, a_burst_of_ten_thousand_notifications_ends_equal_to_the_server)
{
    ASSERT_NO_FATAL_FAILURE(start());
    // 10001 changes over 5 devices: 500 cycles of unplug, plug, connect and disconnect
    // leave every device plugged in as before and without a client; one more change
    // unplugs the flash drive.
    ASSERT_TRUE(control({L"burst", L"10001"}).ok);
    EXPECT_TRUE(rows_become(
        window,
        [](const auto& r) {
            return r.size() == 9 && has_row(r, L"0\tArcturus Flash 32GB, disconnected, Shared, correct-horse-battery") &&
                   !has_row(r, L"BURST") && !has_row(r, L"WORKSTATION");
        },
        60000))
        << joined(rows(window));
    EXPECT_NE(server_list().find(L"device flash \"Arcturus Flash 32GB\" location=1-1 connected=no"), std::wstring::npos);
    // Still answering: Hide disconnected now hides the flash drive and the dongle.
    ui_driver(L"click " + window + arg(ids::hide_disconnected));
    EXPECT_TRUE(rows_become(window, [](const auto& r) { return !has_row(r, L"Arcturus") && !has_row(r, L"Vaultkey"); }));
    EXPECT_EQ(close(), 0u);
}

TEST_F(device_window, a_server_that_goes_away_is_reported_once_and_the_window_still_closes)
{
    ASSERT_NO_FATAL_FAILURE(start());
    for (const wchar_t* method : {L"GetName", L"IsConnected", L"GetClientName", L"GetDevices", L"GetShares",
                                  L"GetLocation", L"GetAuthenticationKey"})
        control({L"fail", method, L"RPC_E_DISCONNECTED"});
    control({L"burst", L"20"});
    const std::wstring box = wait_for(message_text_id, 10000);
    ASSERT_FALSE(box.empty()) << "no message about the server";
    EXPECT_EQ(message_text(box).rfind(L"Ulmora Tools Server does not answer: ", 0), 0u);
    ui_driver(L"click " + box + arg(IDOK));
    ASSERT_TRUE(gone(box, message_text_id));
    control({L"burst", L"20"});
    // A device added after the burst: once its row is there, every change of the burst has
    // been handled, and any message about them would be on screen.
    control({L"add", L"late", L"Late"});
    EXPECT_TRUE(rows_become(window, [](const auto& r) { return has_row(r, L"0\tUnknown device"); }))
        << joined(rows(window));
    EXPECT_TRUE(wait_for(message_text_id, settle_ms).empty()) << "one message, not one per row";
    EXPECT_EQ(close(), 0u);
}

// A device unplugged when the window was filled has no nodes on this machine; plugged
// in, its subtree is walked as a full refresh would. F5 walks every device again.
TEST_F(device_window, a_device_that_comes_back_shows_its_subtree_and_f5_walks_every_device_again)
{
    use_scenario(R"({"devices": [
        {"id": "hub", "name": "Desk Hub", "class": "usb", "connected": false,
         "instance_id": "USB\\VID_1A40&PID_0101\\6&1000&0&1",
         "children": [{"class": "disk", "friendly_name": "Hub Card Reader", "instance_id": "USBSTOR\\DISK&VEN_T\\77&0"}]},
        {"id": "pad", "name": "Drawing Pad", "class": "hid", "instance_id": "USB\\VID_3A72&PID_0300\\PAD01",
         "children": [{"class": "mouse", "friendly_name": "Pad Pointer", "instance_id": "HID\\VID_3A72&PID_0300\\7&1&0&0"}]}
    ]})");
    ASSERT_NO_FATAL_FAILURE(start([](const auto& r) { return r.size() == 3; }));
    EXPECT_EQ(rows(window)[0], L"0\tDesk Hub, disconnected, Not shared");
    ASSERT_TRUE(control({L"plug", L"hub"}).ok);
    EXPECT_TRUE(rows_become(window, [](const auto& r) { return r.size() == 4 && r[1] == L"1\tHub Card Reader"; }))
        << joined(rows(window));
    ASSERT_TRUE(control({L"unplug", L"hub"}).ok);
    EXPECT_TRUE(rows_become(window, [](const auto& r) { return r.size() == 3; })) << joined(rows(window));

    // Renamed behind the program's back: nothing tells it, F5 shows it.
    {
        const HDEVINFO set = ::SetupDiCreateDeviceInfoList(nullptr, nullptr);
        SP_DEVINFO_DATA node{};
        node.cbSize = sizeof node;
        const wchar_t name[] = L"Pad Stylus";
        ASSERT_TRUE(::SetupDiOpenDeviceInfoW(set, L"HID\\VID_3A72&PID_0300\\7&1&0&0", nullptr, 0, &node));
        EXPECT_TRUE(::SetupDiSetDeviceRegistryPropertyW(set, &node, SPDRP_FRIENDLYNAME,
                                                        reinterpret_cast<const BYTE*>(name), sizeof name));
        ::SetupDiDestroyDeviceInfoList(set);
    }
    ui_driver(L"key " + window + tree + L"0x74");  // F5
    EXPECT_TRUE(rows_become(window, [](const auto& r) { return has_row(r, L"1\tPad Stylus"); })) << joined(rows(window));
    EXPECT_EQ(close(), 0u);
}

}  // namespace
