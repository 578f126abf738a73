// Damaged packs and table images: each one is either used or rejected as a whole, and
// nothing is ever read past its end. Every case is placed so that its last byte lies
// right before a page that faults when touched. Randomly damaged ones are the fuzz
// campaign's (fuzz/, readers "string_table" and "language_pack").

#include "localization/language_pack.h"
#include "localization/pack_file.h"
#include "localization/string_id.h"
#include "localization/string_table.h"

#include "allocation_counter.h"
#include "guarded_memory.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace tessel;
using test_support::guarded_buffer;  // texts are read in place: placed 2-aligned
using test_support::make_pack;
using test_support::table_builder;

namespace {

std::vector<std::byte> sample_common()
{
    return table_builder()
        .language("DEU", "de-DE")
        .text(L"OK", L"OK")
        .text(L"Cancel", L"Abbrechen", 1)
        .list(string_id(L"columns"), {{2, L"Zwei"}, {0, L"Null"}, {4, L"Vier"}})
        .text(L"Long", std::wstring(300, L'x'))
        .image(false);
}

std::vector<std::byte> sample_program()
{
    return table_builder().text(L"Hide disconnected", L"Getrennte ausblenden").text(L"", L"").image(false);
}

// Touches every text of a loaded table, so that a bad pointer would fault here.
std::size_t read_all(const string_table& table)
{
    std::size_t sum = 0;
    for (const string_entry* entry : table.entries()) {
        for (const wchar_t unit : entry->text)
            sum += unit;
        for (const auto& item : entry->items)
            for (const wchar_t unit : item)
                sum += unit;
    }
    return sum;
}

// Uses a pack the way start-up does; returns whether it was accepted.
bool use_pack(std::span<const std::byte> pack, const std::shared_ptr<const string_table>& english)
{
    if (!is_well_formed_pack(pack))
        return false;
    for (const wchar_t* name : {L"common", L"ServerCfg.exe"}) {
        if (const auto image = find_module(pack, name)) {
            const auto table = string_table::load(*image, false, english);
            // Validation accepted the pack, so every module it holds must load.
            EXPECT_TRUE(table->loaded());
            read_all(*table);
        }
    }
    return true;
}

}  // namespace

TEST(fuzz, truncated_packs_are_rejected_whole)
{
    const auto english_image = table_builder().text(L"Cancel", L"Cancel", 1).text(L"OK", L"OK").image(true);
    const auto english = string_table::load(english_image, true, nullptr);
    const auto pack = make_pack({{L"common", sample_common()}, {L"ServerCfg.exe", sample_program()}});
    guarded_buffer memory(pack.size() + 64);

    ASSERT_TRUE(use_pack(memory.place(pack, 2), english));

    // Every truncation, including the empty file, is rejected: the last module runs to
    // the end of the file, so losing any byte damages it.
    for (std::size_t size = 0; size < pack.size(); ++size)
        EXPECT_FALSE(use_pack(memory.place(std::span(pack).first(size), 2), english)) << size;
}

TEST(fuzz, truncated_table_images_stay_empty)
{
    auto image = table_builder()
                     .text(L"OK", L"OK")
                     .list(9, {{1, L"one"}, {0, L"zero"}})
                     .text(L"Close", L"Close")
                     .image(true);
    guarded_buffer memory(image.size() + 64);

    for (std::size_t size = 0; size <= image.size(); ++size) {
        const auto table = string_table::load(memory.place(std::span(image).first(size), 2), true, nullptr);
        EXPECT_EQ(table->loaded(), size == image.size()) << size;
        EXPECT_EQ(table->loaded(), is_well_formed_table_image(std::span(image).first(size), true));
        if (!table->loaded()) {
            EXPECT_EQ(table->size(), 0u);
        }
        read_all(*table);
    }
}

TEST(fuzz, oversized_counts_and_indexes_are_rejected_without_allocating)
{
    // An entry count that the remaining bytes cannot hold.
    auto image = table_builder().text(L"OK", L"OK").image(false);
    const std::size_t count_offset = image.size() - (4 + 4 + 2 + 2 * 3) - 4;
    const std::uint32_t huge = 0xFFFFFFFF;
    auto bad = image;
    std::memcpy(bad.data() + count_offset, &huge, 4);
    EXPECT_FALSE(is_well_formed_table_image(bad, false));

    // A list whose item names an index the image could never hold items for: refused
    // before any vector is sized by it (the largest that loads is in string_table_tests).
    // A list the image can hold is sized by its index, which the counter sees; a refused
    // one costs the table object and no more.
    const auto bytes_allocated_by_load = [](const std::vector<std::byte>& image, bool& loaded) {
        const std::uint64_t before = test_support::allocated_bytes();
        loaded = string_table::load(image, false, nullptr)->loaded();
        return test_support::allocated_bytes() - before;
    };
    constexpr std::uint32_t slots = 600;  // an image of 600 items' room and more
    bool loaded = false;
    const auto legal =
        table_builder().text(L"Padding", std::wstring(slots * 4, L'p')).list(5, {{slots - 1, L"x"}}).image(false);
    EXPECT_GE(bytes_allocated_by_load(legal, loaded), slots * sizeof(std::wstring_view));
    EXPECT_TRUE(loaded);
    for (const std::uint32_t index : {0xFFFFFFFFu, 0x10000000u, 4096u}) {
        auto list = table_builder().list(5, {{index, L"x"}}).image(false);
        EXPECT_LT(bytes_allocated_by_load(list, loaded), 1024u) << index;
        EXPECT_FALSE(loaded) << index;
    }

    // A negative text length.
    auto negative = table_builder().text(L"OK", L"OK").image(false);
    const std::int16_t minus = -1;
    std::memcpy(negative.data() + negative.size() - 2 * 3 - 2, &minus, 2);
    EXPECT_FALSE(is_well_formed_table_image(negative, false));

    // A text whose NUL is missing.
    auto unterminated = table_builder().text(L"OK", L"OK").image(false);
    unterminated[unterminated.size() - 2] = std::byte{'!'};
    EXPECT_FALSE(is_well_formed_table_image(unterminated, false));
}
