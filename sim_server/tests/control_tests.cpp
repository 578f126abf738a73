#include "control_protocol.h"
#include "device_tree.h"
#include "test_support.h"

#include "base/utf.h"
#include "child_process.h"

#include <cstdint>
#include <future>
#include <thread>

using namespace sim_test;
using tessel::com_ptr;

namespace {

using sim_control = server_test;

// Sends from another thread, as the control tool would, while this thread runs its
// message loop so the server can answer. The sending thread owns copies of everything it
// uses and is let go, so a send that never ends cannot block the test either.
sim_server::control_answer command(const std::wstring& pipe, std::vector<std::wstring> words)
{
    const std::wstring first = words.empty() ? L"" : words[0];
    std::packaged_task<sim_server::control_answer()> send([pipe, words = std::move(words)] {
        try {
            return sim_server::send_command(pipe, words);
        } catch (const fibra::details::hresult_error& e) {
            return sim_server::control_answer{false, L"no answer: " + std::to_wstring(e.code())};
        }
    });
    auto answer = send.get_future();
    std::thread(std::move(send)).detach();
    const bool answered =
        pump_until([&] { return answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }, 15000);
    EXPECT_TRUE(answered) << "no answer to " << tessel::utf16_to_utf8(first);
    return answered ? answer.get() : sim_server::control_answer{false, L"timeout"};
}

// Runs ulmora-sim-ctl.exe with the arguments while this thread answers the server's messages.
test_support::tool_result run_tool(const std::wstring& arguments)
{
    return test_support::run_tool(L"ulmora-sim-ctl.exe", arguments, 15000, true);
}

}  // namespace

TEST_F(sim_control, commands_change_state_and_notify_on_the_creating_thread)
{
    auto server = create();
    ASSERT_TRUE(server);
    auto listener = tessel::make_com_object<recording_listener>();
    ASSERT_EQ(server->AdviseListener(listener.get()), S_OK);
    const auto flash = device_named(server.get(), L"Arcturus Flash 32GB");
    ASSERT_TRUE(flash);

    auto answer = command(pipe_name_, {L"unplug", L"flash"});
    EXPECT_TRUE(answer.ok) << tessel::utf16_to_utf8(answer.text);
    // Notifications are posted, like incoming calls: they arrive from the message loop.
    ASSERT_TRUE(pump_until([&] { return listener->received.size() == 1; }));
    EXPECT_EQ(listener->received[0].slot, 4);
    EXPECT_EQ(listener->received[0].device.get(), flash.get());
    EXPECT_EQ(listener->received[0].thread_id, ::GetCurrentThreadId());
    VARIANT_BOOL connected = VARIANT_TRUE;
    EXPECT_EQ(flash->IsConnected(&connected), S_OK);
    EXPECT_EQ(connected, VARIANT_FALSE);
    answer = command(pipe_name_, {L"unplug", L"flash"});
    EXPECT_TRUE(answer.ok);
    EXPECT_EQ(answer.text, L"flash unchanged");

    EXPECT_TRUE(command(pipe_name_, {L"connect", L"flash", L"LAB PC 3"}).ok);
    EXPECT_TRUE(command(pipe_name_, {L"disconnect", L"flash", L"second"}).ok);
    EXPECT_TRUE(command(pipe_name_, {L"add", L"cam", L"Orbis Webcam", L"class=image", L"client=DESK-1",
                                     L"connected=no", L"friendly=Orbis HD"})
                    .ok);
    ASSERT_TRUE(pump_until([&] { return listener->received.size() == 4; }));
    EXPECT_EQ(listener->received[1].slot, 5);
    EXPECT_EQ(listener->received[2].slot, 6);
    EXPECT_EQ(listener->received[3].slot, 3);
    const auto all = devices(server.get());
    ASSERT_EQ(all.size(), 6u);
    EXPECT_EQ(all.back().get(), listener->received[3].device.get()) << "the added device is in GetDevices";
    BSTR text = nullptr;
    EXPECT_EQ(all.back()->GetClientName(&text), S_OK);
    EXPECT_EQ(text_of(text), L"DESK-1");
    EXPECT_EQ(all.back()->IsConnected(&connected), S_OK);
    EXPECT_EQ(connected, VARIANT_FALSE);
    // Unplugged, a device has no node on the machine; plugged in, it has.
    EXPECT_EQ(devinst_of(all.back().get()), sim_server::no_devinst);
    EXPECT_EQ(device_id_of(devinst_of(flash.get())), L"");
    EXPECT_TRUE(command(pipe_name_, {L"plug", L"cam"}).ok);
    const std::wstring cam_node = device_id_of(devinst_of(all.back().get()));
    EXPECT_EQ(read_local_node(cam_node).friendly_name, L"Orbis HD");

    // Share, unshare and remove are device changes; a removed device reports itself gone.
    EXPECT_TRUE(command(pipe_name_, {L"share", L"cam", L"k1"}).ok);
    EXPECT_EQ(shares(server.get()).size(), 4u);
    EXPECT_TRUE(command(pipe_name_, {L"unshare", L"flash"}).ok);
    EXPECT_EQ(shares(server.get()).size(), 3u);
    EXPECT_TRUE(command(pipe_name_, {L"remove", L"cam"}).ok);
    EXPECT_FALSE(read_local_node(cam_node).found) << "the node goes with the device";
    ASSERT_TRUE(pump_until([&] { return listener->received.size() == 8; }));
    for (size_t i = 4; i < 8; ++i)
        EXPECT_EQ(listener->received[i].slot, 4);
    EXPECT_EQ(devices(server.get()).size(), 5u);
    EXPECT_EQ(shares(server.get()).size(), 2u) << "the removed device's share went with it";
    EXPECT_EQ(all.back()->IsConnected(&connected), S_OK);
    EXPECT_EQ(connected, VARIANT_FALSE);
    com_ptr<IUsbShare> share;
    VARIANT key{};
    EXPECT_EQ(server->ShareDevice(all.back().get(), key, share.put()), HRESULT_FROM_WIN32(ERROR_DEV_NOT_EXIST));

    // Failures from now on, for all devices or one, and back.
    EXPECT_TRUE(command(pipe_name_, {L"fail", L"GetName", L"0x80070015", L"device=hub"}).ok);
    EXPECT_TRUE(command(pipe_name_, {L"fail", L"GetDevices", L"E_OUTOFMEMORY"}).ok);
    EXPECT_TRUE(command(pipe_name_, {L"running", L"no"}).ok);
    ULONG count = 7;
    IUsbDevice** array = nullptr;
    EXPECT_EQ(server->GetDevices(&count, &array), E_OUTOFMEMORY);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(all[1]->GetName(&text), HRESULT_FROM_WIN32(ERROR_NOT_READY));
    EXPECT_EQ(all[0]->GetName(&text), S_OK);
    ::SysFreeString(text);
    VARIANT_BOOL running = VARIANT_TRUE;
    EXPECT_EQ(server->IsRunning(&running), S_OK);
    EXPECT_EQ(running, VARIANT_FALSE);
    EXPECT_TRUE(command(pipe_name_, {L"fail", L"GetDevices", L"off"}).ok);
    EXPECT_EQ(devices(server.get()).size(), 5u);

    answer = command(pipe_name_, {L"list"});
    EXPECT_TRUE(answer.ok);
    EXPECT_NE(answer.text.find(L"running no"), std::wstring::npos);
    EXPECT_NE(answer.text.find(L"fail GetName 0x80070015 device=hub"), std::wstring::npos);
    EXPECT_NE(answer.text.find(L"device flash \"Arcturus Flash 32GB\""), std::wstring::npos);
    EXPECT_NE(answer.text.find(L"\npending 0"), std::wstring::npos);
    // A settings call shows until it has ended.
    EXPECT_TRUE(command(pipe_name_, {L"delay", L"read", L"60000"}).ok);
    com_ptr<IUsbServerOperation> reading;
    ASSERT_EQ(server->GetSettingsAsync(reading.put()), S_OK);
    EXPECT_NE(command(pipe_name_, {L"list"}).text.find(L"\npending 1"), std::wstring::npos);

    // Refused commands change nothing and say why.
    const std::vector<std::vector<std::wstring>> refused = {
        {L"plug", L"nothing"},        {L"add", L"flash", L"Again"},  {L"add", L"x", L"X", L"colour=red"},
        {L"fail", L"Bogus", L"E_FAIL"}, {L"fail", L"GetName", L"0"}, {L"share", L"hub", L"k", L"extra"},
        {L"unshare", L"hub"},         {L"frobnicate"},               {L"running", L"maybe"},
        {},
    };
    for (const auto& words : refused) {
        answer = command(pipe_name_, words);
        EXPECT_FALSE(answer.ok) << (words.empty() ? "" : tessel::utf16_to_utf8(words[0]));
        EXPECT_FALSE(answer.text.empty());
    }
    // Notifications arrive in order: one from a command that changes something comes
    // right after any that the refused ones might have sent.
    EXPECT_TRUE(command(pipe_name_, {L"plug", L"flash"}).ok);
    ASSERT_TRUE(pump_until([&] { return listener->received.size() >= 9; }));
    EXPECT_EQ(listener->received.size(), 9u) << "a refused command notified";
    EXPECT_EQ(listener->received.back().device.get(), flash.get());
    EXPECT_EQ(server->UnadviseListener(listener.get()), S_OK);
}

TEST_F(sim_control, control_tool_talks_to_the_server)
{
    auto server = create();
    ASSERT_TRUE(server);
    auto listener = tessel::make_com_object<recording_listener>();
    ASSERT_EQ(server->AdviseListener(listener.get()), S_OK);

    auto result = run_tool(L"--pipe " + pipe_name_ + L" connect hub \"LAB PC 3\"");
    EXPECT_EQ(result.exit_code, 0u) << result.output;
    EXPECT_EQ(result.output, L"connected hub\n");
    ASSERT_TRUE(pump_until([&] { return listener->received.size() == 1; }));
    EXPECT_EQ(listener->received[0].slot, 5);
    BSTR text = nullptr;
    EXPECT_EQ(listener->received[0].device->GetClientName(&text), S_OK);
    EXPECT_EQ(text_of(text), L"LAB PC 3");

    // The pipe named by the environment is the default, as for the program's server.
    result = run_tool(L"fail ShareDevice 0x80070005");
    EXPECT_EQ(result.exit_code, 0u) << result.output;
    com_ptr<IUsbShare> share;
    VARIANT key{};
    EXPECT_EQ(server->ShareDevice(device_named(server.get(), L"Generic USB 3.0 Hub").get(), key, share.put()),
              E_ACCESSDENIED);

    result = run_tool(L"plug nothing");
    EXPECT_EQ(result.exit_code, 1u);
    EXPECT_EQ(result.output, L"there is no device \"nothing\"\n");

    result = run_tool(L"");
    EXPECT_EQ(result.exit_code, 2u);
    EXPECT_NE(result.output.find(L"usage:"), std::wstring::npos);

    result = run_tool(L"--pipe \\\\.\\pipe\\qmx.ulmora.simserver.nobody list");
    EXPECT_EQ(result.exit_code, 3u);
    EXPECT_NE(result.output.find(L"no substitute server answers"), std::wstring::npos) << result.output;

    // Scenario files can be checked without a server.
    use_scenario(R"({"devices": [{"id": "a", "name": "A"}], "shares": [{"device": "b"}]})");
    result = run_tool(L"check \"" + scenario_path_ + L"\"");
    EXPECT_EQ(result.exit_code, 1u);
    EXPECT_NE(result.output.find(L"shares[0]: there is no device \"b\""), std::wstring::npos) << result.output;
    use_scenario(R"({"devices": [{"id": "a", "name": "A"}], "shares": [{"device": "a"}]})");
    result = run_tool(L"check \"" + scenario_path_ + L"\"");
    EXPECT_EQ(result.exit_code, 0u) << result.output;
}

TEST_F(sim_control, a_second_server_leaves_the_pipe_and_the_instance_ids_to_the_first)
{
    auto first = create();
    auto second = create();
    ASSERT_TRUE(first && second);
    // An ID the first server holds: the second's node gets a made-up last part, as Windows
    // names a second device with the same serial number.
    const std::wstring flash_id = L"USB\\VID_3F41&PID_2A07\\AC3200417F5E0091";
    EXPECT_EQ(device_id_of(devinst_of(device_named(first.get(), L"Arcturus Flash 32GB").get())), flash_id);
    const std::wstring made_up = device_id_of(devinst_of(device_named(second.get(), L"Arcturus Flash 32GB").get()));
    EXPECT_TRUE(made_up.starts_with(L"USB\\VID_3F41&PID_2A07\\9&")) << tessel::utf16_to_utf8(made_up);
    EXPECT_TRUE(command(pipe_name_, {L"unplug", L"flash"}).ok);
    VARIANT_BOOL connected = VARIANT_TRUE;
    first = nullptr;
    // With the first server gone nobody serves the name; the second never took it.
    EXPECT_THROW((void)sim_server::send_command(pipe_name_, {L"list"}, 200), fibra::details::hresult_error);
    EXPECT_EQ(device_named(second.get(), L"Arcturus Flash 32GB")->IsConnected(&connected), S_OK);
    EXPECT_EQ(connected, VARIANT_TRUE);
    second = nullptr;

    // A node of a server whose process has ended is taken over; one that no server made stays.
    const auto plant = [&](const std::wstring& id, bool ended_owner) {
        const sim_server::unique_hdevinfo set(::SetupDiCreateDeviceInfoList(nullptr, nullptr));
        SP_DEVINFO_DATA data{};
        data.cbSize = sizeof data;
        const GUID usb_class = *sim_server::parse_device_class(L"usb");
        ASSERT_TRUE(::SetupDiCreateDeviceInfoW(set.get(), id.c_str(), &usb_class, L"left behind", nullptr, 0, &data))
            << ::GetLastError();
        // This process's ID with another start time: a process that has ended.
        const std::uint64_t owner[2] = {::GetCurrentProcessId(), 1};
        if (ended_owner) {
            ASSERT_TRUE(::SetupDiSetDevicePropertyW(set.get(), &data, &sim_server::node_owner_key, DEVPROP_TYPE_BINARY,
                                                    reinterpret_cast<const BYTE*>(owner), sizeof owner, 0));
        }
        ASSERT_TRUE(::SetupDiRegisterDeviceInfo(set.get(), &data, 0, nullptr, nullptr, nullptr));
    };
    plant(flash_id, true);
    plant(L"USB\\VID_3F41&PID_0749\\000000001532", false);
    auto third = create();
    ASSERT_TRUE(third);
    EXPECT_EQ(device_id_of(devinst_of(device_named(third.get(), L"Arcturus Flash 32GB").get())), flash_id);
    EXPECT_EQ(read_local_node(L"USB\\VID_3F41&PID_0749\\000000001532").description, L"left behind");
    const std::wstring list = command(pipe_name_, {L"list"}).text;
    EXPECT_NE(list.find(L"instance=USB\\VID_3F41&PID_2A07\\AC3200417F5E0091\n"), std::wstring::npos)
        << tessel::utf16_to_utf8(list);
    third = nullptr;
    const sim_server::unique_hdevinfo set(::SetupDiCreateDeviceInfoList(nullptr, nullptr));
    SP_DEVINFO_DATA foreign{};
    foreign.cbSize = sizeof foreign;
    ASSERT_TRUE(::SetupDiOpenDeviceInfoW(set.get(), L"USB\\VID_3F41&PID_0749\\000000001532", nullptr, 0, &foreign));
    EXPECT_TRUE(::SetupDiRemoveDevice(set.get(), &foreign));
}

TEST(sim_protocol, words_and_answers_survive_the_wire)
{
    const std::vector<std::wstring> words = {L"connect", L"flash", L"LAB PC \u00e9\U0001F600", L""};
    EXPECT_EQ(sim_server::decode_command(sim_server::encode_command(words)), words);
    EXPECT_TRUE(sim_server::decode_command("").empty());
    const auto ok = sim_server::decode_answer(sim_server::encode_answer({true, L"line 1\nline 2"}));
    EXPECT_TRUE(ok.ok);
    EXPECT_EQ(ok.text, L"line 1\nline 2");
    const auto error = sim_server::decode_answer(sim_server::encode_answer({false, L"why"}));
    EXPECT_FALSE(error.ok);
    EXPECT_EQ(error.text, L"why");
    const auto garbage = sim_server::decode_answer("what\nis this");
    EXPECT_FALSE(garbage.ok);
    EXPECT_EQ(garbage.text, L"the server gave an answer that is not understood");
}

// A state file makes servers of consecutive processes one service; "stop" is that
// service's process ending under its clients.
TEST_F(sim_control, the_state_file_carries_the_service_over_and_a_stop_disconnects_it)
{
    wchar_t folder[MAX_PATH];
    ::GetTempPathW(MAX_PATH, folder);
    const std::wstring state = std::wstring(folder) + L"sim-state-" + std::to_wstring(::GetCurrentProcessId()) + L".json";
    ::DeleteFileW(state.c_str());
    ::SetEnvironmentVariableW(sim_server::state_variable, state.c_str());
    {
        auto server = create();
        com_ptr<IUsbShare> share;
        VARIANT key{};
        key.vt = VT_BSTR;
        key.bstrVal = ::SysAllocString(L"k\u00e4y");
        ASSERT_EQ(server->ShareDevice(device_named(server.get(), L"Generic USB 3.0 Hub").get(), key, share.put()), S_OK);
        ::VariantClear(&key);
        EXPECT_TRUE(command(pipe_name_, {L"add", L"cam", L"Orbis Webcam", L"class=image"}).ok);
        EXPECT_TRUE(command(pipe_name_, {L"unshare", L"flash"}).ok);
    }
    const auto kept = sim_server::load_scenario_file(state);
    ASSERT_EQ(kept.devices.size(), 6u);
    EXPECT_EQ(kept.devices.back().name, L"Orbis Webcam");
    EXPECT_EQ(kept.devices.front().instance_id, sim_server::default_scenario().devices.front().instance_id);
    EXPECT_EQ(kept.devices.front().hardware_ids, sim_server::default_scenario().devices.front().hardware_ids);

    auto server = create();
    std::vector<std::wstring> shared;
    for (const auto& share : shares(server.get())) {
        com_ptr<IUsbDevice> device;
        BSTR text = nullptr;
        ASSERT_EQ(share->GetDevice(device.put()), S_OK);
        ASSERT_EQ(device->GetName(&text), S_OK);
        shared.push_back(text_of(text));
        if (shared.back() == L"Generic USB 3.0 Hub") {
            ASSERT_EQ(share->GetAuthenticationKey(&text), S_OK);
            EXPECT_EQ(text_of(text), L"k\u00e4y");
        }
    }
    EXPECT_EQ(shared, (std::vector<std::wstring>{L"Labelwise LP-420 Label Printer", L"Vaultkey Licence Dongle",
                                                 L"Generic USB 3.0 Hub"}));

    auto listener = tessel::make_com_object<recording_listener>();
    ASSERT_EQ(server->AdviseListener(listener.get()), S_OK);
    const auto cam = device_named(server.get(), L"Orbis Webcam");
    ASSERT_TRUE(cam);
    EXPECT_TRUE(command(pipe_name_, {L"stop", L"300"}).ok);
    VARIANT_BOOL running = VARIANT_TRUE;
    BSTR name = nullptr;
    EXPECT_EQ(server->IsRunning(&running), RPC_E_DISCONNECTED);
    EXPECT_EQ(cam->GetName(&name), RPC_E_DISCONNECTED);
    com_ptr<IUsbServer> again;
    EXPECT_EQ(create(again), CO_E_SERVER_EXEC_FAILURE);
    EXPECT_TRUE(command(pipe_name_, {L"unplug", L"cam"}).ok);
    pump_for(50);
    EXPECT_TRUE(listener->received.empty());
    EXPECT_TRUE(pump_until([&] { return SUCCEEDED(create(again)); }, 5000));
    EXPECT_EQ(again->IsRunning(&running), S_OK);
    ::SetEnvironmentVariableW(sim_server::state_variable, nullptr);
    ::DeleteFileW(state.c_str());
}
