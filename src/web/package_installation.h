#pragma once
// Copies of the program installed by the Windows Installer package (UlmoraTools.msi) belong
// to whoever deployed the package: their deployment tool updates them, so the update check
// offers them neither a new release nor language packs (update_check.h).

#include <string>

namespace tessel::web {

// The package's UpgradeCode and the GUID of its component that holds ServerCfg.exe.
// res/installer/servercfg.wxs carries the same two values.
inline constexpr wchar_t package_upgrade_code[] = L"{98974D96-D868-49FD-9E86-80D263BF301E}";
inline constexpr wchar_t package_program_component[] = L"{744C2D95-FD9B-4AB1-9178-C0677580FB0E}";

// Whether Windows Installer knows a product of the package whose program file is
// program_path. Another copy of the program elsewhere on the machine (from the setup
// program, or an unpacked one) is not the package's, even while the package is installed.
[[nodiscard]] bool installed_by_package(const std::wstring& program_path);

}  // namespace tessel::web
