#include "nsm/json_archive.h"

#include "base/failure.h"
#include "base/utf.h"
#include "nsm/time_text.h"

#include <objbase.h>

#include <charconv>
#include <cmath>

namespace tessel::nsm {
namespace details {
namespace {

constexpr char hex_digits[] = "0123456789ABCDEF";
constexpr char base64_alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

void append_escaped_utf8(std::string& out, std::string_view utf8)
{
    out.push_back('"');
    for (const char c : utf8) {
        const auto byte = static_cast<unsigned char>(c);
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\b':
            out += "\\b";
            break;
        case '\f':
            out += "\\f";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (byte < 0x20 || byte == 0x7F) {
                out += "\\u00";
                out.push_back(hex_digits[byte >> 4]);
                out.push_back(hex_digits[byte & 15]);
            } else {
                out.push_back(c);
            }
        }
    }
    out.push_back('"');
}

template <class T>
void append_number(std::string& out, T value)
{
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

}  // namespace

void append_json_string(std::string& out, std::wstring_view text)
{
    append_escaped_utf8(out, utf16_to_utf8(text));
}

void append_base64(std::string& out, const void* data, std::size_t size)
{
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    out.reserve(out.size() + (size + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= size; i += 3) {
        const std::uint32_t group = bytes[i] << 16 | bytes[i + 1] << 8 | bytes[i + 2];
        out.push_back(base64_alphabet[group >> 18]);
        out.push_back(base64_alphabet[(group >> 12) & 63]);
        out.push_back(base64_alphabet[(group >> 6) & 63]);
        out.push_back(base64_alphabet[group & 63]);
    }
    if (size - i == 1) {
        const std::uint32_t group = bytes[i] << 16;
        out.push_back(base64_alphabet[group >> 18]);
        out.push_back(base64_alphabet[(group >> 12) & 63]);
        out += "==";
    } else if (size - i == 2) {
        const std::uint32_t group = bytes[i] << 16 | bytes[i + 1] << 8;
        out.push_back(base64_alphabet[group >> 18]);
        out.push_back(base64_alphabet[(group >> 12) & 63]);
        out.push_back(base64_alphabet[(group >> 6) & 63]);
        out.push_back('=');
    }
}

json_writer::json_writer(std::string& out) : out_(out) {}

void json_writer::begin_entry(std::string_view name, std::uint32_t version, const GUID* id)
{
    if (levels_.empty())
        return;  // the root value has no name and no separator
    level& current = levels_.back();
    out_ += current.empty ? "\n" : ",\n";
    current.empty = false;
    out_.append(levels_.size() * 2, ' ');
    if (current.is_array)
        return;  // elements have no names; their versions and ids have nowhere to go
    std::string decorated(name);
    if (version != 0) {
        decorated.push_back(':');
        decorated += std::to_string(version);
    }
    if (id) {
        wchar_t text[39];
        ::StringFromGUID2(*id, text, 39);
        decorated.push_back('@');
        append_utf16_as_utf8(decorated, std::wstring_view(text, 38));
    }
    append_escaped_utf8(out_, decorated);
    out_ += ": ";
}

void json_writer::open(std::string_view name, std::uint32_t version, const GUID* id, char opener, bool is_array)
{
    begin_entry(name, version, id);
    out_.push_back(opener);
    levels_.push_back({is_array, true});
}

void json_writer::close(char closer)
{
    fail_fast_if(levels_.empty(), L"JSON archive: end without begin");
    const bool empty = levels_.back().empty;
    levels_.pop_back();
    if (!empty) {
        out_.push_back('\n');
        out_.append(levels_.size() * 2, ' ');
    }
    out_.push_back(closer);
    if (levels_.empty())
        out_.push_back('\n');
}

void json_writer::write_time(std::string_view name, std::uint32_t flags, time_point value)
{
    std::wstring text;
    append_time_text(text, value);
    write_wstring(name, flags, text);
}

void json_writer::write_wstring(std::string_view name, std::uint32_t flags, std::wstring_view value)
{
    begin_entry(name, version_of(flags), nullptr);
    append_json_string(out_, value);
}

void json_writer::write_string(std::string_view name, std::uint32_t flags, std::string_view value)
{
    // Through UTF-16 so that malformed UTF-8 is repaired the same way as on every medium.
    write_wstring(name, flags, utf8_to_utf16(value));
}

void json_writer::write_uint64(std::string_view name, std::uint32_t flags, std::uint64_t value)
{
    begin_entry(name, version_of(flags), nullptr);
    append_number(out_, value);
}

void json_writer::write_int64(std::string_view name, std::uint32_t flags, std::int64_t value)
{
    begin_entry(name, version_of(flags), nullptr);
    append_number(out_, value);
}

void json_writer::write_double(std::string_view name, std::uint32_t flags, double value)
{
    begin_entry(name, version_of(flags), nullptr);
    // JSON has no spelling for infinities and NaNs.
    if (!std::isfinite(value))
        out_ += "null";
    else
        append_number(out_, value);
}

void json_writer::write_float(std::string_view name, std::uint32_t flags, float value)
{
    begin_entry(name, version_of(flags), nullptr);
    if (!std::isfinite(value))
        out_ += "null";
    else
        append_number(out_, value);
}

void json_writer::write_bool(std::string_view name, std::uint32_t flags, bool value)
{
    begin_entry(name, version_of(flags), nullptr);
    out_ += value ? "true" : "false";
}

void json_writer::write_null(std::string_view name, std::uint32_t flags)
{
    begin_entry(name, version_of(flags), nullptr);
    out_ += "null";
}

void json_writer::begin_array(std::string_view name, std::uint32_t flags, std::uint32_t)
{
    open(name, version_of(flags), nullptr, '[', true);
}

void json_writer::end_array()
{
    close(']');
}

void json_writer::begin_object(std::string_view name, std::uint32_t flags, std::uint64_t, std::uint32_t version)
{
    // The reader takes an object's version from its name, so the object's own version
    // wins over the member version of the flags.
    const GUID id = pending_id_;
    pending_id_ = GUID{};
    open(name, version != 0 ? version : version_of(flags), id != GUID{} ? &id : nullptr, '{', false);
}

void json_writer::end_object()
{
    close('}');
}

void json_writer::write_block(std::string_view, std::uint32_t, const void*, std::size_t)
{
    fail_fast(L"JSON archive: records cannot be written as blocks");
}

void json_writer::write_binary(std::string_view name, std::uint32_t flags, const void* data, std::size_t size)
{
    begin_entry(name, version_of(flags), nullptr);
    out_.push_back('"');
    append_base64(out_, data, size);
    out_.push_back('"');
}

void json_writer::set_object_id(const GUID& id)
{
    pending_id_ = id;
}

}  // namespace details

std::unique_ptr<reader_base> json::create_reader()
{
    return std::make_unique<details::json_reader>(input_);
}

std::unique_ptr<writer_base> json::create_writer()
{
    output_.clear();
    return std::make_unique<details::json_writer>(output_);
}

}  // namespace tessel::nsm
