// The Windows Installer package (UlmoraTools.msi) through Wine's real msiexec.

#include "child_process.h"
#include "message_pump.h"
#include "web_test_support.h"

#include "base/window_text.h"
#include "msgbox/message_box.h"
#include "ui_main/about_dialog.h"
#include "web/package_installation.h"
#include "web/update_service.h"

#include <gtest/gtest.h>
#include <msi.h>
#include <shlobj.h>
#include <softpub.h>

namespace {

using test_support::child_process;
using tessel::windows::window_text;

std::wstring known_folder(int csidl)
{
    wchar_t path[MAX_PATH] = {};
    ::SHGetFolderPathW(nullptr, csidl, nullptr, SHGFP_TYPE_CURRENT, path);
    return path;
}

bool exists(const std::wstring& path) { return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

std::vector<std::wstring> installed_products()
{
    std::vector<std::wstring> products;
    for (wchar_t code[39]; ::MsiEnumRelatedProductsW(tessel::web::package_upgrade_code, 0,
                                                      static_cast<DWORD>(products.size()), code) == ERROR_SUCCESS;)
        products.emplace_back(code);
    return products;
}

std::wstring uninstall_text(const std::wstring& product, const wchar_t* name)
{
    wchar_t value[512] = L"<none>";
    DWORD size = sizeof value;
    ::RegGetValueW(HKEY_LOCAL_MACHINE, (L"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\" + product).c_str(),
                   name, RRF_RT_REG_SZ, nullptr, value, &size);
    return value;
}

// A visible top-level window of the process with control `id` (and that owner, if given).
HWND wait_for_window(const child_process& process, int id, HWND owner = nullptr, DWORD timeout_ms = 20000)
{
    HWND found = nullptr;
    test_support::pump_until([&] {
        for (HWND window = nullptr; (window = ::FindWindowExW(nullptr, window, nullptr, nullptr));) {
            DWORD process_id = 0;
            ::GetWindowThreadProcessId(window, &process_id);
            if (process_id == ::GetProcessId(process.handle()) && ::IsWindowVisible(window) &&
                ::GetDlgItem(window, id) && (!owner || ::GetWindow(window, GW_OWNER) == owner))
                return (found = window) != nullptr;
        }
        return false;
    }, timeout_ms);
    return found;
}

DWORD msiexec(const std::wstring& arguments) { return child_process(L"msiexec.exe " + arguments).wait(120000); }

TEST(package, is_signed_installs_runs_upgrades_refuses_a_downgrade_and_uninstalls_silently)
{
    const std::wstring bin = tessel::module_folder(), package = L'"' + bin + L"UlmoraTools.msi\"";
    const std::wstring next_package = L'"' + bin + L"package_test\\UlmoraTools.msi\"";
    const std::wstring vendor = known_folder(CSIDL_PROGRAM_FILES) + L"\\QMX Software", folder = vendor + L"\\Ulmora Tools";
    const std::wstring settings_key = L"Software\\QMX Software\\Ulmora Tools\\ServerCfg";
    // Trusted first: the program that comes later asks the service at once.
    const std::wstring service = web_test::server().base() + L"deployed/";
    // Wine's installer puts a per-machine package's shortcuts into the user's Start menu.
    const auto shortcut_exists = [] {
        const std::wstring shortcut = L"\\QMX Software\\Ulmora Tools Server Configuration.lnk";
        return exists(known_folder(CSIDL_COMMON_PROGRAMS) + shortcut) || exists(known_folder(CSIDL_PROGRAMS) + shortcut);
    };

    // Wine checks that a package is signed, not its digest nor its signer: those are checked
    // natively (package_signature_tests.sh).
    const std::wstring package_path = bin + L"UlmoraTools.msi";
    WINTRUST_FILE_INFO file{};
    file.cbStruct = sizeof file, file.pcwszFilePath = package_path.c_str();
    WINTRUST_DATA trust{};
    trust.cbStruct = sizeof trust, trust.dwUIChoice = WTD_UI_NONE, trust.dwUnionChoice = WTD_CHOICE_FILE, trust.pFile = &file;
    GUID verify = WINTRUST_ACTION_GENERIC_VERIFY_V2;
    EXPECT_EQ(::WinVerifyTrust(static_cast<HWND>(INVALID_HANDLE_VALUE), &verify, &trust), S_OK);

    ASSERT_TRUE(installed_products().empty());
    ASSERT_EQ(msiexec(L"/i " + package + L" /qn"), 0u);
    EXPECT_TRUE(exists(folder + L"\\ServerCfg.exe"));
    EXPECT_EQ(exists(folder + L"\\ulmora-cfg.exe"), exists(bin + L"ulmora-cfg.exe")) << "the console companion";
    EXPECT_EQ(web_test::files_in(folder + L"\\languages"), web_test::files_in(bin + L"languages"));
    EXPECT_TRUE(web_test::read_file(folder + L"\\ThirdPartyNotices.txt") == web_test::read_file(bin + L"ThirdPartyNotices.txt"))
        << "the third-party notices are not installed as built";
    EXPECT_TRUE(shortcut_exists());
    std::vector<std::wstring> products = installed_products();
    ASSERT_EQ(products.size(), 1u);
    for (const auto& [name, value] : {std::pair{L"DisplayVersion", L"1.0.0.0"}, {L"Publisher", L"QMX Software"},
                                      {L"HelpLink", L"https://www.qmx-software.example/"}})
        EXPECT_EQ(uninstall_text(products[0], name), value) << name;
    EXPECT_EQ(uninstall_text(products[0], L"InstallLocation"), folder + L"\\");

    {
        // The installed copy, with a newer version and language packs on offer: the
        // automatic check shows nothing; asked from the About box, it names the version
        // and the deployment, and offers no pack.
        ::RegDeleteTreeW(HKEY_CURRENT_USER, settings_key.c_str());
        const test_support::registered_sim_server sim_server;
        const std::wstring key(tessel::web::update_service_override_key), value(tessel::web::update_service_override_value);
        ASSERT_EQ(::RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), value.c_str(), REG_SZ, service.c_str(),
                                    static_cast<DWORD>((service.size() + 1) * sizeof(wchar_t))), ERROR_SUCCESS);
        child_process program(L"\"" + folder + L"\\ServerCfg.exe\"");
        constexpr int about_button = 1004, promotion_line = 1020;
        const HWND main_window = wait_for_window(program, about_button);
        ASSERT_NE(main_window, nullptr);
        EXPECT_TRUE(test_support::pump_until(
            [&] { return window_text(::GetDlgItem(main_window, promotion_line)) == L"Test offer"; }, 60000));
        constexpr DWORD settle_ms = 1000;
        EXPECT_EQ(wait_for_window(program, tessel::message_box_text_id, nullptr, settle_ms), nullptr)
            << "the automatic check showed a box";

        ::PostMessageW(::GetDlgItem(main_window, about_button), BM_CLICK, 0, 0);
        const int check = servercfg::about_dialog_controls::check_for_updates;
        const HWND about = wait_for_window(program, check, main_window);
        ASSERT_NE(about, nullptr);
        ::PostMessageW(::GetDlgItem(about, check), BM_CLICK, 0, 0);
        const HWND box = wait_for_window(program, tessel::message_box_text_id, about);
        ASSERT_NE(box, nullptr);
        EXPECT_EQ(window_text(::GetDlgItem(box, tessel::message_box_text_id)),
                  L"Ulmora Tools version 1.0.0.1 is available. This copy was installed by your organization's "
                  L"software deployment and is updated by your administrator.");
        EXPECT_FALSE(::IsWindowVisible(::GetDlgItem(box, IDYES))) << "an offer to download";
        ::PostMessageW(::GetDlgItem(box, IDOK), BM_CLICK, 0, 0);
        EXPECT_EQ(program.wait(settle_ms), STILL_ACTIVE) << "the program closed for an installer";
        EXPECT_EQ(wait_for_window(program, tessel::message_box_text_id, about, settle_ms), nullptr)
            << "a language pack was offered";
        ::PostMessageW(about, WM_CLOSE, 0, 0);
        ::PostMessageW(main_window, WM_CLOSE, 0, 0);
        EXPECT_EQ(program.wait(), 0u);
        ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), value.c_str());
    }

    ASSERT_EQ(msiexec(L"/i " + next_package + L" /qn"), 0u);
    products = installed_products();
    ASSERT_EQ(products.size(), 1u);
    EXPECT_EQ(uninstall_text(products[0], L"DisplayVersion"), TESSEL_NEXT_PACKAGE_VERSION);

    child_process downgrade(L"msiexec.exe /i " + package + L" /qb");
    const HWND refusal = wait_for_window(downgrade, IDOK);
    ASSERT_NE(refusal, nullptr);
    std::wstring text;  // the system's message box: the static control that has a text
    for (HWND label = nullptr; text.empty() && (label = ::FindWindowExW(refusal, label, L"Static", nullptr));)
        text = window_text(label);
    EXPECT_TRUE(text.starts_with(L"A newer version of Ulmora Tools Server Configuration Utility is already installed."))
        << text;
    ::PostMessageW(refusal, WM_COMMAND, IDOK, 0);
    EXPECT_EQ(downgrade.wait(60000), static_cast<DWORD>(ERROR_INSTALL_FAILURE));
    EXPECT_EQ(installed_products(), products);

    // Gone: what the package put there; kept: the settings the program wrote for the user.
    ASSERT_EQ(msiexec(L"/x " + next_package + L" /qn"), 0u);
    EXPECT_TRUE(installed_products().empty());
    EXPECT_EQ(uninstall_text(products[0], L"DisplayName"), L"<none>");
    EXPECT_FALSE(exists(vendor));
    EXPECT_FALSE(shortcut_exists());
    EXPECT_EQ(::RegGetValueW(HKEY_CURRENT_USER, (settings_key + L"\\promo").c_str(), L"Title", RRF_RT_ANY, nullptr,
                             nullptr, nullptr), ERROR_SUCCESS);
}

}  // namespace
