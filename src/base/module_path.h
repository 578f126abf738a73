#pragma once
// Where a module (the executable, by default) lies: whatever the program finds "beside
// itself" (language packs, the substitute server, helper executables) starts here.

#include <windows.h>

#include <string>

namespace tessel {

// The full path of the module's file; throws fibra::details::hresult_error.
[[nodiscard]] std::wstring module_path(HMODULE module = nullptr);
// The folder of that file, with its trailing separator.
[[nodiscard]] std::wstring module_folder(HMODULE module = nullptr);
// The file name alone ("ServerCfg.exe").
[[nodiscard]] std::wstring module_file_name(HMODULE module = nullptr);

// The path of the file or folder an open handle refers to now, as the system resolves it
// (links followed), in the drive-letter or UNC form that every API takes.
[[nodiscard]] std::wstring final_path_of(HANDLE file);

}  // namespace tessel
