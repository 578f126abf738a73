#include "localization/pack_file.h"

#include "localization/string_id.h"
#include "localization/string_table.h"

#include <windows.h>

#include <cstring>
#include <limits>

namespace tessel {

namespace {

constexpr std::size_t directory_start = sizeof(pack_signature) + 4;
constexpr std::size_t directory_entry_size = 8;

struct directory_entry {
    std::uint32_t hash;
    std::int32_t offset;
};

// The module count, when the signature matches and the directory fits in the file.
std::optional<std::uint32_t> directory_size(std::span<const std::byte> pack) noexcept
{
    if (pack.size() < directory_start || std::memcmp(pack.data(), pack_signature, sizeof(pack_signature)) != 0)
        return std::nullopt;
    std::uint32_t count = 0;
    std::memcpy(&count, pack.data() + sizeof(pack_signature), sizeof(count));
    if (count > (pack.size() - directory_start) / directory_entry_size)
        return std::nullopt;
    return count;
}

directory_entry read_directory_entry(std::span<const std::byte> pack, std::uint32_t index) noexcept
{
    directory_entry entry;
    const std::byte* at = pack.data() + directory_start + std::size_t{index} * directory_entry_size;
    std::memcpy(&entry.hash, at, 4);
    std::memcpy(&entry.offset, at + 4, 4);
    return entry;
}

// The module's image, when its offset lies past the directory and inside the file.
std::optional<std::span<const std::byte>> module_image(std::span<const std::byte> pack, std::uint32_t count,
                                                       const directory_entry& entry) noexcept
{
    const std::size_t directory_end = directory_start + std::size_t{count} * directory_entry_size;
    if (entry.offset < 0 || static_cast<std::size_t>(entry.offset) < directory_end ||
        static_cast<std::size_t>(entry.offset) >= pack.size())
        return std::nullopt;
    return pack.subspan(static_cast<std::size_t>(entry.offset));
}

}  // namespace

pack_version unpack_version(std::uint64_t packed) noexcept
{
    return {static_cast<std::uint32_t>(packed / 100000000), static_cast<std::uint32_t>(packed / 1000000 % 100),
            static_cast<std::uint32_t>(packed / 10000 % 100), static_cast<std::uint32_t>(packed % 10000)};
}

std::uint64_t parse_version_field(std::wstring_view field) noexcept
{
    std::uint64_t value = 0;
    for (const wchar_t unit : field)
        value = value * 10 + static_cast<std::uint64_t>(unit) - L'0';
    return value;
}

std::optional<pack_record> parse_pack_file_name(std::wstring_view file_name, std::wstring_view folder)
{
    constexpr std::wstring_view extension = L".lpack";
    if (file_name.size() < extension.size() ||
        CompareStringOrdinal(file_name.data() + file_name.size() - extension.size(), static_cast<int>(extension.size()),
                             extension.data(), static_cast<int>(extension.size()), TRUE) != CSTR_EQUAL)
        return std::nullopt;
    const std::wstring_view stem = file_name.substr(0, file_name.size() - extension.size());
    const auto first = stem.find(L'.');
    const auto last = stem.rfind(L'.');
    if (first == std::wstring_view::npos || first == last)
        return std::nullopt;
    pack_record record;
    record.code = stem.substr(0, first);
    record.display_name = stem.substr(first + 1, last - first - 1);
    record.version = unpack_version(parse_version_field(stem.substr(last + 1)));
    record.path = folder;
    if (!record.path.empty() && record.path.back() != L'\\' && record.path.back() != L'/')
        record.path += L'\\';
    record.path += file_name;
    return record;
}

std::vector<pack_record> enumerate_packs(std::wstring_view program_folder)
{
    std::wstring folder(program_folder);
    if (!folder.empty() && folder.back() != L'\\' && folder.back() != L'/')
        folder += L'\\';
    folder += L"languages";

    std::vector<pack_record> packs;
    WIN32_FIND_DATAW found{};
    const unique_find_handle search(FindFirstFileW((folder + L"\\*.lpack").c_str(), &found));
    if (!search)
        return packs;
    do {
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            continue;
        if (auto record = parse_pack_file_name(found.cFileName, folder))
            packs.push_back(std::move(*record));
    } while (FindNextFileW(search.get(), &found));
    return packs;
}

bool is_well_formed_pack(std::span<const std::byte> pack) noexcept
{
    const auto count = directory_size(pack);
    if (!count)
        return false;
    std::uint32_t previous_hash = 0;
    for (std::uint32_t i = 0; i < *count; ++i) {
        const directory_entry entry = read_directory_entry(pack, i);
        if (entry.hash < previous_hash)
            return false;
        previous_hash = entry.hash;
        const auto image = module_image(pack, *count, entry);
        if (!image || !is_well_formed_table_image(*image, false))
            return false;
    }
    return true;
}

std::optional<std::span<const std::byte>> find_module(std::span<const std::byte> pack,
                                                      std::wstring_view module_name) noexcept
{
    const auto count = directory_size(pack);
    if (!count || *count == 0)
        return std::nullopt;
    const std::uint32_t hash = module_hash(module_name);
    std::uint32_t low = 0;
    std::uint32_t high = *count;
    while (low < high) {
        const std::uint32_t middle = low + (high - low) / 2;
        if (read_directory_entry(pack, middle).hash < hash)
            low = middle + 1;
        else
            high = middle;
    }
    if (low == *count)
        return std::nullopt;
    const directory_entry entry = read_directory_entry(pack, low);
    if (entry.hash != hash)
        return std::nullopt;
    return module_image(pack, *count, entry);
}

bool mapped_file::map(const std::wstring& path) noexcept
{
    reset();
    const unique_file file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return false;
    LARGE_INTEGER size{};
    // Module offsets are 32-bit signed, so nothing larger can be a pack.
    if (!GetFileSizeEx(file.get(), &size) || size.QuadPart <= 0 ||
        size.QuadPart > std::numeric_limits<std::int32_t>::max())
        return false;
    const unique_handle mapping(CreateFileMappingW(file.get(), nullptr, PAGE_READONLY, 0, 0, nullptr));
    if (!mapping)
        return false;
    view_.reset(MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, 0));
    if (!view_)
        return false;
    size_ = static_cast<std::size_t>(size.QuadPart);
    return true;
}

void mapped_file::reset() noexcept
{
    view_.reset();
    size_ = 0;
}

}  // namespace tessel
