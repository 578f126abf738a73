// The device window of the real program against the substitute server, driven from
// outside as a user would: the tree read through its screen-reader interface, buttons
// and keys through window messages, the server changed through its control pipe.

#include "program_process.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using namespace process_test;

const auto nine_rows = [](const std::vector<std::wstring>& r) { return r.size() == 9; };

class device_window : public program_process {
protected:
    // Starts the program and waits for the scenario's rows.
    void start()
    {
        run_.emplace(program());
        window = wait_for(main_tree_placeholder_id, 20000);
        ASSERT_FALSE(window.empty()) << "the main window did not appear";
        ASSERT_TRUE(rows_become(window, nine_rows)) << joined(rows(window));
    }
    DWORD close()
    {
        ui_driver(L"close " + window);
        return run_->wait();
    }
    std::wstring server_list() { return control({L"list"}).text; }
    // Waits for the share dialog; checks it names the device.
    std::wstring share_dialog(const std::wstring& device)
    {
        const std::wstring dialog = wait_for(1006, 10000, L"Share Device");
        EXPECT_FALSE(dialog.empty()) << "no share dialog";
        EXPECT_EQ(ui_driver(L"text " + dialog + L" 1005").output, device);
        return dialog;
    }

    std::optional<process> run_;
    std::wstring window;
};

TEST_F(device_window, lists_the_devices_with_their_subtrees_clients_and_keys_and_follows_the_server)
{
    ASSERT_NO_FATAL_FAILURE(start());
    const auto first = rows(window);
    EXPECT_EQ(first[0], L"0\tArcturus Flash 32GB, Shared, WORKSTATION-07, correct-horse-battery");
    EXPECT_EQ(first[1], L"0\tGeneric USB 3.0 Hub, Not shared");
    EXPECT_EQ(first[2], L"1\tUSB Mass Storage Device");
    EXPECT_EQ(first[3], L"2\tPellucid Card Reader USB Device");
    EXPECT_EQ(first[5], L"2\tTern Optical Mouse");
    EXPECT_EQ(first[8], L"0\tVaultkey Licence Dongle, Shared, vk-2291");

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
    ui_driver(L"click " + window + L" 1016");  // Hide disconnected
    EXPECT_TRUE(rows_become(window, [](const auto& r) { return !has_row(r, L"Vaultkey"); }));
    ui_driver(L"click " + window + L" 1017");  // Collapse all
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
    EXPECT_EQ(ui_driver(L"checked " + window + L" 1016").output, L"1");
    EXPECT_EQ(ui_driver(L"checked " + window + L" 1017").output, L"1");
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
    ui_driver(L"settext " + share + L" 1006 \"s3cret key\"");
    ui_driver(L"key " + share + L" 1006 13");  // Enter: OK
    EXPECT_TRUE(rows_become(window, [](const auto& r) { return has_row(r, L"0\tGeneric USB 3.0 Hub, Shared, s3cret key"); }))
        << joined(rows(window));
    EXPECT_NE(server_list().find(L"share hub key=\"s3cret key\""), std::wstring::npos);

    // Enter again: unshared, the key column cleared.
    ui_driver(L"key " + window + L" 1003 13");
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
    ui_driver(L"select " + window + L" 1003 " + std::to_wstring(row_of(rows(window), L"0\tGeneric USB 3.0 Hub")));
    // Each opens the menu; its "S" (the mnemonic of Share) asks for the hub's key. The
    // keys are queued in order, so the menu's loop reads the "S".
    for (const wchar_t* opener : {L" 1003 0x5D", L" 1003 0x79 shift"}) {
        SCOPED_TRACE(testing::Message() << "key" << tessel::utf16_to_utf8(opener));
        ui_driver(L"key " + window + opener);
        ui_driver(L"key " + window + L" 1003 0x53");
        const std::wstring share = share_dialog(L"Generic USB 3.0 Hub");
        ASSERT_FALSE(share.empty());
        ui_driver(L"key " + share + L" 1006 0x1B");  // Esc: Cancel
        eventually([&] { return ui_driver(L"text " + share + L" 1005").exit_code != 0; }, 5000);
    }
    EXPECT_EQ(close(), 0u);
}

TEST_F(device_window, a_failing_share_shows_its_error_and_copy_device_id_fills_the_clipboard)
{
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_TRUE(control({L"fail", L"ShareDevice", L"0x80070005"}).ok);
    ui_driver(L"select " + window + L" 1003 " + std::to_wstring(row_of(rows(window), L"0\tGeneric USB 3.0 Hub")));
    EXPECT_EQ(ui_driver(L"enabled " + window + L" 1014").output, L"1") << "a device row is selected";
    ui_driver(L"click " + window + L" 1014");  // Copy device ID
    std::wstring copied;
    eventually([&] { return !(copied = ui_driver(L"clipboard").output).empty(); }, 5000);
    EXPECT_EQ(copied, L"USB\\VID_1A40&PID_0801\\5&2C4B1A0&0&2");

    ui_driver(L"key " + window + L" 1003 13");
    const std::wstring share = share_dialog(L"Generic USB 3.0 Hub");
    ASSERT_FALSE(share.empty());
    ui_driver(L"click " + share + L" 1");
    const std::wstring box = wait_for(message_text_id, 10000);
    ASSERT_FALSE(box.empty()) << "no error message";
    const std::wstring text = message_text(box);
    EXPECT_EQ(text.rfind(L"The device could not be shared: ", 0), 0u) << tessel::utf16_to_utf8(text);
    EXPECT_NE(text.find(L"(0x80070005)"), std::wstring::npos) << tessel::utf16_to_utf8(text);
    ui_driver(L"click " + box + L" 1");
    EXPECT_EQ(server_list().find(L"share hub"), std::wstring::npos);
    EXPECT_EQ(close(), 0u);
    EXPECT_EQ(ui_driver(L"clipboard").output, copied) << "the ID must outlive the program that copied it";
}

TEST_F(device_window, settings_ok_reaches_the_server_cancel_changes_nothing_and_a_new_language_restarts_in_german)
{
    ASSERT_NO_FATAL_FAILURE(start());
    const auto open_settings = [&] {
        ui_driver(L"click " + window + L" 1005");
        return wait_for(1019, 10000, L"Server Settings");
    };
    std::wstring settings = open_settings();
    ASSERT_FALSE(settings.empty());
    // Cancel first: nothing reaches the server.
    ui_driver(L"settext " + settings + L" 1010 70000");
    ui_driver(L"key " + settings + L" 1019 0x1B");  // Esc: Cancel
    ::Sleep(500);
    EXPECT_NE(server_list().find(L"port=32032"), std::wstring::npos);

    settings = open_settings();
    ASSERT_FALSE(settings.empty());
    eventually([&] { return ui_driver(L"enabled " + settings + L" 1").output == L"1"; }, 5000);
    ui_driver(L"settext " + settings + L" 1010 70000");
    ui_driver(L"key " + settings + L" 1010 13");  // Enter: OK
    EXPECT_TRUE(eventually([&] { return server_list().find(L"port=4464") != std::wstring::npos; }, 5000))
        << "the unchecked port 70000 arrives as 4464";

    // The language: German, confirmed; the program closes and a new copy starts in German.
    settings = open_settings();
    ASSERT_FALSE(settings.empty());
    ui_driver(L"combo " + settings + L" 1019 1");
    const std::wstring question = wait_for(message_text_id, 10000, L"UI Language Changed");
    ASSERT_FALSE(question.empty()) << "no question about the restart";
    ui_driver(L"click " + question + L" 6");  // Yes
    EXPECT_EQ(run_->wait(), 0u);
    const std::wstring german = wait_for(main_tree_placeholder_id, 20000);
    ASSERT_FALSE(german.empty()) << "no new copy started";
    EXPECT_EQ(ui_driver(L"text " + german + L" 1016").output, L"Getrennte ausblenden");
    EXPECT_EQ(ui_driver(L"text " + german + L" 2").output, L"Schlie\u00DFen");
    ui_driver(L"close " + german);
    // The new copy is not ours to wait for: wait until its window has gone and it has
    // saved its settings, so that the next test starts alone and in English.
    eventually([] { return wait_for(main_tree_placeholder_id, 200).empty(); }, 15000);
    ::Sleep(1500);
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
            return r.size() == 9 && has_row(r, L"0\tArcturus Flash 32GB, Shared, correct-horse-battery") &&
                   !has_row(r, L"BURST") && !has_row(r, L"WORKSTATION");
        },
        60000))
        << joined(rows(window));
    EXPECT_NE(server_list().find(L"device flash \"Arcturus Flash 32GB\" location=1-1 connected=no"), std::wstring::npos);
    // Still answering: Hide disconnected now hides the flash drive and the dongle.
    ui_driver(L"click " + window + L" 1016");
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
    ui_driver(L"click " + box + L" 1");
    control({L"burst", L"20"});
    ::Sleep(1500);
    EXPECT_TRUE(wait_for(message_text_id, 500).empty()) << "one message, not one per row";
    EXPECT_EQ(close(), 0u);
}

}  // namespace
