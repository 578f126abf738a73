// ulmora-sim-ctl: changes a running substitute server through its control pipe, or
// checks a scenario file without one.

#include "control_protocol.h"
#include "scenario.h"

#include "base/failure.h"
#include "base/utf.h"

#include <windows.h>

#include <string>
#include <vector>

namespace {

enum exit_code : int {
    exit_ok = 0,
    exit_refused = 1,  // the server refused the command, or the scenario is invalid
    exit_usage = 2,
    exit_no_server = 3,
};

constexpr wchar_t usage[] =
    L"usage: ulmora-sim-ctl [--pipe <name>] <command> [arguments...]\n"
    L"       ulmora-sim-ctl check <scenario.json>\n"
    L"\n"
    L"Changes the substitute server of the program that is running, e.g.\n"
    L"  ulmora-sim-ctl unplug flash\n"
    L"  ulmora-sim-ctl connect flash \"LAB-PC 3\"\n"
    L"  ulmora-sim-ctl fail ShareDevice 0x80070005\n"
    L"  ulmora-sim-ctl list\n"
    L"\"ulmora-sim-ctl help\" lists the server's commands. The pipe is the one named by\n"
    L"ULMORA_SIM_PIPE, else \\\\.\\pipe\\qmx.ulmora.simserver.\n";

void print(DWORD stream, std::wstring text)
{
    if (!text.empty() && text.back() != L'\n')
        text += L'\n';
    const HANDLE out = ::GetStdHandle(stream);
    DWORD mode = 0;
    DWORD written = 0;
    if (::GetConsoleMode(out, &mode)) {
        ::WriteConsoleW(out, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
        return;
    }
    const std::string utf8 = tessel::utf16_to_utf8(text);
    ::WriteFile(out, utf8.data(), static_cast<DWORD>(utf8.size()), &written, nullptr);
}

}  // namespace

int wmain(int argc, wchar_t** argv)
{
    std::vector<std::wstring> words(argv + 1, argv + argc);
    std::wstring pipe_name = sim_server::control_pipe_name();
    if (words.size() >= 2 && words[0] == L"--pipe") {
        pipe_name = words[1];
        words.erase(words.begin(), words.begin() + 2);
    }
    if (words.empty() || words[0] == L"--help" || words[0] == L"-h" || words[0] == L"/?") {
        print(words.empty() ? STD_ERROR_HANDLE : STD_OUTPUT_HANDLE, usage);
        return words.empty() ? exit_usage : exit_ok;
    }

    if (words[0] == L"check") {
        if (words.size() != 2) {
            print(STD_ERROR_HANDLE, usage);
            return exit_usage;
        }
        try {
            const auto s = sim_server::load_scenario_file(words[1]);
            print(STD_OUTPUT_HANDLE, L"the scenario is valid: " + std::to_wstring(s.devices.size()) +
                                         L" devices, " + std::to_wstring(s.shares.size()) + L" shares");
            return exit_ok;
        } catch (const sim_server::scenario_error& e) {
            print(STD_ERROR_HANDLE, tessel::utf8_to_utf16(e.what()));
            return exit_refused;
        }
    }

    try {
        const auto answer = sim_server::send_command(pipe_name, words);
        print(answer.ok ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE, answer.text);
        return answer.ok ? exit_ok : exit_refused;
    } catch (const fibra::details::hresult_error& e) {
        print(STD_ERROR_HANDLE, L"no substitute server answers on " + pipe_name + L": " +
                                    tessel::system_message(e.code()));
        return exit_no_server;
    } catch (...) {
        print(STD_ERROR_HANDLE, L"the command could not be sent: " +
                                    tessel::system_message(tessel::hresult_from_caught_exception()));
        return exit_no_server;
    }
}
