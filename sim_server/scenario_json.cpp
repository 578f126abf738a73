// Scenario documents. The only file that knows the JSON reader: when tessel::nsm's JSON
// archive can read documents this binding moves to it and json_reader.* go away.
//
// {
//   "running": true,
//   "settings": {"endpoints": "0.0.0.0:32032", "port": 32032, "advertisement": true, "statistics": false},
//   "settings_read_delay_ms": 400, "settings_write_delay_ms": 0,
//   "devices": [{"id": "flash", "name": "Arcturus Flash 32GB", "location": "1-1", "class": "disk",
//                "description": "USB Mass Storage Device", "friendly_name": "...", "connected": true,
//                "client": "WORKSTATION-07", "needs_share_confirmation": false}],
//   "shares": [{"device": "flash", "key": "secret"}],
//   "failures": [{"method": "ShareDevice", "hresult": "0x80070005", "device": "flash"}]
// }
//
// Every member is optional except a device's "id" and "name", a share's "device" and a
// failure's "method" and "hresult"; a member the server does not know is an error, so a
// misspelt name never goes unnoticed.

#include "scenario.h"

#include "json_reader.h"

#include "base/utf.h"

#include <cmath>

namespace sim_server {
namespace {

std::string position(const json::value& v)
{
    return "line " + std::to_string(v.line) + ", column " + std::to_string(v.column);
}

[[noreturn]] void fail_at(const json::value& v, const std::string& path, const std::string& message)
{
    throw scenario_error(position(v) + ": " + path + " " + message);
}

// The members of one object, each taken at most once; whatever is left over is unknown.
class member_reader {
public:
    member_reader(const json::value& v, std::string path) : value_(v), path_(std::move(path))
    {
        object_ = v.as_object();
        if (!object_)
            fail_at(v, path_, std::string("must be an object, not ") + v.type_name());
        taken_.assign(object_->size(), false);
    }

    const json::value* find(std::string_view name)
    {
        for (size_t i = 0; i < object_->size(); ++i)
            if ((*object_)[i].first == name) {
                taken_[i] = true;
                return &(*object_)[i].second;
            }
        return nullptr;
    }

    const json::value& require(std::string_view name)
    {
        if (const json::value* v = find(name))
            return *v;
        fail_at(value_, path_, "needs the member \"" + std::string(name) + "\"");
    }

    std::string path_of(std::string_view name) const { return path_ + "." + std::string(name); }

    void finish() const
    {
        for (size_t i = 0; i < object_->size(); ++i)
            if (!taken_[i])
                fail_at((*object_)[i].second, path_, "has an unknown member \"" + (*object_)[i].first + "\"");
    }

private:
    const json::value& value_;
    const json::object* object_;
    std::string path_;
    std::vector<bool> taken_;
};

std::wstring string_of(const json::value& v, const std::string& path)
{
    const std::string* text = v.as_string();
    if (!text)
        fail_at(v, path, std::string("must be a string, not ") + v.type_name());
    return tessel::utf8_to_utf16(*text);
}

bool bool_of(const json::value& v, const std::string& path)
{
    const bool* flag = v.as_bool();
    if (!flag)
        fail_at(v, path, std::string("must be true or false, not ") + v.type_name());
    return *flag;
}

std::uint32_t unsigned_of(const json::value& v, const std::string& path, std::uint32_t max)
{
    const double* number = v.as_number();
    if (!number || *number < 0 || *number > max || std::floor(*number) != *number)
        fail_at(v, path, "must be a whole number from 0 to " + std::to_string(max));
    return static_cast<std::uint32_t>(*number);
}

HRESULT hresult_of(const json::value& v, const std::string& path)
{
    std::optional<HRESULT> code;
    if (const std::string* text = v.as_string()) {
        code = parse_hresult(tessel::utf8_to_utf16(*text));
    } else if (const double* number = v.as_number()) {
        if (*number >= -2147483648.0 && *number <= 4294967295.0 && std::floor(*number) == *number)
            code = static_cast<HRESULT>(static_cast<std::uint32_t>(static_cast<std::int64_t>(*number)));
    }
    if (!code)
        fail_at(v, path, "must be an HRESULT such as \"0x80070005\" or \"E_ACCESSDENIED\"");
    return *code;
}

const json::array& array_of(const json::value& v, const std::string& path)
{
    const json::array* items = v.as_array();
    if (!items)
        fail_at(v, path, std::string("must be an array, not ") + v.type_name());
    return *items;
}

device_spec device_of(const json::value& v, const std::string& path)
{
    member_reader members(v, path);
    device_spec device;
    device.id = string_of(members.require("id"), members.path_of("id"));
    device.name = string_of(members.require("name"), members.path_of("name"));
    if (const auto* m = members.find("location"))
        device.location = string_of(*m, members.path_of("location"));
    device.class_guid = *parse_device_class(L"usb");
    if (const auto* m = members.find("class")) {
        const auto guid = parse_device_class(string_of(*m, members.path_of("class")));
        if (!guid)
            fail_at(*m, members.path_of("class"),
                    "must be one of usb, hid, disk, keyboard, mouse, printer, smartcard, image, media, net, ports, "
                    "bluetooth or a GUID in braces");
        device.class_guid = *guid;
    }
    device.description = L"USB Device";
    if (const auto* m = members.find("description"))
        device.description = string_of(*m, members.path_of("description"));
    if (const auto* m = members.find("friendly_name"))
        device.friendly_name = string_of(*m, members.path_of("friendly_name"));
    if (const auto* m = members.find("connected"))
        device.connected = bool_of(*m, members.path_of("connected"));
    if (const auto* m = members.find("client"))
        device.client = string_of(*m, members.path_of("client"));
    if (const auto* m = members.find("needs_share_confirmation"))
        device.needs_share_confirmation = bool_of(*m, members.path_of("needs_share_confirmation"));
    members.finish();
    return device;
}

share_spec share_of(const json::value& v, const std::string& path)
{
    member_reader members(v, path);
    share_spec share;
    share.device_id = string_of(members.require("device"), members.path_of("device"));
    if (const auto* m = members.find("key"); m && !m->is_null())
        share.key = string_of(*m, members.path_of("key"));
    members.finish();
    return share;
}

failure_spec failure_of(const json::value& v, const std::string& path)
{
    member_reader members(v, path);
    failure_spec failure;
    failure.method = string_of(members.require("method"), members.path_of("method"));
    failure.code = hresult_of(members.require("hresult"), members.path_of("hresult"));
    if (const auto* m = members.find("device"))
        failure.device_id = string_of(*m, members.path_of("device"));
    members.finish();
    return failure;
}

server_settings settings_of(const json::value& v, const std::string& path)
{
    member_reader members(v, path);
    server_settings settings;
    if (const auto* m = members.find("endpoints"); m && !m->is_null())
        settings.endpoints = string_of(*m, members.path_of("endpoints"));
    if (const auto* m = members.find("port"); m && !m->is_null())
        settings.port = static_cast<std::uint16_t>(unsigned_of(*m, members.path_of("port"), 65535));
    if (const auto* m = members.find("advertisement"); m && !m->is_null())
        settings.advertisement = bool_of(*m, members.path_of("advertisement"));
    if (const auto* m = members.find("statistics"); m && !m->is_null())
        settings.statistics = bool_of(*m, members.path_of("statistics"));
    members.finish();
    return settings;
}

}  // namespace

scenario parse_scenario(std::string_view json_text)
{
    json::value document;
    try {
        document = json::parse(json_text);
    } catch (const json::syntax_error& e) {
        throw scenario_error(e.what());
    }

    member_reader members(document, "the scenario");
    scenario s;
    if (const auto* m = members.find("running"))
        s.running = bool_of(*m, "running");
    if (const auto* m = members.find("settings"))
        s.settings = settings_of(*m, "settings");
    // A day is far beyond any useful delay and keeps a typo from hanging a test forever.
    constexpr std::uint32_t max_delay = 24 * 60 * 60 * 1000;
    if (const auto* m = members.find("settings_read_delay_ms"))
        s.settings_read_delay_ms = unsigned_of(*m, "settings_read_delay_ms", max_delay);
    if (const auto* m = members.find("settings_write_delay_ms"))
        s.settings_write_delay_ms = unsigned_of(*m, "settings_write_delay_ms", max_delay);
    if (const auto* m = members.find("devices")) {
        const json::array& items = array_of(*m, "devices");
        for (size_t i = 0; i < items.size(); ++i)
            s.devices.push_back(device_of(items[i], "devices[" + std::to_string(i) + "]"));
    }
    if (const auto* m = members.find("shares")) {
        const json::array& items = array_of(*m, "shares");
        for (size_t i = 0; i < items.size(); ++i)
            s.shares.push_back(share_of(items[i], "shares[" + std::to_string(i) + "]"));
    }
    if (const auto* m = members.find("failures")) {
        const json::array& items = array_of(*m, "failures");
        for (size_t i = 0; i < items.size(); ++i)
            s.failures.push_back(failure_of(items[i], "failures[" + std::to_string(i) + "]"));
    }
    members.finish();
    validate(s);
    return s;
}

}  // namespace sim_server
