#include "web/product_version.h"

#include "format/ts_printf.h"

#include <vector>

namespace tessel::web {

std::optional<product_version> module_product_version(HMODULE module)
{
    if (!module)
        module = ::GetModuleHandleW(nullptr);
    HRSRC found = ::FindResourceW(module, MAKEINTRESOURCEW(1), MAKEINTRESOURCEW(16) /* RT_VERSION */);
    if (!found)
        return std::nullopt;
    HGLOBAL loaded = ::LoadResource(module, found);
    const void* data = loaded ? ::LockResource(loaded) : nullptr;
    const DWORD size = ::SizeofResource(module, found);
    if (!data || size == 0)
        return std::nullopt;
    // VerQueryValueW may write into the block it is given, and resource memory is
    // read-only: it works on a copy.
    std::vector<std::byte> copy(static_cast<const std::byte*>(data), static_cast<const std::byte*>(data) + size);
    void* fixed = nullptr;
    UINT fixed_size = 0;
    if (!::VerQueryValueW(copy.data(), L"\\", &fixed, &fixed_size) || fixed_size < sizeof(VS_FIXEDFILEINFO))
        return std::nullopt;
    const auto& info = *static_cast<const VS_FIXEDFILEINFO*>(fixed);
    return product_version{HIWORD(info.dwProductVersionMS), LOWORD(info.dwProductVersionMS),
                           HIWORD(info.dwProductVersionLS), LOWORD(info.dwProductVersionLS)};
}

std::wstring dotted_version(const product_version& v)
{
    return ts_printf::format(L"{}.{}.{}.{}", v.major, v.minor, v.build, v.revision);
}

}  // namespace tessel::web
