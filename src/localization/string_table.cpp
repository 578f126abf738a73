#include "localization/string_table.h"

#include "localization/string_id.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace tessel {

namespace {

// Bounds-checked little-endian reads over an image. Every read either lies wholly inside
// the image or fails and reads nothing.
class image_reader {
public:
    explicit image_reader(std::span<const std::byte> image) noexcept : data_(image.data()), size_(image.size()) {}

    [[nodiscard]] std::size_t remaining() const noexcept { return size_ - pos_; }

    template <class T>
    [[nodiscard]] bool read(T& value) noexcept
    {
        if (remaining() < sizeof(T))
            return false;
        std::memcpy(&value, data_ + pos_, sizeof(T));
        pos_ += sizeof(T);
        return true;
    }

    [[nodiscard]] bool skip(std::size_t count) noexcept
    {
        if (remaining() < count)
            return false;
        pos_ += count;
        return true;
    }

    // i16 length n, n bytes, one NUL.
    [[nodiscard]] bool narrow_text(std::string_view& text) noexcept
    {
        std::int16_t length = 0;
        if (!read(length) || length < 0 || remaining() < static_cast<std::size_t>(length) + 1)
            return false;
        const auto* start = reinterpret_cast<const char*>(data_ + pos_);
        if (start[length] != '\0')
            return false;
        text = {start, static_cast<std::size_t>(length)};
        pos_ += static_cast<std::size_t>(length) + 1;
        return true;
    }

    // i16 length L, L UTF-16 units, one UTF-16 NUL, anywhere in the image: nothing in the
    // layout aligns the texts (a locale name of odd length moves all of them), so the
    // units are only located here, not yet used as wchar_t.
    [[nodiscard]] bool wide_text(const std::byte*& start, std::size_t& length) noexcept
    {
        std::int16_t units = 0;
        if (!read(units) || units < 0)
            return false;
        const std::size_t bytes = (static_cast<std::size_t>(units) + 1) * sizeof(wchar_t);
        if (remaining() < bytes)
            return false;
        wchar_t terminator = 0;
        std::memcpy(&terminator, data_ + pos_ + bytes - sizeof(wchar_t), sizeof terminator);
        if (terminator != L'\0')
            return false;
        start = data_ + pos_;
        length = static_cast<std::size_t>(units);
        pos_ += bytes;
        return true;
    }

private:
    const std::byte* data_;
    std::size_t size_;
    std::size_t pos_ = 0;
};

// Smallest sizes on disk, used to bound counts before anything is sized by them.
constexpr std::size_t min_entry_size = 4 + 4 + 2 + 2;
constexpr std::size_t min_item_size = 4 + 2 + 2;

struct header {
    std::string_view language_code;
    std::string_view locale_name;
    std::uint32_t entry_count = 0;
};

bool read_header(image_reader& reader, bool from_resource, header& result) noexcept
{
    if (from_resource) {
        std::byte signature[sizeof(table_signature)];
        if (!reader.read(signature) || std::memcmp(signature, table_signature, sizeof(signature)) != 0)
            return false;
    }
    std::uint8_t reserved = 0;
    return reader.narrow_text(result.language_code) && reader.narrow_text(result.locale_name) &&
           reader.read(reserved) && reader.skip(reserved) && reader.read(result.entry_count) &&
           result.entry_count <= reader.remaining() / min_entry_size;
}

// A text as located in the image: used in place when it is aligned for wchar_t, else
// copied once into the table's own storage.
struct raw_text {
    const std::byte* start = nullptr;
    std::size_t length = 0;

    [[nodiscard]] bool aligned() const noexcept
    {
        return reinterpret_cast<std::uintptr_t>(start) % alignof(wchar_t) == 0;
    }
    // Units the copy needs, with its NUL; 0 when the text stays in place.
    [[nodiscard]] std::size_t copy_units() const noexcept { return aligned() ? 0 : length + 1; }
};

struct raw_entry {
    std::uint32_t id = 0;
    std::uint32_t descriptor = 0;
    raw_text text;                   // kind 0
    image_reader items{{}};          // kind != 0: positioned at the first item
    std::uint32_t item_count = 0;
    std::uint32_t slot_count = 0;    // largest index + 1
    std::size_t copy_units = 0;      // of every text of the entry that is not aligned

    [[nodiscard]] bool is_list() const noexcept { return (descriptor & 3) != 0; }
};

// Largest list a well-formed image of this size can describe: each item takes at least
// min_item_size bytes, so a list sized by its largest index never needs more slots than
// the image could hold items. A hostile index in a small image cannot size a huge vector.
std::uint32_t max_list_slots(std::size_t image_size) noexcept
{
    return static_cast<std::uint32_t>(std::min<std::size_t>(image_size / min_item_size, 0xFFFFFFFFu));
}

// Reads one entry and checks its whole body.
bool read_entry(image_reader& reader, std::uint32_t max_slots, raw_entry& entry) noexcept
{
    entry.copy_units = 0;
    if (!reader.read(entry.id) || !reader.read(entry.descriptor))
        return false;
    if (!entry.is_list()) {
        if (!reader.wide_text(entry.text.start, entry.text.length))
            return false;
        entry.copy_units = entry.text.copy_units();
        return true;
    }
    if (!reader.read(entry.item_count) || entry.item_count > reader.remaining() / min_item_size)
        return false;
    entry.items = reader;
    entry.slot_count = 0;
    for (std::uint32_t i = 0; i < entry.item_count; ++i) {
        std::uint32_t index = 0;
        raw_text text;
        if (!reader.read(index) || index >= max_slots || !reader.wide_text(text.start, text.length))
            return false;
        entry.slot_count = std::max(entry.slot_count, index + 1);
        entry.copy_units += text.copy_units();
    }
    return true;
}

}  // namespace

bool is_well_formed_table_image(std::span<const std::byte> image, bool from_resource) noexcept
{
    image_reader reader(image);
    header head;
    if (!read_header(reader, from_resource, head))
        return false;
    raw_entry entry;
    for (std::uint32_t i = 0; i < head.entry_count; ++i)
        if (!read_entry(reader, max_list_slots(image.size()), entry))
            return false;
    return true;
}

std::shared_ptr<const string_table> string_table::load(std::span<const std::byte> image, bool from_resource,
                                                       std::shared_ptr<const string_table> parent)
{
    auto table = std::make_shared<string_table>();
    table->parent_ = std::move(parent);
    if (!table->read(image, from_resource)) {
        // Nothing of a damaged image is used, not even the entries before the damage.
        table->buckets_.clear();
        table->nodes_.clear();
        table->copies_.reset();
        table->language_code_.clear();
        table->locale_name_.clear();
        table->loaded_ = false;
    }
    return table;
}

bool string_table::read(std::span<const std::byte> image, bool from_resource)
{
    image_reader reader(image);
    header head;
    if (!read_header(reader, from_resource, head))
        return false;
    language_code_.assign(head.language_code);
    locale_name_.assign(head.locale_name);
    if (head.entry_count == 0) {
        loaded_ = true;
        return true;
    }

    // First pass: the whole image is checked before anything is kept, and the texts that
    // cannot be used in place are counted, so that their copies take one allocation whose
    // addresses never move.
    const std::uint32_t max_slots = max_list_slots(image.size());
    raw_entry raw;
    std::size_t copy_units = 0;
    {
        image_reader check = reader;
        for (std::uint32_t i = 0; i < head.entry_count; ++i) {
            if (!read_entry(check, max_slots, raw))
                return false;
            copy_units += raw.copy_units;
        }
    }
    if (copy_units != 0)
        copies_ = std::make_unique<wchar_t[]>(copy_units);
    std::size_t copied = 0;
    const auto text_of = [&](const raw_text& text) {
        if (text.aligned())
            return std::wstring_view(reinterpret_cast<const wchar_t*>(text.start), text.length);
        wchar_t* const home = copies_.get() + copied;
        std::memcpy(home, text.start, (text.length + 1) * sizeof(wchar_t));
        copied += text.length + 1;
        return std::wstring_view(home, text.length);
    };

    buckets_.assign(head.entry_count, 0);
    nodes_.reserve(head.entry_count);
    for (std::uint32_t i = 0; i < head.entry_count; ++i) {
        if (!read_entry(reader, max_slots, raw))
            return false;
        const std::uint32_t revision = raw.descriptor >> 2;
        if (!from_resource && raw.id == product_title_id)
            continue;  // the title is the key of single-instance detection: never translated
        if (parent_) {
            if (const string_entry* inherited = parent_->find_in_chain(raw.id); inherited && inherited->revision != revision)
                continue;
        }
        if (find(raw.id))
            continue;

        string_entry entry;
        entry.id = raw.id;
        entry.revision = revision;
        entry.is_list = raw.is_list();
        if (!entry.is_list) {
            entry.text = text_of(raw.text);
        } else {
            entry.items.resize(raw.slot_count);
            for (std::uint32_t item = 0; item < raw.item_count; ++item) {
                std::uint32_t index = 0;
                raw_text text;
                // Checked by read_entry already; a failure here would mean the image
                // changed under us, which is treated as damage like any other.
                if (!raw.items.read(index) || index >= raw.slot_count || !raw.items.wide_text(text.start, text.length))
                    return false;
                entry.items[index] = text_of(text);
            }
        }
        insert(std::move(entry));
    }
    loaded_ = true;
    return true;
}

void string_table::insert(string_entry&& entry)
{
    const std::size_t bucket = entry.id % buckets_.size();
    nodes_.push_back({std::move(entry), buckets_[bucket]});
    buckets_[bucket] = static_cast<std::uint32_t>(nodes_.size());
}

const string_entry* string_table::find(std::uint32_t id) const noexcept
{
    if (buckets_.empty())
        return nullptr;
    for (std::uint32_t at = buckets_[id % buckets_.size()]; at != 0; at = nodes_[at - 1].next)
        if (nodes_[at - 1].entry.id == id)
            return &nodes_[at - 1].entry;
    return nullptr;
}

std::vector<const string_entry*> string_table::entries() const
{
    std::vector<const string_entry*> result;
    result.reserve(nodes_.size());
    for (const node& each : nodes_)
        result.push_back(&each.entry);
    return result;
}

const string_entry* string_table::find_in_chain(std::uint32_t id) const noexcept
{
    for (const string_table* table = this; table; table = table->parent_.get())
        if (const string_entry* entry = table->find(id))
            return entry;
    return nullptr;
}

}  // namespace tessel
