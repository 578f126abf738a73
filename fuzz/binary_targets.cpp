// The readers of binary data: string table images, language packs, the vector icon
// collection and its LZ4 block. Their mutations know the formats' fields: every length,
// count, offset and header word of a seed is a field that mutations set to boundary values.

#include "targets.h"

#include "base/module_path.h"
#include "controls/vector_icons.h"
#include "localization/language_pack.h"
#include "localization/pack_file.h"
#include "localization/string_table.h"

#include <lz4.h>

#include <windows.h>

#include <cstring>
#include <stdexcept>

namespace fuzz {
namespace {

template <class T>
bool read_at(const bytes& data, std::size_t offset, T& value)
{
    if (offset + sizeof(T) > data.size())
        return false;
    std::memcpy(&value, data.data() + offset, sizeof(T));
    return true;
}

// ---------------------------------------------------------------------------------------
// String table images: [signature] i16 length + code + NUL, i16 length + locale + NUL,
// u8 reserved + bytes, u32 entry count, entries (u32 id, u32 descriptor, then a text:
// i16 length + units + NUL, or a list: u32 item count, items of u32 index + text).

void table_fields(const bytes& image, std::size_t at, bool from_resource, std::vector<field>& fields)
{
    const auto text = [&](std::size_t unit_size) {
        std::int16_t length = 0;
        if (!read_at(image, at, length) || length < 0)
            return false;
        fields.push_back({at, 2});
        at += 2 + (std::size_t(length) + 1) * unit_size;
        return at <= image.size();
    };
    if (from_resource)
        at += 16;
    if (!text(1) || !text(1))
        return;
    std::uint8_t reserved = 0;
    if (!read_at(image, at, reserved))
        return;
    fields.push_back({at, 1});
    at += 1 + reserved;
    std::uint32_t count = 0;
    if (!read_at(image, at, count))
        return;
    fields.push_back({at, 4});
    at += 4;
    for (std::uint32_t i = 0; i < count && at < image.size(); ++i) {
        std::uint32_t descriptor = 0;
        if (!read_at(image, at + 4, descriptor))
            return;
        fields.push_back({at, 4});
        fields.push_back({at + 4, 4});
        at += 8;
        if ((descriptor & 3) == 0) {
            if (!text(2))
                return;
            continue;
        }
        std::uint32_t items = 0;
        if (!read_at(image, at, items))
            return;
        fields.push_back({at, 4});
        at += 4;
        for (std::uint32_t item = 0; item < items && at < image.size(); ++item) {
            fields.push_back({at, 4});
            at += 4;
            if (!text(2))
                return;
        }
    }
}

std::size_t read_all(const tessel::string_table& table)
{
    std::size_t sum = 0;
    for (const tessel::string_entry* entry : table.entries()) {
        for (const wchar_t unit : entry->text)
            sum += unit;
        for (const auto& item : entry->items)
            for (const wchar_t unit : item)
                sum += unit;
    }
    return sum;
}

std::string run_string_table(std::span<const std::byte> input)
{
    for (const bool from_resource : {true, false}) {
        const auto image = from_resource ? input : input.subspan(std::min<std::size_t>(input.size(), 16));
        const auto table = tessel::string_table::load(image, from_resource, nullptr);
        if (table->loaded() != tessel::is_well_formed_table_image(image, from_resource))
            throw std::logic_error("the table loads an image its check refuses, or the other way round");
        if (!table->loaded() && table->size() != 0)
            throw std::logic_error("a refused image left entries behind");
        read_all(*table);
        if (from_resource && !table->loaded()) {
            // The language pack object over a refused image never fails to construct.
            (void)tessel::LanguagePack(input, nullptr, std::nullopt, L"common").loaded();
            return "refused";
        }
    }
    return {};
}

target string_table_target()
{
    target t;
    t.name = "string_table";
    t.alignment = 2;
    t.seeds = [] {
        std::vector<bytes> seeds;
        for (const int id : {138, 139})
            seeds.push_back(seed_data::resource(id, L"STRINGS"));
        return seeds;
    };
    t.fields = [](const bytes& seed) {
        std::vector<field> fields;
        table_fields(seed, 0, true, fields);
        return fields;
    };
    t.run = run_string_table;
    return t;
}

// ---------------------------------------------------------------------------------------
// Language packs: signature, u32 module count, directory of (u32 name hash, i32 offset),
// then the modules' table images (without signature).

std::string run_language_pack(std::span<const std::byte> input)
{
    static const bytes english_image = seed_data::resource(139, L"STRINGS");
    static const auto english = tessel::string_table::load(english_image, true, nullptr);
    if (!tessel::is_well_formed_pack(input))
        return "refused";
    for (const wchar_t* name : {L"common", L"ServerCfg.exe", L"C:\\folder\\ServerCfg.exe", L""}) {
        if (const auto image = tessel::find_module(input, name)) {
            const auto table = tessel::string_table::load(*image, false, english);
            if (!table->loaded())
                throw std::logic_error("a pack that passed its check holds a module that does not load");
            read_all(*table);
        }
    }
    return {};
}

target language_pack_target()
{
    target t;
    t.name = "language_pack";
    t.alignment = 2;
    t.seeds = [] {
        std::vector<bytes> seeds;
        WIN32_FIND_DATAW found{};
        const std::wstring folder = tessel::module_folder();
        HANDLE search = ::FindFirstFileW((folder + L"languages\\*.lpack").c_str(), &found);
        if (search != INVALID_HANDLE_VALUE) {
            do
                seeds.push_back(seed_data::read_file(folder + L"languages\\" + found.cFileName));
            while (::FindNextFileW(search, &found));
            ::FindClose(search);
        }
        if (seeds.empty())
            throw std::runtime_error("no language pack beside the fuzz executable to start from");
        return seeds;
    };
    t.fields = [](const bytes& seed) {
        std::vector<field> fields{{16, 4}};
        std::uint32_t count = 0;
        read_at(seed, 16, count);
        for (std::uint32_t i = 0; i < count && 20 + i * 8 + 8 <= seed.size(); ++i) {
            fields.push_back({20 + i * 8, 4});
            fields.push_back({24 + i * 8, 4});
            std::int32_t offset = 0;
            read_at(seed, 24 + i * 8, offset);
            if (offset > 0)
                table_fields(seed, static_cast<std::size_t>(offset), false, fields);
        }
        return fields;
    };
    t.run = run_language_pack;
    return t;
}

// ---------------------------------------------------------------------------------------
// The vector icon collection: a resource header (magic, decompressed and compressed
// sizes) around one LZ4 block, and inside it the collection's own header, name index and
// icon records. Mutations work on either layer: the raw resource, or the collection
// decompressed, changed field by field and compressed again.

constexpr std::size_t resource_header_size = 24;

bytes decompress(const bytes& resource)
{
    std::uint32_t size = 0, compressed = 0;
    if (!read_at(resource, 16, size) || !read_at(resource, 20, compressed) || size > (64u << 20) ||
        compressed > resource.size() - resource_header_size)
        return {};
    bytes data(size);
    const int written = LZ4_decompress_safe(reinterpret_cast<const char*>(resource.data() + resource_header_size),
                                            reinterpret_cast<char*>(data.data()), static_cast<int>(compressed),
                                            static_cast<int>(size));
    if (written < 0)
        return {};
    data.resize(static_cast<std::size_t>(written));
    return data;
}

bytes compress(const bytes& collection)
{
    bytes resource(resource_header_size + static_cast<std::size_t>(LZ4_compressBound(static_cast<int>(collection.size()))));
    std::memcpy(resource.data(), &tessel::svg::collection_magic, 16);
    const int written = LZ4_compress_default(reinterpret_cast<const char*>(collection.data()),
                                             reinterpret_cast<char*>(resource.data() + resource_header_size),
                                             static_cast<int>(collection.size()), static_cast<int>(resource.size() - resource_header_size));
    const auto size = static_cast<std::uint32_t>(collection.size());
    const auto compressed = static_cast<std::uint32_t>(std::max(written, 0));
    std::memcpy(resource.data() + 16, &size, 4);
    std::memcpy(resource.data() + 20, &compressed, 4);
    resource.resize(resource_header_size + compressed);
    return resource;
}

std::vector<field> collection_fields(const bytes& data)
{
    std::vector<field> fields{{0, 2}, {2, 2}, {4, 4}};
    std::uint32_t count = 0;
    read_at(data, 4, count);
    for (std::uint32_t i = 0; i < count && 8 + i * 16 + 16 <= data.size(); ++i) {
        const std::size_t entry = 8 + i * 16;
        for (std::size_t f = 0; f < 4; ++f)
            fields.push_back({entry + f * 4, 4});
        std::uint32_t at = 0;
        read_at(data, entry + 8, at);
        // The icon: view box, path count, then each path's header, verbs and points.
        for (std::size_t f = 0; f < 5; ++f)
            fields.push_back({at + f * 4, 4});
        std::uint32_t paths = 0;
        read_at(data, at + 16, paths);
        std::size_t offset = at + 20;
        for (std::uint32_t p = 0; p < paths && offset + 28 <= data.size(); ++p) {
            for (std::size_t b = 0; b < 4; ++b)
                fields.push_back({offset + b, 1});
            for (std::size_t f = 1; f < 7; ++f)
                fields.push_back({offset + f * 4, 4});
            std::uint32_t verbs = 0, points = 0;
            read_at(data, offset + 20, verbs);
            read_at(data, offset + 24, points);
            offset += 28;
            for (std::uint32_t v = 0; v < verbs && v < 8; ++v)
                fields.push_back({offset + v, 1});
            offset += (std::size_t(verbs) + 3) / 4 * 4;
            for (std::uint32_t q = 0; q < points && q < 4; ++q) {
                fields.push_back({offset + q * 8, 4});
                fields.push_back({offset + q * 8 + 4, 4});
            }
            offset += std::size_t(points) * 8;
        }
    }
    return fields;
}

std::string run_icons(std::span<const std::byte> input)
{
    using namespace tessel::svg;
    const read_only_collection collection = read_only_collection::from_resource(input);
    if (collection.empty())
        return "empty collection";
    // Every icon is walked; one (chosen by the input) is drawn, which is what costs.
    std::size_t points = 0;
    for (std::size_t i = 0; i < collection.size(); ++i) {
        (void)collection.name(i);
        collection.icon(i).for_each_path([&](const path_view& path) { points += path.verbs.size() + path.points.size(); });
    }
    const icon_view icon = collection.icon(input.size() % collection.size());
    surface_t surface = render_icon(icon, 16);
    (void)surface.pixel(0, 0);
    (void)collection.find(collection.name(0));
    (void)collection.find(std::wstring_view(L"no such icon"));
    return {};
}

target icons_target()
{
    target t;
    t.name = "icons";
    t.seeds = [] { return std::vector<bytes>{seed_data::resource(tessel::svg::icon_collection_resource_id, L"VICON2")}; };
    t.mutate = [](const bytes& seed, rng& random, const std::vector<bytes>& corpus) {
        static const target layer = [] {
            target bytes_only;
            bytes_only.tokens = {std::string("\0\0\0\0", 4), "\xFF\xFF\xFF\xFF", "\xF0", "\x1F"};
            return bytes_only;
        }();
        // One layer or the other: the LZ4 block and its header, or the collection inside.
        if (random.chance(3))
            return mutate_bytes(layer, seed, random, corpus, {{16, 4}, {20, 4}, {24, 1}, {25, 2}});
        const bytes collection = decompress(seed);
        return compress(mutate_bytes(layer, collection, random, {collection}, collection_fields(collection)));
    };
    t.run = run_icons;
    return t;
}

}  // namespace

std::vector<target> binary_targets()
{
    return {string_table_target(), language_pack_target(), icons_target()};
}

}  // namespace fuzz
