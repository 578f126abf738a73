#pragma once
// The about box: the program's icon beside the product name, the version (from the
// executable's version resource), the copyright, the maker's web site and the third-party
// notices as links, drawn by rich views; and, when the update check is available, a
// "Check for updates" button. It is laid out from its texts at its DPI.

#include "base/unique_handle.h"
#include "msgbox/link_opener.h"
#include "ui_main/dialog_base.h"

#include <windows.h>

#include <functional>
#include <string>

namespace servercfg {

inline constexpr int about_dialog_id = 133;

namespace about_dialog_controls {
inline constexpr int text = 1001;
inline constexpr int check_for_updates = 1002;
inline constexpr int notices = 1003;
inline constexpr int icon = 1004;
}  // namespace about_dialog_controls

// The maker's web site: the about box's link and the host of the online documentation.
inline constexpr wchar_t vendor_site[] = L"https://www.qmx-software.example/";

struct file_version {
    unsigned major = 0, minor = 0, build = 0, revision = 0;
};
// The FILEVERSION of a module's version resource; zeros when it has none.
[[nodiscard]] file_version module_version(HMODULE module = nullptr);

// The about box's markup text.
[[nodiscard]] std::wstring about_text(const file_version& version);

// The third-party notices, installed beside the program.
inline constexpr wchar_t notices_file_name[] = L"ThirdPartyNotices.txt";
[[nodiscard]] std::wstring notices_path();

class about_dialog : public dialog_base<about_dialog> {
public:
    // check_for_updates: what the button does; empty hides the button. launcher: how the
    // links start what they open.
    explicit about_dialog(std::function<void(HWND owner)> check_for_updates = {},
                          tessel::link_launcher& launcher = tessel::system_link_launcher())
        : check_for_updates_(std::move(check_for_updates)), launcher_(launcher)
    {
    }
    INT_PTR show(HWND owner) { return run(owner, about_dialog_id); }

private:
    friend class dialog_base<about_dialog>;
    INT_PTR handle(UINT message, WPARAM wparam, LPARAM lparam);
    void on_init_dialog();
    void show_icon();
    void arrange();

    std::function<void(HWND)> check_for_updates_;
    tessel::link_launcher& launcher_;
    // Shown by the icon control, which does not own it: it must outlive the window.
    tessel::unique_hicon icon_;
};

}  // namespace servercfg
