#include "web/update_check.h"

#include "base/coroutine.h"
#include "base/failure.h"
#include "base/module_path.h"
#include "format/ts_printf.h"
#include "localization/localization.h"
#include "msgbox/link_opener.h"
#include "web/download.h"
#include "web/installer_trust.h"
#include "web/package_installation.h"
#include "web/progress_dialog.h"
#include "web/staging_folder.h"

#include <atomic>
#include <chrono>
#include <cwctype>
#include <optional>
#include <utility>

namespace tessel::web {
namespace {

std::atomic<bool> check_running{false};

// The running check's download, for the main window's questions (UI thread only).
struct running_download {
    progress_dialog* progress = nullptr;
    // Set when the main window waits for the check to end before it closes.
    std::function<void()> after_check;
    UINT_PTR overdue_timer = 0;
};
running_download running;

// A transfer notices a stop only when the server sends something: one that has stalled
// does not keep the program waiting longer than this.
constexpr UINT stop_grace_ms = 10000;

void run_after_check() noexcept
{
    if (running.overdue_timer) {
        ::KillTimer(nullptr, running.overdue_timer);
        running.overdue_timer = 0;
    }
    if (const std::function<void()> after = std::exchange(running.after_check, nullptr)) {
        try {
            after();
        } catch (...) {
            log_caught_exception(L"the step after the update check failed");
        }
    }
}

// Marks the progress dialog as the running download's while it exists.
class progress_shown {
public:
    explicit progress_shown(progress_dialog& progress) noexcept { running.progress = &progress; }
    ~progress_shown() { running.progress = nullptr; }
    progress_shown(const progress_shown&) = delete;
    progress_shown& operator=(const progress_shown&) = delete;
};

HWND owner_of_boxes(const update_check_options& options) noexcept
{
    return options.owner && ::IsWindow(options.owner) ? options.owner : options.main_window;
}

int show(const update_check_options& options, std::wstring_view text, UINT style,
         std::wstring_view suppression_name = {})
{
    const message_box_request request{
        .owner = owner_of_boxes(options), .text = text, .style = style, .suppression_name = suppression_name};
    return options.show_message ? options.show_message(request) : show_message_box(request);
}

// The message's {0} is the failure's text, {1} its code, {2} what failed.
void show_failure(const update_check_options& options, std::uint32_t message_id, std::exception_ptr error,
                  std::wstring_view subject = {})
{
    const failure_description failure = describe_failure(error);
    show(options,
         ts_printf::format(load_string(message_id), failure.text, static_cast<std::uint32_t>(failure.code), subject),
         MB_OK | MB_ICONERROR);
}

void store_promotion(const update_check_options& options, const promotion& offered)
{
    const promo_notice notice{offered.title, offered.url, offered.expires_on};
    app_settings& settings = current_app_settings();
    if (settings.promo == notice)
        return;
    settings.promo = notice;
    try {
        save_app_settings();
    } catch (...) {
        log_caught_exception(L"the promotion could not be saved");
    }
    if (options.promotion_changed)
        options.promotion_changed();
}

// True when the installer has started and the program is closing.
task<bool> download_and_start_installer(const update_check_options& options, const HttpClient& client,
                                        const update_response& response)
{
    std::exception_ptr failure;
    std::optional<progress_dialog> progress;
    std::optional<progress_shown> shown;
    std::optional<staging_folder> staging;
    try {
        // A refused staging folder ends the update before anything is fetched.
        staging.emplace(options.download_folder.empty() ? stage_update_download()
                                                        : staging_folder(options.download_folder, {}));
        // Owned by the main window, never by the About box: it must outlive that box and stay
        // above the window whose work it is.
        progress.emplace(options.main_window);
        shown.emplace(*progress);
        const stop_token stop{options.ui.cancellation(), progress->cancellation()};
        const std::wstring name =
            ts_printf::format(L"UlmoraToolsSetup-{}.exe", dotted_version(unpacked_version(response.version)));
        downloaded_file installer =
            co_await download_file(client, response.url, staging->path(), name, max_installer_size, stop, &*progress);
        co_await options.ui;
        shown.reset();
        progress.reset();
        try {
            check_installer_signature(installer.handle.get(), built_in_publisher_pin());
        } catch (...) {
            installer.handle.reset();
            throw;
        }
        start_installer(installer, options.main_window);
        co_return true;
    } catch (const fibra::details::operation_cancelled&) {
        // The user's Cancel ends the download without a word; the window's goes on up.
        if (staging)
            staging->discard();
        if (options.ui.work_cancelled())
            throw;
    } catch (...) {
        failure = std::current_exception();
    }
    // Nothing that was not started stays behind.
    if (staging)
        staging->discard();
    co_await options.ui;
    shown.reset();
    progress.reset();
    // The main window closes once this check has ended: no error to tell it any more.
    if (failure && !running.after_check)
        show_failure(options, string_ids::update_failed, failure);
    co_return false;
}

task<void> offer_language_packs(const update_check_options& options, const HttpClient& client,
                                const update_response& response, const product_version& own)
{
    const std::wstring program_folder = options.program_folder.empty() ? module_folder() : options.program_folder;
    std::vector<pack_record> installed = enumerate_packs(program_folder);
    const stop_token stop{options.ui.cancellation(), nullptr};
    std::optional<bool> deployed;
    for (const language_pack_offer& offer : response.language_packs) {
        if (!language_pack_wanted(offer, own, installed))
            continue;
        // The package's folder is its deployment's: a pack written there would outlive
        // the package's removal, and the deployment brings the packs it wants.
        if (!deployed)
            deployed = installed_by_package(module_path());
        if (*deployed)
            co_return;
        const std::wstring question = ts_printf::format(load_string(string_ids::update_language_pack_offer), offer.name);
        if (show(options, question, MB_YESNO | MB_ICONQUESTION, L"LanguagePack." + offer.locale) != IDYES)
            continue;
        std::exception_ptr failure;
        try {
            co_await install_language_pack(client, offer, program_folder + L"\\languages", stop);
        } catch (const fibra::details::operation_cancelled&) {
            throw;
        } catch (...) {
            failure = std::current_exception();
        }
        co_await options.ui;
        if (failure)
            show_failure(options, string_ids::update_language_pack_failed, failure, offer.name);
        else
            installed = enumerate_packs(program_folder);
    }
}

fibra::fire_and_forget run_update_check(update_check_options options)
{
    struct end_of_check {
        const update_check_options& options;
        ~end_of_check()
        {
            check_running.store(false);
            if (options.finished)
                options.finished();
            run_after_check();
        }
    } guard{options};

    try {
        const product_version own = options.own_version ? *options.own_version
                                                        : module_product_version().value_or(product_version{});
        const std::uint64_t own_packed = packed_version(own);
        HttpClient client;
        client.initialize(options.service_address.empty() ? update_service_base_address() : options.service_address);

        update_response response;
        std::exception_ptr failure;
        try {
            response = co_await fetch_update_response(client, own_packed, options.mode,
                                                      stop_token(options.ui.cancellation(), nullptr));
        } catch (const fibra::details::operation_cancelled&) {
            throw;
        } catch (...) {
            failure = std::current_exception();
        }
        co_await options.ui;
        if (failure) {
            if (options.mode == update_check_mode::on_demand)
                show_failure(options, string_ids::update_check_failed, failure);
            co_return;
        }

        store_promotion(options, response.promo);

        const bool newer = is_newer_release(response.version, own_packed);
        if (newer && installed_by_package(module_path())) {
            // Whoever deployed the package updates this copy: it is only told of, and an
            // automatic check keeps quiet.
            if (options.mode == update_check_mode::on_demand)
                show(options,
                     ts_printf::format(load_string(string_ids::update_deployed_copy),
                                       dotted_version(unpacked_version(response.version))),
                     MB_OK | MB_ICONINFORMATION);
        } else if (newer) {
            const std::wstring offer = ts_printf::format(load_string(string_ids::update_offer),
                                                         dotted_version(unpacked_version(response.version)));
            if (show(options, offer, MB_YESNO | MB_ICONQUESTION) == IDYES) {
                if (co_await download_and_start_installer(options, client, response) || running.after_check)
                    co_return;  // the program is closing
            } else if (options.mode == update_check_mode::automatic) {
                if (show(options, load_string(string_ids::update_disable_checking), MB_YESNO | MB_ICONQUESTION) ==
                    IDYES) {
                    current_app_settings().check_for_updates = false;
                    save_app_settings();
                }
            }
        } else if (options.mode == update_check_mode::on_demand) {
            show(options, ts_printf::format(load_string(string_ids::update_up_to_date), dotted_version(own)),
                 MB_OK | MB_ICONINFORMATION);
        }

        co_await offer_language_packs(options, client, response, own);
    } catch (const fibra::details::operation_cancelled&) {
        // The main window has gone; nothing is left to tell.
    }
}

nsm::date today()
{
    return std::chrono::floor<nsm::days>(std::chrono::system_clock::now());
}

}  // namespace

bool start_update_check(update_check_options options)
{
    if (check_running.exchange(true)) {
        // Asked again while the installer downloads: the user is looking for that download.
        if (running.progress) {
            const HWND progress = running.progress->window();
            ::SetWindowPos(progress, HWND_TOP, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_SHOWWINDOW);
            ::SetForegroundWindow(progress);
        }
        return false;
    }
    run_update_check(std::move(options));
    return true;
}

bool update_check_running() noexcept
{
    return check_running.load();
}

bool installer_download_running() noexcept
{
    // Once asked to stop it is on its way out: nothing to ask about any more.
    return running.progress && !running.after_check;
}

void stop_installer_download(std::function<void()> then)
{
    if (!running.progress) {
        then();
        return;
    }
    running.after_check = std::move(then);
    running.progress->cancel();
    if (!running.overdue_timer)
        running.overdue_timer = ::SetTimer(nullptr, 0, stop_grace_ms, [](HWND, UINT, UINT_PTR, DWORD) noexcept {
            run_after_check();
        });
}

std::optional<promo_notice> promotion_to_show(const promo_notice& stored, nsm::date today)
{
    if (stored.title.empty())
        return std::nullopt;
    // A promotion without a date runs until the service withdraws it.
    if (stored.expires_on != nsm::date{} && today > stored.expires_on)
        return std::nullopt;
    return stored;
}

std::optional<promo_notice> current_promotion()
{
    return promotion_to_show(current_app_settings().promo, today());
}

std::wstring promotion_markup(const promo_notice& promo)
{
    return ts_printf::format(load_string(string_ids::update_promotion), promo.title, promo.url);
}

void open_promotion_address(std::wstring_view address) noexcept
{
    open_link(nullptr, address);
}

bool language_pack_wanted(const language_pack_offer& offer, const product_version& own,
                          const std::vector<pack_record>& installed)
{
    const product_version made_for = unpacked_version(offer.client_version);
    if (made_for.major != own.major || made_for.minor != own.minor)
        return false;
    if (offer.locale.empty() || !is_https_address(offer.url))
        return false;
    std::wstring locale = offer.locale;
    for (wchar_t& c : locale)
        c = static_cast<wchar_t>(std::towlower(c));
    const std::wstring language = locale.substr(0, locale.find(L'-'));
    if (language == L"en")
        return false;  // built in
    for (const pack_record& pack : installed) {
        if (pack.code == locale || pack.code == language)
            return false;
    }
    return true;
}

std::wstring language_pack_file_name(const language_pack_offer& offer)
{
    const auto clean = [](std::wstring_view text, bool lower) {
        std::wstring result;
        for (wchar_t c : text) {
            if (c < 0x20 || std::wstring_view(L".\\/:*?\"<>|").find(c) != std::wstring_view::npos)
                continue;
            result += lower ? static_cast<wchar_t>(std::towlower(c)) : c;
        }
        return result;
    };
    return ts_printf::format(L"{}.{}.{}.lpack", clean(offer.locale, true), clean(offer.name, false), offer.version);
}

}  // namespace tessel::web
