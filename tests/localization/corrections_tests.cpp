#include "localization/language_pack.h"

#include "test_support.h"

#include <gtest/gtest.h>

using namespace tessel;
using test_support::table_builder;
using test_support::temp_folder;

namespace {

std::shared_ptr<LanguagePack> english_pack(const std::vector<std::byte>& image)
{
    return std::make_shared<LanguagePack>(std::span<const std::byte>(image), nullptr, std::nullopt, L"common");
}

std::tm sample_time()
{
    std::tm time{};
    time.tm_year = 2025 - 1900;
    time.tm_mon = 0;
    time.tm_mday = 2;
    time.tm_hour = 3;
    time.tm_min = 4;
    time.tm_sec = 5;
    return time;
}

}  // namespace

TEST(corrections, escaping_and_document_layout)
{
    EXPECT_EQ(escape_correction(L"a\"b&c\r\n\t<x>'"), L"a&quot;b&amp;c\\r\\n\\t<x>'");
    // Text that already looks escaped is escaped again: the "&" once, the rest copied.
    EXPECT_EQ(escape_correction(L"&quot;"), L"&amp;quot;");
    EXPECT_EQ(escape_correction(L""), L"");

    const auto image = table_builder().text(L"Line", L"Line").image(true);
    auto pack = english_pack(image);
    pack->record_correction(L"Say \"hi\"", L"First line\nsecond\tline & \u00E4");
    EXPECT_EQ(pack->corrections_document(),
              "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
              "<Corrections>\r\n"
              "  <Module name=\"common\">\r\n"
              "    <String id=\"Say &quot;hi&quot;\" value=\"First line\\nsecond\\tline &amp; \xC3\xA4\"/>\r\n"
              "</Module>\r\n"
              "</Corrections>\r\n");

    EXPECT_EQ(LanguagePack::corrections_file_name(L"x", sample_time()), L"x.20250102-030405.xml");
}

TEST(corrections, recording_mode_controls_lookup_and_export)
{
    const auto image = table_builder().text(L"Close", L"Close").image(true);
    auto parent = english_pack(image);
    temp_folder folder;
    const std::wstring base = folder / L"corrections";
    const std::wstring file = LanguagePack::corrections_file_name(base, sample_time());

    // Off (as the program runs): corrections are ignored and nothing is exported.
    parent->record_correction(L"Close", L"Shut");
    EXPECT_EQ(parent->text_by_key(L"Close"), L"Close");
    EXPECT_EQ(parent->export_corrections(base, sample_time()), -1);
    EXPECT_EQ(GetFileAttributesW(file.c_str()), INVALID_FILE_ATTRIBUTES);

    // On: a correction wins over the table, a miss falls back to it.
    parent->set_recording(true);
    EXPECT_EQ(parent->text_by_key(L"Close"), L"Shut");
    EXPECT_THROW((void)parent->text_by_key(L"Open"), no_string_exception);
    parent->record_correction(L"Open", L"Opened");
    EXPECT_EQ(parent->text_by_key(L"Open"), L"Opened");
    EXPECT_EQ(parent->correction_count(), 2u);

    // A pack built on a parent copies its flag, not its corrections.
    LanguagePack child(std::span<const std::byte>(image), parent, std::nullopt, L"ServerCfg.exe");
    EXPECT_TRUE(child.recording());
    EXPECT_EQ(child.correction_count(), 0u);

    ASSERT_EQ(parent->export_corrections(base, sample_time()), 0);
    const std::string first = test_support::read_text_file(file);
    EXPECT_NE(first.find("<String id=\"Close\" value=\"Shut\"/>\r\n"), std::string::npos);
    EXPECT_NE(first.find("<String id=\"Open\" value=\"Opened\"/>\r\n"), std::string::npos);

    // A second export in the same second overwrites the first.
    parent->record_correction(L"Close", L"Done");
    ASSERT_EQ(parent->export_corrections(base, sample_time()), 0);
    const std::string second = test_support::read_text_file(file);
    EXPECT_NE(second.find("value=\"Done\""), std::string::npos);
    EXPECT_EQ(second.find("value=\"Shut\""), std::string::npos);

    // A file that cannot be created is a failure.
    EXPECT_EQ(parent->export_corrections(folder / L"no such folder\\x", sample_time()), -1);

    // With the current time the name has the same shape.
    ASSERT_EQ(parent->export_corrections(base), 0);
    WIN32_FIND_DATAW found{};
    HANDLE search = FindFirstFileW((base + L"." + std::wstring(8, L'?') + L"-" + std::wstring(6, L'?') + L".xml").c_str(), &found);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    FindClose(search);
}
