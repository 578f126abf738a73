#pragma once
// Records that describe themselves once and get saving and loading from it.
//
//   struct credit {
//       std::wstring name;
//       std::wstring email;
//       bool operator==(const credit&) const = default;
//       static constexpr auto nsm_members()
//       {
//           return nsm::members(nsm::member("Name", &credit::name), nsm::member("EMail", &credit::email));
//       }
//   };
//
// Optional static members: nsm_version (uint32, default 0) and nsm_member_count_hint
// (uint64, default the number of members; some media only use it as a size hint).
//
// Loading is table-driven: the member names are hashed at compile time (32-bit FNV-1a,
// bytes sign-extended), in declaration order and in name order. Entries normally arrive
// in one of those orders, so each is matched with one comparison against the predicted
// member; anything else costs a table search.

#include "base/failure.h"
#include "nsm/archive.h"

#include <algorithm>
#include <array>
#include <concepts>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace tessel::nsm {

// 32-bit FNV-1a. Bytes are sign-extended before they enter, so names with bytes from
// 0x80 on hash the same as they always have in stored tables.
[[nodiscard]] constexpr std::uint32_t name_hash(std::string_view name) noexcept
{
    std::uint32_t hash = 2166136261u;
    for (const char c : name) {
        hash ^= static_cast<std::uint32_t>(static_cast<std::int32_t>(static_cast<signed char>(c)));
        hash *= 16777619u;
    }
    return hash;
}

template <class T>
concept record = requires { T::nsm_members(); };

template <class T, class Enable = void>
struct value_traits;

namespace details {
[[noreturn]] void throw_kind_error(reader_base& reader, const wchar_t* message);
[[noreturn]] void throw_out_of_range(reader_base& reader);

inline void check_kind(reader_base& reader, const entry_info& entry, std::uint32_t required, const wchar_t* message)
{
    if ((entry.flags & required) != required) [[unlikely]]
        throw_kind_error(reader, message);
}
}  // namespace details

template <class Record, class T>
struct member_def {
    using record_type = Record;
    using value_type = T;
    std::string_view name;
    T Record::*field;
    std::uint32_t flags;
};

template <class Record, class T>
[[nodiscard]] constexpr member_def<Record, T> member(std::string_view name, T Record::*field, std::uint32_t version = 0)
{
    return {name, field, with_version(value_traits<T>::write_flags, version)};
}

template <class... Defs>
[[nodiscard]] constexpr std::tuple<Defs...> members(Defs... defs)
{
    return {defs...};
}

template <record R>
void save_object(writer_base& writer, const archive_context& context, std::string_view name, std::uint32_t flags,
                 const R& value);
template <record R>
void load_object(reader_base& reader, const archive_context& context, R& value);

template <record R>
struct record_info {
    static constexpr auto defs = R::nsm_members();
    static constexpr std::size_t size = std::tuple_size_v<decltype(defs)>;
    static_assert(size < 0x10000, "too many members");

    static constexpr std::uint64_t member_count_hint = [] {
        if constexpr (requires { R::nsm_member_count_hint; })
            return static_cast<std::uint64_t>(R::nsm_member_count_hint);
        else
            return static_cast<std::uint64_t>(size);
    }();
    static constexpr std::uint32_t version = [] {
        if constexpr (requires { R::nsm_version; })
            return static_cast<std::uint32_t>(R::nsm_version);
        else
            return std::uint32_t{0};
    }();

    struct slot {
        std::uint32_t hash;
        std::uint16_t member;
        std::string_view name;
    };
    using table = std::array<slot, size>;

    static constexpr table declared = []<std::size_t... I>(std::index_sequence<I...>) {
        return table{slot{name_hash(std::get<I>(defs).name), static_cast<std::uint16_t>(I), std::get<I>(defs).name}...};
    }(std::make_index_sequence<size>{});

    // Bytewise name order, the order in which a sorting medium hands entries out.
    static constexpr table sorted = [] {
        table result = declared;
        for (std::size_t i = 1; i < result.size(); ++i)
            for (std::size_t j = i; j > 0 && result[j].name < result[j - 1].name; --j)
                std::swap(result[j], result[j - 1]);
        return result;
    }();

    using loader = void (*)(reader_base&, const archive_context&, const entry_info&, R&);

    template <std::size_t I>
    static void load_member(reader_base& reader, const archive_context& context, const entry_info& entry, R& value)
    {
        constexpr auto def = std::get<I>(defs);
        using traits = value_traits<typename decltype(def)::value_type>;
        details::check_kind(reader, entry, traits::required_kind, traits::kind_error);
        traits::load(reader, context, entry, value.*def.field);
    }

    static constexpr std::array<loader, size> loaders = []<std::size_t... I>(std::index_sequence<I...>) {
        return std::array<loader, size>{&load_member<I>...};
    }(std::make_index_sequence<size>{});

    static const R& defaults()
    {
        static const R instance{};
        return instance;
    }

    template <std::size_t I>
    static void save_member(writer_base& writer, const archive_context& context, const R& value)
    {
        constexpr auto def = std::get<I>(defs);
        using T = typename decltype(def)::value_type;
        if constexpr (record<T>) {
            // Nested records are always opened; their own members are compared inside.
            save_object(writer, context, def.name, def.flags, value.*def.field);
        } else {
            if constexpr (std::equality_comparable<T>) {
                if (context.differences_only && value.*def.field == defaults().*def.field)
                    return;
            }
            value_traits<T>::save(writer, context, def.name, def.flags, value.*def.field);
        }
    }
};

template <record R>
void save_object(writer_base& writer, const archive_context& context, std::string_view name, std::uint32_t flags,
                 const R& value)
{
    using info = record_info<R>;
    writer.begin_object(name, flags | kind::object, info::member_count_hint, info::version);
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        (info::template save_member<I>(writer, context, value), ...);
    }(std::make_index_sequence<info::size>{});
    writer.end_object();
}

// The current entry has been checked to be an object.
template <record R>
void load_object(reader_base& reader, const archive_context& context, R& value)
{
    using info = record_info<R>;
    const object_header header = reader.begin_object();
    // A record stored by a newer program may mean something else: keep the defaults.
    if (header.version > info::version) {
        reader.end_object();
        return;
    }
    if constexpr (info::size > 0) {
        const auto& table = context.sorted_entries ? info::sorted : info::declared;
        std::size_t expected = 0;
        for (;;) {
            const entry_info entry = reader.next_entry();
            if (entry.at_end())
                break;
            const std::uint32_t hash = name_hash(entry.name);
            std::size_t found = expected;
            if (table[found].hash != hash || table[found].name != entry.name) {
                found = info::size;
                for (std::size_t i = 0; i < info::size; ++i) {
                    if (table[i].hash == hash && table[i].name == entry.name) {
                        found = i;
                        break;
                    }
                }
                if (found == info::size) {
                    reader.unknown_entry(entry);
                    continue;
                }
            }
            info::loaders[table[found].member](reader, context, entry, value);
            expected = found + 1 == info::size ? 0 : found + 1;
        }
    } else {
        for (;;) {
            const entry_info entry = reader.next_entry();
            if (entry.at_end())
                break;
            reader.unknown_entry(entry);
        }
    }
    reader.end_object();
}

// Whole-record operations over a writer or reader the caller already has.
template <record R>
void save_record(writer_base& writer, const archive_context& context, const R& value)
{
    if (context.block_mode) {
        writer.write_block({}, kind::present | kind::object, &value, sizeof value);
        return;
    }
    save_object(writer, context, {}, kind::present, value);
}

template <record R>
void load_record(reader_base& reader, const archive_context& context, R& value)
{
    if (context.block_mode) {
        reader.read_block(&value, sizeof value);
        return;
    }
    const entry_info root = reader.next_entry();
    details::check_kind(reader, root, kind::object, L"Object expected");
    load_object(reader, context, value);
}

// Whole-record operations over an archive.
template <record R>
void save(archive& medium, const R& value)
{
    const archive_context context(medium.archive_options());
    const auto writer = medium.create_writer();
    save_record(*writer, context, value);
}

template <record R>
void load(archive& medium, R& value)
{
    const archive_context context(medium.archive_options());
    const auto reader = medium.create_reader();
    load_record(*reader, context, value);
}

// ---- value kinds ------------------------------------------------------------------

template <>
struct value_traits<bool> {
    static constexpr std::uint32_t write_flags = kind::present | kind::boolean;
    static constexpr std::uint32_t required_kind = kind::boolean;
    static constexpr const wchar_t* kind_error = L"Boolean expected";
    static void save(writer_base& w, const archive_context&, std::string_view name, std::uint32_t flags, bool v)
    {
        w.write_bool(name, flags, v);
    }
    static void load(reader_base& r, const archive_context&, const entry_info&, bool& v) { v = r.read_bool(); }
};

template <class T>
struct value_traits<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>> {
    static constexpr std::uint32_t write_flags = kind::present | kind::number;
    static constexpr std::uint32_t required_kind = kind::number;
    static constexpr const wchar_t* kind_error = L"Number expected";
    static void save(writer_base& w, const archive_context&, std::string_view name, std::uint32_t flags, T v)
    {
        if constexpr (std::is_signed_v<T>)
            w.write_int64(name, flags, v);
        else
            w.write_uint64(name, flags, v);
    }
    static void load(reader_base& r, const archive_context&, const entry_info&, T& v)
    {
        if constexpr (std::is_signed_v<T>) {
            const std::int64_t read = r.read_int64();
            if (read < std::numeric_limits<T>::min() || read > std::numeric_limits<T>::max())
                details::throw_out_of_range(r);
            v = static_cast<T>(read);
        } else {
            const std::uint64_t read = r.read_uint64();
            if (read > std::numeric_limits<T>::max())
                details::throw_out_of_range(r);
            v = static_cast<T>(read);
        }
    }
};

template <class T>
struct value_traits<T, std::enable_if_t<std::is_floating_point_v<T>>> {
    static constexpr std::uint32_t write_flags = kind::present | kind::number;
    static constexpr std::uint32_t required_kind = kind::number;
    static constexpr const wchar_t* kind_error = L"Number expected";
    static void save(writer_base& w, const archive_context&, std::string_view name, std::uint32_t flags, T v)
    {
        if constexpr (std::is_same_v<T, float>)
            w.write_float(name, flags, v);
        else
            w.write_double(name, flags, static_cast<double>(v));
    }
    static void load(reader_base& r, const archive_context&, const entry_info&, T& v)
    {
        if constexpr (std::is_same_v<T, float>)
            v = r.read_float();
        else
            v = static_cast<T>(r.read_double());
    }
};

template <>
struct value_traits<std::wstring> {
    static constexpr std::uint32_t write_flags = kind::present | kind::string;
    static constexpr std::uint32_t required_kind = kind::string;
    static constexpr const wchar_t* kind_error = L"String expected";
    static void save(writer_base& w, const archive_context&, std::string_view name, std::uint32_t flags,
                     const std::wstring& v)
    {
        w.write_wstring(name, flags, v);
    }
    static void load(reader_base& r, const archive_context&, const entry_info&, std::wstring& v) { r.read_wstring(v); }
};

template <>
struct value_traits<std::string> {
    static constexpr std::uint32_t write_flags = kind::present | kind::string;
    static constexpr std::uint32_t required_kind = kind::string;
    static constexpr const wchar_t* kind_error = L"String expected";
    static void save(writer_base& w, const archive_context&, std::string_view name, std::uint32_t flags,
                     const std::string& v)
    {
        w.write_string(name, flags, v);
    }
    static void load(reader_base& r, const archive_context&, const entry_info&, std::string& v);
};

template <>
struct value_traits<GUID> {
    static constexpr std::uint32_t write_flags = kind::present | kind::string | kind::guid;
    static constexpr std::uint32_t required_kind = kind::guid;
    static constexpr const wchar_t* kind_error = L"String expected";
    static void save(writer_base& w, const archive_context&, std::string_view name, std::uint32_t flags, const GUID& v);
    static void load(reader_base& r, const archive_context&, const entry_info&, GUID& v) { v = r.read_guid(); }
};

template <>
struct value_traits<time_point> {
    static constexpr std::uint32_t write_flags = kind::present | kind::date_time;
    static constexpr std::uint32_t required_kind = kind::date_time;
    static constexpr const wchar_t* kind_error = L"Date expected";
    static void save(writer_base& w, const archive_context&, std::string_view name, std::uint32_t flags, time_point v)
    {
        w.write_time(name, flags, v);
    }
    static void load(reader_base& r, const archive_context&, const entry_info&, time_point& v) { v = r.read_time(); }
};

// A date is stored as the point in time of its midnight (UTC).
template <>
struct value_traits<date> {
    static constexpr std::uint32_t write_flags = kind::present | kind::date_time;
    static constexpr std::uint32_t required_kind = kind::date_time;
    static constexpr const wchar_t* kind_error = L"Date expected";
    static void save(writer_base& w, const archive_context&, std::string_view name, std::uint32_t flags, date v)
    {
        w.write_time(name, flags, time_point(v));
    }
    static void load(reader_base& r, const archive_context&, const entry_info&, date& v)
    {
        v = std::chrono::floor<days>(r.read_time());
    }
};

// Bytes are a binary value, not an array of numbers.
template <>
struct value_traits<std::vector<std::uint8_t>> {
    static constexpr std::uint32_t write_flags = kind::present | kind::sequence;
    static constexpr std::uint32_t required_kind = kind::sequence;
    static constexpr const wchar_t* kind_error = L"Array expected";
    static void save(writer_base& w, const archive_context&, std::string_view name, std::uint32_t flags,
                     const std::vector<std::uint8_t>& v)
    {
        w.write_binary(name, flags, v.data(), v.size());
    }
    static void load(reader_base& r, const archive_context&, const entry_info&, std::vector<std::uint8_t>& v)
    {
        v.resize(r.binary_size());
        r.read_binary(v.data(), v.size());
    }
};

template <record R>
struct value_traits<R> {
    static constexpr std::uint32_t write_flags = kind::present;
    static constexpr std::uint32_t required_kind = kind::object;
    static constexpr const wchar_t* kind_error = L"Object expected";
    static void save(writer_base& w, const archive_context& c, std::string_view name, std::uint32_t flags, const R& v)
    {
        save_object(w, c, name, flags, v);
    }
    static void load(reader_base& r, const archive_context& c, const entry_info&, R& v) { load_object(r, c, v); }
};

// std::vector of any value kind but bytes, through the collection adaptor.
template <class T>
class vector_collection final : public abstract_collection {
public:
    // For saving.
    explicit vector_collection(const std::vector<T>& items) noexcept : items_(&items) {}
    // For loading (and saving).
    explicit vector_collection(std::vector<T>& items) noexcept : items_(&items), target_(&items) {}

    [[nodiscard]] std::size_t size() const override { return items_->size(); }
    void save_element(writer_base& writer, const archive_context& context, std::size_t index) const override
    {
        value_traits<T>::save(writer, context, {}, value_traits<T>::write_flags, (*items_)[index]);
    }
    void prepare(std::uint32_t count) override
    {
        fail_fast_if(!target_, L"nsm: loading into a collection made for saving");
        target_->clear();
        // The count comes from the medium: a hint, never trusted for a large allocation.
        if (count != unknown_count)
            target_->reserve(std::min<std::uint32_t>(count, 1024));
    }
    void load_element(reader_base& reader, const archive_context& context, const entry_info& entry) override
    {
        details::check_kind(reader, entry, value_traits<T>::required_kind, value_traits<T>::kind_error);
        value_traits<T>::load(reader, context, entry, target_->emplace_back());
    }
    void finish() override {}

private:
    const std::vector<T>* items_;
    std::vector<T>* target_ = nullptr;
};

void save_collection(writer_base& writer, const archive_context& context, std::string_view name, std::uint32_t flags,
                     const abstract_collection& items);
void load_collection(reader_base& reader, const archive_context& context, abstract_collection& items);

template <class T>
struct value_traits<std::vector<T>, std::enable_if_t<!std::is_same_v<T, std::uint8_t>>> {
    static constexpr std::uint32_t write_flags = kind::present | kind::sequence;
    static constexpr std::uint32_t required_kind = kind::sequence;
    static constexpr const wchar_t* kind_error = L"Array expected";
    static void save(writer_base& w, const archive_context& c, std::string_view name, std::uint32_t flags,
                     const std::vector<T>& v)
    {
        save_collection(w, c, name, flags, vector_collection<T>(v));
    }
    static void load(reader_base& r, const archive_context& c, const entry_info&, std::vector<T>& v)
    {
        vector_collection<T> items(v);
        load_collection(r, c, items);
    }
};

}  // namespace tessel::nsm
