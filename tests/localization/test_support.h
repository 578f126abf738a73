#pragma once
// Helpers of the localization tests: a writer of table images and packs for cases the
// pack tool refuses to produce (duplicates, holes, odd orders, damage), files and
// folders, and memory that ends at a guard page.

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace test_support {

std::wstring executable_folder();
std::wstring test_data_folder();  // <bin>/localization_test_data
std::vector<std::byte> read_file(const std::wstring& path);
void write_file(const std::wstring& path, std::span<const std::byte> data);
std::string read_text_file(const std::wstring& path);

// A fresh folder under the temporary folder, deleted with everything in it at the end.
class temp_folder {
public:
    temp_folder();
    ~temp_folder();
    temp_folder(const temp_folder&) = delete;
    temp_folder& operator=(const temp_folder&) = delete;
    [[nodiscard]] const std::wstring& path() const noexcept { return path_; }
    [[nodiscard]] std::wstring operator/(std::wstring_view name) const { return path_ + L"\\" + std::wstring(name); }

private:
    std::wstring path_;
};

class table_builder {
public:
    table_builder& language(std::string code, std::string locale);
    // A reserved block of exactly this size, as other tools may write it; without it the
    // block keeps every text at an even offset, as our own tool does.
    table_builder& reserved(std::uint8_t count);
    table_builder& text(std::uint32_t id, std::wstring_view text, std::uint32_t revision = 0);
    table_builder& text(std::wstring_view key, std::wstring_view text, std::uint32_t revision = 0);
    // Items in the order given.
    table_builder& list(std::uint32_t id, std::vector<std::pair<std::uint32_t, std::wstring>> items,
                        std::uint32_t revision = 0);
    [[nodiscard]] std::vector<std::byte> image(bool with_signature) const;

private:
    std::string code_ = "ENU";
    std::string locale_ = "en";
    std::vector<std::byte> entries_;
    std::uint32_t count_ = 0;
    int reserved_ = -1;
};

// Modules are written in the order given; sort = false leaves the directory unsorted;
// align = false packs the modules back to back at whatever offsets that gives.
std::vector<std::byte> make_pack(const std::vector<std::pair<std::wstring, std::vector<std::byte>>>& modules,
                                 bool sort = true, bool align = true);


}  // namespace test_support
