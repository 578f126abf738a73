#include "web/package_installation.h"

#include "base/unique_handle.h"

#include <windows.h>
#include <msi.h>

namespace tessel::web {
namespace {

// msi.dll is loaded only when it is asked, and only from the system folder: the program
// runs elevated, and a copy of it may lie in a folder where anyone can drop a DLL.
struct installer_library {
    unique_hmodule module{::LoadLibraryExW(L"msi.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32)};
    decltype(&::MsiEnumRelatedProductsW) enum_related_products = find<decltype(enum_related_products)>("MsiEnumRelatedProductsW");
    decltype(&::MsiGetComponentPathW) get_component_path = find<decltype(get_component_path)>("MsiGetComponentPathW");

    template <class F>
    F find(const char* name) const
    {
        return module ? reinterpret_cast<F>(reinterpret_cast<void (*)()>(::GetProcAddress(module.get(), name))) : nullptr;
    }
    explicit operator bool() const { return enum_related_products && get_component_path; }
};

// The same file may be named in its short or long form and in any case.
std::wstring long_form(const std::wstring& path)
{
    std::wstring result(MAX_PATH, L'\0');
    DWORD length = ::GetLongPathNameW(path.c_str(), result.data(), static_cast<DWORD>(result.size()));
    if (length >= result.size()) {
        result.resize(length);
        length = ::GetLongPathNameW(path.c_str(), result.data(), static_cast<DWORD>(result.size()));
    }
    if (length == 0 || length >= result.size())
        return path;
    result.resize(length);
    return result;
}

bool same_path(const std::wstring& a, const std::wstring& b)
{
    return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()), TRUE) ==
           CSTR_EQUAL;
}

// Where the product installed the program's component; empty when it is not installed there.
std::wstring installed_program_path(const installer_library& msi, const wchar_t* product)
{
    std::wstring path(MAX_PATH, L'\0');
    DWORD size = static_cast<DWORD>(path.size());
    INSTALLSTATE state = msi.get_component_path(product, package_program_component, path.data(), &size);
    if (state == INSTALLSTATE_MOREDATA) {
        path.resize(size + 1);
        size = static_cast<DWORD>(path.size());
        state = msi.get_component_path(product, package_program_component, path.data(), &size);
    }
    if (state != INSTALLSTATE_LOCAL)
        return {};
    path.resize(size);
    return path;
}

}  // namespace

bool installed_by_package(const std::wstring& program_path)
{
    const installer_library msi;
    if (!msi)
        return false;
    const std::wstring program = long_form(program_path);
    wchar_t product[39];
    for (DWORD index = 0; msi.enum_related_products(package_upgrade_code, 0, index, product) == ERROR_SUCCESS; ++index) {
        const std::wstring installed = installed_program_path(msi, product);
        if (!installed.empty() && same_path(long_form(installed), program))
            return true;
    }
    return false;
}

}  // namespace tessel::web
