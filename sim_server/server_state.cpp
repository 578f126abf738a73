// What makes the substitute server behave like a service that outlives its clients: its
// state kept in a file between processes, and a stop that clients see as the server
// process going away.

#include "server.h"

#include "base/failure.h"
#include "base/unique_handle.h"
#include "base/utf.h"

namespace sim_server {

void usb_server::keep_state_in(std::wstring path)
{
    state_file_ = std::move(path);
}

scenario usb_server::current_scenario() const
{
    scenario s;
    s.running = running_;
    s.settings = settings_;
    s.settings_read_delay_ms = read_delay_ms_;
    s.settings_write_delay_ms = write_delay_ms_;
    for (const auto& device : devices_)
        s.devices.push_back(device->state.spec);
    for (const auto& share : shares_)
        s.shares.push_back({share->device->state.spec.id, share->key});
    s.failures = failures_->list();
    return s;
}

void usb_server::save_state() noexcept
{
    if (state_file_.empty() || stopped_)
        return;
    try {
        const std::string text = write_scenario(current_scenario());
        // Written beside and moved over, so that a server starting in another process
        // never reads half a file.
        const std::wstring temporary = state_file_ + L".new";
        {
            tessel::unique_file file(::CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                                   FILE_ATTRIBUTE_NORMAL, nullptr));
            tessel::throw_last_error_if(!file);
            DWORD written = 0;
            tessel::throw_last_error_if(
                !::WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr));
        }
        tessel::throw_last_error_if(!::MoveFileExW(temporary.c_str(), state_file_.c_str(), MOVEFILE_REPLACE_EXISTING));
    } catch (...) {
        tessel::debug_report(L"substitute server: the state cannot be written to " + state_file_ + L": " +
                             tessel::system_message(tessel::hresult_from_caught_exception()));
    }
}

std::wstring usb_server::execute_state_command(const std::vector<std::wstring>& words)
{
    if (words[0] == L"stop" && words.size() == 2) {
        const std::wstring& text = words[1];
        if (text.empty() || text.size() > 8 || text.find_first_not_of(L"0123456789") != std::wstring::npos)
            throw control_error("\"" + tessel::utf16_to_utf8(text) + "\" is not a number of milliseconds");
        // As when the server process ends: proxies answer RPC_E_DISCONNECTED, listeners
        // hear nothing more, and until the service has started again nobody can create a
        // server. The clients' references still keep this object; once they let go, the
        // next server plays the state file.
        stopped_ = true;
        failures_->disconnect();
        listeners_.clear();
        notifications_.clear();
        creation_refused_until = ::GetTickCount64() + std::wcstoul(text.c_str(), nullptr, 10);
        return L"stopped for " + text + L" ms";
    }
    throw control_error("unknown command \"" + tessel::utf16_to_utf8(words[0]) + "\"");
}

}  // namespace sim_server
