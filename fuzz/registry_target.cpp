// The registry archive's reader over damaged keys. An input is a recipe for a key: its
// values (name, type, raw data) and subkeys, serialized. Mutations work on the recipe:
// wrong types, sizes that fit no type, huge counts, bad element ordinals, missing or
// doubled markers, versions on names, objects where values belong and the reverse. Each
// input is read by the settings record, a record with arrays and a walk of every entry
// from a key held in memory that answers the reader's registry calls. One input in
// sixteen is also written into a throwaway key of the system's registry (only what
// changed since the last input, as the registry is slow under Wine) and read back from
// there, which keeps the reader's own use of the registry functions covered.

#include "targets.h"
#include "archive_walk.h"

#include "base/unique_handle.h"
#include "base/utf.h"
#include "nsm/app_settings.h"
#include "nsm/registry_archive.h"
#include "update_document.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>

using test_support::walk_value;

namespace fuzz {
namespace {

constexpr wchar_t fuzz_key[] = L"Software\\QMX Software\\Ulmora Tools\\FuzzRegistryArchive";

struct reg_value {
    std::wstring name;
    DWORD type = REG_NONE;
    bytes data;
    bool operator==(const reg_value&) const = default;
};

struct reg_key {
    std::wstring name;
    std::vector<reg_value> values;
    std::vector<reg_key> keys;
    bool operator==(const reg_key&) const = default;
};

// Names compare as the registry compares them: without regard to case.
bool same_name(const std::wstring& a, const std::wstring& b)
{
    return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()), TRUE) ==
           CSTR_EQUAL;
}

// ---------------------------------------------------------------------------------------
// Recipes as bytes: u16 name length, name, u16 value count, values (u16 name length,
// name, u32 type, u32 size, data), u16 subkey count, subkeys. Reading stops quietly at
// the end, so any bytes give some key.

class recipe_reader {
public:
    explicit recipe_reader(std::span<const std::byte> data) : data_(data) {}
    template <class T>
    T number()
    {
        T value{};
        if (at_ + sizeof(T) <= data_.size())
            std::memcpy(&value, data_.data() + at_, sizeof(T));
        at_ = std::min(data_.size(), at_ + sizeof(T));
        return value;
    }
    std::wstring name()
    {
        // The length is read first: it moves the position the rest is measured from.
        const std::size_t stored = number<std::uint16_t>();
        const std::size_t length = std::min<std::size_t>(stored, (data_.size() - at_) / 2);
        std::wstring text(length, L'\0');
        std::memcpy(text.data(), data_.data() + at_, length * 2);
        at_ += length * 2;
        return text;
    }
    bytes block()
    {
        const std::size_t stored = number<std::uint32_t>();
        const std::size_t size = std::min<std::size_t>(stored, data_.size() - at_);
        bytes result(data_.begin() + static_cast<std::ptrdiff_t>(at_),
                     data_.begin() + static_cast<std::ptrdiff_t>(at_ + size));
        at_ += size;
        return result;
    }
    reg_key key(int depth)
    {
        reg_key k;
        k.name = name();
        const unsigned values = number<std::uint16_t>();
        for (unsigned i = 0; i < values && at_ < data_.size(); ++i) {
            reg_value v;
            v.name = name();
            v.type = number<std::uint32_t>();
            v.data = block();
            k.values.push_back(std::move(v));
        }
        const unsigned keys = number<std::uint16_t>();
        for (unsigned i = 0; i < keys && at_ < data_.size() && depth < 32; ++i)
            k.keys.push_back(key(depth + 1));
        return k;
    }

private:
    std::span<const std::byte> data_;
    std::size_t at_ = 0;
};

void put(bytes& out, const void* data, std::size_t size)
{
    const auto* first = static_cast<const std::byte*>(data);
    out.insert(out.end(), first, first + size);
}

void put_name(bytes& out, const std::wstring& name)
{
    const auto length = static_cast<std::uint16_t>(std::min<std::size_t>(name.size(), 0xFFFF));
    put(out, &length, 2);
    put(out, name.data(), length * 2u);
}

void serialize(const reg_key& k, bytes& out)
{
    put_name(out, k.name);
    const auto values = static_cast<std::uint16_t>(k.values.size());
    put(out, &values, 2);
    for (const reg_value& v : k.values) {
        put_name(out, v.name);
        put(out, &v.type, 4);
        const auto size = static_cast<std::uint32_t>(v.data.size());
        put(out, &size, 4);
        put(out, v.data.data(), v.data.size());
    }
    const auto keys = static_cast<std::uint16_t>(k.keys.size());
    put(out, &keys, 2);
    for (const reg_key& sub : k.keys)
        serialize(sub, out);
}

// Registry names: no empty subkey names, nothing the API refuses, no two alike.
void normalize(reg_key& k, int depth)
{
    std::vector<reg_value> values;
    for (reg_value& v : k.values) {
        if (v.name.size() > 255)
            v.name.resize(255);
        if (std::none_of(values.begin(), values.end(), [&](const reg_value& o) { return same_name(o.name, v.name); }))
            values.push_back(std::move(v));
    }
    k.values = std::move(values);
    std::vector<reg_key> keys;
    for (reg_key& sub : k.keys) {
        std::replace(sub.name.begin(), sub.name.end(), L'\\', L'_');
        sub.name.erase(std::remove(sub.name.begin(), sub.name.end(), L'\0'), sub.name.end());
        if (sub.name.empty() || sub.name.size() > 255 || depth > 12)
            continue;
        if (std::none_of(keys.begin(), keys.end(), [&](const reg_key& o) { return same_name(o.name, sub.name); })) {
            normalize(sub, depth + 1);
            keys.push_back(std::move(sub));
        }
    }
    k.keys = std::move(keys);
}

// ---------------------------------------------------------------------------------------
// The throwaway key, kept in step with the last input.

// Writes exactly the recipe's bytes. For a string type the system reads one character
// past the data, to add the terminator a caller forgot when that character is one: the
// copy ends in a character that is not, so the data is taken as it is and the read stays
// inside the copy.
void set_value(HKEY key, const reg_value& v)
{
    bytes data = v.data;
    data.insert(data.end(), 2, std::byte{0xFF});
    ::RegSetValueExW(key, v.name.c_str(), 0, v.type, reinterpret_cast<const BYTE*>(data.data()),
                     static_cast<DWORD>(v.data.size()));
}

void write_all(HKEY key, const reg_key& k)
{
    for (const reg_value& v : k.values)
        set_value(key, v);
    for (const reg_key& sub : k.keys) {
        tessel::unique_hkey child;
        if (::RegCreateKeyExW(key, sub.name.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, child.put(), nullptr) ==
            ERROR_SUCCESS)
            write_all(child.get(), sub);
    }
}

void update(HKEY key, const reg_key& from, const reg_key& to)
{
    for (const reg_value& old : from.values)
        if (std::none_of(to.values.begin(), to.values.end(), [&](const reg_value& v) { return same_name(v.name, old.name); }))
            ::RegDeleteValueW(key, old.name.c_str());
    for (const reg_value& v : to.values) {
        const auto old = std::find_if(from.values.begin(), from.values.end(),
                                      [&](const reg_value& o) { return same_name(o.name, v.name); });
        if (old == from.values.end() || old->type != v.type || old->data != v.data || old->name != v.name) {
            if (old != from.values.end() && old->name != v.name)
                ::RegDeleteValueW(key, old->name.c_str());
            set_value(key, v);
        }
    }
    for (const reg_key& old : from.keys)
        if (std::none_of(to.keys.begin(), to.keys.end(), [&](const reg_key& k) { return k.name == old.name; }))
            ::RegDeleteTreeW(key, old.name.c_str());
    for (const reg_key& sub : to.keys) {
        const auto old = std::find_if(from.keys.begin(), from.keys.end(), [&](const reg_key& k) { return k.name == sub.name; });
        if (old != from.keys.end() && *old == sub)
            continue;
        tessel::unique_hkey child;
        if (::RegCreateKeyExW(key, sub.name.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, child.put(), nullptr) !=
            ERROR_SUCCESS)
            continue;
        if (old != from.keys.end())
            update(child.get(), *old, sub);
        else
            write_all(child.get(), sub);
    }
}

struct throwaway_key {
    throwaway_key() { reset(); }
    ~throwaway_key() { ::RegDeleteTreeW(HKEY_CURRENT_USER, fuzz_key); }

    void reset()
    {
        key.reset();
        ::RegDeleteTreeW(HKEY_CURRENT_USER, fuzz_key);
        ::RegCreateKeyExW(HKEY_CURRENT_USER, fuzz_key, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.put(), nullptr);
        current = {};
    }

    void become(const reg_key& next)
    {
        update(key.get(), current, next);
        current = next;
    }

    tessel::unique_hkey key;
    reg_key current;
};

throwaway_key& the_key()
{
    static throwaway_key key;
    return key;
}

reg_key capture(HKEY key, const std::wstring& name)
{
    reg_key k;
    k.name = name;
    for (DWORD i = 0;; ++i) {
        wchar_t value_name[16384];
        DWORD name_size = static_cast<DWORD>(std::size(value_name)), type = 0, size = 0;
        if (::RegEnumValueW(key, i, value_name, &name_size, nullptr, &type, nullptr, &size) != ERROR_SUCCESS)
            break;
        reg_value v{std::wstring(value_name, name_size), type, bytes(size)};
        name_size = static_cast<DWORD>(std::size(value_name));
        ::RegEnumValueW(key, i, value_name, &name_size, nullptr, &type, reinterpret_cast<BYTE*>(v.data.data()), &size);
        k.values.push_back(std::move(v));
    }
    for (DWORD i = 0;; ++i) {
        wchar_t sub_name[256];
        DWORD size = static_cast<DWORD>(std::size(sub_name));
        if (::RegEnumKeyExW(key, i, sub_name, &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        tessel::unique_hkey child;
        if (::RegOpenKeyExW(key, sub_name, 0, KEY_READ, child.put()) == ERROR_SUCCESS)
            k.keys.push_back(capture(child.get(), std::wstring(sub_name, size)));
    }
    return k;
}

// ---------------------------------------------------------------------------------------
// Mutations of a recipe.

bytes integer_bytes(std::uint64_t value, std::size_t width)
{
    bytes data(width);
    std::memcpy(data.data(), &value, width);
    return data;
}

bytes wide_data(const std::wstring& text, bool terminated)
{
    bytes data = seed_data::wide_bytes(text);
    if (terminated)
        data.insert(data.end(), 2, std::byte{0});
    return data;
}

std::vector<reg_value*> all_values(reg_key& k)
{
    std::vector<reg_value*> values;
    for (reg_value& v : k.values)
        values.push_back(&v);
    for (reg_key& sub : k.keys)
        for (reg_value* v : all_values(sub))
            values.push_back(v);
    return values;
}

std::vector<reg_key*> all_keys(reg_key& k)
{
    std::vector<reg_key*> keys{&k};
    for (reg_key& sub : k.keys)
        for (reg_key* inner : all_keys(sub))
            keys.push_back(inner);
    return keys;
}

const std::wstring awkward_names[] = {L"@count", L"@version", L"@id", L"00000", L"00001", L"00009", L"00010", L"99999",
                                      L"0000x", L"-0001", L"", L"language@2", L"promo@1", L"Title@", L"x@4294967296",
                                      L"checkForUpdates", L"hideDisconnected", L"LanguagePacks", L"Credits", L"@",
                                      L"\u00e9t\u00e9", L"ExpiresOn"};

const std::wstring awkward_texts[] = {L"", L"0", L"1", L"true", L"2024-05-01", L"2024-05-31T00:00:00+02:00",
                                      L"9999-99-99T99:99:99+99:99", L"-0001-01-01", L"{00000000-0000-0000-0000-000000000001}",
                                      L"{not a guid}", L"0x1F", L"4294967296", L"-1", L"\xD800", std::wstring(3000, L'x')};

void mutate_value(reg_value& v, rng& random)
{
    static constexpr DWORD types[] = {REG_NONE, REG_SZ, REG_EXPAND_SZ, REG_BINARY, REG_DWORD, REG_DWORD_BIG_ENDIAN,
                                      REG_LINK, REG_MULTI_SZ, REG_QWORD, 0x12345678};
    switch (random.below(9)) {
    case 0: v.type = types[random.below(std::size(types))]; break;
    case 1: v.data.resize(random.below(v.data.size() + 2)); break;  // cut, or one byte more
    case 2: {
        static constexpr std::size_t odd_sizes[] = {0, 1, 2, 3, 5, 7, 8, 9, 10, 16, 4096};
        v.data.resize(odd_sizes[random.below(std::size(odd_sizes))], std::byte{0x41});
        break;
    }
    case 3: {
        static constexpr std::uint64_t numbers[] = {0, 1, 2, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x100000000ull,
                                                    0x7FFFFFFFFFFFFFFFull, ~0ull, 12, 100000};
        const std::uint64_t n = numbers[random.below(std::size(numbers))];
        v.type = random.chance(2) ? REG_DWORD : REG_QWORD;
        v.data = integer_bytes(n, v.type == REG_DWORD ? 4 : 8);
        break;
    }
    case 4:
        v.type = random.chance(4) ? REG_MULTI_SZ : REG_SZ;
        v.data = wide_data(awkward_texts[random.below(std::size(awkward_texts))], !random.chance(4));
        break;
    case 5: v.name = awkward_names[random.below(std::size(awkward_names))]; break;
    case 6: v.name += L"@" + std::to_wstring(random.below(20)); break;
    case 7:
        if (!v.data.empty())
            v.data[random.below(v.data.size())] ^= std::byte(static_cast<unsigned char>(1u << random.below(8)));
        break;
    default: v.data = bytes(random.below(24), std::byte(static_cast<unsigned char>(random.next())));
    }
}

bytes mutate_recipe(const bytes& seed, rng& random, const std::vector<bytes>& corpus)
{
    reg_key root = recipe_reader(seed).key(0);
    const int count = 1 + static_cast<int>(random.below(4));
    for (int m = 0; m < count; ++m) {
        auto values = all_values(root);
        auto keys = all_keys(root);
        reg_key& key = *keys[random.below(keys.size())];
        switch (random.below(10)) {
        case 0:
        case 1:
        case 2:
        case 3:
            if (!values.empty())
                mutate_value(*values[random.below(values.size())], random);
            break;
        case 4:  // a value goes
            if (!key.values.empty())
                key.values.erase(key.values.begin() + static_cast<std::ptrdiff_t>(random.below(key.values.size())));
            break;
        case 5: {  // a marker or member appears
            reg_value v{awkward_names[random.below(std::size(awkward_names))], REG_DWORD, integer_bytes(random.below(3), 4)};
            mutate_value(v, random);
            key.values.push_back(std::move(v));
            break;
        }
        case 6:  // a subkey goes
            if (!key.keys.empty())
                key.keys.erase(key.keys.begin() + static_cast<std::ptrdiff_t>(random.below(key.keys.size())));
            break;
        case 7: {  // a subkey copied under another name (an element ordinal, a member name)
            if (key.keys.empty())
                break;
            reg_key copy = key.keys[random.below(key.keys.size())];
            copy.name = awkward_names[random.below(std::size(awkward_names))];
            key.keys.push_back(std::move(copy));
            break;
        }
        case 8: {  // a value becomes a subkey of the same name, or a subkey a value
            if (!key.values.empty() && random.chance(2)) {
                const std::size_t i = random.below(key.values.size());
                key.keys.push_back({key.values[i].name, {}, {}});
                key.values.erase(key.values.begin() + static_cast<std::ptrdiff_t>(i));
            } else if (!key.keys.empty()) {
                const std::size_t i = random.below(key.keys.size());
                key.values.push_back({key.keys[i].name, REG_SZ, wide_data(L"x", true)});
                key.keys.erase(key.keys.begin() + static_cast<std::ptrdiff_t>(i));
            }
            break;
        }
        default: {  // the keys of another seed
            reg_key other = recipe_reader(corpus[random.below(corpus.size())]).key(0);
            if (!other.keys.empty())
                key.keys.push_back(other.keys[random.below(other.keys.size())]);
            break;
        }
        }
    }
    normalize(root, 0);
    bytes out;
    serialize(root, out);
    return out;
}

// ---------------------------------------------------------------------------------------
// The key held in memory: the reader's registry calls answered from a recipe, as the
// system's registry answers them after the recipe has been written (value names end at
// their first NUL, and a name written twice keeps its first spelling and its last data).

reg_key as_stored(const reg_key& k)
{
    reg_key stored{k.name, {}, {}};
    for (const reg_value& v : k.values) {
        const std::wstring name = v.name.substr(0, v.name.find(L'\0'));
        const auto old = std::find_if(stored.values.begin(), stored.values.end(),
                                      [&](const reg_value& o) { return same_name(o.name, name); });
        if (old != stored.values.end()) {
            old->type = v.type;
            old->data = v.data;
        } else {
            stored.values.push_back({name, v.type, v.data});
        }
    }
    for (const reg_key& sub : k.keys)
        stored.keys.push_back(as_stored(sub));
    // The registry hands out subkeys sorted.
    std::sort(stored.keys.begin(), stored.keys.end(), [](const reg_key& a, const reg_key& b) {
        return ::CompareStringOrdinal(a.name.c_str(), static_cast<int>(a.name.size()), b.name.c_str(),
                                      static_cast<int>(b.name.size()), TRUE) == CSTR_LESS_THAN;
    });
    return stored;
}

const reg_key& key_of(HKEY handle) { return *reinterpret_cast<const reg_key*>(handle); }

LSTATUS copy_name(const std::wstring& name, LPWSTR out, LPDWORD length)
{
    if (!out || !length)
        return ERROR_INVALID_PARAMETER;
    if (name.size() + 1 > *length)
        return ERROR_MORE_DATA;
    std::copy(name.begin(), name.end(), out);
    out[name.size()] = L'\0';
    *length = static_cast<DWORD>(name.size());
    return ERROR_SUCCESS;
}

LSTATUS WINAPI memory_open_key(HKEY parent, LPCWSTR name, DWORD, REGSAM, PHKEY result)
{
    const reg_key& k = key_of(parent);
    const std::wstring wanted = name ? name : L"";
    for (const reg_key& sub : k.keys)
        if (same_name(sub.name, wanted)) {
            *result = reinterpret_cast<HKEY>(const_cast<reg_key*>(&sub));
            return ERROR_SUCCESS;
        }
    return ERROR_FILE_NOT_FOUND;
}

LSTATUS WINAPI memory_close_key(HKEY) { return ERROR_SUCCESS; }

LSTATUS WINAPI memory_query_value(HKEY key, LPCWSTR name, LPDWORD, LPDWORD type, LPBYTE data, LPDWORD size)
{
    const reg_key& k = key_of(key);
    const std::wstring wanted = name ? name : L"";
    const auto v = std::find_if(k.values.begin(), k.values.end(), [&](const reg_value& o) { return same_name(o.name, wanted); });
    if (v == k.values.end())
        return ERROR_FILE_NOT_FOUND;
    if (data && !size)
        return ERROR_INVALID_PARAMETER;
    if (type)
        *type = v->type;
    if (!size)
        return ERROR_SUCCESS;
    const DWORD needed = static_cast<DWORD>(v->data.size());
    if (data && *size < needed) {
        *size = needed;
        return ERROR_MORE_DATA;
    }
    if (data)
        std::memcpy(data, v->data.data(), needed);
    *size = needed;
    return ERROR_SUCCESS;
}

LSTATUS WINAPI memory_enum_value(HKEY key, DWORD index, LPWSTR name, LPDWORD length, LPDWORD, LPDWORD type, LPBYTE data,
                                 LPDWORD size)
{
    const reg_key& k = key_of(key);
    if (index >= k.values.size())
        return ERROR_NO_MORE_ITEMS;
    if (data || size)
        return ERROR_INVALID_PARAMETER;  // the reader never asks for data here
    const LSTATUS status = copy_name(k.values[index].name, name, length);
    if (status == ERROR_SUCCESS && type)
        *type = k.values[index].type;
    return status;
}

LSTATUS WINAPI memory_enum_key(HKEY key, DWORD index, LPWSTR name, LPDWORD length, LPDWORD, LPWSTR, LPDWORD, PFILETIME)
{
    const reg_key& k = key_of(key);
    if (index >= k.keys.size())
        return ERROR_NO_MORE_ITEMS;
    return copy_name(k.keys[index].name, name, length);
}

const tessel::nsm::registry_read_calls memory_calls{memory_open_key, memory_close_key, memory_query_value,
                                                    memory_enum_value, memory_enum_key};

// ---------------------------------------------------------------------------------------

// The three readings of a key: the settings record, a record with arrays, and a walk of
// every entry. `archive` makes a fresh archive over the key. Returns the first refusal.
template <class make_archive>
std::string read_key(const make_archive& archive, int which)
{
    namespace nsm = tessel::nsm;
    std::string refusal;
    const auto refused = [&](const nsm::load_exception& e) {
        if (e.location().empty())
            throw std::logic_error("a load error without a location");
        if (refusal.empty())
            refusal = error_kind(tessel::utf16_to_utf8(e.message()));
    };
    if (which < 0 || which == 0) {
        try {
            app_settings settings;
            nsm::load(*archive(), settings);
        } catch (const nsm::load_exception& e) {
            refused(e);
        }
    }
    if (which < 0 || which == 1) {
        try {
            nsm_test::update_response record;
            nsm::load(*archive(), record);
        } catch (const nsm::load_exception& e) {
            refused(e);
        }
    }
    if (which < 0 || which == 2) {
        // Reads values as kinds a record would not: its refusals are not counted.
        try {
            const auto reader = archive()->create_reader();
            walk_value(*reader, reader->next_entry(), 0);
        } catch (const nsm::load_exception& e) {
            if (e.location().empty())
                throw std::logic_error("a load error without a location");
        }
    }
    return refusal;
}

// One input in this many also goes through the system's registry, which costs
// milliseconds under Wine; chosen by the input's bytes, so that a replay takes the same
// path.
constexpr std::uint32_t system_registry_share = 16;

std::uint32_t input_hash(std::span<const std::byte> input)
{
    std::uint32_t hash = 2166136261u;
    for (const std::byte b : input)
        hash = (hash ^ static_cast<std::uint8_t>(b)) * 16777619u;
    return hash;
}

std::string run_registry(std::span<const std::byte> input)
{
    namespace nsm = tessel::nsm;
    reg_key next = recipe_reader(input).key(0);
    normalize(next, 0);

    // In memory, every reading of every input.
    const reg_key stored = as_stored(next);
    const std::wstring path = std::wstring(L"HKEY_CURRENT_USER\\") + fuzz_key;
    const HKEY memory_key = reinterpret_cast<HKEY>(const_cast<reg_key*>(&stored));
    std::string refusal =
        read_key([&] { return std::make_unique<nsm::registry>(memory_key, path, memory_calls); }, -1);

    if (input_hash(input) % system_registry_share == 0) {
        // Through the system's registry, one reading per input by turns.
        the_key().become(next);
        const std::string system_refusal = read_key(
            [] { return std::make_unique<nsm::registry>(HKEY_CURRENT_USER, fuzz_key); },
            static_cast<int>(input.size() % 3));
        if (refusal.empty())
            refusal = system_refusal;
    }
    return refusal;
}

}  // namespace

target registry_target()
{
    target t;
    t.name = "registry";
    t.seeds = [] {
        namespace nsm = tessel::nsm;
        std::vector<bytes> seeds;
        const auto saved = [&](auto write) {
            ::RegDeleteTreeW(HKEY_CURRENT_USER, fuzz_key);
            write();
            tessel::unique_hkey key;
            ::RegOpenKeyExW(HKEY_CURRENT_USER, fuzz_key, 0, KEY_READ, key.put());
            bytes out;
            serialize(capture(key.get(), L""), out);
            seeds.push_back(std::move(out));
        };
        saved([] {
            app_settings settings;
            settings.language = L"de";
            settings.hide_disconnected = settings.collapse_all = true;
            settings.check_for_updates = false;
            settings.promo = {L"[[[bOffer]]]", L"https://example.test/offer", nsm::date(nsm::days(19874))};
            save_settings(settings, HKEY_CURRENT_USER, fuzz_key);
        });
        saved([] {
            auto response = nsm_test::sample_update_response();
            response.language_packs.resize(1);
            nsm::registry archive(HKEY_CURRENT_USER, fuzz_key, nullptr, false, true);
            nsm::save(archive, response);
        });
        the_key().reset();
        return seeds;
    };
    t.mutate = mutate_recipe;
    t.run = run_registry;
    return t;
}

}  // namespace fuzz
