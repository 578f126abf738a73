#pragma once
// The icon font "Fluent", embedded as an RT_FONT resource and made available to
// DirectWrite only inside this program through a custom font collection: it is never
// installed in the system.

#include "base/com_ptr.h"

#include <dwrite.h>

#include <cstdint>

namespace tessel::ui {

inline constexpr int embedded_font_resource_id = 131;
inline constexpr wchar_t embedded_font_family[] = L"Fluent";

namespace details {

// What DirectWrite hands back to our loaders: exactly these 16 bytes.
struct font_resource_key {
    std::uint64_t module;  // HMODULE holding the resource
    std::uint64_t name;    // resource name pointer or integer id
};
static_assert(sizeof(font_resource_key) == 16);

// The loader objects, created through these functions and registered by
// embedded_font_loaders below.
[[nodiscard]] com_ptr<IDWriteFontFileLoader> make_font_file_loader();
// The HRESULT the loader returns when a resource was found but cannot be loaded or
// locked: the last error's, and E_FAIL when the system left none (a failure must never
// read as S_OK without a stream).
[[nodiscard]] HRESULT resource_load_failure(DWORD last_error) noexcept;
[[nodiscard]] com_ptr<IDWriteFontCollectionLoader> make_font_collection_loader(IDWriteFontFileLoader* file_loader);

}  // namespace details

// Registers the loaders with one DirectWrite factory for its lifetime and hands out
// collections of embedded fonts. Keep it alive as long as the factory is used.
class embedded_font_loaders {
public:
    explicit embedded_font_loaders(IDWriteFactory* factory);
    ~embedded_font_loaders();
    embedded_font_loaders(const embedded_font_loaders&) = delete;
    embedded_font_loaders& operator=(const embedded_font_loaders&) = delete;

    // The collection holding the RT_FONT resource `name` of `module`; throws when the
    // resource is missing (ERROR_RESOURCE_NAME_NOT_FOUND) or holds no usable font
    // (DWRITE_E_FILEFORMAT).
    [[nodiscard]] com_ptr<IDWriteFontCollection> collection(HMODULE module, const wchar_t* name) const;
    // The program's own icon font (resource 131 of the executable).
    [[nodiscard]] com_ptr<IDWriteFontCollection> program_font() const;

private:
    com_ptr<IDWriteFactory> factory_;
    com_ptr<IDWriteFontFileLoader> file_loader_;
    com_ptr<IDWriteFontCollectionLoader> collection_loader_;
};

}  // namespace tessel::ui
