// The control commands: what ulmora-sim-ctl asks of a running server. Each change that a
// real server would announce fires the listener notification it would send.

#include "server.h"

#include "base/failure.h"
#include "base/utf.h"

#include <cwchar>
#include <optional>

namespace sim_server {
namespace {

constexpr wchar_t usage[] =
    L"commands:\n"
    L"  list\n"
    L"  add <id> <name> [location=..] [class=..] [description=..] [friendly=..] [connected=yes|no]\n"
    L"      [client=..] [confirm=yes|no] [instance_id=..] [hardware_ids=<id>;<id>..]\n"
    L"  remove <id>\n"
    L"  plug <id> | unplug <id>\n"
    L"  connect <id> <client> [second] | disconnect <id> [second]\n"
    L"  share <id> [key] | unshare <id>\n"
    L"  confirm <id> yes|no\n"
    L"  running yes|no\n"
    L"  fail <method> <hresult>|off [device=<id>]\n"
    L"  delay read|write <milliseconds>\n"
    L"  burst <count>\n"
    L"  stop <milliseconds>";

[[noreturn]] void fail(const std::wstring& message)
{
    throw control_error(tessel::utf16_to_utf8(message));
}

bool flag_of(const std::wstring& word)
{
    if (word == L"yes" || word == L"on" || word == L"true" || word == L"1")
        return true;
    if (word == L"no" || word == L"off" || word == L"false" || word == L"0")
        return false;
    fail(L"\"" + word + L"\" is not yes or no");
}

std::wstring yes_no(bool value)
{
    return value ? L"yes" : L"no";
}

std::wstring hex(HRESULT code)
{
    wchar_t text[16];
    std::swprintf(text, std::size(text), L"0x%08lX", static_cast<unsigned long>(code));
    return text;
}

std::optional<DWORD> milliseconds_of(const std::wstring& word)
{
    if (word.empty() || word.size() > 8 || word.find_first_not_of(L"0123456789") != std::wstring::npos)
        return std::nullopt;
    const DWORD value = std::wcstoul(word.c_str(), nullptr, 10);
    if (value > 24 * 60 * 60 * 1000)
        return std::nullopt;
    return value;
}

void expect_words(const std::vector<std::wstring>& words, size_t min, size_t max)
{
    if (words.size() < min || words.size() > max)
        fail(L"wrong number of arguments for \"" + words[0] + L"\"\n" + usage);
}

}  // namespace

std::wstring usb_server::execute_command(const std::vector<std::wstring>& words)
{
    if (words.empty())
        fail(std::wstring(L"no command\n") + usage);
    const std::wstring& command = words[0];

    const auto device_named = [this](const std::wstring& id) {
        auto device = find_device(id);
        if (!device)
            fail(L"there is no device \"" + id + L"\"");
        return device;
    };

    if (command == L"list" || command == L"help") {
        expect_words(words, 1, 1);
        return command == L"list" ? describe_state() : std::wstring(usage);
    }
    if (command == L"add") {
        expect_words(words, 3, 10);
        device_spec spec;
        spec.id = words[1];
        spec.name = words[2];
        spec.class_guid = *parse_device_class(L"usb");
        spec.description = L"USB Device";
        if (find_device(spec.id))
            fail(L"the device \"" + spec.id + L"\" exists already");

        if (spec.id.empty() || spec.name.empty())
            fail(L"the device id and name must not be empty");
        for (size_t i = 3; i < words.size(); ++i) {
            const size_t equals = words[i].find(L'=');
            if (equals == std::wstring::npos)
                fail(L"\"" + words[i] + L"\" is not of the form name=value");
            const std::wstring name = words[i].substr(0, equals);
            const std::wstring value = words[i].substr(equals + 1);
            if (name == L"location") {
                spec.location = value;
            } else if (name == L"class") {
                const auto guid = parse_device_class(value);
                if (!guid)
                    fail(L"\"" + value + L"\" is not a device class");
                spec.class_guid = *guid;
            } else if (name == L"description") {
                spec.description = value;
            } else if (name == L"friendly") {
                spec.friendly_name = value;
            } else if (name == L"connected") {
                spec.connected = flag_of(value);
            } else if (name == L"client") {
                spec.client = value;
            } else if (name == L"confirm") {
                spec.needs_share_confirmation = flag_of(value);
            } else if (name == L"instance_id") {
                if (const std::string fault = check_instance_id(value); !fault.empty())
                    fail(L"the instance ID \"" + value + L"\" " + tessel::utf8_to_utf16(fault));
                spec.instance_id = value;
            } else if (name == L"hardware_ids") {
                for (std::size_t at = 0; at <= value.size();) {
                    const std::size_t end = std::min(value.find(L';', at), value.size());
                    spec.hardware_ids.push_back(value.substr(at, end - at));
                    at = end + 1;
                }
            } else {
                fail(L"unknown device property \"" + name + L"\"");
            }
        }
        // The scenario's rules (instance IDs unique, hardware IDs well-formed) hold for it too.
        scenario check;
        for (const auto& device : devices_)
            check.devices.push_back(device->state.spec);
        check.devices.push_back(spec);
        try {
            validate(check);
        } catch (const scenario_error& e) {
            throw control_error(e.what());
        }
        notify(listener_event::device_added, add_device(spec));
        return L"added " + spec.id;
    }
    if (command == L"remove") {
        expect_words(words, 2, 2);
        const auto device = device_named(words[1]);
        remove_device(device);
        // There is no removal notification: the device reports itself disconnected.
        notify(listener_event::device_changed, device);
        return L"removed " + words[1];
    }
    if (command == L"plug" || command == L"unplug") {
        expect_words(words, 2, 2);
        const auto device = device_named(words[1]);
        const bool connected = command == L"plug";
        if (device->state.spec.connected == connected)
            return words[1] + L" unchanged";
        device->state.spec.connected = connected;
        // Plugged in, the device's nodes appear on the machine; unplugged, they go.
        if (connected) {
            device->state.devinst = tree_->add(device->state.spec);
        } else {
            tree_->remove(device->state.devinst);
            device->state.devinst = no_devinst;
        }
        notify(listener_event::device_changed, device);
        return (connected ? L"plugged " : L"unplugged ") + words[1];
    }
    if (command == L"connect" || command == L"disconnect") {
        const bool connecting = command == L"connect";
        expect_words(words, connecting ? 3 : 2, connecting ? 4 : 3);
        const auto device = device_named(words[1]);
        const size_t flag_at = connecting ? 3 : 2;
        bool second = false;
        if (words.size() > flag_at) {
            if (words[flag_at] != L"second")
                fail(L"\"" + words[flag_at] + L"\" is not \"second\"");
            second = true;
        }
        const std::wstring client = connecting ? words[2] : std::wstring();
        if (device->state.spec.client == client)
            return words[1] + L" unchanged";
        device->state.spec.client = client;
        notify(second ? listener_event::client_changed_2 : listener_event::client_changed, device);
        return (connecting ? L"connected " : L"disconnected ") + words[1];
    }
    if (command == L"share") {
        expect_words(words, 2, 3);
        const auto device = device_named(words[1]);
        if (is_shared(device.get()))
            fail(L"the device \"" + words[1] + L"\" is shared already");
        add_share(device, words.size() > 2 ? words[2] : std::wstring());
        notify(listener_event::device_changed, device);
        return L"shared " + words[1];
    }
    if (command == L"unshare") {
        expect_words(words, 2, 2);
        const auto device = device_named(words[1]);
        if (!is_shared(device.get()))
            fail(L"the device \"" + words[1] + L"\" is not shared");
        std::erase_if(shares_, [&](const auto& share) { return share->device == device; });
        notify(listener_event::device_changed, device);
        return L"unshared " + words[1];
    }
    if (command == L"confirm") {
        expect_words(words, 3, 3);
        const auto device = device_named(words[1]);
        device->state.spec.needs_share_confirmation = flag_of(words[2]);
        notify(listener_event::device_changed, device);
        return L"confirmation " + yes_no(device->state.spec.needs_share_confirmation) + L" for " + words[1];
    }
    if (command == L"running") {
        expect_words(words, 2, 2);
        running_ = flag_of(words[1]);
        return L"running " + yes_no(running_);
    }
    if (command == L"fail") {
        expect_words(words, 3, 4);
        const std::wstring& method = words[1];
        if (!is_known_method(method)) {
            std::wstring known;
            for (const auto name : known_methods())
                known += L" " + std::wstring(name);
            fail(L"\"" + method + L"\" is not a method that can fail; known:" + known);
        }
        HRESULT code = S_OK;
        if (words[2] != L"off") {
            const auto parsed = parse_hresult(words[2]);
            if (!parsed || SUCCEEDED(*parsed))
                fail(L"\"" + words[2] + L"\" is not a failing HRESULT (such as 0x80070005) or off");
            code = *parsed;
        }
        std::wstring device_id;
        if (words.size() > 3) {
            if (!words[3].starts_with(L"device="))
                fail(L"\"" + words[3] + L"\" is not of the form device=<id>");
            device_id = words[3].substr(7);
            device_named(device_id);
        }
        failures_->set(method, device_id, code);
        return method + (SUCCEEDED(code) ? L" succeeds" : L" fails with " + hex(code)) +
               (device_id.empty() ? L"" : L" for " + device_id);
    }
    if (command == L"delay") {
        expect_words(words, 3, 3);
        const auto ms = milliseconds_of(words[2]);
        if (!ms)
            fail(L"\"" + words[2] + L"\" is not a number of milliseconds (at most a day)");
        if (words[1] == L"read")
            read_delay_ms_ = static_cast<DWORD>(*ms);
        else if (words[1] == L"write")
            write_delay_ms_ = static_cast<DWORD>(*ms);
        else
            fail(L"\"" + words[1] + L"\" is not read or write");
        return L"delay " + words[1] + L" " + std::to_wstring(*ms) + L" ms";
    }
    if (command == L"burst") {
        // Many changes at once, each with its notification: devices unplugged and plugged
        // in turn, clients connecting and leaving. What the devices end with depends only
        // on the count. Their local nodes stay: making and removing a node costs some 20 ms
        // under Wine, and a burst is about the notifications.
        expect_words(words, 2, 2);
        const auto count = milliseconds_of(words[1]);
        if (!count || *count > 1000000)
            fail(L"\"" + words[1] + L"\" is not a count from 0 to 1000000");
        if (devices_.empty())
            fail(L"there are no devices");
        for (DWORD i = 0; i < *count; ++i) {
            const auto& device = devices_[i % devices_.size()];
            device_spec& spec = device->state.spec;
            switch (i / devices_.size() % 4) {
            case 0: spec.connected = !spec.connected; notify(listener_event::device_changed, device); break;
            case 1: spec.connected = !spec.connected; notify(listener_event::device_changed, device); break;
            case 2: spec.client = L"BURST-" + std::to_wstring(i); notify(listener_event::client_changed, device); break;
            default: spec.client.clear(); notify(listener_event::client_changed_2, device); break;
            }
        }
        return L"burst of " + std::to_wstring(*count) + L" notifications";
    }
    if (command == L"stop") {
        expect_words(words, 2, 2);
        return execute_state_command(words);
    }
    fail(L"unknown command \"" + command + L"\"\n" + usage);
}

std::wstring usb_server::describe_state() const
{
    std::wstring text = L"running " + yes_no(running_) + L"\n";
    for (const auto& device : devices_) {
        const device_spec& spec = device->state.spec;
        text += L"device " + spec.id + L" \"" + spec.name + L"\" location=" + spec.location +
                L" connected=" + yes_no(spec.connected) + L" client=\"" + spec.client + L"\" confirm=" +
                yes_no(spec.needs_share_confirmation) + L" devinst=" + std::to_wstring(device->state.devinst) +
                L" instance=" + (tree_ ? tree_->instance_id(device->state.devinst) : std::wstring()) + L"\n";
    }
    for (const auto& share : shares_)
        text += L"share " + share->device->state.spec.id + L" key=\"" + share->key + L"\"\n";
    for (const failure_spec& failure : failures_->list())
        text += L"fail " + failure.method + L" " + hex(failure.code) +
                (failure.device_id.empty() ? L"" : L" device=" + failure.device_id) + L"\n";
    text += L"settings";
    if (settings_.endpoints)
        text += L" endpoints=\"" + *settings_.endpoints + L"\"";
    if (settings_.port)
        text += L" port=" + std::to_wstring(*settings_.port);
    if (settings_.advertisement)
        text += L" advertisement=" + yes_no(*settings_.advertisement);
    if (settings_.statistics)
        text += L" statistics=" + yes_no(*settings_.statistics);
    text += L"\ndelay read=" + std::to_wstring(read_delay_ms_) + L" write=" + std::to_wstring(write_delay_ms_);
    text += L"\nsettings writes " + std::to_wstring(settings_writes_);
    text += L"\npending " + std::to_wstring(operations_.size());
    return text;
}

}  // namespace sim_server
