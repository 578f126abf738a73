// Bad input on purpose: truncated update documents must load or fail with load_exception,
// and the reader must never touch a byte past the end of the text. The text is placed so
// that it ends exactly where a no-access page begins. Mutated documents are the fuzz
// campaign's (fuzz/, reader "json").

#include "nsm/json_archive.h"
#include "nsm/record.h"
#include "update_document.h"

#include "archive_walk.h"
#include "guarded_memory.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstring>

namespace nsm = tessel::nsm;

namespace {

using test_support::guarded_buffer;

using test_support::walk_value;

struct outcome {
    int loaded = 0;
    int refused = 0;
};

void try_both_ways(std::string_view text, outcome& result)
{
    try {
        nsm::json archive(text);
        nsm_test::update_response record;
        nsm::load(archive, record);
        ++result.loaded;
    } catch (const nsm::load_exception& e) {
        EXPECT_FALSE(e.location().empty());
        ++result.refused;
    }
    try {
        nsm::details::json_reader reader(text);
        walk_value(reader, reader.next_entry(), 0);
    } catch (const nsm::load_exception&) {
    }
}

std::string sample_text()
{
    nsm::json archive;
    nsm::save(archive, nsm_test::sample_update_response());
    return archive.written();
}

}  // namespace

TEST(json_fuzz, every_truncation_fails_cleanly_at_the_guard_page)
{
    const std::string text = sample_text();
    guarded_buffer buffer(text.size());
    ASSERT_TRUE(buffer.guarded());
    outcome result;
    for (std::size_t length = 0; length <= text.size(); ++length)
        try_both_ways(buffer.place(std::string_view(text).substr(0, length)), result);
    // Only the whole document (and the whole document less its final line break) loads.
    EXPECT_EQ(result.loaded, 2);
    EXPECT_EQ(result.refused, static_cast<int>(text.size()) - 1);
}
