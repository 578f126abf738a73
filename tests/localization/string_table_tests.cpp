#include "localization/language_pack.h"
#include "localization/localization.h"
#include "localization/pack_file.h"
#include "localization/string_id.h"
#include "localization/string_table.h"

#include "test_support.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace tessel;
using test_support::make_pack;
using test_support::table_builder;

namespace {

std::span<const std::byte> bytes(const std::vector<std::byte>& data)
{
    return data;
}

}  // namespace

TEST(string_id, matches_known_ids_and_hashing_rules)
{
    EXPECT_EQ(string_id(L"Hide disconnected"), 0x19E65AA4u);
    EXPECT_EQ(string_id(L"UI language"), 0xECBCB717u);
    EXPECT_EQ(string_id(L"OK"), 0x663437AFu);
    EXPECT_EQ(module_hash(L"common"), 0x4D5B0474u);

    // Case folding of A-Z only, for ids and module names alike.
    EXPECT_EQ(string_id(L"ok"), string_id(L"OK"));
    EXPECT_EQ(module_hash(L"Common"), module_hash(L"common"));
    EXPECT_NE(string_id(L"\u00C9"), string_id(L"\u00E9"));  // no folding beyond ASCII

    // Module names lose everything up to the last backslash; string keys do not.
    EXPECT_EQ(module_hash(L"x\\y\\common"), 0x4D5B0474u);
    EXPECT_EQ(module_hash(L"\\common"), 0x4D5B0474u);
    EXPECT_NE(string_id(L"x\\common"), string_id(L"common"));

    // Units above U+00FF hash by their low byte alone, and the folding looks at the whole
    // unit: U+0141 is not "A".
    EXPECT_EQ(string_id(L"\u0161"), string_id(L"a"));
    EXPECT_EQ(string_id(L"\u0141"), string_id(L"\u0241"));
    EXPECT_NE(string_id(L"\u0141"), string_id(L"A"));
    EXPECT_NE(string_id(L"\u0141"), string_id(L"a"));
    EXPECT_EQ(string_id(L"\u20AC"), string_id(L"\u00AC"));

    // Bytes 0x80-0xFF are sign-extended: computed by hand for one unit.
    const std::uint32_t by_hand = (0x811C9DC5u ^ 0xFFFFFFE9u) * 0x01000193u;
    EXPECT_EQ(string_id(L"\u00E9"), by_hand);
    EXPECT_EQ(string_id(L""), 0x811C9DC5u);
}

TEST(string_table, built_in_tables_hold_every_program_text)
{
    LanguagePack common(nullptr, common_strings_resource, nullptr, std::nullopt, L"common");
    ASSERT_TRUE(common.loaded());
    auto common_ptr = std::make_shared<LanguagePack>(nullptr, common_strings_resource, nullptr, std::nullopt, L"common");
    LanguagePack program(nullptr, program_strings_resource, common_ptr, std::nullopt, L"ServerCfg.exe");
    ASSERT_TRUE(program.loaded());

    EXPECT_EQ(common.head()->language_code(), "ENU");
    EXPECT_EQ(common.text(0xECBCB717u), L"UI language");
    EXPECT_THROW((void)common.text(string_id(L"Hide disconnected")), no_string_exception);

    // The program chain also finds every common text.
    EXPECT_EQ(program.text(0x19E65AA4u), L"Hide disconnected");
    EXPECT_EQ(program.text_by_key(L"Cancel"), L"Cancel");
    // Generated ids name the same entries as hashed keys.
    EXPECT_NE(program.text(string_ids::startup_error_connecting).find(L"{1ub016x}"), std::wstring_view::npos);
    EXPECT_EQ(program.item(string_ids::main_columns, 4), L"Authentication key");
    EXPECT_THROW((void)program.item(string_ids::main_columns, 5), no_string_exception);
}

TEST(string_table, tool_built_tables_and_pack_round_trip)
{
    const std::wstring data = test_support::test_data_folder();
    const auto common_image = test_support::read_file(data + L"\\139.strtbl");
    const auto program_image = test_support::read_file(data + L"\\138.strtbl");
    const auto pack = test_support::read_file(data + L"\\packs\\rt.Roundtrip.102030004.lpack");
    ASSERT_TRUE(is_well_formed_pack(pack));

    const auto pack_common = find_module(pack, L"common");
    const auto pack_program = find_module(pack, L"C:\\Program Files\\ServerCfg.exe");
    ASSERT_TRUE(pack_common && pack_program);
    EXPECT_FALSE(find_module(pack, L"other.exe"));

    auto common = std::make_shared<LanguagePack>(bytes(common_image), nullptr, pack_common, L"common");
    LanguagePack program(bytes(program_image), common, pack_program, L"ServerCfg.exe");
    ASSERT_TRUE(common->loaded() && program.loaded());
    EXPECT_EQ(common->head()->language_code(), "RTT");
    EXPECT_EQ(common->head()->locale_name(), "rt-RT");

    EXPECT_EQ(program.text_by_key(L"OK"), L"Okay");
    EXPECT_EQ(program.text_by_key(L"Cancel"), L"Cancel");  // not translated: English
    // Translated against revision 0 of a text now at revision 1: English is shown.
    EXPECT_EQ(program.text_by_key(L"Collapse all"), L"Collapse all");
    // The tool hashes keys with characters beyond ASCII exactly as the program does.
    EXPECT_EQ(program.text_by_key(L"Caf\u00E9 \u0141"), L"K\u00E4ff\u00E9e");
    EXPECT_EQ(program.text(string_id(L"greeting")), L"{2?<}Messages{2?|}Message{2?>} for {0}: {1}");
    // A text without a revision of its own takes the English one (2 here).
    EXPECT_EQ(program.text(string_id(L"status")), L"{0} bereit");
    EXPECT_EQ(program.find(string_id(L"status")).revision, 2u);

    // A partly translated list overrides only its own items; the rest stay English.
    const std::uint32_t columns = string_id(L"columns");
    EXPECT_EQ(program.item(columns, 0), L"Ger\u00E4t");
    EXPECT_EQ(program.item(columns, 1), L"Manufacturer");
    EXPECT_EQ(program.item(columns, 3), L"Klient");
    EXPECT_EQ(program.item(columns, 4), L"Authentication key");
    EXPECT_THROW((void)program.item(columns, 5), no_string_exception);
}

TEST(string_table, lists_duplicates_revisions_and_empty_tables)
{
    const auto english = table_builder()
                             .text(L"Shown", L"Shown", 1)
                             .text(L"Same", L"Same", 3)
                             .list(7, {{2, L"two"}, {0, L"zero"}})
                             .text(L"Dup", L"first")
                             .text(L"Dup", L"second")
                             .image(true);
    const auto builtin = string_table::load(english, true, nullptr);
    ASSERT_TRUE(builtin->loaded());
    EXPECT_EQ(builtin->size(), 4u);

    // Items 2, 0 make three slots with slot 1 empty.
    const string_entry* list = builtin->find(7);
    ASSERT_TRUE(list && list->is_list);
    ASSERT_EQ(list->items.size(), 3u);
    EXPECT_EQ(list->items[0], L"zero");
    EXPECT_FALSE(list->has_item(1));
    EXPECT_EQ(list->items[2], L"two");
    // Two entries with one id: the first stays.
    EXPECT_EQ(builtin->find(string_id(L"Dup"))->text, L"first");

    const auto translation = table_builder()
                                 .language("XYZ", "xy")
                                 .text(L"Shown", L"stale", 0)      // English has revision 1
                                 .text(L"Same", L"current", 3)
                                 .text(L"Extra", L"only here")     // absent in English: kept
                                 .image(false);
    const auto top = string_table::load(translation, false, builtin);
    ASSERT_TRUE(top->loaded());
    EXPECT_EQ(top->find_in_chain(string_id(L"Shown"))->text, L"Shown");
    EXPECT_EQ(top->find_in_chain(string_id(L"Same"))->text, L"current");
    EXPECT_EQ(top->find_in_chain(string_id(L"Extra"))->text, L"only here");
    EXPECT_EQ(top->find_in_chain(7), list);
    EXPECT_EQ(top->find_in_chain(12345), nullptr);

    // An image from a resource must carry the signature; a pack module has none.
    auto bad_signature = english;
    bad_signature[15] = std::byte{0};
    const auto rejected = string_table::load(bad_signature, true, nullptr);
    EXPECT_FALSE(rejected->loaded());
    EXPECT_EQ(rejected->size(), 0u);
    EXPECT_FALSE(string_table::load(english, false, nullptr)->loaded());

    // Entry count 0 ends reading at once, whatever follows.
    auto empty = table_builder().image(true);
    empty.push_back(std::byte{0xAB});
    const auto empty_table = string_table::load(empty, true, nullptr);
    EXPECT_TRUE(empty_table->loaded());
    EXPECT_EQ(empty_table->size(), 0u);
    EXPECT_EQ(empty_table->find(0), nullptr);

    // A LanguagePack without its resource is not loaded but still looks through its parent.
    auto parent = std::make_shared<LanguagePack>(bytes(english), nullptr, std::nullopt, L"common");
    LanguagePack missing(nullptr, 4711, parent, std::nullopt, L"x");
    EXPECT_FALSE(missing.loaded());
    EXPECT_EQ(missing.text_by_key(L"Shown"), L"Shown");
}

// Packs made by other tools: nothing in the layout aligns texts or modules, lists may be
// sparse and long, and the product title must stay what single-instance detection seeks.
TEST(string_table, packs_from_other_tools_read_correctly)
{
    const auto english = table_builder()
                             .text(product_title_id, L"QMX Software Ulmora Tools Server")
                             .text(L"OK", L"OK")
                             .list(9, {{0, L"Device"}, {1, L"Manufacturer"}, {2, L"Shared"}})
                             .image(true);
    // "de-DE" with two reserved bytes puts every text at an odd offset of the image.
    const std::wstring padding(3000, L'p');
    const auto module = table_builder()
                            .language("DEU", "de-DE")
                            .reserved(2)
                            .text(L"OK", L"Gut")
                            .text(product_title_id, L"\u00DCbersetzter Titel")
                            .list(9, {{2, L"Geteilt"}})
                            .list(10, {{749, L"far"}, {0, L"near"}})
                            .text(L"padding", padding)
                            .image(false);
    const auto common_module = table_builder().language("DEU", "de").text(L"Yes", L"Ja").image(false);
    // Back to back: the second module starts at an odd offset of the file as well.
    const auto pack = make_pack({{L"common", common_module}, {L"ServerCfg.exe", module}}, true, false);
    ASSERT_TRUE(is_well_formed_pack(pack));
    const auto found = find_module(pack, L"ServerCfg.exe");
    ASSERT_TRUE(found);

    auto base = std::make_shared<LanguagePack>(bytes(english), nullptr, find_module(pack, L"common"), L"common");
    LanguagePack german(bytes(english), base, found, L"ServerCfg.exe");
    ASSERT_TRUE(german.head()->loaded());
    EXPECT_EQ(german.head()->locale_name(), "de-DE");
    EXPECT_EQ(german.text_by_key(L"OK"), L"Gut");
    EXPECT_EQ(german.text_by_key(L"Yes"), L"Ja");
    EXPECT_EQ(german.text_by_key(L"padding"), padding);
    for (const std::wstring_view text : {german.text(string_id(L"OK")), german.text(string_id(L"Yes"))})
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(text.data()) % alignof(wchar_t), 0u);

    // Texts that are aligned stay where they lie; only the others are copied. Shifting the
    // module by one byte moves its texts from one case to the other.
    int in_place = 0;
    for (const std::size_t shift : {0, 1}) {
        std::vector<std::byte> buffer(shift);
        buffer.insert(buffer.end(), found->begin(), found->end());
        buffer.push_back(std::byte{0});
        const auto table = string_table::load(std::span(buffer).subspan(shift, found->size()), false, nullptr);
        ASSERT_TRUE(table->loaded());
        const std::wstring_view ok = table->find(string_id(L"OK"))->text;
        EXPECT_EQ(ok, L"Gut");
        const auto* at = reinterpret_cast<const std::byte*>(ok.data());
        in_place += at >= buffer.data() && at < buffer.data() + buffer.size();
    }
    EXPECT_EQ(in_place, 1);

    // A list shorter than the built-in one: the missing items come from English.
    EXPECT_EQ(german.item(9, 0), L"Device");
    EXPECT_EQ(german.item(9, 1), L"Manufacturer");
    EXPECT_EQ(german.item(9, 2), L"Geteilt");
    // Far more than 1023 slots is fine when the image could hold that many items.
    EXPECT_EQ(german.find(10).items.size(), 750u);
    EXPECT_EQ(german.item(10, 749), L"far");
    EXPECT_THROW((void)german.item(10, 1), no_string_exception);

    // The product title is never translated, whatever a pack holds.
    EXPECT_EQ(german.text(product_title_id), L"QMX Software Ulmora Tools Server");

}

TEST(pack_file, directory_search_and_validation)
{
    const auto common = table_builder().text(L"OK", L"Ok!").image(false);
    const auto program = table_builder().text(L"Hide disconnected", L"Hide!").image(false);
    const auto other = table_builder().image(false);
    const auto pack = make_pack({{L"zeta.exe", other}, {L"common", common}, {L"ServerCfg.exe", program}});
    ASSERT_TRUE(is_well_formed_pack(pack));
    for (const wchar_t* name : {L"common", L"COMMON", L"x\\y\\common"}) {
        const auto found = find_module(pack, name);
        ASSERT_TRUE(found) << name;
        EXPECT_EQ(string_table::load(*found, false, nullptr)->find(string_id(L"OK"))->text, L"Ok!");
    }
    EXPECT_TRUE(find_module(pack, L"zeta.exe"));
    EXPECT_FALSE(find_module(pack, L"missing.exe"));

    // No modules: nothing to find, but a valid pack.
    const auto empty = make_pack({});
    EXPECT_TRUE(is_well_formed_pack(empty));
    EXPECT_FALSE(find_module(empty, L"common"));

    // An unsorted directory, a bad signature, an offset into the directory or past the
    // end, and a damaged module all reject the pack.
    std::vector<std::pair<std::wstring, std::vector<std::byte>>> unsorted{{L"zeta.exe", other}, {L"common", common}};
    if (module_hash(L"zeta.exe") < module_hash(L"common"))
        std::swap(unsorted[0], unsorted[1]);
    EXPECT_FALSE(is_well_formed_pack(make_pack(unsorted, false)));
    auto bad = pack;
    bad[0] = std::byte{0};
    EXPECT_FALSE(is_well_formed_pack(bad));
    bad = pack;
    const std::int32_t into_directory = 20;
    std::memcpy(bad.data() + 24, &into_directory, 4);
    EXPECT_FALSE(is_well_formed_pack(bad));
    bad = pack;
    const std::int32_t past_end = static_cast<std::int32_t>(pack.size());
    std::memcpy(bad.data() + 24, &past_end, 4);
    EXPECT_FALSE(is_well_formed_pack(bad));
    bad = pack;
    bad.resize(bad.size() - 1);
    EXPECT_FALSE(is_well_formed_pack(bad));
    bad = pack;
    const std::uint32_t too_many = 1000;
    std::memcpy(bad.data() + 16, &too_many, 4);
    EXPECT_FALSE(is_well_formed_pack(bad));
    EXPECT_FALSE(find_module(bad, L"common"));
}

TEST(pack_file, file_names_and_versions)
{
    auto record = parse_pack_file_name(L"de.Deutsch.301001234.lpack", L"C:\\app\\languages");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->code, L"de");
    EXPECT_EQ(record->display_name, L"Deutsch");
    EXPECT_EQ(record->version, (pack_version{3, 1, 0, 1234}));
    EXPECT_EQ(record->path, L"C:\\app\\languages\\de.Deutsch.301001234.lpack");

    // The suffix is matched in any case.
    record = parse_pack_file_name(L"pt-br.Portugu\u00EAs (Brasil).100000000.LPACK", L"x");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->display_name, L"Portugu\u00EAs (Brasil)");

    // Non-digits are not rejected: they enter the number with their code.
    EXPECT_EQ(parse_version_field(L"1a"), 10u + (L'a' - L'0'));
    EXPECT_EQ(parse_version_field(L""), 0u);

    EXPECT_FALSE(parse_pack_file_name(L"de.lpack", L"x"));
    EXPECT_FALSE(parse_pack_file_name(L"de.Deutsch.lpack", L"x"));
    EXPECT_FALSE(parse_pack_file_name(L"de.Deutsch.1.txt", L"x"));
}
