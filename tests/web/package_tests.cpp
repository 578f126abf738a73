// The Windows Installer package (UlmoraTools.msi, built by wixl) through Wine's real
// msiexec: install, the installed program, upgrade, refused downgrade, uninstall.

#include "child_process.h"
#include "message_pump.h"
#include "web_test_support.h"

#include "base/module_path.h"
#include "base/unique_handle.h"
#include "base/window_text.h"
#include "msgbox/message_box.h"
#include "ui_main/about_dialog.h"
#include "web/download.h"
#include "web/package_installation.h"
#include "web/update_service.h"

#include <gtest/gtest.h>
#include <msi.h>
#include <shlobj.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int main_window_about = 1004;
constexpr wchar_t settings_key[] = L"Software\\QMX Software\\Ulmora Tools\\ServerCfg";

std::wstring known_folder(const KNOWNFOLDERID& id)
{
    wchar_t* path = nullptr;
    ::SHGetKnownFolderPath(id, 0, nullptr, &path);
    const tessel::unique_cotaskmem owner(path);
    return path ? path : L"";
}

bool exists(const std::wstring& path)
{
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::vector<std::wstring> installed_products()
{
    std::vector<std::wstring> products;
    wchar_t product[39];
    while (::MsiEnumRelatedProductsW(tessel::web::package_upgrade_code, 0, static_cast<DWORD>(products.size()),
                                     product) == ERROR_SUCCESS)
        products.emplace_back(product);
    return products;
}

std::wstring uninstall_value(const std::wstring& product, const wchar_t* name)
{
    wchar_t value[512] = {};
    DWORD size = sizeof value, type = 0;
    const std::wstring key = L"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\" + product;
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_SZ | RRF_RT_REG_DWORD, &type, value, &size))
        return L"<none>";
    DWORD number = 0;
    std::memcpy(&number, value, sizeof number);
    return type == REG_DWORD ? std::to_wstring(number) : value;
}

// A visible top-level window of the process that has control `id` (and that owner, when given).
HWND window_with(const test_support::child_process& process, int id, HWND owner = nullptr)
{
    struct search {
        DWORD process;
        int id;
        HWND owner;
        HWND found = nullptr;
    } state{::GetProcessId(process.handle()), id, owner};
    ::EnumWindows([](HWND window, LPARAM lparam) -> BOOL {
        auto& state = *reinterpret_cast<search*>(lparam);
        DWORD owner = 0;
        ::GetWindowThreadProcessId(window, &owner);
        if (owner == state.process && ::IsWindowVisible(window) && ::GetDlgItem(window, state.id) &&
            (!state.owner || ::GetWindow(window, GW_OWNER) == state.owner))
            state.found = window;
        return !state.found;
    }, reinterpret_cast<LPARAM>(&state));
    return state.found;
}

HWND wait_for_window_with(const test_support::child_process& process, int id, HWND owner = nullptr)
{
    HWND window = nullptr;
    test_support::pump_until([&] { return (window = window_with(process, id, owner)) != nullptr; }, 20000);
    return window;
}

DWORD msiexec(const std::wstring& arguments)
{
    test_support::child_process installer(L"msiexec.exe " + arguments);
    return installer.wait(120000);
}

TEST(package, installs_runs_upgrades_refuses_a_downgrade_and_uninstalls_silently)
{
    const std::wstring package = L"\"" + tessel::module_folder() + L"UlmoraTools.msi\"";
    const std::wstring next_package = L"\"" + tessel::module_folder() + L"package_test\\UlmoraTools.msi\"";
    const std::wstring vendor = known_folder(FOLDERID_ProgramFilesX64) + L"\\QMX Software";
    const std::wstring folder = vendor + L"\\Ulmora Tools";
    // Wine's installer puts the shortcuts of a per-machine package into the user's Start
    // menu; Windows into the common one.
    const std::wstring shortcut = L"\\QMX Software\\Ulmora Tools Server Configuration.lnk";
    const auto shortcut_exists = [&] {
        return exists(known_folder(FOLDERID_CommonPrograms) + shortcut) || exists(known_folder(FOLDERID_Programs) + shortcut);
    };
    ASSERT_TRUE(installed_products().empty());

    ASSERT_EQ(msiexec(L"/i " + package + L" /qn"), 0u);
    EXPECT_TRUE(exists(folder + L"\\ServerCfg.exe"));
    EXPECT_EQ(web_test::files_in(folder + L"\\languages"), web_test::files_in(tessel::module_folder() + L"languages"));
    EXPECT_TRUE(shortcut_exists());
    std::vector<std::wstring> products = installed_products();
    ASSERT_EQ(products.size(), 1u);
    EXPECT_EQ(uninstall_value(products[0], L"DisplayVersion"), L"1.0.0.0");
    EXPECT_EQ(uninstall_value(products[0], L"Publisher"), L"QMX Software");
    EXPECT_EQ(uninstall_value(products[0], L"InstallLocation"), folder + L"\\");
    EXPECT_EQ(uninstall_value(products[0], L"NoModify"), L"1");
    EXPECT_TRUE(uninstall_value(products[0], L"HelpLink").starts_with(L"https://"));

    {
        // The installed copy starts against the substitute server; a newer version exists.
        // The automatic check at start-up stores the promotion and shows nothing; asked from
        // the About box, the program names the version and the deployment, and downloads nothing.
        ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key);
        test_support::registered_sim_server sim_server;
        ASSERT_TRUE(sim_server.registered());
        const std::wstring service = web_test::server().base() + L"newer/";
        ASSERT_EQ(::RegSetKeyValueW(HKEY_LOCAL_MACHINE, std::wstring(tessel::web::update_service_override_key).c_str(),
                                    std::wstring(tessel::web::update_service_override_value).c_str(), REG_SZ,
                                    service.c_str(), static_cast<DWORD>((service.size() + 1) * sizeof(wchar_t))),
                  ERROR_SUCCESS);
        const std::wstring downloads = tessel::web::secure_download_folder();
        const auto downloaded_before = web_test::files_in(downloads);
        test_support::child_process program(L"\"" + folder + L"\\ServerCfg.exe\"");
        const HWND main_window = wait_for_window_with(program, main_window_about);
        ASSERT_NE(main_window, nullptr);
        const HWND promotion = ::GetDlgItem(main_window, 1020);
        EXPECT_TRUE(test_support::pump_until([&] { return tessel::windows::window_text(promotion) == L"Test offer"; }, 20000));
        constexpr DWORD settle_ms = 1000;
        test_support::pump_for(settle_ms);
        EXPECT_EQ(window_with(program, tessel::message_box_text_id), nullptr) << "the automatic check showed a box";

        ::PostMessageW(::GetDlgItem(main_window, main_window_about), BM_CLICK, 0, 0);
        const HWND about = wait_for_window_with(program, servercfg::about_dialog_controls::check_for_updates, main_window);
        ASSERT_NE(about, nullptr);
        ::PostMessageW(::GetDlgItem(about, servercfg::about_dialog_controls::check_for_updates), BM_CLICK, 0, 0);
        const HWND box = wait_for_window_with(program, tessel::message_box_text_id, about);
        ASSERT_NE(box, nullptr);
        EXPECT_EQ(tessel::windows::window_text(::GetDlgItem(box, tessel::message_box_text_id)),
                  L"Ulmora Tools version 1.0.0.1 is available. This copy was installed by your organization's "
                  L"software deployment and is updated by your administrator.");
        EXPECT_FALSE(::IsWindowVisible(::GetDlgItem(box, IDYES))) << "an offer to download";
        ::PostMessageW(::GetDlgItem(box, IDOK), BM_CLICK, 0, 0);
        ::PostMessageW(about, WM_CLOSE, 0, 0);
        ::PostMessageW(main_window, WM_CLOSE, 0, 0);
        EXPECT_EQ(program.wait(), 0u);
        EXPECT_EQ(web_test::files_in(downloads), downloaded_before);
        ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, std::wstring(tessel::web::update_service_override_key).c_str(),
                             std::wstring(tessel::web::update_service_override_value).c_str());
    }

    // A newer package replaces the installed one: one entry, the new version.
    ASSERT_EQ(msiexec(L"/i " + next_package + L" /qn"), 0u);
    products = installed_products();
    ASSERT_EQ(products.size(), 1u);
    EXPECT_EQ(uninstall_value(products[0], L"DisplayVersion"), TESSEL_NEXT_PACKAGE_VERSION);
    EXPECT_TRUE(exists(folder + L"\\ServerCfg.exe"));

    {
        // An older one is refused, and says why.
        test_support::child_process downgrade(L"msiexec.exe /i " + package + L" /qb");
        const HWND box = wait_for_window_with(downgrade, IDOK);
        ASSERT_NE(box, nullptr);
        // The system's message box: its text is the static control that has one.
        std::wstring text;
        for (HWND label = nullptr; text.empty() && (label = ::FindWindowExW(box, label, L"Static", nullptr));)
            text = tessel::windows::window_text(label);
        EXPECT_TRUE(text.starts_with(L"A newer version of Ulmora Tools Server Configuration Utility is already installed."))
            << text;
        ::PostMessageW(box, WM_COMMAND, IDOK, 0);
        EXPECT_EQ(downgrade.wait(60000), static_cast<DWORD>(ERROR_INSTALL_FAILURE));
        EXPECT_EQ(installed_products(), products);
    }

    // Uninstalling removes what the package put there and leaves the user's settings.
    ASSERT_EQ(msiexec(L"/x " + next_package + L" /qn"), 0u);
    EXPECT_TRUE(installed_products().empty());
    EXPECT_EQ(uninstall_value(products[0], L"DisplayName"), L"<none>");
    EXPECT_FALSE(exists(vendor));
    EXPECT_FALSE(shortcut_exists());
    tessel::unique_hkey settings;
    EXPECT_EQ(::RegOpenKeyExW(HKEY_CURRENT_USER, settings_key, 0, KEY_READ, settings.put()), ERROR_SUCCESS);
}

}  // namespace
