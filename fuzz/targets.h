#pragma once
// The readers the fuzz command and the fuzz tests exercise, one target each.

#include "engine.h"

#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// Every reader, in the order they are reported.
std::vector<target> all_targets();
[[nodiscard]] const target* find_target(const std::vector<target>& targets, std::string_view name);

// Text targets (format, markup, json, command line), binary ones (string tables,
// language packs, icons), the registry archive and the substitute server's readers.
std::vector<target> text_targets();
std::vector<target> binary_targets();
target registry_target();
std::vector<target> server_targets();
target configuration_target();

// Seeds and helpers shared by the targets.
namespace seed_data {
// The source tree as Wine sees it (Z:\...), for the project's data files.
[[nodiscard]] std::wstring source_path(std::wstring_view relative);
[[nodiscard]] bytes read_file(const std::wstring& path);
// A resource of this executable; empty when missing.
[[nodiscard]] bytes resource(int id, const wchar_t* type);
// Every English text of the program's string tables.
[[nodiscard]] std::vector<std::wstring> program_texts();
[[nodiscard]] bytes wide_bytes(std::wstring_view text);
[[nodiscard]] bytes narrow_bytes(std::string_view text);
// Tokens for wide-text targets: each one's UTF-16 bytes.
[[nodiscard]] std::vector<std::string> wide_tokens(const std::vector<std::wstring>& tokens);
}  // namespace seed_data

// Error texts with their numbers (positions, codes) and quoted parts blanked, so that
// "distinct error texts" counts kinds of refusal rather than places and names.
[[nodiscard]] std::string error_kind(std::string_view text);

}  // namespace fuzz
