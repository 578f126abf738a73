#pragma once
// The update check, as the main window uses it.
//
//   At start-up (wWinMain, once the main window exists), when "checkForUpdates" is on, and
//   from the About box's "Check for updates" (UI thread):
//       tessel::web::update_check_options check;
//       check.main_window = main_window;          // owner of the boxes, gets WM_CLOSE
//       check.ui = main_dialog;                   // its async_context (thread, cancellation)
//       check.mode = tessel::web::update_check_mode::automatic;   // About box: on_demand
//       check.promotion_changed = [] { /* re-read current_promotion() */ };
//       tessel::web::start_update_check(std::move(check));
//   Before the main window closes:
//       if (tessel::web::installer_download_running() && user_says_stop)
//           tessel::web::stop_installer_download([window] { ::DestroyWindow(window); });
//   The promotion line of the main window:
//       if (auto promo = tessel::web::current_promotion()) rich_view_text = promotion_markup(*promo);
//
// A check asks the update service, stores its promotion in the settings, and when a newer
// release exists offers it: on Yes it downloads the installer with a progress dialog,
// starts it with this process's handle and posts WM_CLOSE to the main window; a declined
// automatic offer asks whether to stop checking automatically. A copy that the Windows
// Installer package installed is updated by whoever deployed it (package_installation.h):
// it is offered nothing, and only a check the user asked for names the newer version. Then
// the check offers the language packs made for this version whose language is not
// installed. An automatic check shows no error of its own; a failed download the user
// asked for is always shown.
// All of it runs as a coroutine on the main window's UI thread and ends quietly when the
// window's work is cancelled.

#include "base/async_context.h"
#include "localization/pack_file.h"
#include "msgbox/message_box.h"
#include "nsm/app_settings.h"
#include "web/product_version.h"
#include "web/update_service.h"

#include <windows.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tessel::web {

struct update_check_options {
    // The window that gets WM_CLOSE and owns the progress dialog, and the owner of every
    // box unless...
    HWND main_window = nullptr;
    // ...this window (the About box of a check the user asked for) still exists.
    HWND owner = nullptr;
    // The main window's context: its UI thread and its cancellation.
    windows::impl::async_context ui;
    update_check_mode mode = update_check_mode::automatic;
    // Called on the UI thread when the stored promotion has changed.
    std::function<void()> promotion_changed;

    // The rest is for tests; empty means the program's own.
    std::function<int(const message_box_request&)> show_message;
    std::wstring service_address;
    std::wstring download_folder;
    std::wstring program_folder;
    std::optional<product_version> own_version;
    // Called on the UI thread when the check has ended, however it ended.
    std::function<void()> finished;
};

// Starts a check and returns at once (UI thread). False when a check is running already;
// when that check is downloading the installer, its progress dialog comes forward.
bool start_update_check(update_check_options options);
[[nodiscard]] bool update_check_running() noexcept;

// Whether the installer is downloading now and has not been asked to stop (UI thread).
[[nodiscard]] bool installer_download_running() noexcept;
// Stops the download as its Cancel does and calls then on the UI thread once the check has
// ended and the partial file is gone (or after a few seconds when the server has stalled
// and the transfer cannot notice: the partial file then goes with the process); at once
// when no download runs. The check shows nothing more after it.
void stop_installer_download(std::function<void()> then);

// The promotion to show now: the stored one while it has a title and has not expired.
[[nodiscard]] std::optional<promo_notice> current_promotion();
[[nodiscard]] std::optional<promo_notice> promotion_to_show(const promo_notice& stored, nsm::date today);
// The markup of the main window's promotion line: the title as a link to its address.
[[nodiscard]] std::wstring promotion_markup(const promo_notice& promo);
// Opens a link of the promotion line in the browser through the program's link opener
// (msgbox/link_opener.h): the address came from the update service and this process runs
// elevated, so only an https address is opened, never a file or a program, and the browser
// runs as the signed-in user.
void open_promotion_address(std::wstring_view address) noexcept;

// Whether an offered pack suits this program (made for the same major and minor version)
// and its language is missing from the installed packs.
[[nodiscard]] bool language_pack_wanted(const language_pack_offer& offer, const product_version& own,
                                        const std::vector<pack_record>& installed);
// "<locale in lower case>.<name>.<version>.lpack", with what a file name cannot hold left out.
[[nodiscard]] std::wstring language_pack_file_name(const language_pack_offer& offer);

}  // namespace tessel::web
