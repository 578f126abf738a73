#include "test_support.h"

#include "base/module_path.h"
#include "localization/pack_file.h"
#include "localization/string_id.h"
#include "localization/string_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace test_support {

namespace {

void append(std::vector<std::byte>& out, const void* data, std::size_t size)
{
    const std::size_t at = out.size();
    out.resize(at + size);
    if (size != 0)
        std::memcpy(out.data() + at, data, size);
}

template <class T>
void append_value(std::vector<std::byte>& out, T value)
{
    append(out, &value, sizeof(value));
}

void append_narrow(std::vector<std::byte>& out, const std::string& text)
{
    append_value(out, static_cast<std::int16_t>(text.size()));
    append(out, text.data(), text.size());
    append_value(out, '\0');
}

void append_wide(std::vector<std::byte>& out, std::wstring_view text)
{
    append_value(out, static_cast<std::int16_t>(text.size()));
    append(out, text.data(), text.size() * sizeof(wchar_t));
    append_value(out, L'\0');
}

void remove_tree(const std::wstring& folder)
{
    WIN32_FIND_DATAW found{};
    HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = found.cFileName;
            if (name == L"." || name == L"..")
                continue;
            const std::wstring path = folder + L"\\" + name;
            if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                remove_tree(path);
            else
                DeleteFileW(path.c_str());
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }
    RemoveDirectoryW(folder.c_str());
}

}  // namespace

std::wstring executable_folder()
{
    std::wstring folder = tessel::module_folder();
    folder.pop_back();  // callers add their own separator
    return folder;
}

std::wstring test_data_folder()
{
    return executable_folder() + L"\\localization_test_data";
}

std::vector<std::byte> read_file(const std::wstring& path)
{
    std::ifstream in(path.c_str(), std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read a test file");
    std::vector<char> chars((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<std::byte> bytes(chars.size());
    std::memcpy(bytes.data(), chars.data(), chars.size());
    return bytes;
}

std::string read_text_file(const std::wstring& path)
{
    const auto bytes = read_file(path);
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

void write_file(const std::wstring& path, std::span<const std::byte> data)
{
    std::ofstream out(path.c_str(), std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    if (!out)
        throw std::runtime_error("cannot write a test file");
}

temp_folder::temp_folder()
{
    wchar_t base[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, base);
    static unsigned counter = 0;
    for (;;) {
        path_ = std::wstring(base) + L"loc_test_" + std::to_wstring(GetCurrentProcessId()) + L"_" +
                std::to_wstring(++counter);
        if (CreateDirectoryW(path_.c_str(), nullptr))
            break;
        if (GetLastError() != ERROR_ALREADY_EXISTS)
            throw std::runtime_error("cannot create a temporary folder");
    }
}

temp_folder::~temp_folder()
{
    remove_tree(path_);
}

table_builder& table_builder::language(std::string code, std::string locale)
{
    code_ = std::move(code);
    locale_ = std::move(locale);
    return *this;
}

table_builder& table_builder::reserved(std::uint8_t count)
{
    reserved_ = count;
    return *this;
}

table_builder& table_builder::text(std::uint32_t id, std::wstring_view text, std::uint32_t revision)
{
    append_value(entries_, id);
    append_value(entries_, revision << 2);
    append_wide(entries_, text);
    ++count_;
    return *this;
}

table_builder& table_builder::text(std::wstring_view key, std::wstring_view text, std::uint32_t revision)
{
    return this->text(tessel::string_id(key), text, revision);
}

table_builder& table_builder::list(std::uint32_t id, std::vector<std::pair<std::uint32_t, std::wstring>> items,
                                   std::uint32_t revision)
{
    append_value(entries_, id);
    append_value(entries_, (revision << 2) | 1);
    append_value(entries_, static_cast<std::uint32_t>(items.size()));
    for (const auto& [index, text] : items) {
        append_value(entries_, index);
        append_wide(entries_, text);
    }
    ++count_;
    return *this;
}

std::vector<std::byte> table_builder::image(bool with_signature) const
{
    std::vector<std::byte> out;
    if (with_signature)
        append(out, tessel::table_signature, sizeof(tessel::table_signature));
    append_narrow(out, code_);
    append_narrow(out, locale_);
    // The reserved block keeps the entries, and with them every text, at even offsets.
    const std::uint8_t reserved = reserved_ >= 0                           ? static_cast<std::uint8_t>(reserved_)
                                  : (out.size() + 1 + 2 + 4) % 2 == 0 ? 2
                                                                       : 3;
    append_value(out, reserved);
    out.resize(out.size() + reserved);
    append_value(out, count_);
    out.insert(out.end(), entries_.begin(), entries_.end());
    return out;
}

std::vector<std::byte> make_pack(const std::vector<std::pair<std::wstring, std::vector<std::byte>>>& modules, bool sort,
                                 bool align)
{
    std::vector<std::pair<std::uint32_t, const std::vector<std::byte>*>> order;
    for (const auto& [name, image] : modules)
        order.emplace_back(tessel::module_hash(name), &image);
    if (sort)
        std::stable_sort(order.begin(), order.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::byte> out;
    append(out, tessel::pack_signature, sizeof(tessel::pack_signature));
    append_value(out, static_cast<std::uint32_t>(order.size()));
    std::size_t offset = out.size() + order.size() * 8;
    for (const auto& [hash, image] : order) {
        if (align)
            offset = (offset + 3) & ~std::size_t{3};
        append_value(out, hash);
        append_value(out, static_cast<std::int32_t>(offset));
        offset += image->size();
    }
    for (const auto& [hash, image] : order) {
        if (align)
            out.resize((out.size() + 3) & ~std::size_t{3});
        out.insert(out.end(), image->begin(), image->end());
    }
    return out;
}

}  // namespace test_support
