#include "ui_main/main_dialog.h"

#include "base/failure.h"
#include "base/dpi.h"
#include "base/registered_messages.h"
#include "base/window_text.h"
#include "localization/localization.h"
#include "nsm/app_settings.h"

#include <commctrl.h>

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <utility>

namespace servercfg {
namespace {

namespace ids = main_dialog_controls;

// How each control follows a resize: which edges stay at a fixed distance from the
// right and bottom edges of the window.
struct anchor {
    int id;
    bool right_follows;
    bool bottom_follows;
    bool left_follows;
    bool top_follows;
};
constexpr anchor anchors[] = {
    {ids::devices_label, false, false, false, false},
    {ids::hide_disconnected, false, false, false, false},
    {ids::collapse_all, false, false, false, false},
    {ids::tree_placeholder, true, true, false, false},
    {ids::settings, false, true, false, true},
    {ids::copy_device_id, false, true, false, true},
    {ids::help, true, true, true, true},
    {ids::about, true, true, true, true},
    {IDCANCEL, true, true, true, true},
};
static_assert(std::size(anchors) == 9);

RECT child_rect(HWND dialog, int id)
{
    RECT r{};
    ::GetWindowRect(::GetDlgItem(dialog, id), &r);
    ::MapWindowPoints(nullptr, dialog, reinterpret_cast<POINT*>(&r), 2);
    return r;
}

// The designed layout is kept in 1/100 dialog units, which follow the dialog's font and so
// its DPI: after a move to a monitor with another DPI the same numbers still fit.
int dialog_base_unit(HWND dialog, bool horizontal)
{
    RECT base{0, 0, 400, 800};  // 100 average characters wide, 100 high
    ::MapDialogRect(dialog, &base);
    return std::max<int>(1, horizontal ? base.right : base.bottom);
}

RECT to_layout_units(HWND dialog, const RECT& pixels)
{
    const int x = dialog_base_unit(dialog, true), y = dialog_base_unit(dialog, false);
    return {::MulDiv(pixels.left, 40000, x), ::MulDiv(pixels.top, 80000, y), ::MulDiv(pixels.right, 40000, x),
            ::MulDiv(pixels.bottom, 80000, y)};
}

RECT to_pixels(HWND dialog, const RECT& units)
{
    const int x = dialog_base_unit(dialog, true), y = dialog_base_unit(dialog, false);
    return {::MulDiv(units.left, x, 40000), ::MulDiv(units.top, y, 80000), ::MulDiv(units.right, x, 40000),
            ::MulDiv(units.bottom, y, 80000)};
}

void move_child(HWND dialog, int id, const RECT& r)
{
    ::MoveWindow(::GetDlgItem(dialog, id), r.left, r.top, r.right - r.left, r.bottom - r.top, FALSE);
}

// Translated texts are often longer than the English ones the template was drawn for:
// each label, check box and button grows to its text, and its neighbours move aside,
// keeping their distance. Buttons on the right grow to the left.
void fit_to_texts(HWND dialog)
{
    using namespace tessel::windows;
    const int box_width = system_metric_for_dpi(SM_CXMENUCHECK, dpi_for_window(dialog)) + dialog_units_x(dialog, 3);
    const int button_padding = 2 * dialog_units_x(dialog, 4);
    const auto fitted_width = [&](int id, int extra, const RECT& r) {
        return std::max<int>(r.right - r.left, control_text_extent(::GetDlgItem(dialog, id)).cx + extra);
    };

    // Left to right: a control that grows pushes the ones after it by as much.
    const auto grow_rightwards = [&](std::initializer_list<std::pair<int, int>> row) {
        int shift = 0;
        for (const auto& [id, extra] : row) {
            RECT r = child_rect(dialog, id);
            ::OffsetRect(&r, shift, 0);
            const int width = fitted_width(id, extra, r);
            shift += width - (r.right - r.left);
            r.right = r.left + width;
            move_child(dialog, id, r);
        }
    };
    grow_rightwards({{ids::devices_label, 0}, {ids::hide_disconnected, box_width}, {ids::collapse_all, box_width}});
    grow_rightwards({{ids::settings, button_padding}, {ids::copy_device_id, button_padding}});

    int shift = 0;
    for (const int id : {IDCANCEL, ids::about, ids::help}) {
        RECT r = child_rect(dialog, id);
        r.right -= shift;
        r.left -= shift;
        const int width = fitted_width(id, button_padding, r);
        shift += width - (r.right - r.left);
        r.left = r.right - width;
        move_child(dialog, id, r);
    }
}

void save_settings_reporting_failure() noexcept
{
    try {
        save_app_settings();
    } catch (const std::exception& e) {
        // Nothing is lost for this session; the next successful save writes everything.
        tessel::debug_report(L"the settings could not be saved");
        (void)e;
    }
}

}  // namespace

main_dialog::main_dialog(tessel::com_ptr<IUsbServer> server) : server_(std::move(server))
{
    set_cancellation(std::make_shared<fibra::details::cancellation_source_body>());
}

main_dialog::~main_dialog()
{
    if (window_)
        ::DestroyWindow(window_);
}

HRESULT main_dialog::OnDeviceAdded(IUsbDevice* device) noexcept
{
    handle_server_event(tessel::com_ptr<IUsbServerListener>(this), this, server_event::device_added,
                        tessel::com_ptr<IUsbDevice>(device));
    return S_OK;
}

HRESULT main_dialog::OnDeviceChanged(IUsbDevice* device) noexcept
{
    handle_server_event(tessel::com_ptr<IUsbServerListener>(this), this, server_event::device_changed,
                        tessel::com_ptr<IUsbDevice>(device));
    return S_OK;
}

HRESULT main_dialog::OnClientConnectionChanged(IUsbDevice* device) noexcept
{
    handle_server_event(tessel::com_ptr<IUsbServerListener>(this), this, server_event::client_changed,
                        tessel::com_ptr<IUsbDevice>(device));
    return S_OK;
}

HRESULT main_dialog::OnClientConnectionChanged2(IUsbDevice* device) noexcept
{
    return OnClientConnectionChanged(device);
}

fibra::fire_and_forget main_dialog::handle_server_event(tessel::com_ptr<IUsbServerListener> keep_alive,
                                                        main_dialog* self, server_event event,
                                                        tessel::com_ptr<IUsbDevice> device)
{
    // Posted even when the call came in on the UI thread, so that the notification has
    // returned to the server before any window work starts.
    tessel::windows::impl::async_context ui(self->thread_id(), self->cancellation(), true);
    co_await ui;  // throws operation_cancelled once the window is gone
    if (self->window_)
        self->on_server_event(event, device.get());
    (void)keep_alive;
}

void main_dialog::on_server_event(server_event, IUsbDevice*)
{
    // The device tree that these events update is not part of the window yet.
}

HWND main_dialog::create(int show_command)
{
    HWND window = ::CreateDialogParamW(::GetModuleHandleW(nullptr), MAKEINTRESOURCEW(main_dialog_id), nullptr,
                                       dialog_procedure, reinterpret_cast<LPARAM>(this));
    if (!window)
        tessel::fail_fast_last_error(L"CreateDialogParam failed for main dialog");
    ::ShowWindow(window, show_command);
    return window;
}

INT_PTR CALLBACK main_dialog::dialog_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) noexcept
{
    auto* self = reinterpret_cast<main_dialog*>(::GetWindowLongPtrW(window, DWLP_USER));
    if (message == WM_INITDIALOG) {
        self = reinterpret_cast<main_dialog*>(lparam);
        self->window_ = window;
        ::SetWindowLongPtrW(window, DWLP_USER, lparam);
    }
    if (!self)
        return FALSE;
    INT_PTR result = FALSE;
    try {
        result = self->handle(message, wparam, lparam);
    } catch (...) {
        tessel::debug_report(L"main dialog: a message handler failed");
    }
    if (message == WM_NCDESTROY) {
        // A late coroutine must not reach a dead window through this pointer.
        ::SetWindowLongPtrW(window, DWLP_USER, 0);
        self->window_ = nullptr;
    }
    return result;
}

INT_PTR main_dialog::handle(UINT message, WPARAM wparam, LPARAM lparam)
{
    switch (message) {
    case WM_INITDIALOG:
        on_init_dialog();
        return TRUE;
    case WM_COMMAND:
        on_command(LOWORD(wparam));
        return TRUE;
    case WM_SIZE:
        on_size();
        return TRUE;
    case WM_DPICHANGED:
        icons_.apply(window_);
        return FALSE;  // the dialog manager rescales the window and its font
    case WM_GETMINMAXINFO: {
        // Never smaller than designed: the controls do not fit otherwise.
        auto* limits = reinterpret_cast<MINMAXINFO*>(lparam);
        RECT frame = to_pixels(window_, {0, 0, initial_client_.cx, initial_client_.cy});
        ::AdjustWindowRectEx(&frame, static_cast<DWORD>(::GetWindowLongPtrW(window_, GWL_STYLE)), FALSE,
                             static_cast<DWORD>(::GetWindowLongPtrW(window_, GWL_EXSTYLE)));
        limits->ptMinTrackSize = {frame.right - frame.left, frame.bottom - frame.top};
        return TRUE;
    }
    case WM_CLOSE:
        ::DestroyWindow(window_);
        return TRUE;
    case WM_DESTROY:
        on_destroy();
        return TRUE;
    default:
        return FALSE;
    }
}

void main_dialog::on_init_dialog()
{
    (void)tessel::windows::wm_ole_call();
    listening_ = SUCCEEDED(server_->AdviseListener(this));
    ole_thread_ = std::make_unique<tessel::windows::ole_thread>();
    tessel::translate_dialog(window_);
    icons_.apply(window_);

    const app_settings& settings = current_app_settings();
    ::CheckDlgButton(window_, ids::hide_disconnected, settings.hide_disconnected ? BST_CHECKED : BST_UNCHECKED);
    ::CheckDlgButton(window_, ids::collapse_all, settings.collapse_all ? BST_CHECKED : BST_UNCHECKED);

    // The commands behind these buttons are not part of this window yet.
    for (const int id : {ids::settings, ids::help, ids::about})
        ::EnableWindow(::GetDlgItem(window_, id), FALSE);

    fit_to_texts(window_);

    // The tree takes the placeholder's place, reaching down to the buttons.
    RECT placeholder = child_rect(window_, ids::tree_placeholder);
    const RECT settings_button = child_rect(window_, ids::settings);
    RECT gap{0, 0, 0, 7};
    ::MapDialogRect(window_, &gap);
    placeholder.bottom = settings_button.top - gap.bottom;
    ::MoveWindow(::GetDlgItem(window_, ids::tree_placeholder), placeholder.left, placeholder.top,
                 placeholder.right - placeholder.left, placeholder.bottom - placeholder.top, FALSE);

    RECT client;
    ::GetClientRect(window_, &client);
    const RECT client_units = to_layout_units(window_, client);
    initial_client_ = {client_units.right, client_units.bottom};
    for (size_t i = 0; i < std::size(anchors); ++i)
        initial_rects_[i] = to_layout_units(window_, child_rect(window_, anchors[i].id));
}

void main_dialog::on_size()
{
    if (initial_client_.cx == 0 || ::IsIconic(window_))
        return;
    RECT client;
    ::GetClientRect(window_, &client);
    const RECT initial = to_pixels(window_, {0, 0, initial_client_.cx, initial_client_.cy});
    const int dx = client.right - initial.right;
    const int dy = client.bottom - initial.bottom;
    HDWP batch = ::BeginDeferWindowPos(static_cast<int>(std::size(anchors)));
    for (size_t i = 0; i < std::size(anchors) && batch; ++i) {
        RECT r = to_pixels(window_, initial_rects_[i]);
        if (anchors[i].left_follows)
            r.left += dx;
        if (anchors[i].right_follows)
            r.right += dx;
        if (anchors[i].top_follows)
            r.top += dy;
        if (anchors[i].bottom_follows)
            r.bottom += dy;
        batch = ::DeferWindowPos(batch, ::GetDlgItem(window_, anchors[i].id), nullptr, r.left, r.top, r.right - r.left,
                                 r.bottom - r.top, SWP_NOZORDER | SWP_NOACTIVATE);
    }
    if (batch)
        ::EndDeferWindowPos(batch);
    ::InvalidateRect(window_, nullptr, TRUE);
}

void main_dialog::on_command(int id)
{
    app_settings& settings = current_app_settings();
    switch (id) {
    case IDCANCEL:  // the Close button, Escape and the close box
        ::DestroyWindow(window_);
        break;
    case ids::hide_disconnected:
        settings.hide_disconnected = ::IsDlgButtonChecked(window_, id) == BST_CHECKED;
        save_settings_reporting_failure();
        break;
    case ids::collapse_all:
        settings.collapse_all = ::IsDlgButtonChecked(window_, id) == BST_CHECKED;
        save_settings_reporting_failure();
        break;
    default:
        break;
    }
}

void main_dialog::on_destroy() noexcept
{
    // Work still waiting to come back to this window ends instead.
    cancel_work();
    if (listening_)
        server_->UnadviseListener(this);
    listening_ = false;
    ole_thread_.reset();
    ::PostQuitMessage(0);
}

}  // namespace servercfg
