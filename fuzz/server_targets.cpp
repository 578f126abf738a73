// The substitute server's readers: scenario files, and control-pipe messages carried out
// on a live server (as the server's window does with what the pipe delivers).

#include "targets.h"

#include "control_protocol.h"
#include "scenario.h"
#include "server.h"

#include "base/failure.h"

#include <windows.h>

#include <stdexcept>

namespace fuzz {
namespace {

std::string_view as_narrow(std::span<const std::byte> input)
{
    return {reinterpret_cast<const char*>(input.data()), input.size()};
}

std::vector<bytes> scenario_files()
{
    std::vector<bytes> seeds;
    WIN32_FIND_DATAW found{};
    const std::wstring folder = seed_data::source_path(L"sim_server/scenarios/");
    HANDLE search = ::FindFirstFileW((folder + L"*.json").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do
            seeds.push_back(seed_data::read_file(folder + found.cFileName));
        while (::FindNextFileW(search, &found));
        ::FindClose(search);
    }
    if (seeds.empty())
        throw std::runtime_error("no scenario files in sim_server/scenarios to start from");
    for (const char* text :
         {R"({"running": false})",
          R"({"devices": [{"id": "a", "name": "A", "class": "{36fc9e60-c465-11cf-8056-444553540000}"}],
              "shares": [{"device": "a", "key": ""}],
              "failures": [{"method": "GetName", "hresult": "E_ACCESSDENIED", "device": "a"},
                           {"method": "GetSettingsAsync.completion", "hresult": -2147467259}],
              "settings": {"endpoints": null, "port": 65535, "advertisement": true}})"})
        seeds.push_back(seed_data::narrow_bytes(text));
    return seeds;
}

std::string run_scenario(std::span<const std::byte> input)
{
    try {
        const sim_server::scenario s = sim_server::parse_scenario(as_narrow(input));
        sim_server::validate(s);
        return {};
    } catch (const sim_server::scenario_error& e) {
        return error_kind(e.what());
    }
}

target scenario_target()
{
    target t;
    t.name = "scenario";
    t.seeds = scenario_files;
    t.tokens = {"{", "}", "[", "]", "\"", ":", ",", "null", "true", "false", "\"devices\"", "\"shares\"", "\"failures\"",
                "\"settings\"", "\"id\"", "\"name\"", "\"class\"", "\"device\"", "\"method\"", "\"key\"",
                "\"E_ACCESSDENIED\"", "\"0x80070005\"", "-2147467259", "\"ShareDevice\"", "\"{6\"", "\"hid\"", "\\u0000",
                "\xC3", "1e999", "-1", "4294967296"};
    t.run = run_scenario;
    return t;
}

// ---------------------------------------------------------------------------------------

// One server for many messages: commands change it (devices come and go), and a fresh
// one now and then keeps it from growing without end.
class control_bench {
public:
    void prepare()
    {
        if (!server_ || ++commands_ % 256 == 0)
            server_ = sim_server::usb_server::create(sim_server::default_scenario(), {});
    }

    std::string run(std::string_view message)
    {
        std::string refusal;
        try {
            (void)server_->execute_command(sim_server::decode_command(message));
        } catch (const sim_server::control_error& e) {
            refusal = error_kind(e.what());
        } catch (const fibra::details::hresult_error& e) {
            // A system call refused (SetupAPI on a device node): the server answers
            // "the command failed" with the system's text.
            refusal = "the command failed: " + error_kind(std::to_string(e.code()));
        }
        // Notifications and timers the command started run as the server's window would.
        MSG msg;
        while (::PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE))
            ::DispatchMessageW(&msg);
        // The answer goes back over the pipe; the tool reads it.
        (void)sim_server::decode_answer(sim_server::encode_answer({refusal.empty(), L"answer"}));
        return refusal;
    }

private:
    tessel::com_ptr<sim_server::usb_server> server_;
    unsigned commands_ = 0;
};

control_bench& bench()
{
    static control_bench instance;
    return instance;
}

target control_target()
{
    target t;
    t.name = "control";
    t.seeds = [] {
        std::vector<bytes> seeds;
        for (const auto& words : std::vector<std::vector<std::wstring>>{
                 {L"list"},
                 {L"add", L"cam", L"Orbis Webcam", L"class=image", L"location=1-6", L"client=DESK-1"},
                 {L"remove", L"flash"},
                 {L"unplug", L"flash"},
                 {L"plug", L"flash"},
                 {L"connect", L"flash", L"LAB PC 3", L"second"},
                 {L"disconnect", L"flash"},
                 {L"share", L"hub", L"secret"},
                 {L"unshare", L"hub"},
                 {L"confirm", L"hub", L"yes"},
                 {L"running", L"no"},
                 {L"fail", L"ShareDevice", L"0x80070005", L"device=flash"},
                 {L"fail", L"GetName", L"off"},
                 {L"delay", L"read", L"3000"},
                 {L"help"}})
            seeds.push_back(seed_data::narrow_bytes(sim_server::encode_command(words)));
        return seeds;
    };
    t.tokens = {"\n", "=", "yes", "no", "second", "flash", "hub", "keyboard", "printer", "dongle", "device=", "class=",
                "class={", "location=", "client=", "confirm=", "connected=", "friendly=", "off", "E_FAIL",
                "0x8001010E", "-1", "99999999", "4294967295", "\xC3", "\xFF"};
    t.before_input = [] { bench().prepare(); };
    t.run = [](std::span<const std::byte> input) { return bench().run(as_narrow(input)); };
    return t;
}

}  // namespace

std::vector<target> server_targets()
{
    return {scenario_target(), control_target()};
}

}  // namespace fuzz
