#include "json_reader.h"

#include <cmath>
#include <cstdlib>

namespace sim_server::json {
namespace {

// Deep enough for any scenario; bounds the recursion on hostile input.
constexpr int max_depth = 64;

class reader {
public:
    explicit reader(std::string_view text) : text_(text)
    {
        if (text_.starts_with("\xEF\xBB\xBF"))
            pos_ = 3;
    }

    value document()
    {
        value result = read_value(0);
        skip_space();
        if (pos_ != text_.size())
            fail("unexpected text after the end of the document");
        return result;
    }

private:
    [[noreturn]] void fail(const std::string& message)
    {
        advance_location();
        throw syntax_error(message, line_, column_);
    }

    void position_of(value& v)
    {
        advance_location();
        v.line = line_;
        v.column = column_;
    }

    // Line and column of pos_, counted on from the last place asked about (the reader
    // never moves back far, and a restart from the top covers the cases where it does).
    void advance_location()
    {
        if (pos_ < counted_) {
            counted_ = 0;
            line_ = 1;
            column_ = 1;
        }
        for (; counted_ < pos_ && counted_ < text_.size(); ++counted_) {
            if (text_[counted_] == '\n') {
                ++line_;
                column_ = 1;
            } else if ((static_cast<unsigned char>(text_[counted_]) & 0xC0) != 0x80) {
                ++column_;
            }
        }
    }

    void skip_space()
    {
        while (pos_ < text_.size() &&
               (text_[pos_] == ' ' || text_[pos_] == '\t' || text_[pos_] == '\n' || text_[pos_] == '\r'))
            ++pos_;
    }

    bool take(std::string_view word)
    {
        if (text_.substr(pos_).starts_with(word)) {
            pos_ += word.size();
            return true;
        }
        return false;
    }

    value read_value(int depth)
    {
        skip_space();
        if (pos_ == text_.size())
            fail("unexpected end of the document, a value was expected");
        if (depth > max_depth)
            fail("values are nested too deeply");
        value result;
        position_of(result);
        const char c = text_[pos_];
        if (c == '{')
            result.data = read_object(depth);
        else if (c == '[')
            result.data = read_array(depth);
        else if (c == '"')
            result.data = read_string();
        else if (take("true"))
            result.data = true;
        else if (take("false"))
            result.data = false;
        else if (take("null"))
            result.data = null_t{};
        else if (c == '-' || (c >= '0' && c <= '9'))
            result.data = read_number();
        else
            fail(std::string("unexpected character '") + c + "', a value was expected");
        return result;
    }

    std::shared_ptr<object> read_object(int depth)
    {
        auto result = std::make_shared<object>();
        ++pos_;
        skip_space();
        if (pos_ < text_.size() && text_[pos_] == '}') {
            ++pos_;
            return result;
        }
        for (;;) {
            skip_space();
            if (pos_ == text_.size() || text_[pos_] != '"')
                fail("a member name in double quotes was expected");
            std::string name = read_string();
            for (const auto& [existing, unused] : *result)
                if (existing == name)
                    fail("the member \"" + name + "\" appears twice");
            skip_space();
            if (pos_ == text_.size() || text_[pos_] != ':')
                fail("':' was expected after the member name");
            ++pos_;
            value member = read_value(depth + 1);
            result->emplace_back(std::move(name), std::move(member));
            skip_space();
            if (pos_ < text_.size() && text_[pos_] == ',') {
                ++pos_;
                continue;
            }
            if (pos_ < text_.size() && text_[pos_] == '}') {
                ++pos_;
                return result;
            }
            fail("',' or '}' was expected");
        }
    }

    std::shared_ptr<array> read_array(int depth)
    {
        auto result = std::make_shared<array>();
        ++pos_;
        skip_space();
        if (pos_ < text_.size() && text_[pos_] == ']') {
            ++pos_;
            return result;
        }
        for (;;) {
            result->push_back(read_value(depth + 1));
            skip_space();
            if (pos_ < text_.size() && text_[pos_] == ',') {
                ++pos_;
                continue;
            }
            if (pos_ < text_.size() && text_[pos_] == ']') {
                ++pos_;
                return result;
            }
            fail("',' or ']' was expected");
        }
    }

    unsigned read_hex4()
    {
        if (text_.size() - pos_ < 4)
            fail("\\u needs four hexadecimal digits");
        unsigned unit = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = text_[pos_++];
            unit <<= 4;
            if (c >= '0' && c <= '9')
                unit |= c - '0';
            else if (c >= 'a' && c <= 'f')
                unit |= c - 'a' + 10;
            else if (c >= 'A' && c <= 'F')
                unit |= c - 'A' + 10;
            else
                fail("\\u needs four hexadecimal digits");
        }
        return unit;
    }

    static void append_utf8(std::string& out, unsigned code_point)
    {
        if (code_point < 0x80) {
            out += static_cast<char>(code_point);
        } else if (code_point < 0x800) {
            out += static_cast<char>(0xC0 | (code_point >> 6));
            out += static_cast<char>(0x80 | (code_point & 0x3F));
        } else if (code_point < 0x10000) {
            out += static_cast<char>(0xE0 | (code_point >> 12));
            out += static_cast<char>(0x80 | ((code_point >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code_point & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (code_point >> 18));
            out += static_cast<char>(0x80 | ((code_point >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((code_point >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code_point & 0x3F));
        }
    }

    std::string read_string()
    {
        ++pos_;
        std::string result;
        for (;;) {
            if (pos_ == text_.size())
                fail("the string is not closed");
            const char c = text_[pos_];
            if (c == '"') {
                ++pos_;
                return result;
            }
            if (static_cast<unsigned char>(c) < 0x20)
                fail("control characters must be escaped in strings");
            if (c != '\\') {
                result += c;
                ++pos_;
                continue;
            }
            if (++pos_ == text_.size())
                fail("the string is not closed");
            const char escape = text_[pos_++];
            switch (escape) {
            case '"': result += '"'; break;
            case '\\': result += '\\'; break;
            case '/': result += '/'; break;
            case 'b': result += '\b'; break;
            case 'f': result += '\f'; break;
            case 'n': result += '\n'; break;
            case 'r': result += '\r'; break;
            case 't': result += '\t'; break;
            case 'u': {
                unsigned unit = read_hex4();
                if (unit >= 0xD800 && unit < 0xDC00) {
                    if (!take("\\u"))
                        fail("a high surrogate must be followed by a low surrogate");
                    const unsigned low = read_hex4();
                    if (low < 0xDC00 || low >= 0xE000)
                        fail("a high surrogate must be followed by a low surrogate");
                    unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                } else if (unit >= 0xDC00 && unit < 0xE000) {
                    fail("a low surrogate without a high surrogate");
                }
                append_utf8(result, unit);
                break;
            }
            default:
                pos_ -= 2;
                fail(std::string("unknown escape '\\") + escape + "'");
            }
        }
    }

    double read_number()
    {
        const size_t start = pos_;
        if (text_[pos_] == '-')
            ++pos_;
        auto digits = [&] {
            const size_t from = pos_;
            while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9')
                ++pos_;
            return pos_ - from;
        };
        const size_t int_start = pos_;
        const size_t int_digits = digits();
        if (int_digits == 0)
            fail("a digit was expected");
        if (int_digits > 1 && text_[int_start] == '0') {
            pos_ = int_start;
            fail("numbers must not have leading zeros");
        }
        if (pos_ < text_.size() && text_[pos_] == '.') {
            ++pos_;
            if (digits() == 0)
                fail("a digit was expected after '.'");
        }
        if (pos_ < text_.size() && (text_[pos_] == 'e' || text_[pos_] == 'E')) {
            ++pos_;
            if (pos_ < text_.size() && (text_[pos_] == '+' || text_[pos_] == '-'))
                ++pos_;
            if (digits() == 0)
                fail("a digit was expected in the exponent");
        }
        const std::string number(text_.substr(start, pos_ - start));
        const double result = std::strtod(number.c_str(), nullptr);
        if (!std::isfinite(result)) {
            pos_ = start;
            fail("the number is out of range");
        }
        return result;
    }

    std::string_view text_;
    size_t pos_ = 0;
    size_t counted_ = 0;
    size_t line_ = 1;
    size_t column_ = 1;
};

}  // namespace

syntax_error::syntax_error(const std::string& message, size_t line, size_t column)
    : std::runtime_error("line " + std::to_string(line) + ", column " + std::to_string(column) + ": " + message),
      line_(line),
      column_(column)
{
}

const array* value::as_array() const noexcept
{
    const auto* held = std::get_if<std::shared_ptr<array>>(&data);
    return held ? held->get() : nullptr;
}

const object* value::as_object() const noexcept
{
    const auto* held = std::get_if<std::shared_ptr<object>>(&data);
    return held ? held->get() : nullptr;
}

const char* value::type_name() const noexcept
{
    switch (data.index()) {
    case 0: return "null";
    case 1: return "a boolean";
    case 2: return "a number";
    case 3: return "a string";
    case 4: return "an array";
    default: return "an object";
    }
}

value parse(std::string_view text)
{
    return reader(text).document();
}

}  // namespace sim_server::json
