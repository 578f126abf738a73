#pragma once
// The about box: product name, version (from the executable's version resource), the
// copyright and the maker's web site as a link, drawn by the rich view; and, when the
// update check is available, a "Check for updates" button.

#include "ui_main/dialog_base.h"

#include <windows.h>

#include <functional>
#include <string>

namespace servercfg {

inline constexpr int about_dialog_id = 133;

namespace about_dialog_controls {
inline constexpr int text = 1001;
inline constexpr int check_for_updates = 1002;
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

class about_dialog : public dialog_base<about_dialog> {
public:
    // check_for_updates: what the button does; empty hides the button.
    explicit about_dialog(std::function<void(HWND owner)> check_for_updates = {})
        : check_for_updates_(std::move(check_for_updates))
    {
    }
    INT_PTR show(HWND owner) { return run(owner, about_dialog_id); }

private:
    friend class dialog_base<about_dialog>;
    INT_PTR handle(UINT message, WPARAM wparam, LPARAM lparam);

    std::function<void(HWND)> check_for_updates_;
};

}  // namespace servercfg
