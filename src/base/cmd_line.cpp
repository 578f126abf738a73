#include "base/cmd_line.h"

#include <algorithm>

namespace tessel {
namespace {

const std::vector<std::wstring> no_values;

// The three messages are fixed texts of the command-line contract.
constexpr char invalid_argument_text[] = "Invalid command line argument specified";
constexpr char missing_value_text[] = "Command line argument's value is missing";
constexpr char missing_required_text[] = "Missing required parameters";

bool is_space(wchar_t c) noexcept { return c == L' ' || c == L'\t'; }

}  // namespace

std::vector<std::wstring> split_command_line(std::wstring_view line)
{
    size_t i = 0;
    // Program name: up to the first blank, or a quoted run; no escapes.
    if (i < line.size() && line[i] == L'"') {
        const size_t close = line.find(L'"', i + 1);
        i = close == std::wstring_view::npos ? line.size() : close + 1;
    }
    while (i < line.size() && !is_space(line[i]))
        ++i;

    std::vector<std::wstring> arguments;
    for (;;) {
        while (i < line.size() && is_space(line[i]))
            ++i;
        if (i >= line.size())
            break;
        std::wstring argument;
        bool quoted = false;
        while (i < line.size() && (quoted || !is_space(line[i]))) {
            if (line[i] == L'\\') {
                size_t backslashes = 0;
                while (i < line.size() && line[i] == L'\\')
                    ++backslashes, ++i;
                if (i < line.size() && line[i] == L'"') {
                    argument.append(backslashes / 2, L'\\');
                    if (backslashes % 2) {
                        argument.push_back(L'"');
                        ++i;
                    }
                } else {
                    argument.append(backslashes, L'\\');
                }
            } else if (line[i] == L'"') {
                if (quoted && i + 1 < line.size() && line[i + 1] == L'"') {
                    argument.push_back(L'"');
                    i += 2;
                } else {
                    quoted = !quoted;
                    ++i;
                }
            } else {
                argument.push_back(line[i++]);
            }
        }
        arguments.push_back(std::move(argument));
    }
    return arguments;
}

bool cmd_line_result::given(std::wstring_view long_name) const
{
    return given_.find(long_name) != given_.end();
}

bool cmd_line_result::is_on(std::wstring_view long_name) const
{
    const auto it = given_.find(long_name);
    return it != given_.end() && it->second.on;
}

std::optional<std::wstring> cmd_line_result::value(std::wstring_view long_name) const
{
    const auto it = given_.find(long_name);
    if (it == given_.end() || it->second.values.empty())
        return std::nullopt;
    return it->second.values.back();
}

const std::vector<std::wstring>& cmd_line_result::values(std::wstring_view long_name) const
{
    const auto it = given_.find(long_name);
    return it == given_.end() ? no_values : it->second.values;
}

cmd_line_parser& cmd_line_parser::add(cmd_line_option option)
{
    options_.push_back(std::move(option));
    return *this;
}

const cmd_line_option* cmd_line_parser::find(std::wstring_view name, bool is_long) const noexcept
{
    if (name.empty())
        return nullptr;
    for (const auto& option : options_)
        if ((is_long ? option.long_name : option.short_name) == name)
            return &option;
    return nullptr;
}

cmd_line_result cmd_line_parser::parse(std::wstring_view command_line) const
{
    return parse_arguments(split_command_line(command_line));
}

cmd_line_result cmd_line_parser::parse_arguments(const std::vector<std::wstring>& arguments) const
{
    cmd_line_result result;
    for (size_t i = 0; i < arguments.size(); ++i) {
        std::wstring_view token = arguments[i];
        if (token.empty() || token[0] != L'-') {
            result.positional_.emplace_back(token);
            continue;
        }
        const bool is_long = token.starts_with(L"--");
        std::wstring_view name = token.substr(is_long ? 2 : 1);
        bool on = true;
        if (!name.empty() && (name.back() == L'+' || name.back() == L'-')) {
            on = name.back() == L'+';
            name.remove_suffix(1);
        }
        const cmd_line_option* option = find(name, is_long);
        if (!option)
            throw cmd_line_syntax_error(invalid_argument_text);

        auto& state = result.given_[option->long_name];
        state.on = on;
        if (option->takes_value) {
            if (i + 1 >= arguments.size())
                throw cmd_line_syntax_error(missing_value_text);
            if (!option->multi_valued)
                state.values.clear();
            state.values.push_back(arguments[++i]);
        }
    }
    for (const auto& option : options_)
        if (option.required && !result.given(option.long_name))
            throw cmd_line_syntax_error(missing_required_text);
    return result;
}

std::wstring cmd_line_parser::help_text() const
{
    std::wstring text;
    std::vector<std::wstring> groups;
    for (const auto& option : options_)
        if (std::find(groups.begin(), groups.end(), option.group) == groups.end())
            groups.push_back(option.group);
    for (const auto& group : groups) {
        if (!group.empty())
            text += group + L":\n";
        for (const auto& option : options_) {
            if (option.group != group)
                continue;
            std::wstring line = L"  --" + option.long_name;
            if (!option.short_name.empty())
                line += L", -" + option.short_name;
            if (option.takes_value)
                line += L" <" + option.value_placeholder + L">";
            if (line.size() < 32)
                line.append(32 - line.size(), L' ');
            text += line + L" " + option.description + L"\n";
        }
    }
    return text;
}

}  // namespace tessel
