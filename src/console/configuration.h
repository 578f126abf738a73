#pragma once
// The configuration document: which devices the server shares, with which keys, and its
// settings, as JSON that "export" writes and "apply" and "watch" read.
//
//   {
//     "version": 1,
//     "server": {"endpoints": "0.0.0.0:32032", "port": 32032, "advertisement": true, "statistics": false},
//     "shares": [
//       {"match": {"vid_pid": "0781:5567", "serial": "4C530001230105109392"}, "key": "s3cret"},
//       {"match": {"name": "Labelwise*", "class": "Printer"}},
//       {"match": {"instance_id": "USB\\VID_1A2B&PID_0001\\5&2C4B1A0&0&3"}, "key_file": "dongle.key"}
//     ]
//   }
//
// "version" is required and 1; "server" and every setting in it are optional; "shares" is
// an ordered list of rules, and the first rule that matches a device decides. A rule's
// "match" names at least one of instance_id, vid_pid, serial, name and class. "key" shares
// with that key ("" without one); "key_file" names a file whose first line is the key,
// relative to the document's folder; with neither, a device that is shared keeps the key
// it has and one that is not is shared without a key.
//
// The reader is the project's JSON archive, walked strictly: an unknown member, a member
// given twice, a value of the wrong kind, bad syntax or text after the document is an
// error that names the place (line, column, byte and the member's path).

#include "console/device_match.h"
#include "server_link/server_settings.h"

#include <windows.h>

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace servercfg::console {

struct share_rule {
    device_match match;
    // Set: the key to share with (empty: none). Unset: whatever key the share has.
    std::optional<std::wstring> key;
    // As the document writes it; load_key_files reads it into `key`.
    std::optional<std::wstring> key_file;
    bool operator==(const share_rule&) const = default;
};

struct configuration {
    server_settings_values server;
    std::vector<share_rule> shares;
    bool operator==(const configuration&) const = default;
};

inline constexpr std::size_t max_document_size = 1024 * 1024;
inline constexpr std::uint32_t document_version = 1;

// Why a document was refused. The texts are the program's (string tables), so an error
// carries its kind and the parts that go into the text.
enum class document_problem {
    archive,          // the JSON archive's own message, in detail ("bad json format", "String expected"...)
    unknown_member,   // detail: the member's name as written
    repeated_member,
    missing_member,   // detail: the member's name
    wrong_version,
    bad_vid_pid,      // detail: the text
    bad_port,
    empty_match,
    key_and_key_file,
    too_large,
    trailing_text,
    unreadable_file,  // detail: the file's path; code: why
    unreadable_key_file,
};

class document_error : public std::exception {
public:
    document_error(document_problem problem, std::wstring detail, std::size_t line = 0, std::size_t column = 0,
                   std::string path = {}, HRESULT code = S_OK);
    [[nodiscard]] const char* what() const noexcept override { return "configuration document error"; }

    [[nodiscard]] document_problem problem() const noexcept { return problem_; }
    [[nodiscard]] const std::wstring& detail() const noexcept { return detail_; }
    // Where in the text, counted from 1 (the column in bytes of the line); 0 for problems
    // of the whole file.
    [[nodiscard]] std::size_t line() const noexcept { return line_; }
    [[nodiscard]] std::size_t column() const noexcept { return column_; }
    // "shares[1].match.vid_pid"; empty for the document itself.
    [[nodiscard]] const std::string& path() const noexcept { return path_; }
    [[nodiscard]] HRESULT code() const noexcept { return code_; }

private:
    document_problem problem_;
    std::wstring detail_;
    std::size_t line_;
    std::size_t column_;
    std::string path_;
    HRESULT code_;
};

// Reads a document; key files are not read. Throws document_error (and std::bad_alloc).
[[nodiscard]] configuration parse_configuration(std::string_view text);

// Reads every rule's key file into its key: relative paths start at `document_folder`.
// Throws document_error (unreadable_key_file).
void load_key_files(configuration& document, const std::wstring& document_folder);

// The whole of reading a document file: its size, its text, its key files.
[[nodiscard]] configuration read_configuration_file(const std::wstring& path);

// The document as export writes it, with "version" 1; members that are unset are left out.
[[nodiscard]] std::string write_configuration(const configuration& document);

// A key as a key file or standard input gives it: the first line, without its line break,
// from UTF-8 text (a byte order mark is skipped).
[[nodiscard]] std::wstring key_from_text(std::string_view text);

// The first line of a file, as key_from_text reads it; throws fibra::details::hresult_error.
[[nodiscard]] std::wstring read_key_file(const std::wstring& path);

}  // namespace servercfg::console
