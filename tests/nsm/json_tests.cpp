// The JSON archive: how text turns into entries, value decoding, failures, and the writer.

#include "nsm/json_archive.h"
#include "nsm/record.h"
#include "update_document.h"

#include "archive_walk.h"
#include "guarded_memory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <cmath>
#include <limits>

namespace nsm = tessel::nsm;
using nsm::details::json_reader;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

// The kind of the first value inside "[ ... ]".
std::uint32_t element_kind(std::string_view text)
{
    std::string document = "[";
    document += text;
    json_reader reader(document);
    reader.next_entry();
    reader.begin_array();
    return reader.next_entry().flags;
}

template <class F>
std::wstring failure_of(F&& action)
{
    try {
        action();
    } catch (const nsm::load_exception& e) {
        return e.message() + L" @ " + e.location();
    }
    return L"no failure";
}

// Reads the only member of {"v": <text>} with the given operation.
template <class F>
auto read_member(const std::string& value_text, F&& read)
{
    const std::string document = "{\"v\": " + value_text + "}";
    json_reader reader(document);
    reader.next_entry();
    reader.begin_object();
    reader.next_entry();
    return read(reader);
}

std::wstring decoded(const std::string& value_text)
{
    return read_member(value_text, [](json_reader& r) {
        std::wstring text;
        r.read_wstring(text);
        return text;
    });
}

}  // namespace

TEST(json_reader, leading_bytes_give_kinds)
{
    EXPECT_EQ(element_kind("{}]"), 0x90u);
    EXPECT_EQ(element_kind("[]]"), 0x88u);
    EXPECT_EQ(element_kind("true]"), 0x81u);
    EXPECT_EQ(element_kind("false]"), 0x81u);
    EXPECT_EQ(element_kind("null]"), 0u);
    EXPECT_EQ(element_kind("-1]"), 0x82u);
    EXPECT_EQ(element_kind(".5]"), 0x82u);
    EXPECT_EQ(element_kind("7]"), 0x82u);
    EXPECT_EQ(element_kind("\"0x1F\"]"), 0x82u);
    EXPECT_EQ(element_kind("\"0X1F\"]"), 0x82u);
    EXPECT_EQ(element_kind("\"{00000000-0000-0000-0000-000000000001}\"]"), 0x1ACu);
    EXPECT_EQ(element_kind("\"0\"]"), 0x18Cu);
    EXPECT_EQ(element_kind("\"\"]"), 0x18Cu);
    EXPECT_EQ(element_kind("]"), 0x80000000u);
    EXPECT_EQ(element_kind(""), 0x80000000u);  // end of text
    EXPECT_EQ(element_kind(" , , 1]"), 0x82u);  // separators are skipped, not counted
    for (const char* bad : {"/", "x", "+1", "'a'", "N", "nul", "nul]", "nULL"})
        EXPECT_THAT(failure_of([&] { element_kind(bad); }), HasSubstr(L"bad json format")) << bad;
    json_reader empty("");
    EXPECT_TRUE(empty.next_entry().at_end());
}

TEST(json_reader, member_names_versions_ids_and_colons)
{
    const std::string document = "{\"Promo:2\" : {}, \"x@{00000000-0000-0000-0000-000000000001}\":1,\r\n"
                                 "\t\"y:3@{00000000-0000-0000-0000-000000000002}\"\n:\t{},"
                                 "\"z:\":1, \"w:99\":1, \"v@nonsense\":1, \"a\\\"b\":2}";
    json_reader reader(document);
    EXPECT_EQ(reader.next_entry().flags, 0x90u);
    reader.begin_object();
    nsm::entry_info e = reader.next_entry();
    EXPECT_EQ(e.name, "Promo");
    EXPECT_EQ(e.flags, 0x90u | (2u << 9));
    EXPECT_EQ(reader.begin_object().version, 2u);
    reader.end_object();

    e = reader.next_entry();
    EXPECT_EQ(e.name, "x");
    EXPECT_EQ(e.flags, 0x82u);
    const GUID one{0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 1}};
    EXPECT_EQ(reader.entry_id(), one);
    EXPECT_EQ(reader.read_int64(), 1);

    e = reader.next_entry();
    EXPECT_EQ(e.name, "y");
    const nsm::object_header header = reader.begin_object();
    EXPECT_EQ(header.version, 3u);
    EXPECT_EQ(header.id.Data4[7], 2);
    reader.end_object();

    std::vector<std::string> names;
    std::vector<std::uint32_t> versions;
    for (e = reader.next_entry(); !e.at_end(); e = reader.next_entry()) {
        names.emplace_back(e.name);
        versions.push_back(nsm::version_of(e.flags));
        EXPECT_EQ(reader.entry_id(), GUID{});
        reader.read_int64();
    }
    // Names are views into the text: escapes inside them stay as written.
    EXPECT_THAT(names, ElementsAre("z", "w", "v", "a\\\"b"));
    EXPECT_THAT(versions, ElementsAre(0u, 0u, 0u, 0u));
    reader.end_object();

    for (const char* bad : {"{\"a\" x : 1}", "{\"a\"", "{\"a\":", "{\"a\":  ", "{\"a\" 1}", "{\"a\":}", "{\"a\":,1}",
                            "{\"a", "{\"a\\"})
        EXPECT_THAT(failure_of([&] {
                        json_reader r(bad);
                        r.next_entry();
                        r.begin_object();
                        r.next_entry();
                    }),
                    HasSubstr(L"bad json format"))
            << bad;
}

TEST(json_reader, strings_decode_escapes_and_utf8)
{
    EXPECT_EQ(decoded(R"("plain")"), L"plain");
    EXPECT_EQ(decoded(R"("q\"b\\s\/ \b\f\n\r\t")"), L"q\"b\\s/ \b\f\n\r\t");
    EXPECT_EQ(decoded(R"("\u0041\u00e9\u20AC")"), L"A\u00e9\u20ac");
    EXPECT_EQ(decoded(R"("\ud83d\ude00!")"), L"\U0001F600!");
    EXPECT_EQ(decoded(R"("\ud83d!")"), L"\xFFFD!");        // high surrogate alone
    EXPECT_EQ(decoded(R"("\ude00")"), L"\xFFFD");          // low surrogate alone
    EXPECT_EQ(decoded(R"("\ud83d\u0041")"), L"\xFFFD" L"A");
    EXPECT_EQ(decoded("\"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80\""), L"caf\u00e9 \u20ac \U0001F600");
    EXPECT_EQ(decoded("\"bad \xC3 byte\""), L"bad \xFFFD byte");
    EXPECT_EQ(decoded(R"("")"), L"");
    EXPECT_EQ(decoded(R"("\u0000")"), std::wstring(1, L'\0'));
    for (const char* bad : {R"("\x")", R"("\u12")", R"("\u12G4")", R"("\)", R"("open)", R"("\u")"})
        EXPECT_THAT(failure_of([&] { decoded(bad); }), HasSubstr(L"bad json format")) << bad;

    // A string read as something else.
    EXPECT_EQ(read_member(R"("2024-05-01T10:00:00+0200")", [](json_reader& r) { return r.read_time(); }),
              nsm::time_point(std::chrono::sys_days(std::chrono::year(2024) / 5 / 1) + std::chrono::hours(8)));
    EXPECT_EQ(read_member(R"("2024-05-01T10:00:00")", [](json_reader& r) { return r.read_time(); }),
              nsm::time_point(std::chrono::sys_days(std::chrono::year(2024) / 5 / 1) + std::chrono::hours(10)));
    EXPECT_THAT(failure_of([] { read_member(R"("May 1st")", [](json_reader& r) { return r.read_time(); }); }),
                HasSubstr(L"bad json format"));
    EXPECT_EQ(read_member(R"("{6B29FC40-CA47-1067-B31D-00DD010662DA}")", [](json_reader& r) { return r.read_guid(); }).Data1,
              0x6B29FC40u);
    EXPECT_THAT(failure_of([] { read_member(R"("{6B29FC40}")", [](json_reader& r) { return r.read_guid(); }); }),
                HasSubstr(L"bad json format"));
    EXPECT_EQ(read_member(R"("3q2+7w==")", [](json_reader& r) { return r.binary_size(); }), 4u);
    const auto bytes = read_member(R"("3q2\/7w==")", [](json_reader& r) {
        std::vector<std::uint8_t> out(r.binary_size());
        r.read_binary(out.data(), out.size());
        return out;
    });
    EXPECT_THAT(bytes, ElementsAre(0xDE, 0xAD, 0xBF, 0xEF));
    EXPECT_THAT(failure_of([] { read_member(R"("3q*+")", [](json_reader& r) { return r.binary_size(); }); }),
                HasSubstr(L"bad json format"));
}

TEST(json_reader, numbers_are_read_exactly_or_refused)
{
    const auto u64 = [](const std::string& t) { return read_member(t, [](json_reader& r) { return r.read_uint64(); }); };
    const auto i64 = [](const std::string& t) { return read_member(t, [](json_reader& r) { return r.read_int64(); }); };
    const auto f64 = [](const std::string& t) { return read_member(t, [](json_reader& r) { return r.read_double(); }); };
    EXPECT_EQ(u64("18446744073709551615"), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(i64("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(i64("9223372036854775807"), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(u64("\"0x1F\""), 0x1Fu);
    EXPECT_EQ(u64("\"0XffFFffFFffFFffFF\""), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(i64("\"0x7FFFFFFFFFFFFFFF\""), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(u64("1e3"), 1000u);
    EXPECT_EQ(i64("-2.0"), -2);
    EXPECT_EQ(f64("0.1"), 0.1);
    EXPECT_EQ(f64("-1.5e-3"), -1.5e-3);
    EXPECT_EQ(f64(".5"), 0.5);
    EXPECT_EQ(f64("\"0x10\""), 16.0);
    EXPECT_EQ(read_member("3.25", [](json_reader& r) { return r.read_float(); }), 3.25f);
    for (const char* bad : {"18446744073709551616", "-1", "1.5", "1e20", "\"0x\"", "\"0x1G\"", "\"0x10000000000000000\"",
                            "--1", "1-2"})
        EXPECT_THAT(failure_of([&] { u64(bad); }), HasSubstr(L"bad json format")) << bad;
    for (const char* bad : {"9223372036854775808", "-9223372036854775809", "\"0x8000000000000000\"", "1e19"})
        EXPECT_THAT(failure_of([&] { i64(bad); }), HasSubstr(L"bad json format")) << bad;
    for (const char* bad : {"1e999", "1.2.3", "-"})
        EXPECT_THAT(failure_of([&] { f64(bad); }), HasSubstr(L"bad json format")) << bad;
}

TEST(json_reader, failures_tell_where)
{
    const std::string document = "{\n  \"a\": 1,\n  \"b\": nul\n}";
    EXPECT_EQ(failure_of([&] {
                  json_reader r(document);
                  r.next_entry();
                  r.begin_object();
                  r.next_entry();
                  r.read_int64();
                  r.next_entry();
              }),
              L"bad json format @ line 3, column 8 (byte 19)");

    // Records refuse names they do not know, and values of the wrong kind.
    struct one {
        std::wstring name;
        static constexpr auto nsm_members() { return nsm::members(nsm::member("Name", &one::name)); }
    };
    const auto load = [](std::string text) {
        return failure_of([&] {
            nsm::json archive(text);
            one record;
            nsm::load(archive, record);
        });
    };
    EXPECT_EQ(load(R"({"Name": "x"})"), L"no failure");
    EXPECT_EQ(load(R"({"Name": "x", "Other": 1})"), L"bad json format @ line 1, column 24 (byte 23)");
    EXPECT_EQ(load(R"({"Name": 5})"), L"String expected @ line 1, column 10 (byte 9)");
    EXPECT_EQ(load(R"({"Name": null})"), L"String expected @ line 1, column 14 (byte 13)");
    EXPECT_EQ(load(R"(["Name"])"), L"Object expected @ line 1, column 1 (byte 0)");
    EXPECT_EQ(load(R"({"Name": "x")"), L"bad json format @ line 1, column 13 (byte 12)");
    EXPECT_EQ(load(R"({"Name": "x"])"), L"bad json format @ line 1, column 13 (byte 12)");
    // A newer record is skipped whole, nested values and all.
    EXPECT_EQ(load(R"({"Name": "x"}   )"), L"no failure");
    {
        nsm::json archive(R"({"Inner:1": {"Name": "x", "More": [1, {"a": [true]}, "s"]}})");
        struct outer {
            one inner;
            static constexpr auto nsm_members() { return nsm::members(nsm::member("Inner", &outer::inner)); }
        } record;
        nsm::load(archive, record);
        EXPECT_EQ(record.inner.name, L"");
    }
}

TEST(json_writer, fixed_forms_escaping_and_layout)
{
    std::string out;
    {
        nsm::details::json_writer writer(out);
        writer.begin_object({}, 0x90, 8, 0);
        writer.write_bool("t", 0x81, true);
        writer.write_bool("f", 0x81, false);
        writer.write_null("n", 0);
        writer.write_int64("i", 0x82, -42);
        writer.write_uint64("u", 0x82, 18446744073709551615ull);
        writer.write_double("d", 0x82, 0.1);
        writer.write_double("inf", 0x82, INFINITY);
        writer.write_wstring("s", 0x84, std::wstring(L"\"\\/\b\f\n\r\t\x01\x1F\x7F\u00e9\U0001F600", 14));
        const std::uint8_t bytes[] = {0xDE, 0xAD, 0xBE, 0xEF, 0x00};
        writer.write_binary("b", 0x88, bytes, sizeof bytes);
        writer.write_time("when", 0x180, nsm::time_point(nsm::ticks(0)));
        writer.begin_array("empty", 0x88, 0);
        writer.end_array();
        const GUID id{0x6B29FC40, 0xCA47, 0x1067, {0xB3, 0x1D, 0x00, 0xDD, 0x01, 0x06, 0x62, 0xDA}};
        writer.set_object_id(id);
        writer.begin_object("obj", nsm::with_version(0x90, 1), 0, 0);
        writer.end_object();
        writer.begin_array("list", 0x88, 2);
        writer.write_int64({}, 0x82, 1);
        writer.begin_object({}, 0x90, 0, 2);
        writer.end_object();
        writer.end_array();
        writer.end_object();
    }
    const std::size_t when = out.find("\"when\": \"");
    ASSERT_NE(when, std::string::npos);
    const std::string time_text = out.substr(when + 9, 24);
    EXPECT_THAT(time_text, ::testing::MatchesRegex("19\\d\\d-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d.\\d\\d\\d\\d"));
    EXPECT_EQ(out, "{\n"
                   "  \"t\": true,\n"
                   "  \"f\": false,\n"
                   "  \"n\": null,\n"
                   "  \"i\": -42,\n"
                   "  \"u\": 18446744073709551615,\n"
                   "  \"d\": 0.1,\n"
                   "  \"inf\": null,\n"
                   "  \"s\": \"\\\"\\\\/\\b\\f\\n\\r\\t\\u0001\\u001F\\u007F\xC3\xA9\xF0\x9F\x98\x80\",\n"
                   "  \"b\": \"3q2+7wA=\",\n"
                   "  \"when\": \"" + time_text + "\",\n"
                   "  \"empty\": [],\n"
                   "  \"obj:1@{6B29FC40-CA47-1067-B31D-00DD010662DA}\": {},\n"
                   "  \"list\": [\n"
                   "    1,\n"
                   "    {}\n"
                   "  ]\n"
                   "}\n");

    // What the writer escapes, the reader restores.
    json_reader reader(out);
    reader.next_entry();
    reader.begin_object();
    for (nsm::entry_info e = reader.next_entry(); !e.at_end(); e = reader.next_entry()) {
        if (e.name == "s") {
            std::wstring text;
            reader.read_wstring(text);
            EXPECT_EQ(text, std::wstring(L"\"\\/\b\f\n\r\t\x01\x1F\x7F\u00e9\U0001F600", 14));
        } else if (e.name == "when") {
            EXPECT_EQ(reader.read_time(), nsm::time_point(nsm::ticks(0)));
        } else if (e.name == "b") {
            std::uint8_t bytes[5];
            ASSERT_EQ(reader.binary_size(), 5u);
            reader.read_binary(bytes, 5);
            EXPECT_EQ(bytes[3], 0xEF);
        } else {
            reader.skip_value(e);
        }
    }
    reader.end_object();
}

TEST(json_archive, update_document_round_trips)
{
    const nsm_test::update_response original = nsm_test::sample_update_response();
    nsm::json writing;
    nsm::save(writing, original);
    nsm::json reading(writing.written());
    nsm_test::update_response loaded;
    nsm::load(reading, loaded);
    EXPECT_EQ(loaded, original);

    // Compact text in another member order loads as well.
    const std::string reordered = R"({"LanguagePacks":[{"Url":"u","Credits":[{"EMail":"e","Name":"n"}],"Name":"N",)"
                                  R"("Version":3,"Locale":"xx","ClientVersion":"0x10"}],"Url":"U","Version":1e9,)"
                                  R"("Promo":{"ExpiresOn":"2024-05-31","Url":"p","Title":"t"}})";
    nsm::json other(reordered);
    nsm_test::update_response small;
    nsm::load(other, small);
    EXPECT_EQ(small.version, 1000000000u);
    ASSERT_EQ(small.language_packs.size(), 1u);
    EXPECT_EQ(small.language_packs[0].client_version, 16u);
    EXPECT_EQ(small.language_packs[0].credits[0].email, L"e");
    EXPECT_EQ(small.promo.expires_on, nsm::date(nsm::days(19874)));
}

// The reader settles the usual layouts with blocks that read ahead of the value and leaves
// the last bytes of the text to its general path. Every value is read at every distance
// from the end (the padding after the root), so both paths and the boundary between them
// must give the same entries and values; one string is reused throughout, so it both grows
// and shrinks between reads.
TEST(json_reader, read_ahead_and_general_paths_agree)
{
    struct string_case {
        std::string json;
        std::wstring expected;
    };
    std::vector<string_case> strings;
    for (std::size_t n = 0; n <= 70; ++n) {
        std::string body;
        for (std::size_t i = 0; i < n; ++i)
            body.push_back(static_cast<char>('!' + (i * 7 + n) % 90));
        for (char& c : body)
            if (c == '"' || c == '\\')
                c = '#';
        strings.push_back({body, std::wstring(body.begin(), body.end())});
    }
    for (const std::size_t at : {0u, 5u, 15u, 16u, 17u, 30u, 31u, 32u, 33u, 40u, 62u, 63u, 64u}) {
        const std::string before(at, 'b');
        const std::wstring wide_before(at, L'b');
        strings.push_back({before + "\\n" + "tail", wide_before + L"\ntail"});
        strings.push_back({before + "\\\"", wide_before + L"\""});
        strings.push_back({before + "\xC3\xA9" + "tail", wide_before + L"\u00e9tail"});
        strings.push_back({before + "\xC3" + "x", wide_before + L"\xFFFD" L"x"});  // a lead byte alone
    }
    struct name_case {
        std::string json;
        std::string_view name;
        std::uint32_t version;
        unsigned long id;
    };
    const name_case names[] = {
        {"v", "v", 0, 0},
        {"fifteen_bytes_x", "fifteen_bytes_x", 0, 0},
        {"sixteen_bytes_xy", "sixteen_bytes_xy", 0, 0},
        {"Url:2", "Url", 2, 0},
        {"Id@{6B29FC40-CA47-1067-B31D-00DD010662DA}", "Id", 0, 0x6B29FC40},
    };
    const char* const layouts[][2] = {{"{\"", "\":"}, {"{\"", "\": "}, {"{\n  \"", "\" : "}, {"{\"", "\":\n\t"}};
    const std::size_t paddings[] = {0, 1, 2, 16, 31, 32, 33, 34, 63, 64, 65, 66, 100};

    std::wstring text;  // reused on purpose
    for (const auto& [prefix, separator] : layouts) {
        for (const name_case& name : names) {
            for (const string_case& value : strings) {
                for (const std::size_t padding : paddings) {
                    const std::string document = prefix + name.json + separator + "\"" + value.json + "\",\"n\":" +
                                                 std::to_string(value.json.size()) + ",\"a\":[\"x\",7]}" +
                                                 std::string(padding, ' ');
                    SCOPED_TRACE(document);
                    json_reader reader(document);
                    ASSERT_TRUE(reader.next_entry().flags & nsm::kind::object);
                    reader.begin_object();
                    const nsm::entry_info entry = reader.next_entry();
                    EXPECT_EQ(entry.name, name.name);
                    EXPECT_EQ(nsm::version_of(entry.flags), name.version);
                    EXPECT_EQ(reader.entry_id().Data1, name.id);
                    EXPECT_TRUE(entry.flags & nsm::kind::string);
                    reader.read_wstring(text);
                    EXPECT_EQ(text, value.expected);
                    EXPECT_EQ(reader.next_entry().name, "n");
                    EXPECT_EQ(reader.read_uint64(), value.json.size());
                    const nsm::entry_info array = reader.next_entry();
                    EXPECT_EQ(array.name, "a");
                    EXPECT_TRUE(array.flags & nsm::kind::sequence);
                    reader.begin_array();
                    EXPECT_TRUE(reader.next_entry().flags & nsm::kind::string);
                    reader.read_wstring(text);
                    EXPECT_EQ(text, L"x");
                    EXPECT_TRUE(reader.next_entry().flags & nsm::kind::number);
                    EXPECT_EQ(reader.read_uint64(), 7u);
                    EXPECT_TRUE(reader.next_entry().at_end());
                    reader.end_array();
                    EXPECT_TRUE(reader.next_entry().at_end());
                    reader.end_object();
                    EXPECT_TRUE(reader.next_entry().at_end());
                    EXPECT_EQ(reader.offset(), document.size());
                }
            }
        }
    }

    // Numbers and malformed members at both sides of the boundary.
    for (const std::size_t padding : paddings) {
        const std::string pad(padding, ' ');
        const auto u64 = [&](const std::string& t) {
            return read_member(t + pad, [](json_reader& r) { return r.read_uint64(); });
        };
        EXPECT_EQ(u64("0"), 0u);
        EXPECT_EQ(u64("1234567890123456789"), 1234567890123456789u);
        EXPECT_EQ(u64("18446744073709551615"), std::numeric_limits<std::uint64_t>::max());
        EXPECT_EQ(u64("1e3"), 1000u);
        EXPECT_EQ(u64("\"0x1F\""), 0x1Fu);
        for (const char* bad : {"18446744073709551616", "12-3", "1.5"})
            EXPECT_THAT(failure_of([&] { u64(bad); }), HasSubstr(L"bad json format")) << bad << padding;
        for (const char* bad : {"{\"a\":}", "{\"a\" 1}", "{\"a\":,\"b\":1}", "[1}", "{\"a\":1]", "{\"a\":[1}}"}) {
            EXPECT_THAT(failure_of([&] {
                            const std::string document = bad + pad;
                            json_reader reader(document);
                            test_support::walk_value(reader, reader.next_entry(), 0);
                        }),
                        HasSubstr(L"bad json format"))
                << bad << padding;
        }
    }
}

// Whitespace runs of every length, of every make-up, ending at every distance from the end
// of the text; the text ends at a no-access page, so a read past it would crash the test.
TEST(json_reader, whitespace_runs_are_skipped_up_to_the_end_of_the_text)
{
    test_support::guarded_buffer guarded;
    ASSERT_TRUE(guarded.guarded());

    // A line break and spaces (the writer's layout), spaces alone, and runs that a block of
    // spaces does not settle: a tab or a second line break after the spaces, CR LF.
    const auto run = [](std::size_t length, int make_up) {
        std::string text(length, ' ');
        if (make_up == 0 && length > 0)
            text[0] = '\n';
        if (make_up == 2 && length > 0)
            text[length - 1] = '\t';
        if (make_up == 3 && length > 1)
            text[0] = '\r', text[1] = '\n';
        if (make_up == 4 && length > 0)
            text[0] = '\n', text[length / 2] = '\n';
        return text;
    };
    std::wstring text;
    for (int make_up = 0; make_up < 5; ++make_up) {
        for (std::size_t length = 0; length <= 40; ++length) {
            const std::string w = run(length, make_up);
            for (std::size_t tail = 0; tail <= 40; ++tail) {
                const std::string document = "{" + w + "\"a\"" + w + ":" + w + "[" + w + "1" + w + "," + w + "{" + w +
                                             "}" + w + "," + w + "[" + w + "]" + w + "]" + w + "," + w + "\"b\":" + w +
                                             "\"" + std::string(tail, 'x') + "\"" + w + "," + w + "\"c\": null" + w +
                                             "}" + w;
                SCOPED_TRACE(document);
                json_reader reader(guarded.place(document));
                ASSERT_TRUE(reader.next_entry().flags & nsm::kind::object);
                reader.begin_object();
                nsm::entry_info entry = reader.next_entry();
                EXPECT_EQ(entry.name, "a");
                reader.begin_array();
                EXPECT_TRUE(reader.next_entry().flags & nsm::kind::number);
                EXPECT_EQ(reader.read_uint64(), 1u);
                EXPECT_TRUE(reader.next_entry().flags & nsm::kind::object);
                reader.begin_object();
                EXPECT_TRUE(reader.next_entry().at_end());
                reader.end_object();
                EXPECT_TRUE(reader.next_entry().flags & nsm::kind::sequence);
                reader.begin_array();
                EXPECT_TRUE(reader.next_entry().at_end());
                reader.end_array();
                EXPECT_TRUE(reader.next_entry().at_end());
                reader.end_array();
                entry = reader.next_entry();
                EXPECT_EQ(entry.name, "b");
                reader.read_wstring(text);
                EXPECT_EQ(text, std::wstring(tail, L'x'));
                entry = reader.next_entry();
                EXPECT_EQ(entry.name, "c");
                EXPECT_FALSE(entry.flags & nsm::kind::present);
                EXPECT_TRUE(reader.next_entry().at_end());
                reader.end_object();
                EXPECT_TRUE(reader.next_entry().at_end());
                EXPECT_EQ(reader.offset(), document.size());
            }
        }
    }
}
