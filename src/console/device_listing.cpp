#include "console/device_listing.h"

#include "console/texts.h"

#include "base/utf.h"
#include "nsm/json_archive.h"

#include <array>

namespace servercfg::console {
namespace {

namespace nsm = tessel::nsm;
constexpr std::uint32_t present = nsm::kind::present;

constexpr std::size_t column_count = 10;
using row = std::array<std::wstring, column_count>;

std::wstring yes_no(bool value)
{
    return std::wstring(tessel::load_string(value ? text_id::word_yes : text_id::word_no));
}

std::wstring vid_pid_text(const device_identity& identity)
{
    return identity.vid_pid ? format_vid_pid(*identity.vid_pid) : std::wstring();
}

void add_child_rows(std::vector<row>& rows, const std::vector<local_node>& children, std::size_t depth)
{
    for (const local_node& child : children) {
        const device_identity& id = child.identity;
        rows.push_back({std::wstring(depth * 2, L' ') + child.name, id.instance_id, vid_pid_text(id), id.serial,
                        id.setup_class});
        add_child_rows(rows, child.children, depth + 1);
    }
}

// Columns padded to their widest cell, two spaces apart, no blanks at the ends of lines.
std::wstring aligned(const std::vector<row>& rows)
{
    std::array<std::size_t, column_count> widths{};
    for (const row& r : rows)
        for (std::size_t c = 0; c < column_count; ++c)
            widths[c] = std::max(widths[c], r[c].size());
    std::wstring text;
    for (const row& r : rows) {
        std::wstring line;
        for (std::size_t c = 0; c < column_count; ++c) {
            if (widths[c] == 0)
                continue;
            if (!line.empty())
                line += L"  ";
            line += r[c];
            line.append(widths[c] - r[c].size(), L' ');
        }
        while (!line.empty() && line.back() == L' ')
            line.pop_back();
        text += line + L"\n";
    }
    return text;
}

void write_text(nsm::writer_base& out, std::string_view name, const std::wstring& value)
{
    out.write_wstring(name, present | nsm::kind::string, value);
}

void write_identity(nsm::writer_base& out, const std::wstring& name, const device_identity& id)
{
    write_text(out, "name", name);
    write_text(out, "instance_id", id.instance_id);
    write_text(out, "vid_pid", vid_pid_text(id));
    write_text(out, "serial", id.serial);
    write_text(out, "class", id.setup_class);
}

void write_children(nsm::writer_base& out, const std::vector<local_node>& children)
{
    out.begin_array("children", present | nsm::kind::sequence, static_cast<std::uint32_t>(children.size()));
    for (const local_node& child : children) {
        out.begin_object({}, present | nsm::kind::object, 6, 0);
        write_identity(out, child.name, child.identity);
        write_children(out, child.children);
        out.end_object();
    }
    out.end_array();
}

template <class write_members>
std::wstring json_document(write_members write)
{
    nsm::json archive;
    {
        const auto out = archive.create_writer();
        out->begin_object({}, present | nsm::kind::object, 1, 0);
        write(*out);
        out->end_object();
    }
    return tessel::utf8_to_utf16(archive.written());
}

}  // namespace

std::wstring device_table(const std::vector<device_entry>& entries, bool with_children)
{
    if (entries.empty())
        return say(text_id::list_empty) + L"\n";
    std::vector<row> rows;
    row& header = rows.emplace_back();
    for (std::size_t c = 0; c < column_count; ++c)
        header[c] = tessel::load_string_item(text_id::list_columns, c);
    for (const device_entry& entry : entries) {
        const device_identity& id = entry.facts.identity;
        rows.push_back({entry.facts.name.empty() ? std::wstring(tessel::load_string(text_id::device_unknown))
                                                 : entry.facts.name,
                        id.instance_id, vid_pid_text(id), id.serial, id.setup_class, id.location,
                        yes_no(entry.connected), yes_no(entry.shared()),
                        entry.shared() ? yes_no(!entry.key.empty()) : std::wstring(), entry.client});
        if (with_children)
            add_child_rows(rows, entry.children, 1);
    }
    return aligned(rows);
}

std::wstring device_list_json(const std::vector<device_entry>& entries, bool with_children)
{
    return json_document([&](nsm::writer_base& out) {
        out.begin_array("devices", present | nsm::kind::sequence, static_cast<std::uint32_t>(entries.size()));
        for (const device_entry& entry : entries) {
            out.begin_object({}, present | nsm::kind::object, 12, 0);
            write_identity(out, entry.facts.name, entry.facts.identity);
            write_text(out, "location", entry.facts.identity.location);
            out.write_bool("connected", present | nsm::kind::boolean, entry.connected);
            out.write_bool("shared", present | nsm::kind::boolean, entry.shared());
            out.write_bool("has_key", present | nsm::kind::boolean, entry.shared() && !entry.key.empty());
            write_text(out, "client", entry.client);
            out.write_bool("needs_confirmation", present | nsm::kind::boolean, entry.needs_confirmation);
            if (with_children)
                write_children(out, entry.children);
            out.end_object();
        }
        out.end_array();
    });
}

std::wstring settings_table(const server_settings_values& settings)
{
    const std::wstring unknown(tessel::load_string(text_id::settings_unknown));
    const auto on_off = [&](const std::optional<bool>& value) {
        return value ? std::wstring(tessel::load_string(*value ? text_id::word_on : text_id::word_off)) : unknown;
    };
    const std::array<std::wstring, 4> values{settings.endpoints.value_or(unknown),
                                             settings.port ? std::to_wstring(*settings.port) : unknown,
                                             on_off(settings.advertisement), on_off(settings.statistics)};
    std::size_t width = 0;
    for (std::size_t i = 0; i < values.size(); ++i)
        width = std::max(width, tessel::load_string_item(text_id::settings_names, i).size());
    std::wstring text;
    for (std::size_t i = 0; i < values.size(); ++i) {
        const std::wstring_view name = tessel::load_string_item(text_id::settings_names, i);
        text.append(name);
        text += L':';
        text.append(width - name.size() + 2, L' ');
        text += values[i] + L"\n";
    }
    return text;
}

std::wstring settings_json(const server_settings_values& settings)
{
    // Written without the archive's default-skipping: a script finds every member, null
    // where the server does not know the value.
    return json_document([&](nsm::writer_base& out) {
        if (settings.endpoints)
            write_text(out, "endpoints", *settings.endpoints);
        else
            out.write_null("endpoints", present);
        if (settings.port)
            out.write_uint64("port", present | nsm::kind::number, *settings.port);
        else
            out.write_null("port", present);
        for (const auto& [name, value] : {std::pair{"advertisement", settings.advertisement},
                                          std::pair{"statistics", settings.statistics}}) {
            if (value)
                out.write_bool(name, present | nsm::kind::boolean, *value);
            else
                out.write_null(name, present);
        }
    });
}

}  // namespace servercfg::console
