#include "console/configuration.h"

#include "base/failure.h"
#include "base/unique_handle.h"
#include "base/utf.h"
#include "nsm/json_archive.h"

#include <set>

namespace servercfg::console {
namespace {

namespace nsm = tessel::nsm;

// A key is a line of text; a file far larger than that is not a key file.
constexpr std::size_t max_key_file_size = 64 * 1024;

// The document walked member by member with the archive's reader. Each object checks its
// own members: the reader only knows JSON, not which members a document may have.
class document_reader {
public:
    explicit document_reader(std::string_view text) : text_(text), reader_(text) {}

    configuration read()
    {
        configuration document;
        try {
            expect_object(reader_.next_entry());
            bool has_version = false;
            const std::size_t start = members([&](std::string_view name, const nsm::entry_info& entry) {
                if (name == "version") {
                    has_version = true;
                    if (number(entry) != document_version)
                        fail_value(document_problem::wrong_version);
                } else if (name == "server") {
                    read_server(entry, document.server);
                } else if (name == "shares") {
                    expect(entry, nsm::kind::sequence, L"Array expected");
                    reader_.begin_array();
                    for (std::size_t index = 0;; ++index) {
                        const nsm::entry_info element = reader_.next_entry();
                        if (element.at_end())
                            break;
                        path_.push_back({{}, index});
                        document.shares.push_back(read_rule(element));
                        path_.pop_back();
                    }
                    reader_.end_array();
                } else {
                    return false;
                }
                return true;
            });
            if (!has_version)
                fail_at(start, document_problem::missing_member, L"version");
            bool at_end = false;
            try {
                at_end = reader_.next_entry().at_end();
            } catch (const nsm::load_exception&) {
            }
            if (!at_end)
                fail(document_problem::trailing_text);
        } catch (const nsm::load_exception& e) {
            fail(document_problem::archive, e.message());
        }
        return document;
    }

private:
    struct step {
        std::string member;  // empty: an element of an array
        std::size_t index = 0;
    };

    [[noreturn]] void fail(document_problem problem, std::wstring detail = {})
    {
        fail_at(reader_.offset(), problem, std::move(detail));
    }

    [[noreturn]] void fail_at(std::size_t where, document_problem problem, std::wstring detail = {})
    {
        std::string path;
        for (const step& s : path_) {
            if (s.member.empty()) {
                path += '[' + std::to_string(s.index) + ']';
            } else {
                if (!path.empty())
                    path += '.';
                path += s.member;
            }
        }
        // The line and column of the reader's position, the column counted in bytes as
        // the archive counts it.
        const std::size_t offset = std::min(where, text_.size());
        std::size_t line = 1, line_start = 0;
        for (std::size_t i = 0; i < offset; ++i)
            if (text_[i] == '\n') {
                ++line;
                line_start = i + 1;
            }
        throw document_error(problem, std::move(detail), line, offset - line_start + 1, std::move(path));
    }

    // Problems of the value the member just named; value_at_ is where it starts.
    [[noreturn]] void fail_value(document_problem problem, std::wstring detail = {})
    {
        fail_at(value_at_, problem, std::move(detail));
    }

    void expect(const nsm::entry_info& entry, std::uint32_t kind, const wchar_t* message)
    {
        if ((entry.flags & kind) != kind || (entry.flags & nsm::kind::present) == 0)
            fail_value(document_problem::archive, message);
    }

    void expect_object(const nsm::entry_info& entry) { expect(entry, nsm::kind::object, L"Object expected"); }

    // Calls handle(name, entry) for each member of the object at the reader, which answers
    // whether it knows the member. Names given twice and names with the archive's version
    // or id suffixes ("key:2", "key@{...}") are errors, not other spellings of a member.
    // Returns where the object began, for problems of the object as a whole. Problems of a
    // member's name point at the name; those of its value at the value (value_at_).
    template <class handler>
    std::size_t members(handler handle)
    {
        const std::size_t start = reader_.offset();
        reader_.begin_object();
        std::set<std::string, std::less<>> seen;
        for (;;) {
            std::size_t name_at = reader_.offset();
            while (name_at < text_.size() && std::string_view(" \t\r\n,").find(text_[name_at]) != std::string_view::npos)
                ++name_at;
            const nsm::entry_info entry = reader_.next_entry();
            if (entry.at_end())
                break;
            value_at_ = reader_.offset();
            const std::string name(entry.name);
            path_.push_back({name, 0});
            const GUID id = reader_.entry_id();
            if (nsm::version_of(entry.flags) != 0 || id != GUID{})
                fail_at(name_at, document_problem::unknown_member, tessel::utf8_to_utf16(name));
            if (!seen.insert(name).second)
                fail_at(name_at, document_problem::repeated_member);
            if (!handle(std::string_view(name), entry))
                fail_at(name_at, document_problem::unknown_member, tessel::utf8_to_utf16(name));
            path_.pop_back();
        }
        reader_.end_object();
        return start;
    }

    std::wstring text(const nsm::entry_info& entry)
    {
        // A quoted "0x..." is a number to the archive, but a string all the same here:
        // keys and names may well begin that way.
        if ((entry.flags & nsm::kind::present) == 0 ||
            (entry.flags & (nsm::kind::string | nsm::kind::number)) == 0)
            fail_value(document_problem::archive, L"String expected");
        std::wstring value;
        try {
            reader_.read_wstring(value);
        } catch (const nsm::load_exception&) {
            fail_value(document_problem::archive, L"String expected");
        }
        return value;
    }

    std::uint64_t number(const nsm::entry_info& entry)
    {
        expect(entry, nsm::kind::number, L"Number expected");
        return reader_.read_uint64();
    }

    bool boolean(const nsm::entry_info& entry)
    {
        expect(entry, nsm::kind::boolean, L"Boolean expected");
        return reader_.read_bool();
    }

    void read_server(const nsm::entry_info& entry, server_settings_values& server)
    {
        expect_object(entry);
        members([&](std::string_view name, const nsm::entry_info& member) {
            if (name == "endpoints") {
                server.endpoints = text(member);
            } else if (name == "port") {
                expect(member, nsm::kind::number, L"Number expected");
                std::uint64_t port = 0;
                try {
                    port = reader_.read_uint64();
                } catch (const nsm::load_exception&) {
                    fail_value(document_problem::bad_port);  // a fraction or a negative number
                }
                if (port < 1 || port > 65535)
                    fail_value(document_problem::bad_port);
                server.port = static_cast<std::uint16_t>(port);
            } else if (name == "advertisement") {
                server.advertisement = boolean(member);
            } else if (name == "statistics") {
                server.statistics = boolean(member);
            } else {
                return false;
            }
            return true;
        });
    }

    share_rule read_rule(const nsm::entry_info& entry)
    {
        expect_object(entry);
        share_rule rule;
        bool has_match = false;
        const std::size_t start = members([&](std::string_view name, const nsm::entry_info& member) {
            if (name == "match") {
                has_match = true;
                read_match(member, rule.match);
            } else if (name == "key") {
                if (rule.key_file)
                    fail_value(document_problem::key_and_key_file);
                rule.key = text(member);
            } else if (name == "key_file") {
                if (rule.key)
                    fail_value(document_problem::key_and_key_file);
                rule.key_file = text(member);
            } else {
                return false;
            }
            return true;
        });
        if (!has_match)
            fail_at(start, document_problem::missing_member, L"match");
        return rule;
    }

    void read_match(const nsm::entry_info& entry, device_match& match)
    {
        expect_object(entry);
        const std::size_t start = members([&](std::string_view name, const nsm::entry_info& member) {
            if (name == "instance_id") {
                match.instance_id = text(member);
            } else if (name == "vid_pid") {
                const std::wstring value = text(member);
                match.vid_pid = parse_vid_pid(value);
                if (!match.vid_pid)
                    fail_value(document_problem::bad_vid_pid, value);
            } else if (name == "serial") {
                match.serial = text(member);
            } else if (name == "name") {
                match.name = text(member);
            } else if (name == "class") {
                match.setup_class = text(member);
            } else {
                return false;
            }
            return true;
        });
        // An empty match would match every device: almost certainly a mistake, and one
        // that --prune would make expensive.
        if (match.empty())
            fail_at(start, document_problem::empty_match);
    }

    std::string_view text_;
    nsm::details::json_reader reader_;
    std::vector<step> path_;
    std::size_t value_at_ = 0;
};

std::wstring folder_of(const std::wstring& path)
{
    const std::size_t slash = path.find_last_of(L"\\/");
    return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash + 1);
}

bool is_relative(const std::wstring& path)
{
    // "C:\...", "\\server\...", "\..." (the current drive) are not.
    return !(path.size() >= 2 && path[1] == L':') && !path.starts_with(L"\\") && !path.starts_with(L"/");
}

// The whole file, at most `limit` bytes; nothing when it is larger. Throws hresult_error.
std::optional<std::string> read_whole_file(const std::wstring& path, std::size_t limit)
{
    tessel::unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    tessel::throw_last_error_if(!file);
    LARGE_INTEGER size{};
    tessel::throw_last_error_if(!::GetFileSizeEx(file.get(), &size));
    if (static_cast<std::uint64_t>(size.QuadPart) > limit)
        return std::nullopt;
    std::string text(static_cast<std::size_t>(size.QuadPart), '\0');
    DWORD read = 0;
    if (!text.empty())
        tessel::throw_last_error_if(!::ReadFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &read, nullptr));
    text.resize(read);
    return text;
}

void write_text(nsm::writer_base& out, std::string_view name, const std::wstring& value)
{
    out.write_wstring(name, nsm::kind::present | nsm::kind::string, value);
}

}  // namespace

document_error::document_error(document_problem problem, std::wstring detail, std::size_t line, std::size_t column,
                               std::string path, HRESULT code)
    : problem_(problem), detail_(std::move(detail)), line_(line), column_(column), path_(std::move(path)), code_(code)
{
}

configuration parse_configuration(std::string_view text)
{
    if (text.size() > max_document_size)
        throw document_error(document_problem::too_large, {});
    return document_reader(text).read();
}

std::wstring key_from_text(std::string_view text)
{
    if (text.starts_with("\xEF\xBB\xBF"))
        text.remove_prefix(3);
    text = text.substr(0, text.find('\n'));
    if (text.ends_with('\r'))
        text.remove_suffix(1);
    return tessel::utf8_to_utf16(text);
}

std::wstring read_key_file(const std::wstring& path)
{
    const auto text = read_whole_file(path, max_key_file_size);
    if (!text)
        tessel::throw_win32(ERROR_FILE_TOO_LARGE);
    return key_from_text(*text);
}

void load_key_files(configuration& document, const std::wstring& document_folder)
{
    for (std::size_t i = 0; i < document.shares.size(); ++i) {
        share_rule& rule = document.shares[i];
        if (!rule.key_file)
            continue;
        const std::wstring path = is_relative(*rule.key_file) ? document_folder + *rule.key_file : *rule.key_file;
        try {
            rule.key = read_key_file(path);
        } catch (const fibra::details::hresult_error& e) {
            throw document_error(document_problem::unreadable_key_file, path, 0, 0,
                                 "shares[" + std::to_string(i) + "].key_file", e.code());
        }
    }
}

configuration read_configuration_file(const std::wstring& path)
{
    std::optional<std::string> text;
    try {
        text = read_whole_file(path, max_document_size);
    } catch (const fibra::details::hresult_error& e) {
        throw document_error(document_problem::unreadable_file, path, 0, 0, {}, e.code());
    }
    if (!text)
        throw document_error(document_problem::too_large, {});
    configuration document = parse_configuration(*text);
    load_key_files(document, folder_of(path));
    return document;
}

std::string write_configuration(const configuration& document)
{
    constexpr std::uint32_t object = nsm::kind::present | nsm::kind::object;
    nsm::json archive;
    {
        const auto out = archive.create_writer();
        out->begin_object({}, object, 3, 0);
        out->write_uint64("version", nsm::kind::present | nsm::kind::number, document_version);
        const server_settings_values& server = document.server;
        if (!server.empty()) {
            out->begin_object("server", object, 4, 0);
            if (server.endpoints)
                write_text(*out, "endpoints", *server.endpoints);
            if (server.port)
                out->write_uint64("port", nsm::kind::present | nsm::kind::number, *server.port);
            if (server.advertisement)
                out->write_bool("advertisement", nsm::kind::present | nsm::kind::boolean, *server.advertisement);
            if (server.statistics)
                out->write_bool("statistics", nsm::kind::present | nsm::kind::boolean, *server.statistics);
            out->end_object();
        }
        out->begin_array("shares", nsm::kind::present | nsm::kind::sequence,
                         static_cast<std::uint32_t>(document.shares.size()));
        for (const share_rule& rule : document.shares) {
            out->begin_object({}, object, 2, 0);
            const device_match& match = rule.match;
            out->begin_object("match", object, 5, 0);
            if (match.instance_id)
                write_text(*out, "instance_id", *match.instance_id);
            if (match.vid_pid)
                write_text(*out, "vid_pid", format_vid_pid(*match.vid_pid));
            if (match.serial)
                write_text(*out, "serial", *match.serial);
            if (match.name)
                write_text(*out, "name", *match.name);
            if (match.setup_class)
                write_text(*out, "class", *match.setup_class);
            out->end_object();
            if (rule.key)
                write_text(*out, "key", *rule.key);
            else if (rule.key_file)
                write_text(*out, "key_file", *rule.key_file);
            out->end_object();
        }
        out->end_array();
        out->end_object();
    }
    return archive.written();
}

}  // namespace servercfg::console
