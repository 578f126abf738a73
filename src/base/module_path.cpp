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

std::wstring final_path_of(HANDLE file)
{
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = ::GetFinalPathNameByHandleW(file, path.data(), static_cast<DWORD>(path.size()),
                                                         FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
        throw_last_error_if(length == 0);
        if (length < path.size()) {
            path.resize(length);
            break;
        }
        path.resize(length + 1);
    }
    // The system answers "\\?\C:\..." or "\\?\UNC\server\...": the prefix goes where the
    // rest fits the ordinary form, which is what installers expect to see as their own path.
    constexpr std::wstring_view local = L"\\\\?\\", unc = L"\\\\?\\UNC\\";
    if (path.size() < MAX_PATH + local.size()) {
        if (path.starts_with(unc))
            return L"\\\\" + path.substr(unc.size());
        if (path.starts_with(local) && path.size() > local.size() + 2 && path[local.size() + 1] == L':')
            return path.substr(local.size());
    }
    return path;
}

}  // namespace tessel
