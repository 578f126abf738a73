// The record machinery on its own: hashing, table orders, differences-only saving and the
// loader's rules, seen through a writer that records calls and a reader that plays a script.

#include "nsm/app_settings.h"
#include "nsm/record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

namespace nsm = tessel::nsm;
using ::testing::ElementsAre;

namespace {

class recording_writer final : public nsm::writer_base {
public:
    std::vector<std::string> calls;

    void write_time(std::string_view n, std::uint32_t f, nsm::time_point v) override
    {
        log("time", n, f, std::to_string(v.time_since_epoch().count()));
    }
    void write_wstring(std::string_view n, std::uint32_t f, std::wstring_view v) override
    {
        log("wstring", n, f, std::string(v.begin(), v.end()));
    }
    void write_string(std::string_view n, std::uint32_t f, std::string_view v) override { log("string", n, f, std::string(v)); }
    void write_uint64(std::string_view n, std::uint32_t f, std::uint64_t v) override { log("uint64", n, f, std::to_string(v)); }
    void write_int64(std::string_view n, std::uint32_t f, std::int64_t v) override { log("int64", n, f, std::to_string(v)); }
    void write_double(std::string_view n, std::uint32_t f, double v) override { log("double", n, f, std::to_string(v)); }
    void write_float(std::string_view n, std::uint32_t f, float v) override { log("float", n, f, std::to_string(v)); }
    void write_bool(std::string_view n, std::uint32_t f, bool v) override { log("bool", n, f, v ? "true" : "false"); }
    void write_null(std::string_view n, std::uint32_t f) override { log("null", n, f, ""); }
    void begin_array(std::string_view n, std::uint32_t f, std::uint32_t c) override { log("begin_array", n, f, std::to_string(c)); }
    void end_array() override { calls.push_back("end_array"); }
    void begin_object(std::string_view n, std::uint32_t f, std::uint64_t c, std::uint32_t v) override
    {
        log("begin_object", n, f, std::to_string(c) + "," + std::to_string(v));
    }
    void end_object() override { calls.push_back("end_object"); }
    void write_block(std::string_view, std::uint32_t, const void*, std::size_t) override { calls.push_back("block"); }
    void write_binary(std::string_view n, std::uint32_t f, const void*, std::size_t s) override
    {
        log("binary", n, f, std::to_string(s));
    }
    void set_object_id(const GUID&) override { calls.push_back("id"); }

private:
    void log(const char* op, std::string_view name, std::uint32_t flags, const std::string& value)
    {
        char hex[16];
        std::snprintf(hex, sizeof hex, "%X", flags);
        calls.push_back(std::string(op) + " " + std::string(name) + " " + hex + " " + value);
    }
};

// Plays a list of entries; values are taken from the script entry's text.
class scripted_reader final : public nsm::reader_base {
public:
    struct step {
        std::string name;
        std::uint32_t flags;
        std::wstring text;
        std::uint32_t version = 0;
    };
    std::deque<step> script;
    std::vector<std::string> unknown;
    int reads = 0;

    std::uint32_t find_member(std::string_view) override { return 0; }
    nsm::entry_info next_entry() override
    {
        if (script.empty())
            return {{}, nsm::kind::end};
        current_ = script.front();
        script.pop_front();
        return {current_.name, current_.flags};
    }
    nsm::time_point read_time() override { return nsm::time_point(nsm::ticks(std::stoll(current_.text))); }
    GUID read_guid() override { return GUID{}; }
    void read_wstring(std::wstring& out) override
    {
        ++reads;
        out = current_.text;
    }
    std::uint64_t read_uint64() override { return ++reads, std::stoull(current_.text); }
    std::int64_t read_int64() override { return ++reads, std::stoll(current_.text); }
    double read_double() override { return std::stod(current_.text); }
    float read_float() override { return std::stof(current_.text); }
    bool read_bool() override { return ++reads, current_.text == L"1"; }
    std::uint32_t begin_array() override { return nsm::unknown_count; }
    void end_array() override {}
    std::size_t binary_size() override { return 0; }
    nsm::object_header begin_object() override { return {nsm::unknown_count, current_.version, {}}; }
    void end_object() override {}
    void read_block(void*, std::size_t) override {}
    void read_binary(void*, std::size_t) override {}
    void unknown_entry(const nsm::entry_info& entry) override { unknown.emplace_back(entry.name); }
    std::wstring location() override { return L"at " + std::wstring(current_.name.begin(), current_.name.end()); }

private:
    step current_;
};

constexpr std::uint32_t object_entry = 0x90;
constexpr std::uint32_t bool_entry = 0x83;
constexpr std::uint32_t string_entry = 0x1A6;

nsm::archive_context registry_like() { return nsm::archive_context(0x1B); }

}  // namespace

TEST(nsm_record, name_hash_is_fnv1a_with_sign_extended_bytes)
{
    EXPECT_EQ(nsm::name_hash("foobar"), 0xBF9CF968u);
    // 0xE9 enters as 0xFFFFFFE9, so the result differs from plain FNV-1a.
    EXPECT_EQ(nsm::name_hash("\xE9"), static_cast<std::uint32_t>((2166136261u ^ 0xFFFFFFE9u) * 16777619u));
    EXPECT_NE(nsm::name_hash("\xE9"), static_cast<std::uint32_t>((2166136261u ^ 0xE9u) * 16777619u));
}

TEST(nsm_record, differences_only_writes_changed_members_and_always_opens_nested_records)
{
    recording_writer defaults;
    nsm::save_record(defaults, registry_like(), app_settings{});
    EXPECT_THAT(defaults.calls,
                ElementsAre("begin_object  90 7,0", "begin_object promo 90 3,0", "end_object", "end_object"));

    app_settings changed;
    changed.language = L"de";
    changed.check_for_updates = false;
    changed.promo.url = L"u";
    changed.promo.expires_on = nsm::date(nsm::days(2));
    recording_writer writer;
    nsm::save_record(writer, registry_like(), changed);
    EXPECT_THAT(writer.calls, ElementsAre("begin_object  90 7,0", "begin_object promo 90 3,0", "wstring Url 84 u",
                                          "time ExpiresOn 180 1728000000000", "end_object", "wstring language 84 de",
                                          "bool checkForUpdates 81 false", "end_object"));

    // Without differences-only every member is written, in declaration order.
    recording_writer all;
    nsm::save_record(all, nsm::archive_context(0x13), app_settings{});
    EXPECT_EQ(all.calls.size(), 11u);
    EXPECT_EQ(all.calls[6], "wstring language 84 ");
}

TEST(nsm_record, loader_matches_in_any_order_skips_unknown_names_and_checks_kinds)
{
    scripted_reader reader;
    reader.script = {{"", object_entry, L""},
                     {"collapseAll", bool_entry, L"1"},
                     {"zzz", string_entry, L"x"},
                     {"language", string_entry, L"fr"},
                     {"checkForUpdates", bool_entry, L"0"},  // out of the predicted order
                     {"promo", 0x98, L""},
                     {"Title", string_entry, L"t"}};
    app_settings loaded;
    nsm::load_record(reader, registry_like(), loaded);
    EXPECT_TRUE(loaded.collapse_all);
    EXPECT_FALSE(loaded.check_for_updates);
    EXPECT_EQ(loaded.language, L"fr");
    EXPECT_EQ(loaded.promo.title, L"t");
    EXPECT_THAT(reader.unknown, ElementsAre("zzz"));

    const auto failure_of = [](std::deque<scripted_reader::step> script) -> std::wstring {
        scripted_reader r;
        r.script = std::move(script);
        app_settings s;
        try {
            nsm::load_record(r, registry_like(), s);
        } catch (const nsm::load_exception& e) {
            return e.message() + L" | " + e.location();
        }
        return L"loaded";
    };
    EXPECT_EQ(failure_of({{"", 0x80, L""}}), L"Object expected | at ");
    EXPECT_EQ(failure_of({{"", object_entry, L""}, {"hideDisconnected", string_entry, L"1"}}),
              L"Boolean expected | at hideDisconnected");
    EXPECT_EQ(failure_of({{"", object_entry, L""}, {"language", bool_entry, L"1"}}), L"String expected | at language");
    EXPECT_EQ(failure_of({{"", object_entry, L""}, {"promo", bool_entry, L"1"}}), L"Object expected | at promo");
    EXPECT_EQ(failure_of({{"", object_entry, L""}, {"promo", object_entry, L""}, {"ExpiresOn", 0x82, L"1"}}),
              L"Date expected | at ExpiresOn");
}

TEST(nsm_record, newer_stored_version_is_not_read)
{
    scripted_reader reader;
    reader.script = {{"", object_entry, L"", 1}, {"language", string_entry, L"fr"}};
    app_settings loaded;
    nsm::load_record(reader, registry_like(), loaded);
    EXPECT_EQ(loaded, app_settings{});
    EXPECT_EQ(reader.reads, 0);
}

namespace {
struct narrow_numbers {
    std::uint8_t small = 0;
    std::int16_t signed_small = 0;
    std::vector<std::int32_t> list;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("small", &narrow_numbers::small),
                            nsm::member("signed", &narrow_numbers::signed_small, 3),
                            nsm::member("list", &narrow_numbers::list));
    }
};
}  // namespace

TEST(nsm_record, narrow_integers_refuse_values_they_cannot_hold)
{
    const auto load = [](std::string name, std::wstring text) -> std::wstring {
        scripted_reader r;
        r.script = {{"", object_entry, L""}, {std::move(name), 0x82, std::move(text)}};
        narrow_numbers n;
        try {
            nsm::load_record(r, registry_like(), n);
        } catch (const nsm::load_exception& e) {
            return e.message();
        }
        return std::to_wstring(n.small) + L"/" + std::to_wstring(n.signed_small);
    };
    EXPECT_EQ(load("small", L"255"), L"255/0");
    EXPECT_EQ(load("small", L"256"), L"Number out of range");
    EXPECT_EQ(load("signed", L"-32768"), L"0/-32768");
    EXPECT_EQ(load("signed", L"40000"), L"Number out of range");

    recording_writer writer;
    narrow_numbers n;
    n.signed_small = -2;
    n.list = {1, 2};
    nsm::save_record(writer, nsm::archive_context(0x09), n);
    // A member version travels in flag bits 9-12.
    EXPECT_THAT(writer.calls, ElementsAre("begin_object  90 3,0", "int64 signed 682 -2", "begin_array list 88 2",
                                          "int64  82 1", "int64  82 2", "end_array", "end_object"));
}
