// Scenario documents written back: what a server keeps in its state file, in the form
// parse_scenario reads, so that the next server (in the next process) plays on from it.

#include "scenario.h"

#include "nsm/json_archive.h"

#include <objbase.h>

#include <cwchar>

namespace sim_server {
namespace {

namespace nsm = tessel::nsm;
constexpr std::uint32_t present = nsm::kind::present;

std::wstring guid_text(const GUID& guid)
{
    wchar_t text[40];
    ::StringFromGUID2(guid, text, static_cast<int>(std::size(text)));
    return text;
}

void write_text(nsm::writer_base& out, std::string_view name, const std::wstring& text)
{
    out.write_wstring(name, present | nsm::kind::string, text);
}

void write_optional_text(nsm::writer_base& out, std::string_view name, const std::optional<std::wstring>& text)
{
    if (text)
        write_text(out, name, *text);
}

void write_node_identity(nsm::writer_base& out, const std::wstring& instance_id,
                         const std::vector<std::wstring>& hardware_ids)
{
    if (!instance_id.empty())
        write_text(out, "instance_id", instance_id);
    if (hardware_ids.empty())
        return;
    out.begin_array("hardware_ids", present | nsm::kind::sequence, static_cast<std::uint32_t>(hardware_ids.size()));
    for (const std::wstring& id : hardware_ids)
        write_text(out, {}, id);
    out.end_array();
}

void write_children(nsm::writer_base& out, const std::vector<local_node_spec>& children)
{
    out.begin_array("children", present | nsm::kind::sequence, static_cast<std::uint32_t>(children.size()));
    for (const local_node_spec& child : children) {
        out.begin_object({}, present | nsm::kind::object, 4, 0);
        write_text(out, "class", guid_text(child.class_guid));
        write_text(out, "description", child.description);
        write_optional_text(out, "friendly_name", child.friendly_name);
        write_node_identity(out, child.instance_id, child.hardware_ids);
        write_children(out, child.children);
        out.end_object();
    }
    out.end_array();
}

void write_device(nsm::writer_base& out, const device_spec& device)
{
    out.begin_object({}, present | nsm::kind::object, 10, 0);
    write_text(out, "id", device.id);
    write_text(out, "name", device.name);
    write_text(out, "location", device.location);
    write_text(out, "class", guid_text(device.class_guid));
    write_text(out, "description", device.description);
    write_optional_text(out, "friendly_name", device.friendly_name);
    out.write_bool("connected", present | nsm::kind::boolean, device.connected);
    write_text(out, "client", device.client);
    out.write_bool("needs_share_confirmation", present | nsm::kind::boolean, device.needs_share_confirmation);
    write_node_identity(out, device.instance_id, device.hardware_ids);
    write_children(out, device.children);
    out.end_object();
}

}  // namespace

std::string write_scenario(const scenario& s)
{
    nsm::json archive;
    {
        const auto out = archive.create_writer();
        out->begin_object({}, present | nsm::kind::object, 7, 0);
        out->write_bool("running", present | nsm::kind::boolean, s.running);
        out->begin_object("settings", present | nsm::kind::object, 4, 0);
        write_optional_text(*out, "endpoints", s.settings.endpoints);
        if (s.settings.port)
            out->write_uint64("port", present | nsm::kind::number, *s.settings.port);
        if (s.settings.advertisement)
            out->write_bool("advertisement", present | nsm::kind::boolean, *s.settings.advertisement);
        if (s.settings.statistics)
            out->write_bool("statistics", present | nsm::kind::boolean, *s.settings.statistics);
        out->end_object();
        out->write_uint64("settings_read_delay_ms", present | nsm::kind::number, s.settings_read_delay_ms);
        out->write_uint64("settings_write_delay_ms", present | nsm::kind::number, s.settings_write_delay_ms);
        out->begin_array("devices", present | nsm::kind::sequence, static_cast<std::uint32_t>(s.devices.size()));
        for (const device_spec& device : s.devices)
            write_device(*out, device);
        out->end_array();
        out->begin_array("shares", present | nsm::kind::sequence, static_cast<std::uint32_t>(s.shares.size()));
        for (const share_spec& share : s.shares) {
            out->begin_object({}, present | nsm::kind::object, 2, 0);
            write_text(*out, "device", share.device_id);
            write_text(*out, "key", share.key);
            out->end_object();
        }
        out->end_array();
        out->begin_array("failures", present | nsm::kind::sequence, static_cast<std::uint32_t>(s.failures.size()));
        for (const failure_spec& failure : s.failures) {
            out->begin_object({}, present | nsm::kind::object, 3, 0);
            write_text(*out, "method", failure.method);
            wchar_t code[16];
            std::swprintf(code, std::size(code), L"0x%08lX", static_cast<unsigned long>(failure.code));
            write_text(*out, "hresult", code);
            if (!failure.device_id.empty())
                write_text(*out, "device", failure.device_id);
            out->end_object();
        }
        out->end_array();
        out->end_object();
    }
    return archive.written();
}

}  // namespace sim_server
