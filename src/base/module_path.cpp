#include "base/module_path.h"

#include "base/failure.h"

namespace tessel {
namespace {

size_t after_last_separator(const std::wstring& path) noexcept
{
    const size_t separator = path.find_last_of(L"\\/");
    return separator == std::wstring::npos ? 0 : separator + 1;
}

}  // namespace

std::wstring module_path(HMODULE module)
{
    // Paths may be longer than MAX_PATH: grow until the name fits.
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = ::GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
        throw_last_error_if(length == 0);
        if (length < path.size()) {
            path.resize(length);
            return path;
        }
        path.resize(path.size() * 2);
    }
}

std::wstring module_folder(HMODULE module)
{
    std::wstring path = module_path(module);
    path.resize(after_last_separator(path));
    return path;
}

std::wstring module_file_name(HMODULE module)
{
    const std::wstring path = module_path(module);
    return path.substr(after_last_separator(path));
}

}  // namespace tessel
