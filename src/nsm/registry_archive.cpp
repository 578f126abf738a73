#include "nsm/registry_archive.h"

#include "base/failure.h"
#include "base/utf.h"
#include "format/ts_printf.h"
#include "nsm/registry_ex.h"
#include "nsm/time_text.h"

#include <objbase.h>

#include <algorithm>
#include <utility>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

namespace tessel::nsm {
namespace {

constexpr REGSAM read_access = KEY_READ;                         // 0x20019
constexpr REGSAM read_write_access = KEY_READ | KEY_WRITE;       // 0x2001F
constexpr REGSAM array_access = KEY_WRITE;                       // 0x20006
constexpr REGSAM object_access = DELETE | READ_CONTROL | KEY_QUERY_VALUE | KEY_SET_VALUE | KEY_CREATE_SUB_KEY |
                                 KEY_ENUMERATE_SUB_KEYS | KEY_NOTIFY;  // 0x3001F
constexpr wchar_t count_marker[] = L"@count";
constexpr wchar_t version_marker[] = L"@version";
constexpr wchar_t id_marker[] = L"@id";
const registry_read_calls system_read_calls;

std::wstring root_name(HKEY root)
{
    if (root == HKEY_CURRENT_USER)
        return L"HKEY_CURRENT_USER";
    if (root == HKEY_LOCAL_MACHINE)
        return L"HKEY_LOCAL_MACHINE";
    if (root == HKEY_CLASSES_ROOT)
        return L"HKEY_CLASSES_ROOT";
    if (root == HKEY_USERS)
        return L"HKEY_USERS";
    return L"(key)";
}

void set_value(HKEY key, const std::wstring& name, DWORD type, const void* data, std::size_t size) noexcept
{
    // Value writes are deliberately not checked: the key was just created with write
    // access, and a record half written is no worse than the error the caller could show.
    ::RegSetValueExW(key, name.c_str(), 0, type, static_cast<const BYTE*>(data), static_cast<DWORD>(size));
}

void set_dword(HKEY key, const std::wstring& name, DWORD value) noexcept
{
    set_value(key, name, REG_DWORD, &value, sizeof value);
}

template <class T>
std::wstring shortest_text(T value)
{
    if (std::isnan(value)) {
        // Quiet and signalling NaNs keep their forms apart, as the readers of these keys
        // have always seen them; a NaN has no sign worth keeping. The quiet bit is read in
        // the value's own type: widening a float to double would quieten it first.
        using bits_type = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;
        static_assert(sizeof(bits_type) == sizeof(T));
        bits_type bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        constexpr bits_type quiet_bit = bits_type{1} << (std::numeric_limits<T>::digits - 2);
        return (bits & quiet_bit) != 0 ? L"nan(ind)" : L"nan(snan)";
    }
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::wstring(buffer, result.ptr);
}

class registry_writer final : public writer_base {
public:
    registry_writer(HKEY key, std::wstring path, bool remove_absent_values)
        : remove_absent_values_(remove_absent_values)
    {
        scopes_.push_back(scope{unique_hkey(), key, false, 0, std::move(path)});
    }

    void write_time(std::string_view name, std::uint32_t flags, time_point value) override
    {
        std::wstring text;
        details::append_time_text(text, value);
        write_wstring(name, flags, text);
    }

    void write_wstring(std::string_view name, std::uint32_t flags, std::wstring_view value) override
    {
        const std::wstring value_name = name_for(name, flags);
        std::wstring data(value);
        set_value(current().key, value_name, REG_SZ, data.c_str(), (data.size() + 1) * sizeof(wchar_t));
    }

    void write_string(std::string_view name, std::uint32_t flags, std::string_view value) override
    {
        write_wstring(name, flags, utf8_to_utf16(value));
    }

    void write_uint64(std::string_view name, std::uint32_t flags, std::uint64_t value) override
    {
        const std::wstring value_name = name_for(name, flags);
        if (value <= 0xFFFFFFFFull) {
            set_dword(current().key, value_name, static_cast<DWORD>(value));
        } else {
            set_value(current().key, value_name, REG_QWORD, &value, sizeof value);
        }
    }

    void write_int64(std::string_view name, std::uint32_t flags, std::int64_t value) override
    {
        const std::wstring value_name = name_for(name, flags);
        if (value >= INT32_MIN && value <= INT32_MAX) {
            set_dword(current().key, value_name, static_cast<DWORD>(static_cast<std::uint32_t>(value)));
        } else {
            set_value(current().key, value_name, REG_QWORD, &value, sizeof value);
        }
    }

    void write_double(std::string_view name, std::uint32_t flags, double value) override
    {
        write_wstring(name, flags, shortest_text(value));
    }

    void write_float(std::string_view name, std::uint32_t flags, float value) override
    {
        write_wstring(name, flags, shortest_text(value));
    }

    void write_bool(std::string_view name, std::uint32_t flags, bool value) override
    {
        set_dword(current().key, name_for(name, flags), value ? 1 : 0);
    }

    void write_null(std::string_view name, std::uint32_t flags) override
    {
        if (current().is_array && name.empty()) {
            set_value(current().key, name_for(name, flags), REG_NONE, nullptr, 0);
        } else if (remove_absent_values_) {
            ::RegDeleteKeyValueW(current().key, nullptr, name_for(name, flags).c_str());
        }
    }

    void begin_array(std::string_view name, std::uint32_t flags, std::uint32_t count) override
    {
        push_subkey(name_for(name, flags), array_access, true);
        set_dword(current().key, count_marker, count == unknown_count ? 0 : count);
    }

    void end_array() override { pop(); }

    void begin_object(std::string_view name, std::uint32_t flags, std::uint64_t, std::uint32_t version) override
    {
        if (name.empty() && !current().is_array) {
            // The members land in the current key (the settings record is stored this way).
            scopes_.push_back(scope{unique_hkey(), current().key, false, 0, current().path});
        } else {
            push_subkey(name_for(name, flags), object_access, false);
        }
        if (version != 0)
            set_dword(current().key, version_marker, version);
        if (pending_id_ != GUID{}) {
            wchar_t text[39];
            ::StringFromGUID2(pending_id_, text, 39);
            set_value(current().key, id_marker, REG_SZ, text, sizeof text);
            pending_id_ = GUID{};
        }
    }

    void end_object() override { pop(); }

    void write_block(std::string_view, std::uint32_t, const void*, std::size_t) override
    {
        fail_fast(L"registry archive: records cannot be written as blocks");
    }

    void write_binary(std::string_view name, std::uint32_t flags, const void* data, std::size_t size) override
    {
        set_value(current().key, name_for(name, flags), REG_BINARY, data, size);
    }

    void set_object_id(const GUID& id) override { pending_id_ = id; }

private:
    struct scope {
        unique_hkey owned;  // empty for the archive's key and for unnamed objects
        HKEY key;
        bool is_array;
        std::uint32_t ordinal;
        std::wstring path;
    };

    scope& current() noexcept { return scopes_.back(); }

    std::wstring name_for(std::string_view name, std::uint32_t flags)
    {
        static const ts_printf::compiled_format member_name(L"{0}{2?<}@{1}{2?>}");
        static const ts_printf::compiled_format element_name(L"{0arf0w5}{2?<}@{1}{2?>}");
        const std::uint32_t version = version_of(flags);
        std::wstring result;
        if (name.empty() && current().is_array) {
            ts_printf::format_to(result, element_name, current().ordinal++, version, version != 0);
        } else {
            ts_printf::format_to(result, member_name, utf8_to_utf16(name), version, version != 0);
        }
        return result;
    }

    void push_subkey(const std::wstring& name, REGSAM access, bool is_array)
    {
        HKEY key = nullptr;
        if (::RegCreateKeyExW(current().key, name.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, access, nullptr, &key,
                              nullptr) != ERROR_SUCCESS)
            throw load_exception(L"Error creating key", current().path + L"\\" + name);
        scopes_.push_back(scope{unique_hkey(key), key, is_array, 0, current().path + L"\\" + name});
    }

    void pop() noexcept
    {
        fail_fast_if(scopes_.size() <= 1, L"registry archive: end without begin");
        scopes_.pop_back();
    }

    std::vector<scope> scopes_;
    GUID pending_id_{};
    bool remove_absent_values_;
};

class registry_reader final : public reader_base {
public:
    registry_reader(HKEY key, std::wstring path, const registry_read_calls& calls)
        : calls_(calls), archive_key_(key), archive_path_(std::move(path))
    {
    }

    std::uint32_t find_member(std::string_view) override
    {
        fail_fast(L"registry archive: member look-up is not supported");
    }

    entry_info next_entry() override
    {
        if (scopes_.empty())
            return {{}, kind::present | kind::object};
        scope& s = scopes_.back();
        if (s.position <= s.entries.size())
            ++s.position;
        if (s.position > s.entries.size())
            return {{}, kind::end};
        const entry& e = s.entries[s.position - 1];
        return {std::string_view(e.name_utf8).substr(0, e.member_length), flags_of(e)};
    }

    time_point read_time() override
    {
        std::wstring text;
        read_wstring(text);
        if (const auto value = details::parse_time_text(text))
            return *value;
        bad_format();
    }

    GUID read_guid() override
    {
        std::wstring text;
        read_wstring(text);
        GUID id{};
        if (FAILED(::CLSIDFromString(text.c_str(), &id)))
            bad_format();
        return id;
    }

    void read_wstring(std::wstring& out) override
    {
        const entry& e = current_entry();
        if (e.is_subkey || (e.type != REG_SZ && e.type != REG_EXPAND_SZ))
            bad_format();
        for (int attempt = 0; attempt < 4; ++attempt) {
            DWORD type = 0;
            DWORD size = 0;
            if (calls_.query_value(key(), e.name_utf16.c_str(), nullptr, &type, nullptr, &size) != ERROR_SUCCESS ||
                (type != REG_SZ && type != REG_EXPAND_SZ))
                bad_format();
            out.resize(size / sizeof(wchar_t) + 1);
            DWORD read = static_cast<DWORD>(out.size() * sizeof(wchar_t));
            const LSTATUS status =
                calls_.query_value(key(), e.name_utf16.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(out.data()), &read);
            if (status == ERROR_MORE_DATA)
                continue;  // grew between the two calls
            if (status != ERROR_SUCCESS)
                bad_format();
            out.resize(read / sizeof(wchar_t));
            // Stored with its terminating NUL (or, when written carelessly, without).
            if (!out.empty() && out.back() == L'\0')
                out.pop_back();
            return;
        }
        bad_format();
    }

    std::uint64_t read_uint64() override
    {
        const auto [value, size] = read_integer();
        return size == 4 ? static_cast<std::uint32_t>(value) : value;
    }

    std::int64_t read_int64() override
    {
        const auto [value, size] = read_integer();
        return size == 4 ? static_cast<std::int32_t>(static_cast<std::uint32_t>(value)) : static_cast<std::int64_t>(value);
    }

    double read_double() override { return read_floating<double>(); }
    float read_float() override { return read_floating<float>(); }

    bool read_bool() override { return read_integer().first != 0; }

    std::uint32_t begin_array() override
    {
        enter_subkey();
        const scope& s = scopes_.back();
        return s.has_count ? s.count : unknown_count;
    }

    void end_array() override { leave(); }

    std::size_t binary_size() override
    {
        const entry& e = current_entry();
        if (e.is_subkey || e.type != REG_BINARY)
            bad_format();
        DWORD type = 0;
        DWORD size = 0;
        if (calls_.query_value(key(), e.name_utf16.c_str(), nullptr, &type, nullptr, &size) != ERROR_SUCCESS ||
            type != REG_BINARY)
            bad_format();
        return size;
    }

    object_header begin_object() override
    {
        if (scopes_.empty())
            enter(archive_key_, opened_key(), archive_path_);
        else
            enter_subkey();
        const scope& s = scopes_.back();
        return {static_cast<std::uint32_t>(s.entries.size()), s.version, s.id};
    }

    void end_object() override { leave(); }

    void read_block(void*, std::size_t) override {}

    void read_binary(void* data, std::size_t size) override
    {
        if (size == 0)
            return;
        const entry& e = current_entry();
        if (e.is_subkey)
            bad_format();
        DWORD type = 0;
        DWORD read = static_cast<DWORD>(size);
        if (size > 0xFFFFFFFFu ||
            calls_.query_value(key(), e.name_utf16.c_str(), nullptr, &type, static_cast<BYTE*>(data), &read) !=
                ERROR_SUCCESS ||
            type != REG_BINARY || read != size)
            bad_format();
    }

    // Values the record does not know are left alone.
    void unknown_entry(const entry_info&) override {}

    std::wstring location() override
    {
        if (scopes_.empty())
            return L"unknown location";
        const scope& s = scopes_.back();
        if (s.position >= 1 && s.position <= s.entries.size())
            return s.path + L"\\" + s.entries[s.position - 1].name_utf16;
        return s.path;
    }

private:
    struct entry {
        std::string name_utf8;
        std::wstring name_utf16;
        DWORD type;
        bool is_subkey;
        std::uint32_t member_version;
        // Length of the member name, before an "@N" version suffix.
        std::size_t member_length;
    };

    // A subkey the reader opened, closed through the calls that opened it.
    class opened_key {
    public:
        opened_key() = default;
        opened_key(HKEY key, const registry_read_calls& calls) noexcept : key_(key), calls_(&calls) {}
        opened_key(opened_key&& other) noexcept
            : key_(std::exchange(other.key_, nullptr)), calls_(other.calls_)
        {
        }
        opened_key& operator=(opened_key&& other) noexcept
        {
            std::swap(key_, other.key_);
            std::swap(calls_, other.calls_);
            return *this;
        }
        ~opened_key()
        {
            if (key_)
                calls_->close_key(key_);
        }

    private:
        HKEY key_ = nullptr;
        const registry_read_calls* calls_ = nullptr;
    };

    struct scope {
        opened_key owned;
        HKEY key;
        std::wstring path;
        std::vector<entry> entries;
        // Entries handed out so far; the current entry is the one before it.
        std::size_t position = 0;
        std::uint32_t count = 0;
        bool has_count = false;
        std::uint32_t version = 0;
        GUID id{};
    };

    [[noreturn]] void bad_format() { throw load_exception(L"Bad format", location()); }

    HKEY key() const noexcept { return scopes_.back().key; }

    const entry& current_entry()
    {
        if (scopes_.empty() || scopes_.back().position == 0 || scopes_.back().position > scopes_.back().entries.size())
            bad_format();
        return scopes_.back().entries[scopes_.back().position - 1];
    }

    static std::uint32_t flags_of(const entry& e) noexcept
    {
        std::uint32_t flags;
        if (e.is_subkey) {
            flags = kind::present | kind::object | kind::sequence;
        } else {
            switch (e.type) {
            case REG_SZ:
            case REG_EXPAND_SZ:
                flags = kind::present | kind::date_time | kind::guid | kind::string | kind::number;
                break;
            case REG_BINARY:
                flags = kind::present | kind::sequence;
                break;
            case REG_DWORD:
            case REG_QWORD:
                flags = kind::present | kind::number | kind::boolean;
                break;
            default:
                flags = kind::object | kind::sequence | kind::number | kind::boolean;
                break;
            }
        }
        return with_version(flags, e.member_version);
    }

    // (value, stored size 4 or 8)
    std::pair<std::uint64_t, DWORD> read_integer()
    {
        const entry& e = current_entry();
        if (e.is_subkey)
            bad_format();
        std::uint64_t value = 0;
        DWORD type = 0;
        DWORD size = sizeof value;
        if (calls_.query_value(key(), e.name_utf16.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(&value), &size) !=
            ERROR_SUCCESS)
            bad_format();
        if (!((type == REG_DWORD && size == 4) || (type == REG_QWORD && size == 8)))
            bad_format();
        return {value, size};
    }

    template <class T>
    T read_floating()
    {
        std::wstring text;
        read_wstring(text);
        const std::string narrow = utf16_to_utf8(text);
        T value{};
        const auto result = std::from_chars(narrow.data(), narrow.data() + narrow.size(), value);
        if (result.ec != std::errc() || result.ptr != narrow.data() + narrow.size())
            bad_format();
        return value;
    }

    void enter_subkey()
    {
        const entry& e = current_entry();
        if (!e.is_subkey)
            bad_format();
        HKEY key = nullptr;
        if (calls_.open_key(scopes_.back().key, e.name_utf16.c_str(), 0, read_access, &key) != ERROR_SUCCESS)
            bad_format();
        std::wstring path = scopes_.back().path + L"\\" + e.name_utf16;
        enter(key, opened_key(key, calls_), std::move(path));
    }

    void enter(HKEY key, opened_key owned, std::wstring path)
    {
        scope s;
        s.owned = std::move(owned);
        s.key = key;
        s.path = std::move(path);
        enumerate(s);
        s.has_count = query_number(key, count_marker, s.count);
        query_number(key, version_marker, s.version);
        std::wstring id_text;
        if (query_string(key, id_marker, id_text) && FAILED(::CLSIDFromString(id_text.c_str(), &s.id)))
            s.id = GUID{};
        scopes_.push_back(std::move(s));
    }

    void leave() noexcept
    {
        fail_fast_if(scopes_.empty(), L"registry archive: end without begin");
        scopes_.pop_back();
    }

    static void add_entry(scope& s, std::wstring_view name, DWORD type, bool is_subkey)
    {
        // The archive's own markers are not members.
        if (!name.empty() && name.front() == L'@')
            return;
        entry e{utf16_to_utf8(name), std::wstring(name), type, is_subkey, 0, 0};
        e.member_length = e.name_utf8.size();
        const std::size_t at = e.name_utf8.rfind('@');
        if (at != std::string::npos && at + 1 < e.name_utf8.size()) {
            std::uint32_t version = 0;
            const char* first = e.name_utf8.data() + at + 1;
            const char* last = e.name_utf8.data() + e.name_utf8.size();
            const auto result = std::from_chars(first, last, version);
            if (result.ec == std::errc() && result.ptr == last) {
                e.member_version = version;
                e.member_length = at;
            }
        }
        s.entries.push_back(std::move(e));
    }

    void enumerate(scope& s)
    {
        // Names are at most 16383 characters (values) and 255 (keys).
        std::vector<wchar_t> name(16384);
        for (DWORD index = 0;; ++index) {
            DWORD length = static_cast<DWORD>(name.size());
            DWORD type = 0;
            const LSTATUS status = calls_.enum_value(s.key, index, name.data(), &length, nullptr, &type, nullptr, nullptr);
            // Only a name too long for the buffer is skipped: any other failure (a key
            // deleted meanwhile, a handle gone bad) answers the same for every index.
            if (status == ERROR_MORE_DATA)
                continue;
            if (status != ERROR_SUCCESS)
                break;
            add_entry(s, std::wstring_view(name.data(), length), type, false);
        }
        for (DWORD index = 0;; ++index) {
            DWORD length = static_cast<DWORD>(name.size());
            const LSTATUS status = calls_.enum_key(s.key, index, name.data(), &length, nullptr, nullptr, nullptr, nullptr);
            if (status == ERROR_MORE_DATA)
                continue;
            if (status != ERROR_SUCCESS)
                break;
            add_entry(s, std::wstring_view(name.data(), length), REG_NONE, true);
        }
        std::sort(s.entries.begin(), s.entries.end(),
                  [](const entry& a, const entry& b) { return a.name_utf8 < b.name_utf8; });
    }

    bool query_number(HKEY key, const wchar_t* name, std::uint32_t& out) noexcept
    {
        std::uint64_t value = 0;
        DWORD type = 0;
        DWORD size = sizeof value;
        if (calls_.query_value(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &size) != ERROR_SUCCESS)
            return false;
        if ((type == REG_DWORD && size == 4) || (type == REG_QWORD && size == 8)) {
            out = static_cast<std::uint32_t>(value);
            return true;
        }
        return false;
    }

    bool query_string(HKEY key, const wchar_t* name, std::wstring& out)
    {
        wchar_t buffer[64] = {};
        DWORD type = 0;
        DWORD size = sizeof buffer - sizeof(wchar_t);
        if (calls_.query_value(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer), &size) != ERROR_SUCCESS ||
            (type != REG_SZ && type != REG_EXPAND_SZ))
            return false;
        out.assign(buffer);
        return true;
    }

    const registry_read_calls& calls_;
    HKEY archive_key_;
    std::wstring archive_path_;
    std::vector<scope> scopes_;
};

}  // namespace

registry::registry(HKEY root, std::wstring subkey, HANDLE transaction, bool block_mode, bool write_all_members)
    : root_(root), subkey_(std::move(subkey)), transaction_(transaction), block_mode_(block_mode),
      write_all_members_(write_all_members), calls_(&system_read_calls)
{
}

registry::registry(HKEY key, std::wstring path_text, const registry_read_calls& calls)
    : root_(nullptr), transaction_(nullptr), block_mode_(false), write_all_members_(false), borrowed_(key),
      borrowed_path_(std::move(path_text)), calls_(&calls)
{
}

registry::~registry() = default;

std::uint32_t registry::archive_options() const
{
    std::uint32_t options = block_mode_ ? 0x17 : 0x13;
    if (!write_all_members_)
        options |= option::differences_only;
    return options;
}

std::wstring registry::path_text() const
{
    if (borrowed_)
        return borrowed_path_;
    return subkey_.empty() ? root_name(root_) : root_name(root_) + L"\\" + subkey_;
}

void registry::open(REGSAM access)
{
    HKEY key = nullptr;
    if (registry_ex::create_key(root_, subkey_.c_str(), access, transaction_, &key) != ERROR_SUCCESS)
        throw load_exception(L"Error creating key", path_text());
    key_.reset(key);
}

std::unique_ptr<reader_base> registry::create_reader()
{
    if (borrowed_)
        return std::make_unique<registry_reader>(borrowed_, borrowed_path_, *calls_);
    if (!key_) {
        open(read_access);
        read_only_ = true;
    }
    return std::make_unique<registry_reader>(key_.get(), path_text(), *calls_);
}

std::unique_ptr<writer_base> registry::create_writer()
{
    fail_fast_if(borrowed_ != nullptr, L"registry archive: a key read through other calls cannot be written");
    if (key_ && read_only_)
        key_.reset();
    if (!key_) {
        open(read_write_access);
        read_only_ = false;
    }
    return std::make_unique<registry_writer>(key_.get(), path_text(), remove_absent_values_);
}

}  // namespace tessel::nsm
