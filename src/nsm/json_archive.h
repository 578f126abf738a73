#pragma once
// The JSON archive: records as UTF-8 JSON text.
//
// The reader walks the caller's text in place: names and strings are views into it, and
// nothing is copied until a value is read into the caller's variable. It is lenient where
// leniency costs nothing (separators are not counted) and strict where a wrong guess would
// load the wrong data: every failure is load_exception "bad json format" with a location
// that gives the line, column and byte offset.
//
// Member names may carry a version and an object id: "Promo:2", "x@{guid}", "y:1@{guid}".

#include "nsm/archive.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::nsm {

namespace details {

class json_reader final : public reader_base {
public:
    // The text must outlive the reader. A leading UTF-8 byte order mark is skipped.
    explicit json_reader(std::string_view text) noexcept;

    std::uint32_t find_member(std::string_view name) override;
    entry_info next_entry() override;
    time_point read_time() override;
    GUID read_guid() override;
    void read_wstring(std::wstring& out) override;
    std::uint64_t read_uint64() override;
    std::int64_t read_int64() override;
    double read_double() override;
    float read_float() override;
    bool read_bool() override;
    std::uint32_t begin_array() override;
    void end_array() override;
    std::size_t binary_size() override;
    object_header begin_object() override;
    void end_object() override;
    void read_block(void* data, std::size_t size) override;
    void read_binary(void* data, std::size_t size) override;
    void unknown_entry(const entry_info& entry) override;
    std::wstring location() override;

    // Skips the current entry's value, whatever it is.
    void skip_value(const entry_info& entry);
    // The object id that the current entry's name carried ("name@{...}"); zero when none.
    [[nodiscard]] GUID entry_id() const noexcept { return decorated_ ? entry_id_ : GUID{}; }
    // Byte offset of the reader in the text.
    [[nodiscard]] std::size_t offset() const noexcept { return static_cast<std::size_t>(position_ - begin_); }

private:
    static constexpr std::size_t max_depth = 256;

    struct string_span {
        const char* first;
        const char* last;
        bool has_escapes;
        bool non_ascii;
    };

    [[noreturn]] void fail(const char* at);
    // The general forms of the operations called for nearly every entry; the public ones
    // settle the usual layouts with few registers and hand everything else to these.
    entry_info next_entry_general();
    void read_wstring_general(std::wstring& out);
    std::uint64_t read_uint64_general();
    void close_general(char closer);
    void skip_whitespace() noexcept;
    void skip_whitespace_general() noexcept;
    void after_value() noexcept;
    [[nodiscard]] bool in_array() const noexcept { return depth_ > 0 && is_array_[depth_ - 1]; }
    void push(bool is_array);
    void close(char closer);
    string_span scan_string();
    string_span scan_name(bool& suffixed);
    std::string_view number_token();
    template <class T>
    T read_float_value();
    std::uint64_t read_hex_string();
    void split_name(std::string_view raw, entry_info& entry);
    void decode_string(const string_span& span, std::wstring& out);
    wchar_t* decode_fast(const string_span& span, wchar_t* out);
    void decode_exact(const string_span& span, std::wstring& out);
    std::size_t walk_base64(void* out, std::size_t capacity);

    const char* begin_;
    const char* position_;
    const char* end_;
    std::size_t depth_ = 0;
    std::uint32_t entry_version_ = 0;
    GUID entry_id_{};
    // The current entry's name carried a suffix; entry_version_ and entry_id_ are its.
    bool decorated_ = false;
    std::array<bool, max_depth> is_array_{};
};

class json_writer final : public writer_base {
public:
    // Appends to out, which must outlive the writer.
    explicit json_writer(std::string& out);

    void write_time(std::string_view name, std::uint32_t flags, time_point value) override;
    void write_wstring(std::string_view name, std::uint32_t flags, std::wstring_view value) override;
    void write_string(std::string_view name, std::uint32_t flags, std::string_view value) override;
    void write_uint64(std::string_view name, std::uint32_t flags, std::uint64_t value) override;
    void write_int64(std::string_view name, std::uint32_t flags, std::int64_t value) override;
    void write_double(std::string_view name, std::uint32_t flags, double value) override;
    void write_float(std::string_view name, std::uint32_t flags, float value) override;
    void write_bool(std::string_view name, std::uint32_t flags, bool value) override;
    void write_null(std::string_view name, std::uint32_t flags) override;
    void begin_array(std::string_view name, std::uint32_t flags, std::uint32_t count) override;
    void end_array() override;
    void begin_object(std::string_view name, std::uint32_t flags, std::uint64_t member_count,
                      std::uint32_t version) override;
    void end_object() override;
    void write_block(std::string_view name, std::uint32_t flags, const void* data, std::size_t size) override;
    void write_binary(std::string_view name, std::uint32_t flags, const void* data, std::size_t size) override;
    void set_object_id(const GUID& id) override;

private:
    struct level {
        bool is_array;
        bool empty;
    };
    void begin_entry(std::string_view name, std::uint32_t version, const GUID* id);
    void open(std::string_view name, std::uint32_t version, const GUID* id, char opener, bool is_array);
    void close(char closer);

    std::string& out_;
    std::vector<level> levels_;
    GUID pending_id_{};
};

// "\"" "\\" and control characters escaped; everything else as UTF-8.
void append_json_string(std::string& out, std::wstring_view text);
void append_base64(std::string& out, const void* data, std::size_t size);

}  // namespace details

class json final : public archive {
public:
    // Reading: the text must outlive the archive and its readers.
    explicit json(std::string_view text) : input_(text) {}
    // Writing: the text is in written() after the writer is released.
    json() = default;

    [[nodiscard]] std::uint32_t archive_options() const override { return option::named_members | option::differences_only; }
    [[nodiscard]] int table_driven_loading() const override { return 1; }
    [[nodiscard]] std::unique_ptr<reader_base> create_reader() override;
    // Starts a new text; the previous one is discarded.
    [[nodiscard]] std::unique_ptr<writer_base> create_writer() override;

    [[nodiscard]] const std::string& written() const noexcept { return output_; }

private:
    std::string_view input_;
    std::string output_;
};

}  // namespace tessel::nsm
