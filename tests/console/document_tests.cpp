// Configuration documents and selectors in this process: what is read, what is refused
// and where, and which devices a match names.

#include "console/configuration.h"
#include "console/device_match.h"

#include "console_process.h"

#include <gtest/gtest.h>

using namespace servercfg;
using namespace servercfg::console;

TEST(configuration_document, every_member_is_read_and_what_export_writes_reads_back_the_same)
{
    const auto document = parse_configuration(R"({
      "version": 1,
      "server": {"endpoints": "0.0.0.0:1, [::]:1", "port": 65535, "advertisement": false, "statistics": true},
      "shares": [
        {"match": {"vid_pid": "VID_0781&PID_5567", "serial": "4C53"}, "key": "0x1F \"q\" \u00e4"},
        {"match": {"instance_id": "USB\\VID_1&PID_2\\3", "name": "Lab *", "class": "Image"}, "key_file": "k.txt"},
        {"match": {"name": "x"}, "key": ""}
      ]})");
    ASSERT_EQ(document.shares.size(), 3u);
    EXPECT_EQ(document.server.port, 65535);
    EXPECT_EQ(document.server.advertisement, false);
    EXPECT_EQ(document.shares[0].match.vid_pid, (usb_vid_pid{0x0781, 0x5567}));
    // Quoted hexadecimal is a number to the archive, but a key here.
    EXPECT_EQ(document.shares[0].key, L"0x1F \"q\" \u00e4");
    EXPECT_EQ(document.shares[1].match.instance_id, L"USB\\VID_1&PID_2\\3");
    EXPECT_EQ(document.shares[1].key_file, L"k.txt");
    EXPECT_EQ(document.shares[1].key, std::nullopt);
    EXPECT_EQ(document.shares[2].key, L"");
    EXPECT_EQ(parse_configuration(write_configuration(document)), document);

    // Key files are read relative to the document, the first line without its break.
    const std::wstring folder = console_test::temp_path(L"");
    console_test::write_file(folder + L"k.txt", "\xEF\xBB\xBFline one\r\nline two");
    auto with_keys = document;
    load_key_files(with_keys, folder);
    EXPECT_EQ(with_keys.shares[1].key, L"line one");
    ::DeleteFileW((folder + L"k.txt").c_str());
}

TEST(configuration_document, a_refusal_names_the_problem_and_its_place)
{
    const struct {
        const char* text;
        document_problem problem;
        const char* path;
        std::size_t line, column;
    } cases[] = {
        {R"({"version": 1, "shares": [{"match": {"name": "x"}, "colour": 1}]})", document_problem::unknown_member,
         "shares[0].colour", 1, 52},
        {"{\"version\": 1,\n\"version\": 1}", document_problem::repeated_member, "version", 2, 1},
        {R"({"version": 1, "shares": [{"key": "k"}]})", document_problem::missing_member, "shares[0]", 1, 27},
        {R"({"shares": []})", document_problem::missing_member, "", 1, 1},
        {R"({"version": 1, "shares": [{"match": {}}]})", document_problem::empty_match, "shares[0].match", 1, 37},
        {R"({"version": 1, "shares": [{"match": {"vid_pid": "0781"}}]})", document_problem::bad_vid_pid,
         "shares[0].match.vid_pid", 1, 49},
        {R"({"version": 1, "server": {"port": 0}})", document_problem::bad_port, "server.port", 1, 35},
        {R"({"version": 1, "shares": [{"match": {"name": "x"}, "key": "a", "key_file": "b"}]})",
         document_problem::key_and_key_file, "shares[0].key_file", 1, 76},
        {R"({"version": 1} {})", document_problem::trailing_text, "", 1, 16},
        {R"({"version:1": 1})", document_problem::unknown_member, "version", 1, 2},
        {R"({"version": 1, "shares": {}})", document_problem::archive, "shares", 1, 26},
        {R"({"version": 1, "server": {"statistics": "yes"}})", document_problem::archive, "server.statistics", 1, 41},
        {R"({"version": 1, "shares": [{"match": {"name": 5}}]})", document_problem::archive, "shares[0].match.name", 1, 46},
        {R"({"version": 1, "shares": [)", document_problem::archive, "shares", 1, 27},
        {R"({"version": 1)", document_problem::archive, "", 1, 14},
        {"", document_problem::archive, "", 1, 1},
    };
    for (const auto& c : cases) {
        try {
            (void)parse_configuration(c.text);
            ADD_FAILURE() << "accepted: " << c.text;
        } catch (const document_error& e) {
            EXPECT_EQ(e.problem(), c.problem) << c.text;
            EXPECT_EQ(e.path(), c.path) << c.text;
            EXPECT_EQ(e.line(), c.line) << c.text;
            EXPECT_EQ(e.column(), c.column) << c.text;
        }
    }
    EXPECT_THROW((void)parse_configuration(std::string(max_document_size + 1, ' ')), document_error);
}

TEST(device_selection, selectors_and_rules_name_devices_by_their_facts)
{
    device_facts cam{L"Z\u00fcrich Kamera", {}};
    cam.identity = identity_from_node_facts(L"USB\\VID_1D6B&PID_0102\\CAM0001", L"Image", {});
    const auto selector = [&](const wchar_t* text) {
        const auto parsed = parse_selector(text);
        return parsed && (matches(parsed->match, cam) ||
                          (parsed->kind == selector_kind::bare_word && matches(parsed->name_match, cam)));
    };
    for (const auto* yes : {L"id:usb\\vid_1d6b&pid_0102\\cam0001", L"vidpid:1D6B:102", L"serial:cam0001",
                            L"name:Z\u00dcRICH*", L"name:*?amera", L"class:IMAGE", L"z\u00fcrich kamera",
                            L"USB\\VID_1D6B&PID_0102\\CAM0001"})
        EXPECT_TRUE(selector(yes)) << tessel::utf16_to_utf8(yes);
    for (const auto* no : {L"id:USB\\VID_1D6B&PID_0102", L"vidpid:1D6B:0103", L"serial:CAM", L"name:Kamera",
                           L"name:Z?rich", L"class:Camera", L"name:", L"vidpid:1D6B", L""})
        EXPECT_FALSE(selector(no)) << tessel::utf16_to_utf8(no);

    // A rule names every fact it gives; a device without the fact never matches it.
    device_match rule;
    rule.vid_pid = usb_vid_pid{0x1D6B, 0x0102};
    rule.serial = L"cam0001";
    EXPECT_TRUE(matches(rule, cam));
    rule.name = L"Other*";
    EXPECT_FALSE(matches(rule, cam));
    device_match by_serial;
    by_serial.serial = L"";
    EXPECT_FALSE(matches(by_serial, device_facts{L"x", {}}));

    EXPECT_TRUE(wildcard_match(L"a*b*c", L"aXbYbZc"));
    EXPECT_FALSE(wildcard_match(L"a*b*c", L"aXbYbZ"));
    EXPECT_TRUE(wildcard_match(L"***", L""));
    EXPECT_FALSE(wildcard_match(L"?", L""));
    EXPECT_EQ(key_from_text("\xEF\xBB\xBFk\xC3\xA9y\r\nnext"), L"k\u00e9y");
}
