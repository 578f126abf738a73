#pragma once
// In-memory string table over a table image (a "STRINGS" resource or one module of a
// language pack). Texts are not copied: entries point into the image, which must stay
// valid (resource memory, or a pack view that stays mapped) for the table's life.
//
// The images come from files that an elevated program maps, so reading never trusts a
// length: every count, length and text is checked against the image's end, and an image
// that fails any check is rejected as a whole (the table stays empty and not loaded).
// Nothing in the layout aligns the UTF-16 texts (packs from other tools put them at odd
// offsets as often as not): aligned texts are used in place, the others are copied once,
// at load, into one block the table owns.

#include "localization/string_id.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tessel {

// Signature that starts an image stored as a resource (pack modules have none).
inline constexpr std::byte table_signature[16] = {
    std::byte{0x79}, std::byte{0x2B}, std::byte{0x13}, std::byte{0xEF}, std::byte{0xBB}, std::byte{0x4F},
    std::byte{0xF7}, std::byte{0x43}, std::byte{0x84}, std::byte{0x1A}, std::byte{0x26}, std::byte{0x0C},
    std::byte{0x00}, std::byte{0xFF}, std::byte{0x99}, std::byte{0x29}};

// The product title, caption of every box and key of single-instance detection: a pack
// module's entry for it is ignored, so no translation can change it.
inline constexpr std::uint32_t product_title_id = string_id(L"QMX Software Ulmora Tools Server");

// An indexed list is sized by its largest index + 1, bounded by what the image could
// hold: an index past image size / 8 (the smallest item) makes the image malformed, so a
// hostile index never sizes a vector larger than twice the image.

struct string_entry {
    std::uint32_t id = 0;
    std::uint32_t revision = 0;
    bool is_list = false;
    // Single string (is_list false).
    std::wstring_view text;
    // Indexed list: slot i holds item i; a slot that no item names has a null data().
    std::vector<std::wstring_view> items;

    [[nodiscard]] bool has_item(std::size_t index) const noexcept
    {
        return index < items.size() && items[index].data() != nullptr;
    }
};

class string_table {
public:
    // Never throws for bad input (only std::bad_alloc). With from_resource the image must
    // start with table_signature; a mismatch or any malformation gives an empty table
    // whose loaded() is false. Entries whose id the parent chain holds with another
    // revision are dropped (stale translations fall back to the parent's text); of two
    // entries with one id in the same image the first stays. Without from_resource (a
    // pack module) an entry for the product title is dropped.
    [[nodiscard]] static std::shared_ptr<const string_table> load(std::span<const std::byte> image,
                                                                 bool from_resource,
                                                                 std::shared_ptr<const string_table> parent);

    // This table only / this table, then each parent in turn. Null when absent.
    [[nodiscard]] const string_entry* find(std::uint32_t id) const noexcept;
    [[nodiscard]] const string_entry* find_in_chain(std::uint32_t id) const noexcept;

    [[nodiscard]] bool loaded() const noexcept { return loaded_; }
    [[nodiscard]] std::size_t size() const noexcept { return nodes_.size(); }
    // Every entry of this table, in no particular order (for checks of completeness).
    [[nodiscard]] std::vector<const string_entry*> entries() const;
    [[nodiscard]] const std::string& language_code() const noexcept { return language_code_; }
    [[nodiscard]] const std::string& locale_name() const noexcept { return locale_name_; }
    [[nodiscard]] const std::shared_ptr<const string_table>& parent() const noexcept { return parent_; }

    string_table() = default;  // empty, not loaded

private:
    struct node {
        string_entry entry;
        std::uint32_t next = 0;  // index + 1 of the next node of the bucket, 0 ends it
    };

    bool read(std::span<const std::byte> image, bool from_resource);
    void insert(string_entry&& entry);

    std::shared_ptr<const string_table> parent_;
    std::string language_code_;
    std::string locale_name_;
    std::vector<std::uint32_t> buckets_;  // index + 1 of the bucket's first node
    std::vector<node> nodes_;
    std::unique_ptr<wchar_t[]> copies_;  // aligned homes of the texts that were not aligned
    bool loaded_ = false;
};

// True when every length, count and text of the image lies inside it (and, with
// from_resource, the signature matches): exactly the images string_table::load accepts.
[[nodiscard]] bool is_well_formed_table_image(std::span<const std::byte> image, bool from_resource) noexcept;

}  // namespace tessel
