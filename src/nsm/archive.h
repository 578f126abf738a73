#pragma once
// tessel::nsm: the support library's serialization model.
//
// A record is written once through writer_base and read back through reader_base; the
// archive object (registry key or JSON text) decides the medium. The virtual operations
// below are declared in a fixed order on purpose: the slot order is part of the contract
// shared with code built elsewhere, so new operations go at the end, never in between.

#include <windows.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

namespace tessel::nsm {

// Kind flags: what a writer writes, and every kind a reader can deliver the current
// entry as.
namespace kind {
inline constexpr std::uint32_t boolean = 0x001;
inline constexpr std::uint32_t number = 0x002;
inline constexpr std::uint32_t string = 0x004;
inline constexpr std::uint32_t sequence = 0x008;
inline constexpr std::uint32_t object = 0x010;
inline constexpr std::uint32_t guid = 0x020;
inline constexpr std::uint32_t present = 0x080;
inline constexpr std::uint32_t date_time = 0x100;
inline constexpr std::uint32_t version_shift = 9;
inline constexpr std::uint32_t version_mask = 0xF << version_shift;
inline constexpr std::uint32_t end = 0x80000000;
}  // namespace kind

[[nodiscard]] constexpr std::uint32_t version_of(std::uint32_t flags) noexcept
{
    return (flags & kind::version_mask) >> kind::version_shift;
}
[[nodiscard]] constexpr std::uint32_t with_version(std::uint32_t flags, std::uint32_t version) noexcept
{
    return (flags & ~kind::version_mask) | ((version & 0xF) << kind::version_shift);
}

// Archive option bits (archive::archive_options).
namespace option {
// Members are found by name, so their order on the medium does not matter.
inline constexpr std::uint32_t named_members = 0x01;
// The medium keeps a type beside every value.
inline constexpr std::uint32_t typed_values = 0x02;
// The whole record goes through write_block / read_block as raw bytes.
inline constexpr std::uint32_t block_mode = 0x04;
// A member is written only when it differs from a default-constructed record's.
inline constexpr std::uint32_t differences_only = 0x08;
// The reader hands out entries sorted by name.
inline constexpr std::uint32_t sorted_entries = 0x10;
}  // namespace option

// Count reported by begin_array when the medium cannot know it: read until the end flag.
inline constexpr std::uint32_t unknown_count = 0xFFFFFFFF;

// Points in time travel in 100 ns ticks since 1970-01-01 UTC.
using ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;
using time_point = std::chrono::time_point<std::chrono::system_clock, ticks>;
// A calendar date: whole days since 1970-01-01.
using days = std::chrono::duration<std::int64_t, std::ratio<86400>>;
using date = std::chrono::time_point<std::chrono::system_clock, days>;

class load_exception : public std::exception {
public:
    load_exception(std::wstring message, std::wstring location);
    // Narrow form of message() for std::exception's interface.
    [[nodiscard]] const char* what() const noexcept override;
    [[nodiscard]] const std::wstring& message() const noexcept { return message_; }
    [[nodiscard]] const std::wstring& location() const noexcept { return location_; }

private:
    std::wstring message_;
    std::wstring location_;
    std::shared_ptr<const std::string> what_;
};

// Small on purpose: it is returned for every entry. An object id that came with the
// entry's name is reported by begin_object.
struct entry_info {
    // Member name without version or id suffix; empty for array elements and the root.
    std::string_view name;
    std::uint32_t flags = 0;

    [[nodiscard]] bool at_end() const noexcept { return (flags & kind::end) != 0; }
};

struct object_header {
    std::uint32_t member_count = unknown_count;
    std::uint32_t version = 0;
    GUID id{};
};

class writer_base {
public:
    virtual ~writer_base();
    virtual void write_time(std::string_view name, std::uint32_t flags, time_point value) = 0;
    virtual void write_wstring(std::string_view name, std::uint32_t flags, std::wstring_view value) = 0;
    virtual void write_string(std::string_view name, std::uint32_t flags, std::string_view value) = 0;
    virtual void write_uint64(std::string_view name, std::uint32_t flags, std::uint64_t value) = 0;
    virtual void write_int64(std::string_view name, std::uint32_t flags, std::int64_t value) = 0;
    virtual void write_double(std::string_view name, std::uint32_t flags, double value) = 0;
    virtual void write_float(std::string_view name, std::uint32_t flags, float value) = 0;
    virtual void write_bool(std::string_view name, std::uint32_t flags, bool value) = 0;
    virtual void write_null(std::string_view name, std::uint32_t flags) = 0;
    virtual void begin_array(std::string_view name, std::uint32_t flags, std::uint32_t count) = 0;
    virtual void end_array() = 0;
    virtual void begin_object(std::string_view name, std::uint32_t flags, std::uint64_t member_count,
                              std::uint32_t version) = 0;
    virtual void end_object() = 0;
    // No archive of this system supports block mode; reaching it is a programming error.
    virtual void write_block(std::string_view name, std::uint32_t flags, const void* data, std::size_t size) = 0;
    virtual void write_binary(std::string_view name, std::uint32_t flags, const void* data, std::size_t size) = 0;
    // Attached to the next begin_object only.
    virtual void set_object_id(const GUID& id) = 0;
};

class reader_base {
public:
    virtual ~reader_base();
    // Member look-up by name, for a loading path no archive selects. Traps.
    virtual std::uint32_t find_member(std::string_view name) = 0;
    virtual entry_info next_entry() = 0;
    virtual time_point read_time() = 0;
    virtual GUID read_guid() = 0;
    // Assigns to out, so a caller that reads into the same string again reuses its buffer.
    virtual void read_wstring(std::wstring& out) = 0;
    virtual std::uint64_t read_uint64() = 0;
    virtual std::int64_t read_int64() = 0;
    virtual double read_double() = 0;
    virtual float read_float() = 0;
    virtual bool read_bool() = 0;
    virtual std::uint32_t begin_array() = 0;
    virtual void end_array() = 0;
    virtual std::size_t binary_size() = 0;
    virtual object_header begin_object() = 0;
    virtual void end_object() = 0;
    virtual void read_block(void* data, std::size_t size) = 0;
    // Buffer of exactly binary_size() bytes.
    virtual void read_binary(void* data, std::size_t size) = 0;
    // The current entry's name is not a member of the record being loaded.
    virtual void unknown_entry(const entry_info& entry) = 0;
    virtual std::wstring location() = 0;
};

// The medium: hands out readers and writers. A reader or writer must not outlive its
// archive.
class archive {
public:
    virtual ~archive();
    [[nodiscard]] virtual std::uint32_t archive_options() const = 0;
    // 1: records load through their member tables (the only loading path in this system).
    [[nodiscard]] virtual int table_driven_loading() const = 0;
    [[nodiscard]] virtual std::unique_ptr<reader_base> create_reader() = 0;
    [[nodiscard]] virtual std::unique_ptr<writer_base> create_writer() = 0;
};

// The archive's options as seen by one save or load.
struct archive_context {
    explicit archive_context(std::uint32_t options) noexcept
        : named_members((options & option::named_members) != 0),
          typed_values((options & option::typed_values) != 0),
          block_mode((options & option::block_mode) != 0),
          differences_only((options & option::differences_only) != 0),
          sorted_entries((options & option::sorted_entries) != 0)
    {
    }
    bool named_members;
    bool typed_values;
    bool block_mode;
    bool differences_only;
    bool sorted_entries;
};

// Arrays are written and read through this adaptor, so the archive code sees one shape
// for every kind of container.
class abstract_collection {
public:
    virtual ~abstract_collection();
    [[nodiscard]] virtual std::size_t size() const = 0;
    virtual void save_element(writer_base& writer, const archive_context& context, std::size_t index) const = 0;
    // Called once before loading, with the count the medium reported (maybe unknown_count).
    virtual void prepare(std::uint32_t count) = 0;
    virtual void load_element(reader_base& reader, const archive_context& context, const entry_info& entry) = 0;
    // Called once after the last element.
    virtual void finish() = 0;
};

}  // namespace tessel::nsm
