#pragma once
// Command-line parsing: declared options with long and short names, on/off suffixes,
// single and repeated values, required options, and positional arguments.
//
// Splitting follows the rules of the Windows C runtime, so a command line reads here the
// way every other Windows program reads it: the program name (first token) ends at the
// first space unless quoted and takes no escapes; in the arguments, 2n backslashes before
// a quote are n backslashes and the quote delimits, 2n+1 are n backslashes and a literal
// quote, "" inside quotes is a literal quote, other backslashes are literal.

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tessel {

class cmd_line_syntax_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct cmd_line_option {
    std::wstring long_name{};          // "--name"
    std::wstring short_name{};         // "-n"; empty: none
    bool takes_value = false;
    bool multi_valued = false;       // collects every value in order; otherwise the last wins
    std::wstring value_placeholder{};  // help output: "--name <placeholder>"
    std::wstring description{};        // help output, one line
    bool required = false;
    std::wstring group{};              // help output: heading the option is listed under
};

class cmd_line_result {
public:
    [[nodiscard]] bool given(std::wstring_view long_name) const;
    // On/off state of an option without value: off when not given or given as "name-".
    [[nodiscard]] bool is_on(std::wstring_view long_name) const;
    [[nodiscard]] std::optional<std::wstring> value(std::wstring_view long_name) const;
    [[nodiscard]] const std::vector<std::wstring>& values(std::wstring_view long_name) const;
    [[nodiscard]] const std::vector<std::wstring>& positional() const noexcept { return positional_; }

private:
    friend class cmd_line_parser;
    struct state {
        bool on = false;
        std::vector<std::wstring> values;
    };
    std::map<std::wstring, state, std::less<>> given_;
    std::vector<std::wstring> positional_;
};

class cmd_line_parser {
public:
    cmd_line_parser& add(cmd_line_option option);

    // Parses a whole command line as GetCommandLineW returns it; the program name is skipped.
    [[nodiscard]] cmd_line_result parse(std::wstring_view command_line) const;
    // Parses arguments that are already split (no program name).
    [[nodiscard]] cmd_line_result parse_arguments(const std::vector<std::wstring>& arguments) const;

    [[nodiscard]] std::wstring help_text() const;

private:
    const cmd_line_option* find(std::wstring_view name, bool is_long) const noexcept;
    std::vector<cmd_line_option> options_;
};

// Splits the arguments after the program name.
[[nodiscard]] std::vector<std::wstring> split_command_line(std::wstring_view command_line);

}  // namespace tessel
