#include "console/apply.h"

#include "console/texts.h"

#include "base/failure.h"

namespace servercfg::console {
namespace {

// The setting lines: "Setting Default TCP port to 8080".
std::vector<std::wstring> setting_lines(const server_settings_values& settings)
{
    const auto on_off = [](bool on) { return std::wstring(tessel::load_string(on ? text_id::word_on : text_id::word_off)); };
    std::vector<std::wstring> lines;
    const auto line = [&](std::size_t name, const std::wstring& value) {
        lines.push_back(say(text_id::apply_setting, tessel::load_string_item(text_id::settings_names, name), value));
    };
    if (settings.endpoints)
        line(0, *settings.endpoints);
    if (settings.port)
        line(1, std::to_wstring(*settings.port));
    if (settings.advertisement)
        line(2, on_off(*settings.advertisement));
    if (settings.statistics)
        line(3, on_off(*settings.statistics));
    return lines;
}

}  // namespace

std::wstring device_label(const device_entry& entry)
{
    const std::wstring& name = entry.facts.name;
    return say(text_id::device_label, name.empty() ? std::wstring(tessel::load_string(text_id::device_unknown)) : name,
               entry.facts.identity.instance_id);
}

std::optional<device_change> plan_device(const configuration& document, const device_entry& entry, std::size_t index,
                                         const apply_options& options)
{
    for (const share_rule& rule : document.shares) {
        if (!matches(rule.match, entry.facts))
            continue;
        if (!entry.shared()) {
            if (entry.needs_confirmation && !options.confirmed)
                return device_change{change_kind::unconfirmed, index, {}};
            return device_change{change_kind::share, index, rule.key.value_or(std::wstring())};
        }
        // A rule without a key takes the share as it is.
        if (rule.key && *rule.key != entry.key)
            return device_change{change_kind::share_again, index, *rule.key};
        return std::nullopt;
    }
    if (options.prune && entry.shared())
        return device_change{change_kind::unshare, index, {}};
    return std::nullopt;
}

apply_plan plan_apply(const configuration& document, const std::vector<device_entry>& entries,
                      const server_settings_values& current, const apply_options& options)
{
    apply_plan plan;
    for (std::size_t i = 0; i < entries.size(); ++i)
        if (auto change = plan_device(document, entries[i], i, options))
            plan.devices.push_back(std::move(*change));
    const server_settings_values& wanted = document.server;
    if (wanted.endpoints && wanted.endpoints != current.endpoints)
        plan.settings.endpoints = wanted.endpoints;
    if (wanted.port && wanted.port != current.port)
        plan.settings.port = wanted.port;
    if (wanted.advertisement && wanted.advertisement != current.advertisement)
        plan.settings.advertisement = wanted.advertisement;
    if (wanted.statistics && wanted.statistics != current.statistics)
        plan.settings.statistics = wanted.statistics;
    return plan;
}

apply_report carry_out(server_session& session, std::vector<device_entry>& entries, const apply_plan& plan,
                       text_sink& out, bool carry_out_changes)
{
    apply_report report;
    const auto attempt = [&](const std::wstring& line, const auto& change) {
        out.line(line);
        ++report.attempted;
        if (!carry_out_changes)
            return;
        try {
            change();
        } catch (const fibra::details::hresult_error& e) {
            ++report.failed;
            out.line(say(text_id::apply_failed, error_text(e.code()), static_cast<std::uint32_t>(e.code())));
        }
    };
    for (const device_change& change : plan.devices) {
        device_entry& entry = entries[change.device];
        const std::wstring label = device_label(entry);
        switch (change.kind) {
        case change_kind::share:
            attempt(say(text_id::apply_share, label), [&] { session.share(entry, change.key); });
            break;
        case change_kind::share_again:
            attempt(say(text_id::apply_share_again, label), [&] {
                session.unshare(entry);
                session.share(entry, change.key);
            });
            break;
        case change_kind::unshare:
            attempt(say(text_id::apply_unshare, label), [&] { session.unshare(entry); });
            break;
        case change_kind::unconfirmed:
            out.line(say(text_id::apply_unconfirmed, label));
            ++report.attempted;
            if (carry_out_changes)
                ++report.failed;
            break;
        }
    }
    if (!plan.settings.empty()) {
        const auto lines = setting_lines(plan.settings);
        for (std::size_t i = 0; i + 1 < lines.size(); ++i)
            out.line(lines[i]);
        // One call for all of them: they fail or succeed together, reported once.
        const std::size_t failed_before = report.failed;
        attempt(lines.back(), [&] { session.write_settings(plan.settings); });
        report.attempted += lines.size() - 1;
        if (report.failed > failed_before)
            report.failed += lines.size() - 1;
    }
    return report;
}

}  // namespace servercfg::console
