#pragma once
// LanguagePack: one chain of string tables (a pack module, if any, over a built-in
// English table, over the parent pack's chain) and the translators' correction store.

#include "localization/string_table.h"

#include <windows.h>

#include <cstdint>
#include <ctime>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

namespace tessel {

// An id that no table of a chain holds. The built-in tables hold every id the program
// uses, so this signals a defect.
class no_string_exception : public std::exception {
public:
    [[nodiscard]] const char* what() const noexcept override { return "string not found"; }
};

class LanguagePack {
public:
    // The built-in table from the "STRINGS" resource resource_id of module (null: the
    // executable), over the parent's chain, with module_image (a pack module, no
    // signature) on top when given. A missing resource leaves the pack not loaded and
    // without a table of its own. The recording flag is copied from the parent.
    LanguagePack(HMODULE module, int resource_id, std::shared_ptr<const LanguagePack> parent,
                 std::optional<std::span<const std::byte>> module_image, std::wstring module_name);
    // The same over a built-in image given directly (with its signature).
    LanguagePack(std::span<const std::byte> builtin_image, std::shared_ptr<const LanguagePack> parent,
                 std::optional<std::span<const std::byte>> module_image, std::wstring module_name);

    LanguagePack(const LanguagePack&) = delete;
    LanguagePack& operator=(const LanguagePack&) = delete;

    // Throws no_string_exception.
    [[nodiscard]] const string_entry& find(std::uint32_t id) const;
    // A single string; for an indexed list its item 0. Throws no_string_exception.
    [[nodiscard]] std::wstring_view text(std::uint32_t id) const;
    // Item index of an indexed list (index 0 of a single string is the string), from the
    // first table of the chain that has that item. Throws no_string_exception when none has.
    [[nodiscard]] std::wstring_view item(std::uint32_t id, std::size_t index) const;
    // By key text (dialog and control captions). A recorded correction wins.
    [[nodiscard]] std::wstring text_by_key(std::wstring_view key) const;

    [[nodiscard]] bool loaded() const noexcept { return loaded_; }
    [[nodiscard]] const std::shared_ptr<const string_table>& head() const noexcept { return head_; }
    [[nodiscard]] const std::wstring& module_name() const noexcept { return module_name_; }

    // Correction recording, a mode for translators: nothing in the program turns it on.
    [[nodiscard]] bool recording() const noexcept { return recording_; }
    void set_recording(bool on) noexcept { recording_ = on; }
    void record_correction(std::wstring key, std::wstring text);
    [[nodiscard]] std::size_t correction_count() const;

    // Writes "<base>.<yyyymmdd-hhmmss>.xml" (local time, overwriting a file of that
    // name). Returns 0, or -1 when not recording or the file cannot be created.
    int export_corrections(std::wstring_view base_path) const;
    int export_corrections(std::wstring_view base_path, const std::tm& local_time) const;
    // The export's content (UTF-8) and file name, without writing.
    [[nodiscard]] std::string corrections_document() const;
    [[nodiscard]] static std::wstring corrections_file_name(std::wstring_view base_path, const std::tm& local_time);

private:
    void build(std::optional<std::span<const std::byte>> builtin_image, const std::shared_ptr<const LanguagePack>& parent,
               std::optional<std::span<const std::byte>> module_image);

    // 64-bit FNV-1a over the bytes of the UTF-16 text.
    struct key_hash {
        std::size_t operator()(const std::wstring& key) const noexcept;
    };

    std::shared_ptr<const string_table> head_;
    bool loaded_ = false;
    bool recording_ = false;
    std::wstring module_name_;
    mutable SRWLOCK lock_ = SRWLOCK_INIT;
    std::unordered_map<std::wstring, std::wstring, key_hash> corrections_;
};

// Escaping of the corrections export: '"' -> "&quot;", '&' -> "&amp;", CR LF TAB ->
// backslash r/n/t; "<", ">" and "'" stay as they are (translators read the file).
[[nodiscard]] std::wstring escape_correction(std::wstring_view text);

}  // namespace tessel
