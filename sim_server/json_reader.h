#pragma once
// A small private JSON reader for scenario files.
//
// Temporary: once tessel::nsm's JSON archive can read documents, scenario_json.cpp moves
// to it and this file goes away. Nothing outside scenario_json.cpp includes it.

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace sim_server::json {

// Malformed text, with the line and column (both from 1) where reading stopped.
class syntax_error : public std::runtime_error {
public:
    syntax_error(const std::string& message, size_t line, size_t column);
    [[nodiscard]] size_t line() const noexcept { return line_; }
    [[nodiscard]] size_t column() const noexcept { return column_; }

private:
    size_t line_;
    size_t column_;
};

struct value;
using array = std::vector<value>;
// Members in document order; a name given twice is a syntax error.
using object = std::vector<std::pair<std::string, value>>;

struct null_t {
    bool operator==(const null_t&) const = default;
};

struct value {
    std::variant<null_t, bool, double, std::string, std::shared_ptr<array>, std::shared_ptr<object>> data;
    // Where the value starts, for messages about its content.
    size_t line = 0;
    size_t column = 0;

    [[nodiscard]] bool is_null() const noexcept { return std::holds_alternative<null_t>(data); }
    [[nodiscard]] const bool* as_bool() const noexcept { return std::get_if<bool>(&data); }
    [[nodiscard]] const double* as_number() const noexcept { return std::get_if<double>(&data); }
    [[nodiscard]] const std::string* as_string() const noexcept { return std::get_if<std::string>(&data); }
    [[nodiscard]] const array* as_array() const noexcept;
    [[nodiscard]] const object* as_object() const noexcept;
    // "object", "string"... for messages.
    [[nodiscard]] const char* type_name() const noexcept;
};

// Parses one complete document (UTF-8; a leading byte order mark is skipped).
[[nodiscard]] value parse(std::string_view text);

}  // namespace sim_server::json
