#include "targets.h"

#include "base/module_path.h"
#include "localization/localization.h"
#include "localization/string_table.h"

#include <windows.h>

#include <fstream>
#include <algorithm>
#include <iterator>

#ifndef FUZZ_SOURCE_DIR
#error "FUZZ_SOURCE_DIR names the source tree"
#endif

namespace fuzz {

namespace seed_data {

std::wstring source_path(std::wstring_view relative)
{
    // Wine shows the Unix root as drive Z:.
    std::wstring path = L"Z:";
    for (const char c : std::string_view(FUZZ_SOURCE_DIR))
        path.push_back(c == '/' ? L'\\' : static_cast<wchar_t>(c));
    path += L'\\';
    for (const wchar_t c : relative)
        path.push_back(c == L'/' ? L'\\' : c);
    return path;
}

bytes read_file(const std::wstring& path)
{
    std::ifstream file(path.c_str(), std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return narrow_bytes(text);
}

bytes resource(int id, const wchar_t* type)
{
    HRSRC found = ::FindResourceW(nullptr, MAKEINTRESOURCEW(id), type);
    HGLOBAL loaded = found ? ::LoadResource(nullptr, found) : nullptr;
    const auto* data = loaded ? static_cast<const std::byte*>(::LockResource(loaded)) : nullptr;
    return data ? bytes(data, data + ::SizeofResource(nullptr, found)) : bytes();
}

std::vector<std::wstring> program_texts()
{
    std::vector<std::wstring> texts;
    for (const int id : {tessel::program_strings_resource, tessel::common_strings_resource}) {
        const bytes image = resource(id, L"STRINGS");
        const auto table = tessel::string_table::load(image, true, nullptr);
        for (const tessel::string_entry* entry : table->entries()) {
            if (!entry->is_list)
                texts.emplace_back(entry->text);
            for (const auto& item : entry->items)
                if (item.data())
                    texts.emplace_back(item);
        }
    }
    return texts;
}

bytes wide_bytes(std::wstring_view text)
{
    const auto* first = reinterpret_cast<const std::byte*>(text.data());
    return bytes(first, first + text.size() * sizeof(wchar_t));
}

bytes narrow_bytes(std::string_view text)
{
    const auto* first = reinterpret_cast<const std::byte*>(text.data());
    return bytes(first, first + text.size());
}

std::vector<std::string> wide_tokens(const std::vector<std::wstring>& tokens)
{
    std::vector<std::string> result;
    for (const std::wstring& token : tokens)
        result.emplace_back(reinterpret_cast<const char*>(token.data()), token.size() * sizeof(wchar_t));
    return result;
}

}  // namespace seed_data

std::string error_kind(std::string_view text)
{
    std::string kind;
    bool quoted = false;
    for (const char c : text.substr(0, std::min<std::size_t>(text.find('\n'), 160))) {
        if (c == '"') {
            quoted = !quoted;
            kind += quoted ? "\"..." : "\"";
            continue;
        }
        if (quoted)
            continue;
        const bool digit = c >= '0' && c <= '9';
        if (!digit)
            kind.push_back(c);
        else if (kind.empty() || kind.back() != '#')
            kind.push_back('#');
    }
    return kind.empty() ? "(empty)" : kind;
}

std::vector<target> all_targets()
{
    std::vector<target> targets = text_targets();
    for (auto& t : binary_targets())
        targets.push_back(std::move(t));
    targets.push_back(registry_target());
    for (auto& t : server_targets())
        targets.push_back(std::move(t));
    targets.push_back(configuration_target());
    return targets;
}

const target* find_target(const std::vector<target>& targets, std::string_view name)
{
    for (const target& t : targets)
        if (t.name == name)
            return &t;
    return nullptr;
}

}  // namespace fuzz
