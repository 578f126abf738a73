#include "console/commands.h"

#include "console/apply.h"
#include "console/configuration.h"
#include "console/device_listing.h"
#include "console/document_file.h"
#include "console/exit_codes.h"
#include "console/texts.h"
#include "console/watch.h"

#include "base/cmd_line.h"
#include "base/failure.h"
#include "base/utf.h"
#include "server_link/server_connection.h"

#include "version.h"

#include <algorithm>
#include <optional>

namespace servercfg::console {
namespace {

// A command line that cannot be carried out as typed: the message, then the hint.
struct usage_error {
    std::wstring message;
};

template <class... Args>
int fail(const program_io& io, int exit, std::uint32_t id, const Args&... args)
{
    io.err.line(say(id, args...));
    return exit;
}

int fail_call(const program_io& io, std::uint32_t id, HRESULT code)
{
    return fail(io, exit_server_call, id, error_text(code), static_cast<std::uint32_t>(code));
}

struct parsed_command {
    tessel::cmd_line_result options;
    std::vector<std::wstring> positional;
};

// The command's own options; a positional count outside [min, max] is a usage error.
parsed_command parse(const std::wstring& command, const std::vector<std::wstring>& arguments,
                     std::initializer_list<tessel::cmd_line_option> options, std::size_t min, std::size_t max)
{
    tessel::cmd_line_parser parser;
    for (const auto& option : options)
        parser.add(option);
    parsed_command parsed;
    try {
        parsed.options = parser.parse_arguments(arguments);
    } catch (const tessel::cmd_line_syntax_error& e) {
        // The parser's texts are keys of the common string table.
        throw usage_error{translated(tessel::utf8_to_utf16(e.what()))};
    }
    parsed.positional = parsed.options.positional();
    if (parsed.positional.size() < min || parsed.positional.size() > max)
        throw usage_error{say(text_id::usage_arguments, command)};
    return parsed;
}

tessel::cmd_line_option flag(const wchar_t* name)
{
    return {.long_name = name};
}

tessel::cmd_line_option valued(const wchar_t* name)
{
    return {.long_name = name, .takes_value = true};
}

parsed_selector selector_of(const std::wstring& text)
{
    auto selector = parse_selector(text);
    if (!selector)
        throw usage_error{say(text_id::select_bad, text)};
    return std::move(*selector);
}

// The one device a selector names; nothing after telling why (none or several).
std::optional<std::size_t> select_one(const program_io& io, const std::wstring& text, const parsed_selector& selector,
                                      const std::vector<device_entry>& entries)
{
    const auto matching = [&entries](const device_match& match) {
        std::vector<std::size_t> found;
        for (std::size_t i = 0; i < entries.size(); ++i)
            if (matches(match, entries[i].facts))
                found.push_back(i);
        return found;
    };
    std::vector<std::size_t> found = matching(selector.match);
    if (found.empty() && selector.kind == selector_kind::bare_word)
        found = matching(selector.name_match);
    if (found.size() == 1)
        return found.front();
    if (found.empty()) {
        io.err.line(say(text_id::select_none, text));
        return std::nullopt;
    }
    io.err.line(say(text_id::select_several, text, found.size()));
    std::size_t width = 0;
    for (const std::size_t i : found)
        width = std::max(width, entries[i].facts.name.size());
    for (const std::size_t i : found) {
        const device_facts& facts = entries[i].facts;
        io.err.line(say(text_id::select_candidate, facts.name + std::wstring(width - facts.name.size(), L' '),
                        facts.identity.instance_id));
    }
    return std::nullopt;
}

// The session with the devices read, or the exit code after the reason was printed.
struct connected {
    std::optional<server_session> session;
    std::vector<device_entry> entries;
    int exit = exit_done;
};

connected connect_and_read(const program_io& io, bool with_children = false)
{
    connected result;
    auto server = connect_to_server(io, result.exit);
    if (!server)
        return result;
    result.session.emplace(std::move(server));
    try {
        result.entries = result.session->read_devices(with_children);
    } catch (const fibra::details::hresult_error& e) {
        result.exit = fail_call(io, text_id::server_devices_failed, e.code());
        result.session.reset();
    }
    return result;
}

int list_command(const program_io& io, const std::vector<std::wstring>& arguments)
{
    const auto parsed = parse(L"list", arguments, {flag(L"json"), flag(L"all")}, 0, 0);
    auto c = connect_and_read(io, parsed.options.is_on(L"all"));
    if (!c.session)
        return c.exit;
    if (parsed.options.is_on(L"json"))
        io.out.write(device_list_json(c.entries, parsed.options.is_on(L"all")));
    else
        io.out.write(device_table(c.entries, parsed.options.is_on(L"all")));
    return exit_done;
}

int share_command(const program_io& io, const std::vector<std::wstring>& arguments)
{
    const auto parsed = parse(L"share", arguments, {valued(L"key-file"), flag(L"key-stdin"), flag(L"yes")}, 1, 1);
    const std::wstring& text = parsed.positional[0];
    const parsed_selector selector = selector_of(text);
    const auto key_file = parsed.options.value(L"key-file");
    const bool key_stdin = parsed.options.is_on(L"key-stdin");
    if (key_file && key_stdin)
        throw usage_error{say(text_id::usage_both_keys)};
    // The key before the server: a script that cannot give it changes nothing.
    std::optional<std::wstring> key;
    try {
        if (key_file)
            key = read_key_file(*key_file);
    } catch (const fibra::details::hresult_error& e) {
        return fail(io, exit_usage, text_id::key_file_unreadable, *key_file, error_text(e.code()),
                    static_cast<std::uint32_t>(e.code()));
    }
    try {
        if (key_stdin)
            key = read_key_from_standard_input();
    } catch (const fibra::details::hresult_error& e) {
        return fail(io, exit_usage, text_id::key_stdin_unreadable, error_text(e.code()),
                    static_cast<std::uint32_t>(e.code()));
    }

    auto c = connect_and_read(io);
    if (!c.session)
        return c.exit;
    const auto index = select_one(io, text, selector, c.entries);
    if (!index)
        return exit_selector;
    device_entry& entry = c.entries[*index];
    const std::wstring label = device_label(entry);
    try {
        if (entry.shared()) {
            if (!key || *key == entry.key) {
                io.out.line(say(text_id::share_already, label));
                return exit_done;
            }
            c.session->unshare(entry);
            c.session->share(entry, *key);
            io.out.line(say(text_id::share_done_again, label));
            return exit_done;
        }
        if (entry.needs_confirmation && !parsed.options.is_on(L"yes"))
            return fail(io, exit_usage, text_id::share_needs_yes, label);
        c.session->share(entry, key.value_or(std::wstring()));
    } catch (const fibra::details::hresult_error& e) {
        return fail(io, exit_server_call, text_id::share_failed, label, error_text(e.code()),
                    static_cast<std::uint32_t>(e.code()));
    }
    io.out.line(say(text_id::share_done, label));
    return exit_done;
}

int unshare_command(const program_io& io, const std::vector<std::wstring>& arguments)
{
    const auto parsed = parse(L"unshare", arguments, {}, 1, 1);
    const std::wstring& text = parsed.positional[0];
    const parsed_selector selector = selector_of(text);
    auto c = connect_and_read(io);
    if (!c.session)
        return c.exit;
    const auto index = select_one(io, text, selector, c.entries);
    if (!index)
        return exit_selector;
    device_entry& entry = c.entries[*index];
    const std::wstring label = device_label(entry);
    if (!entry.shared()) {
        io.out.line(say(text_id::unshare_not_shared, label));
        return exit_done;
    }
    try {
        c.session->unshare(entry);
    } catch (const fibra::details::hresult_error& e) {
        return fail(io, exit_server_call, text_id::unshare_failed, label, error_text(e.code()),
                    static_cast<std::uint32_t>(e.code()));
    }
    io.out.line(say(text_id::unshare_done, label));
    return exit_done;
}

bool same_word(std::wstring_view a, std::wstring_view b)
{
    return fold_case(a) == fold_case(b);
}

// "name=value" words of "settings set"; the port is checked here (1 to 65535, digits only),
// unlike the window, whose settings dialog keeps its own rule.
server_settings_values settings_to_set(const std::vector<std::wstring>& words)
{
    static constexpr std::wstring_view setting_names[] = {L"endpoints", L"port", L"advertisement", L"statistics"};
    server_settings_values values;
    if (words.empty())
        throw usage_error{say(text_id::usage_no_settings)};
    for (const std::wstring& word : words) {
        const std::size_t equals = word.find(L'=');
        const std::wstring_view name = std::wstring_view(word).substr(0, equals);
        const std::wstring value = equals == std::wstring::npos ? std::wstring() : word.substr(equals + 1);
        if (equals == std::wstring::npos)
            throw usage_error{say(text_id::usage_not_a_setting, word)};
        const auto on_off = [&]() {
            if (same_word(value, L"on"))
                return true;
            if (same_word(value, L"off"))
                return false;
            throw usage_error{say(text_id::usage_on_off, std::wstring(name), value)};
        };
        if (same_word(name, setting_names[0])) {
            values.endpoints = value;
        } else if (same_word(name, setting_names[1])) {
            unsigned long port = 0;
            if (value.empty() || value.size() > 5 || value.find_first_not_of(L"0123456789") != std::wstring::npos ||
                (port = std::wcstoul(value.c_str(), nullptr, 10)) < 1 || port > 65535)
                throw usage_error{say(text_id::usage_port, value)};
            values.port = static_cast<std::uint16_t>(port);
        } else if (same_word(name, setting_names[2])) {
            values.advertisement = on_off();
        } else if (same_word(name, setting_names[3])) {
            values.statistics = on_off();
        } else {
            throw usage_error{say(text_id::usage_not_a_setting, word)};
        }
    }
    return values;
}

int settings_command(const program_io& io, const std::vector<std::wstring>& arguments)
{
    const auto parsed = parse(L"settings", arguments, {flag(L"json")}, 0, 5);
    const bool setting = !parsed.positional.empty();
    if (setting && parsed.positional[0] != L"set")
        throw usage_error{say(text_id::usage_arguments, L"settings")};
    std::optional<server_settings_values> changed;
    if (setting)
        changed = settings_to_set({parsed.positional.begin() + 1, parsed.positional.end()});

    int exit = exit_done;
    auto server = connect_to_server(io, exit);
    if (!server)
        return exit;
    server_session session(std::move(server));
    if (changed) {
        try {
            session.write_settings(*changed);
        } catch (const fibra::details::hresult_error& e) {
            return fail_call(io, text_id::server_settings_write_failed, e.code());
        }
        io.out.line(say(text_id::settings_changed));
        return exit_done;
    }
    server_settings_values values;
    try {
        values = session.read_settings();
    } catch (const fibra::details::hresult_error& e) {
        return fail_call(io, text_id::server_settings_read_failed, e.code());
    }
    io.out.write(parsed.options.is_on(L"json") ? settings_json(values) : settings_table(values));
    return exit_done;
}

int export_command(const program_io& io, const std::vector<std::wstring>& arguments)
{
    const auto parsed = parse(L"export", arguments, {flag(L"with-keys")}, 0, 1);
    const bool with_keys = parsed.options.is_on(L"with-keys");
    auto c = connect_and_read(io);
    if (!c.session)
        return c.exit;
    configuration document;
    try {
        document.server = c.session->read_settings();
    } catch (const fibra::details::hresult_error& e) {
        return fail_call(io, text_id::server_settings_read_failed, e.code());
    }
    for (const device_entry& entry : c.entries) {
        if (!entry.shared())
            continue;
        share_rule rule;
        const device_identity& id = entry.facts.identity;
        if (!id.serial.empty() && id.vid_pid) {
            rule.match.vid_pid = id.vid_pid;
            rule.match.serial = id.serial;
        } else if (!id.instance_id.empty()) {
            rule.match.instance_id = id.instance_id;
        } else {
            rule.match.name = entry.facts.name;
            io.err.line(say(text_id::export_by_name, device_label(entry)));
        }
        // Without --with-keys a keyless share still says so: that is no secret, and it
        // keeps such a share exactly as it is when the document is applied.
        if (with_keys || entry.key.empty())
            rule.key = entry.key;
        else
            io.err.line(say(text_id::export_key_left_out, device_label(entry)));
        document.shares.push_back(std::move(rule));
    }
    const std::string text = write_configuration(document);
    if (parsed.positional.empty()) {
        io.out.write(tessel::utf8_to_utf16(text));
        return exit_done;
    }
    const std::wstring& path = parsed.positional[0];
    try {
        write_document_file(path, text, with_keys);
    } catch (const fibra::details::hresult_error& e) {
        return fail(io, exit_usage, text_id::export_write_failed, path, error_text(e.code()),
                    static_cast<std::uint32_t>(e.code()));
    }
    return exit_done;
}

int apply_command(const program_io& io, const std::vector<std::wstring>& arguments)
{
    const auto parsed = parse(L"apply", arguments,
                              {flag(L"dry-run"), flag(L"check"), flag(L"prune"), flag(L"yes")}, 1, 1);
    const std::wstring& path = parsed.positional[0];
    configuration document;
    if (!read_document(io, path, document))
        return exit_usage;
    const apply_options options{parsed.options.is_on(L"prune"), parsed.options.is_on(L"yes")};
    const bool check = parsed.options.is_on(L"check");
    const bool dry_run = parsed.options.is_on(L"dry-run");

    auto c = connect_and_read(io);
    if (!c.session)
        return c.exit;
    server_settings_values current;
    if (!document.server.empty()) {
        try {
            current = c.session->read_settings();
        } catch (const fibra::details::hresult_error& e) {
            return fail_call(io, text_id::server_settings_read_failed, e.code());
        }
    }
    const apply_plan plan = plan_apply(document, c.entries, current, options);
    if (plan.empty()) {
        io.out.line(say(check ? text_id::apply_matches : text_id::apply_nothing));
        return exit_done;
    }
    const apply_report report = carry_out(*c.session, c.entries, plan, io.out, !check && !dry_run);
    if (check) {
        io.out.line(say(text_id::apply_differs));
        return exit_differs;
    }
    if (dry_run) {
        io.out.line(say(text_id::apply_dry_run));
        return exit_done;
    }
    if (report.failed) {
        io.err.line(say(text_id::apply_some_failed, report.failed, report.attempted));
        return exit_rules_failed;
    }
    return exit_done;
}

int watch_command(const program_io& io, const std::vector<std::wstring>& arguments)
{
    const auto parsed = parse(L"watch", arguments, {flag(L"prune"), flag(L"yes")}, 1, 1);
    configuration document;
    if (!read_document(io, parsed.positional[0], document))
        return exit_usage;
    return run_watch(io, document, {parsed.options.is_on(L"prune"), parsed.options.is_on(L"yes")});
}

}  // namespace

tessel::com_ptr<IUsbServer> connect_to_server(const program_io& io, int& exit)
{
    tessel::com_ptr<IUsbServer> server;
    try {
        server = io.create_server ? io.create_server() : create_server();
    } catch (const fibra::details::hresult_error& e) {
        exit = fail(io, exit_server_not_created, text_id::server_not_created, error_text(e.code()),
                    static_cast<std::uint32_t>(e.code()));
        return nullptr;
    }
    if (!server_is_running(*server.get())) {
        exit = fail(io, exit_server_not_running, text_id::server_not_running);
        return nullptr;
    }
    return server;
}

int run_program(const std::vector<std::wstring>& arguments, program_io io)
{
    if (arguments.empty()) {
        io.err.line(say(text_id::usage));
        return exit_usage;
    }
    const std::wstring& command = arguments[0];
    const std::vector<std::wstring> rest(arguments.begin() + 1, arguments.end());
    try {
        if (command == L"help" || command == L"--help" || command == L"-h" || command == L"/?") {
            io.out.line(say(text_id::usage));
            return exit_done;
        }
        if (command == L"--version") {
            io.out.line(say(text_id::version, L"" SERVERCFG_VERSION_TEXT));
            return exit_done;
        }
        if (command == L"list")
            return list_command(io, rest);
        if (command == L"share")
            return share_command(io, rest);
        if (command == L"unshare")
            return unshare_command(io, rest);
        if (command == L"settings")
            return settings_command(io, rest);
        if (command == L"export")
            return export_command(io, rest);
        if (command == L"apply")
            return apply_command(io, rest);
        if (command == L"watch")
            return watch_command(io, rest);
        throw usage_error{say(text_id::usage_unknown_command, command)};
    } catch (const usage_error& e) {
        io.err.line(e.message);
        io.err.line({});
        io.err.line(say(text_id::usage));
        return exit_usage;
    }
}

}  // namespace servercfg::console
