// The registry archive and registry_ex against the real registry.

#include "nsm/record.h"
#include "nsm/registry_archive.h"
#include "nsm/registry_ex.h"
#include "test_key.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

namespace nsm = tessel::nsm;
using nsm_test::test_key;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

namespace {

std::wstring failure_of(const std::function<void()>& action)
{
    try {
        action();
    } catch (const nsm::load_exception& e) {
        return e.message();
    }
    return L"no failure";
}

DWORD value_type(const test_key& key, const wchar_t* name, const std::wstring& sub = {})
{
    DWORD type = 0;
    if (::RegQueryValueExW(key.open(sub).get(), name, nullptr, &type, nullptr, nullptr) != ERROR_SUCCESS)
        return 0xFFFF;
    return type;
}

template <class T>
T raw_value(const test_key& key, const wchar_t* name)
{
    T value{};
    DWORD size = sizeof value;
    ::RegQueryValueExW(key.open().get(), name, nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size);
    return value;
}

struct item {
    int number = 0;
    std::wstring label;
    bool operator==(const item&) const = default;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("number", &item::number), nsm::member("label", &item::label));
    }
};

struct collection_record {
    std::vector<std::int64_t> numbers;
    std::vector<item> items;
    std::vector<std::uint8_t> blob;
    GUID id{};
    nsm::time_point when{};
    double ratio = 0;
    float scale = 0;
    std::string narrow;
    bool operator==(const collection_record&) const = default;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("numbers", &collection_record::numbers),
                            nsm::member("items", &collection_record::items),
                            nsm::member("blob", &collection_record::blob), nsm::member("id", &collection_record::id),
                            nsm::member("when", &collection_record::when), nsm::member("ratio", &collection_record::ratio),
                            nsm::member("scale", &collection_record::scale),
                            nsm::member("narrow", &collection_record::narrow));
    }
};

}  // namespace

TEST(registry_archive, value_types_boundaries_and_kind_flags)
{
    test_key key(L"types");
    nsm::registry archive(HKEY_CURRENT_USER, key.path());
    {
        auto writer = archive.create_writer();
        writer->begin_object({}, 0x90, 9, 0);
        writer->write_uint64("u32max", 0x82, 0xFFFFFFFFull);
        writer->write_uint64("u33", 0x82, 0x100000000ull);
        writer->write_int64("minus1", 0x82, -1);
        writer->write_int64("big_negative", 0x82, -0x80000001ll);
        writer->write_bool("flag", 0x81, true);
        writer->write_wstring("text", 0x84, L"h\u00e9llo");
        writer->write_string("utf8", 0x84, "caf\xC3\xA9");
        const std::uint8_t bytes[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
        writer->write_binary("blob", 0x88, bytes, sizeof bytes);
        writer->write_double("ratio", 0x82, 0.1);
        writer->write_null("absent", 0);
        writer->write_wstring("versioned", nsm::with_version(0x84, 2), L"v");
        writer->end_object();
    }
    EXPECT_EQ(value_type(key, L"u32max"), REG_DWORD);
    EXPECT_EQ(value_type(key, L"u33"), REG_QWORD);
    EXPECT_EQ(value_type(key, L"minus1"), REG_DWORD);
    EXPECT_EQ(raw_value<DWORD>(key, L"minus1"), 0xFFFFFFFFu);
    EXPECT_EQ(value_type(key, L"big_negative"), REG_QWORD);
    EXPECT_EQ(value_type(key, L"text"), REG_SZ);
    EXPECT_EQ(value_type(key, L"blob"), REG_BINARY);
    EXPECT_EQ(value_type(key, L"ratio"), REG_SZ);
    EXPECT_EQ(value_type(key, L"absent"), 0xFFFFu);  // write_null outside arrays does nothing
    EXPECT_EQ(value_type(key, L"versioned@2"), REG_SZ);

    auto reader = archive.create_reader();
    EXPECT_EQ(reader->location(), L"unknown location");
    EXPECT_EQ(reader->next_entry().flags, 0x90u);
    const nsm::object_header header = reader->begin_object();
    EXPECT_EQ(header.member_count, 10u);  // write_null wrote nothing
    EXPECT_EQ(header.version, 0u);
    // Entries come sorted by name, bytewise.
    std::vector<std::string> names;
    std::vector<std::uint32_t> flags;
    for (nsm::entry_info e = reader->next_entry(); !e.at_end(); e = reader->next_entry()) {
        names.emplace_back(e.name);
        flags.push_back(e.flags);
        if (e.name == "minus1") {
            EXPECT_EQ(reader->read_int64(), -1);
            EXPECT_EQ(reader->read_uint64(), 4294967295u);
            EXPECT_TRUE(reader->read_bool());
            EXPECT_EQ(failure_of([&] { std::wstring s; reader->read_wstring(s); }), L"Bad format");
        } else if (e.name == "u33") {
            EXPECT_EQ(reader->read_uint64(), 0x100000000ull);
        } else if (e.name == "big_negative") {
            EXPECT_EQ(reader->read_int64(), -0x80000001ll);
        } else if (e.name == "text") {
            std::wstring text;
            reader->read_wstring(text);
            EXPECT_EQ(text, L"h\u00e9llo");
            EXPECT_EQ(failure_of([&] { (void)reader->read_bool(); }), L"Bad format");
            EXPECT_THAT(reader->location(), ::testing::EndsWith(key.path() + L"\\text"));
        } else if (e.name == "utf8") {
            std::wstring text;
            reader->read_wstring(text);
            EXPECT_EQ(text, L"caf\u00e9");
        } else if (e.name == "blob") {
            ASSERT_EQ(reader->binary_size(), 10u);
            std::uint8_t exact[10] = {};
            reader->read_binary(exact, sizeof exact);
            EXPECT_EQ(exact[9], 10);
            std::uint8_t small[8] = {};
            EXPECT_EQ(failure_of([&] { reader->read_binary(small, sizeof small); }), L"Bad format");
            std::uint8_t large[12] = {};
            EXPECT_EQ(failure_of([&] { reader->read_binary(large, sizeof large); }), L"Bad format");
        } else if (e.name == "ratio") {
            EXPECT_EQ(reader->read_double(), 0.1);
        } else if (e.name == "versioned") {
            EXPECT_EQ(nsm::version_of(e.flags), 2u);
        }
    }
    EXPECT_THAT(names, ElementsAre("big_negative", "blob", "flag", "minus1", "ratio", "text", "u32max", "u33", "utf8",
                                   "versioned"));
    EXPECT_THAT(flags, ElementsAre(0x83u, 0x88u, 0x83u, 0x83u, 0x1A6u, 0x1A6u, 0x83u, 0x83u, 0x1A6u, 0x1A6u | (2u << 9)));
    reader->end_object();
}

TEST(registry_archive, nan_texts_tell_signalling_from_quiet_and_carry_no_sign)
{
    test_key key(L"nans");
    nsm::registry archive(HKEY_CURRENT_USER, key.path());
    {
        auto writer = archive.create_writer();
        writer->begin_object({}, 0x90, 4, 0);
        writer->write_float("float_signalling", 0x82, std::numeric_limits<float>::signaling_NaN());
        writer->write_float("float_quiet", 0x82, std::copysign(std::numeric_limits<float>::quiet_NaN(), -1.0f));
        writer->write_double("double_signalling", 0x82, -std::numeric_limits<double>::signaling_NaN());
        writer->write_double("double_quiet", 0x82, std::copysign(std::numeric_limits<double>::quiet_NaN(), -1.0));
        writer->end_object();
    }
    const auto text = [&](const wchar_t* name) {
        wchar_t buffer[32] = {};
        DWORD size = sizeof buffer;
        ::RegGetValueW(key.open().get(), nullptr, name, RRF_RT_REG_SZ, nullptr, buffer, &size);
        return std::wstring(buffer);
    };
    EXPECT_EQ(text(L"float_signalling"), L"nan(snan)");
    EXPECT_EQ(text(L"float_quiet"), L"nan(ind)");
    EXPECT_EQ(text(L"double_signalling"), L"nan(snan)");
    EXPECT_EQ(text(L"double_quiet"), L"nan(ind)");
}

TEST(registry_archive, other_value_types_report_no_value_and_fail_to_read)
{
    test_key key(L"other");
    key.set(L"none", REG_NONE, nullptr, 0);
    key.set(L"multi", REG_MULTI_SZ, L"a\0b\0", 10);
    const std::uint16_t odd = 7;
    key.set(L"short", REG_DWORD, &odd, 2);  // a DWORD of the wrong size
    (void)key.open(L"sub");
    nsm::registry archive(HKEY_CURRENT_USER, key.path());
    auto reader = archive.create_reader();
    reader->next_entry();
    reader->begin_object();
    std::vector<std::uint32_t> flags;
    for (nsm::entry_info e = reader->next_entry(); !e.at_end(); e = reader->next_entry()) {
        flags.push_back(e.flags);
        if (e.name != "sub") {
            EXPECT_EQ(failure_of([&] { (void)reader->read_uint64(); }), L"Bad format") << e.name;
            EXPECT_EQ(failure_of([&] { (void)reader->begin_array(); }), L"Bad format") << e.name;
        }
    }
    EXPECT_THAT(flags, ElementsAre(0x1Bu, 0x1Bu, 0x83u, 0x98u));  // multi, none, short, sub
    reader->end_object();
}

TEST(registry_archive, arrays_objects_and_markers_round_trip)
{
    test_key key(L"arrays");
    collection_record saved;
    for (int i = 0; i < 12; ++i) {
        saved.numbers.push_back(i * 1000 - 3);
        saved.items.push_back({i, L"item " + std::to_wstring(i)});
    }
    saved.blob = {0, 255, 7};
    saved.id = {0x12345678, 0x9ABC, 0xDEF0, {1, 2, 3, 4, 5, 6, 7, 8}};
    saved.when = nsm::time_point(std::chrono::sys_days(std::chrono::year(2024) / 5 / 1) + std::chrono::hours(13));
    saved.ratio = 1.0 / 3;
    saved.scale = 2.5f;
    saved.narrow = "\xE2\x82\xAC 5";

    nsm::registry archive(HKEY_CURRENT_USER, key.path());
    nsm::save(archive, saved);
    EXPECT_THAT(key.listing(L"numbers"), ::testing::Contains(L"@count:4"));
    EXPECT_THAT(key.listing(L"numbers"), ::testing::Contains(L"00011:4"));
    EXPECT_THAT(key.listing(L"items"), ::testing::Contains(L"00010\\"));

    collection_record loaded;
    nsm::load(archive, loaded);
    EXPECT_EQ(loaded.numbers, saved.numbers);  // "00010" sorts after "00009"
    EXPECT_EQ(loaded.items, saved.items);
    EXPECT_EQ(loaded.blob, saved.blob);
    EXPECT_EQ(loaded.id, saved.id);
    EXPECT_EQ(loaded.when, saved.when);
    EXPECT_EQ(loaded.ratio, saved.ratio);
    EXPECT_EQ(loaded.scale, saved.scale);
    EXPECT_EQ(loaded.narrow, saved.narrow);

    // An unknown count is stored as 0 and read back as unknown only when "@count" is absent.
    const GUID first_id{1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
    {
        auto writer = archive.create_writer();
        writer->begin_object({}, 0x90, 1, 3);
        writer->begin_array("unknown", 0x88, nsm::unknown_count);
        writer->write_null({}, 0);
        writer->end_array();
        writer->set_object_id(first_id);
        writer->begin_object("first", 0x90, 0, 2);
        writer->end_object();
        writer->begin_object("second", 0x90, 0, 0);
        writer->end_object();
        writer->end_object();
    }
    EXPECT_THAT(key.listing(L"unknown"), UnorderedElementsAre(L"@count:4", L"00000:0"));
    EXPECT_THAT(key.listing(L"first"), UnorderedElementsAre(L"@version:4", L"@id:1"));
    EXPECT_THAT(key.listing(L"second"), ::testing::IsEmpty());
    EXPECT_EQ(raw_value<DWORD>(key, L"@version"), 3u);

    ::RegDeleteKeyValueW(key.open(L"unknown").get(), nullptr, L"@count");
    auto reader = archive.create_reader();
    reader->next_entry();
    EXPECT_EQ(reader->begin_object().version, 3u);
    for (nsm::entry_info e = reader->next_entry(); !e.at_end(); e = reader->next_entry()) {
        if (e.name == "unknown") {
            EXPECT_EQ(reader->begin_array(), nsm::unknown_count);
            reader->end_array();
        } else if (e.name == "first") {
            const nsm::object_header header = reader->begin_object();
            EXPECT_EQ(header.version, 2u);
            EXPECT_EQ(header.id, first_id);
            EXPECT_EQ(header.member_count, 0u);  // markers are not entries
            reader->end_object();
        }
    }
    reader->end_object();
}

TEST(registry_archive, times_parse_with_offset_without_and_as_date_only)
{
    test_key key(L"times");
    using namespace std::chrono;
    const nsm::time_point may_first(sys_days(year(2024) / 5 / 1));
    key.set_string(L"a_date", L"2024-05-01");
    key.set_string(L"b_local", L"2024-05-01T02:30:00+0230");
    key.set_string(L"c_plain", L"2024-05-01T00:00:00");
    key.set_string(L"d_bad", L"2024-02-30");
    key.set_string(L"e_junk", L"soon");
    nsm::registry archive(HKEY_CURRENT_USER, key.path());
    auto reader = archive.create_reader();
    reader->next_entry();
    reader->begin_object();
    for (nsm::entry_info e = reader->next_entry(); !e.at_end(); e = reader->next_entry()) {
        if (e.name < "d")
            EXPECT_EQ(reader->read_time(), may_first) << e.name;
        else
            EXPECT_EQ(failure_of([&] { (void)reader->read_time(); }), L"Bad format") << e.name;
    }
    reader->end_object();

    // What the writer stores reads back to the same second, whatever the local zone.
    const nsm::time_point moment = may_first + hours(17) + minutes(4) + seconds(5);
    {
        auto writer = archive.create_writer();
        writer->begin_object({}, 0x90, 1, 0);
        writer->write_time("when", 0x180, moment);
        writer->end_object();
    }
    auto again = archive.create_reader();
    again->next_entry();
    again->begin_object();
    for (nsm::entry_info e = again->next_entry(); !e.at_end(); e = again->next_entry()) {
        if (e.name == "when") {
            std::wstring text;
            again->read_wstring(text);
            EXPECT_EQ(text.size(), 24u) << text;  // 2024-05-01T17:04:05+hhmm
            EXPECT_EQ(again->read_time(), moment);
        }
    }
    again->end_object();
}

TEST(registry_archive, write_null_removes_values_when_asked)
{
    test_key key(L"nulls");
    key.set_dword(L"gone", 1);
    key.set_dword(L"kept", 1);
    nsm::registry archive(HKEY_CURRENT_USER, key.path());
    {
        auto writer = archive.create_writer();
        writer->begin_object({}, 0x90, 1, 0);
        writer->write_null("kept", 0);
        writer->end_object();
    }
    archive.set_remove_absent_values(true);
    {
        auto writer = archive.create_writer();
        writer->begin_object({}, 0x90, 1, 0);
        writer->write_null("gone", 0);
        writer->end_object();
    }
    EXPECT_THAT(key.listing(), ElementsAre(L"kept:4"));
}

TEST(registry_archive, key_that_cannot_be_created_is_reported)
{
    // A parent handle that has been closed.
    HKEY closed = nullptr;
    ASSERT_EQ(::RegCreateKeyExW(HKEY_CURRENT_USER, L"Software", 0, nullptr, 0, KEY_READ, nullptr, &closed, nullptr),
              ERROR_SUCCESS);
    ::RegCloseKey(closed);
    nsm::registry archive(closed, L"child");
    bool thrown = false;
    try {
        (void)archive.create_writer();
    } catch (const nsm::load_exception& e) {
        thrown = true;
        EXPECT_EQ(e.message(), L"Error creating key");
        EXPECT_EQ(e.location(), L"(key)\\child");
    }
    EXPECT_TRUE(thrown);
}

TEST(registry_ex, lazy_key_multi_strings_and_transacted_fallback)
{
    test_key key(L"ex");
    {
        tessel::registry_ex::lazy_key missing(HKEY_CURRENT_USER, key.path() + L"\\missing", nullptr, true);
        EXPECT_FALSE(missing.is_open());
        try {
            (void)missing.get();
            ADD_FAILURE() << "opened a missing key";
        } catch (const tessel::registry_ex::error_creating_key& e) {
            EXPECT_EQ(e.status(), ERROR_FILE_NOT_FOUND);
            EXPECT_STREQ(e.what(), "error creating key");
        }
    }
    tessel::registry_ex::lazy_key created(HKEY_CURRENT_USER, key.path() + L"\\made");
    const HKEY handle = created.get();
    EXPECT_TRUE(created.is_open());
    EXPECT_EQ(created.get(), handle);  // opened once

    const wchar_t block[] = L"first\0second\0\0";
    key.set(L"list", REG_MULTI_SZ, block, sizeof block);
    key.set(L"empty", REG_MULTI_SZ, L"\0", 4);
    key.set_string(L"plain", L"x");
    const tessel::unique_hkey opened = key.open();
    const auto list = tessel::registry_ex::read_multi_string(opened.get(), L"list");
    ASSERT_TRUE(list.has_value());
    EXPECT_THAT(*list, ElementsAre(L"first", L"second"));
    const auto empty = tessel::registry_ex::read_multi_string(opened.get(), L"empty");
    ASSERT_TRUE(empty.has_value());
    EXPECT_TRUE(empty->empty());
    EXPECT_FALSE(tessel::registry_ex::read_multi_string(opened.get(), L"plain").has_value());
    EXPECT_FALSE(tessel::registry_ex::read_multi_string(opened.get(), L"nothing").has_value());

    // With a transaction handle, the work still gets done where the transacted calls are
    // missing or unimplemented. A real transaction when the system offers one.
    using create_transaction_fn = HANDLE(WINAPI*)(LPSECURITY_ATTRIBUTES, LPGUID, DWORD, DWORD, DWORD, DWORD, LPWSTR);
    using commit_fn = BOOL(WINAPI*)(HANDLE);
    const HMODULE ktm = ::LoadLibraryW(L"ktmw32.dll");
    const auto create_transaction =
        ktm ? reinterpret_cast<create_transaction_fn>(reinterpret_cast<void (*)()>(::GetProcAddress(ktm, "CreateTransaction")))
            : nullptr;
    const auto commit =
        ktm ? reinterpret_cast<commit_fn>(reinterpret_cast<void (*)()>(::GetProcAddress(ktm, "CommitTransaction"))) : nullptr;
    tessel::unique_handle transaction(create_transaction ? create_transaction(nullptr, nullptr, 0, 0, 0, 0, nullptr) : nullptr);
    if (!transaction || transaction.get() == INVALID_HANDLE_VALUE) {
        (void)transaction.release();
        GTEST_SKIP() << "no kernel transactions here";
    }
    const std::wstring sub = key.path() + L"\\transacted";
    HKEY raw = nullptr;
    ASSERT_EQ(tessel::registry_ex::create_key(HKEY_CURRENT_USER, sub.c_str(), KEY_ALL_ACCESS, transaction.get(), &raw),
              ERROR_SUCCESS);
    ::RegCloseKey(raw);
    ASSERT_EQ(tessel::registry_ex::open_key(HKEY_CURRENT_USER, sub.c_str(), KEY_READ, transaction.get(), &raw),
              ERROR_SUCCESS);
    ::RegCloseKey(raw);
    EXPECT_EQ(tessel::registry_ex::delete_key(HKEY_CURRENT_USER, sub.c_str(), transaction.get()), ERROR_SUCCESS);
    if (commit)
        commit(transaction.get());
    EXPECT_NE(::RegOpenKeyExW(HKEY_CURRENT_USER, sub.c_str(), 0, KEY_READ, &raw), ERROR_SUCCESS);
}
