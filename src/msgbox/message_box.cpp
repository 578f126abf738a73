#include "msgbox/message_box.h"

#include "base/dpi.h"
#include "base/failure.h"
#include "base/gdiplus_startup.h"
#include "base/unique_handle.h"
#include "base/window_text.h"
#include "controls/rich_view.h"
#include "controls/vector_icons.h"
#include "controls/window_icons.h"
#include "localization/localization.h"
#include "msgbox/link_opener.h"

#include <gdiplus.h>
#include <shellapi.h>

#include <algorithm>
#include <array>
#include <cwctype>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace tessel {
namespace {

namespace new_controls = windows::new_controls;

constexpr std::wstring_view product_title_key = L"QMX Software Ulmora Tools Server";

// Buttons of each standard combination, left to right as Windows orders them.
std::span<const int> buttons_of(UINT style) noexcept
{
    static constexpr int ok[] = {IDOK};
    static constexpr int ok_cancel[] = {IDOK, IDCANCEL};
    static constexpr int abort_retry_ignore[] = {IDABORT, IDRETRY, IDIGNORE};
    static constexpr int yes_no_cancel[] = {IDYES, IDNO, IDCANCEL};
    static constexpr int yes_no[] = {IDYES, IDNO};
    static constexpr int retry_cancel[] = {IDRETRY, IDCANCEL};
    static constexpr int cancel_try_continue[] = {IDCANCEL, IDTRYAGAIN, IDCONTINUE};
    switch (style & MB_TYPEMASK) {
    case MB_OKCANCEL: return ok_cancel;
    case MB_ABORTRETRYIGNORE: return abort_retry_ignore;
    case MB_YESNOCANCEL: return yes_no_cancel;
    case MB_YESNO: return yes_no;
    case MB_RETRYCANCEL: return retry_cancel;
    case MB_CANCELTRYCONTINUE: return cancel_try_continue;
    default: return ok;
    }
}

constexpr int all_buttons[] = {IDOK, IDYES, IDNO, IDABORT, IDRETRY, IDCANCEL, IDIGNORE, IDTRYAGAIN, IDCONTINUE};

struct message_icon {
    const wchar_t* vector_name;  // in the program's icon collection
    const wchar_t* system_icon;  // when the collection has no such icon
};

std::optional<message_icon> icon_of(UINT style) noexcept
{
    switch (style & MB_ICONMASK) {
    case MB_ICONERROR: return message_icon{L"message.error", IDI_ERROR};
    case MB_ICONQUESTION: return message_icon{L"message.question", IDI_QUESTION};
    case MB_ICONWARNING: return message_icon{L"message.warning", IDI_WARNING};
    case MB_ICONINFORMATION: return message_icon{L"message.information", IDI_INFORMATION};
    default: return std::nullopt;
    }
}

// GDI+ for as long as an icon is being made. The program starts GDI+ only after it has
// reached its server, but the boxes that say why it could not come before that; a
// nested start-up is allowed and cheap, and the HICON outlives the session.
// The message icon drawn from the program's vector icons at `size` pixels; empty when
// the collection lacks it (or cannot be drawn), and the caller shows the system's icon.
unique_hicon vector_message_icon(const wchar_t* name, int size) noexcept
{
    try {
        const auto icons = svg::program_icons();
        if (!icons)
            return {};
        const svg::icon_view icon = icons->find(std::wstring_view(name));
        if (icon.empty())
            return {};
        const unique_gdiplus gdiplus = gdiplus_startup();
        return svg::create_hicon(svg::render_icon(icon, size));
    } catch (...) {
        log_caught_exception(L"message box: the message icon could not be drawn");
        return {};
    }
}

// What Escape and the close box answer; 0 when they must do nothing.
int escape_answer(std::span<const int> buttons) noexcept
{
    if (std::find(buttons.begin(), buttons.end(), IDCANCEL) != buttons.end())
        return IDCANCEL;
    return buttons.size() == 1 && buttons[0] == IDOK ? IDOK : 0;
}

struct dialog_state {
    const message_box_request& request;
    std::span<const int> buttons;
    std::wstring caption{};
    int answer = 0;
    bool remember = false;
    // Set on the windows, which do not own them: they must outlive the box.
    unique_hicon message_icon{};
    windows::window_icons window_icons{};
};

// Whether the control is meant to be shown. IsWindowVisible answers false for every
// control until the dialog itself appears, which is after it has been laid out.
bool is_shown(HWND control) noexcept
{
    return (::GetWindowLongPtrW(control, GWL_STYLE) & WS_VISIBLE) != 0;
}

void arrange(HWND dialog, const dialog_state& state)
{
    using namespace windows;
    const UINT dpi = dpi_for_window(dialog);
    const int margin_x = dialog_units_x(dialog, 7), margin_y = dialog_units_y(dialog, 7);
    const int gap_x = dialog_units_x(dialog, 4), gap_y = dialog_units_y(dialog, 4);
    const int button_height = dialog_units_y(dialog, 14), button_min_width = dialog_units_x(dialog, 50);

    HWND icon = ::GetDlgItem(dialog, message_box_icon_id);
    HWND text = ::GetDlgItem(dialog, message_box_text_id);
    HWND check = ::GetDlgItem(dialog, message_box_do_not_show_again_id);

    const bool has_icon = is_shown(icon);
    const int icon_size = has_icon ? windows::system_metric_for_dpi(SM_CXICON, dpi) : 0;

    // Wrap the text at a width that keeps lines readable, but never wider than the screen.
    MONITORINFO monitor{};
    monitor.cbSize = sizeof monitor;
    ::GetMonitorInfoW(::MonitorFromWindow(dialog, MONITOR_DEFAULTTONEAREST), &monitor);
    const int screen_width = monitor.rcWork.right - monitor.rcWork.left;
    const int wrap_width = std::min(dialog_units_x(dialog, 280), screen_width * 3 / 4);
    new_controls::rich_view* const rich_text = new_controls::rich_view::from_placeholder(text);
    const SIZE text_size = rich_text ? rich_text->measure(wrap_width) : control_text_extent(text, wrap_width, true);

    int button_width = button_min_width;
    for (const int id : state.buttons)
        button_width = std::max<int>(button_width, control_text_extent(::GetDlgItem(dialog, id)).cx + 2 * gap_x);
    const int buttons_width =
        static_cast<int>(state.buttons.size()) * button_width + static_cast<int>(state.buttons.size() - 1) * gap_x;

    const bool has_check = is_shown(check);
    const SIZE check_size = has_check ? control_text_extent(check) : SIZE{};
    const int check_width = has_check ? check_size.cx + windows::system_metric_for_dpi(SM_CXMENUCHECK, dpi) + gap_x : 0;
    const int check_height = has_check ? std::max<int>(check_size.cy, dialog_units_y(dialog, 10)) : 0;

    const int text_left = margin_x + (has_icon ? icon_size + margin_x : 0);
    const int client_width =
        std::max<int>({static_cast<int>(text_left + text_size.cx + margin_x), buttons_width + 2 * margin_x, check_width + 2 * margin_x});
    // The text gets the whole width the buttons leave; wrapped to that it may need less.
    const int text_width = client_width - text_left - margin_x;
    const int text_height = rich_text ? rich_text->measure_height(text_width) : static_cast<int>(text_size.cy);
    const int body_height = std::max<int>(text_height, icon_size);

    // Centre a short text beside the icon, as people expect of a message box.
    const int text_top = margin_y + (body_height - text_height) / 2;
    ::MoveWindow(icon, margin_x, margin_y + (body_height - icon_size) / 2, icon_size, icon_size, FALSE);
    ::MoveWindow(text, text_left, text_top, text_width, text_height, FALSE);

    int y = margin_y + body_height + 2 * gap_y;
    if (has_check) {
        ::MoveWindow(check, margin_x, y, client_width - 2 * margin_x, check_height, FALSE);
        y += check_height + gap_y;
    }
    int x = client_width - margin_x - buttons_width;
    for (const int id : state.buttons) {
        ::MoveWindow(::GetDlgItem(dialog, id), x, y, button_width, button_height, FALSE);
        x += button_width + gap_x;
    }
    const int client_height = y + button_height + margin_y;

    // Grow the window by exactly what the client area needs, then centre it on the owner
    // (or the work area), kept inside the work area.
    RECT window_rect, client_rect;
    ::GetWindowRect(dialog, &window_rect);
    ::GetClientRect(dialog, &client_rect);
    const int width = client_width + (window_rect.right - window_rect.left) - client_rect.right;
    const int height = client_height + (window_rect.bottom - window_rect.top) - client_rect.bottom;
    RECT around = monitor.rcWork;
    if (state.request.owner && ::IsWindowVisible(state.request.owner) && !::IsIconic(state.request.owner))
        ::GetWindowRect(state.request.owner, &around);
    int left = (around.left + around.right - width) / 2;
    int top = (around.top + around.bottom - height) / 2;
    left = std::clamp<int>(left, monitor.rcWork.left, std::max<int>(monitor.rcWork.left, monitor.rcWork.right - width));
    top = std::clamp<int>(top, monitor.rcWork.top, std::max<int>(monitor.rcWork.top, monitor.rcWork.bottom - height));
    ::SetWindowPos(dialog, nullptr, left, top, width, height, SWP_NOZORDER | SWP_NOACTIVATE);
    ::InvalidateRect(dialog, nullptr, TRUE);
}

// The message icon at the box's DPI, and the program's icon in the caption.
void set_icons(HWND dialog, dialog_state& state)
{
    state.window_icons.apply(dialog);
    HWND icon = ::GetDlgItem(dialog, message_box_icon_id);
    const std::optional<message_icon> wanted = icon_of(state.request.style);
    if (!wanted) {
        ::ShowWindow(icon, SW_HIDE);
        return;
    }
    const int size = windows::system_metric_for_dpi(SM_CXICON, windows::dpi_for_window(dialog));
    unique_hicon drawn = vector_message_icon(wanted->vector_name, size);
    // The system's icons are shared: nobody destroys them.
    const HICON shown = drawn ? drawn.get() : ::LoadIconW(nullptr, wanted->system_icon);
    ::SendMessageW(icon, STM_SETICON, reinterpret_cast<WPARAM>(shown), 0);
    state.message_icon = std::move(drawn);  // the one shown before goes only now
}

// A link in the text opens through the program's one link opener, which takes only https.
// The address is the link's argument ("[[[h#[https://...]#here]]]") or, without one, its
// text ("[[[hhttps://...]]]").
void open_activated_link(const new_controls::nm_rich_view_link& link)
{
    std::wstring address = link.argument ? link.argument : L"";
    if (address.empty()) {
        const std::wstring plain = windows::window_text(link.header.hwndFrom);
        if (link.range.startPosition < plain.size())
            address = plain.substr(link.range.startPosition, link.range.length);
    }
    if (!address.empty())
        open_link(::GetParent(link.header.hwndFrom), address);
}

void initialize(HWND dialog, dialog_state& state)
{
    ::SetWindowLongPtrW(dialog, DWLP_USER, reinterpret_cast<LONG_PTR>(&state));
    translate_dialog(dialog);  // buttons and the check box, by their English text
    ::SetWindowTextW(dialog, state.caption.c_str());
    // Message texts are markup. Without the rich view (it could not be created) the box
    // still shows the text, plain.
    try {
        new_controls::rich_view::attach(::GetDlgItem(dialog, message_box_text_id));
    } catch (...) {
        log_caught_exception(L"message box: no rich view for the text");
    }
    std::wstring text(state.request.text);
    if (!new_controls::rich_view::from_placeholder(::GetDlgItem(dialog, message_box_text_id))) {
        try {
            text = new_controls::strip_markup(text);
        } catch (const std::out_of_range&) {
            // cut-off markup at the end: shown as it stands
        }
    }
    ::SetDlgItemTextW(dialog, message_box_text_id, text.c_str());

    set_icons(dialog, state);

    if (state.request.suppression_name.empty())
        ::ShowWindow(::GetDlgItem(dialog, message_box_do_not_show_again_id), SW_HIDE);

    for (const int id : all_buttons)
        if (std::find(state.buttons.begin(), state.buttons.end(), id) == state.buttons.end())
            ::ShowWindow(::GetDlgItem(dialog, id), SW_HIDE);

    if (!escape_answer(state.buttons))
        ::EnableMenuItem(::GetSystemMenu(dialog, FALSE), SC_CLOSE, MF_BYCOMMAND | MF_GRAYED);

    arrange(dialog, state);

    // MB_DEFBUTTON1..4 pick the default among the visible buttons.
    const size_t default_index = std::min<size_t>((state.request.style & MB_DEFMASK) >> 8, state.buttons.size() - 1);
    const int default_id = state.buttons[default_index];
    ::SendMessageW(dialog, DM_SETDEFID, static_cast<WPARAM>(default_id), 0);
    ::SetFocus(::GetDlgItem(dialog, default_id));
}

INT_PTR CALLBACK dialog_procedure(HWND dialog, UINT message, WPARAM wparam, LPARAM lparam) noexcept
{
    try {
        auto* state = reinterpret_cast<dialog_state*>(::GetWindowLongPtrW(dialog, DWLP_USER));
        switch (message) {
        case WM_INITDIALOG:
            initialize(dialog, *reinterpret_cast<dialog_state*>(lparam));
            return FALSE;  // focus set by initialize
        case WM_DPICHANGED:
            if (state) {
                set_icons(dialog, *state);
                arrange(dialog, *state);
            }
            return TRUE;
        case WM_NOTIFY: {
            const auto* header = reinterpret_cast<const NMHDR*>(lparam);
            if (header->code != new_controls::rvn_link_activated)
                return FALSE;
            open_activated_link(*reinterpret_cast<const new_controls::nm_rich_view_link*>(lparam));
            return TRUE;
        }
        case WM_COMMAND: {
            if (!state || HIWORD(wparam) != BN_CLICKED)
                return FALSE;
            int id = LOWORD(wparam);
            // Escape and the close box arrive as IDCANCEL whether or not the box has Cancel.
            if (id == IDCANCEL && std::find(state->buttons.begin(), state->buttons.end(), IDCANCEL) == state->buttons.end())
                id = escape_answer(state->buttons);
            if (std::find(state->buttons.begin(), state->buttons.end(), id) == state->buttons.end())
                return TRUE;
            state->answer = id;
            state->remember = ::IsDlgButtonChecked(dialog, message_box_do_not_show_again_id) == BST_CHECKED;
            ::EndDialog(dialog, id);
            return TRUE;
        }
        default:
            return FALSE;
        }
    } catch (...) {
        log_caught_exception(L"message box: unexpected failure while handling a message");
        return FALSE;
    }
}

std::wstring product_title()
{
    return load_string_or(string_id(product_title_key), product_title_key);
}

void remember_answer(std::wstring_view name, int answer) noexcept
{
    unique_hkey key;
    if (::RegCreateKeyExW(HKEY_CURRENT_USER, message_box_answers_key, 0, nullptr, 0, KEY_SET_VALUE, nullptr, key.put(),
                          nullptr) != ERROR_SUCCESS)
        return;  // the box simply shows again next time
    const std::wstring value_name(name);
    const DWORD value = static_cast<DWORD>(answer);
    ::RegSetValueExW(key.get(), value_name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
}

}  // namespace

int remembered_answer(std::wstring_view suppression_name)
{
    if (suppression_name.empty())
        return 0;
    DWORD value = 0, size = sizeof value;
    const std::wstring name(suppression_name);
    if (::RegGetValueW(HKEY_CURRENT_USER, message_box_answers_key, name.c_str(), RRF_RT_REG_DWORD, nullptr, &value,
                       &size) != ERROR_SUCCESS)
        return 0;
    // Only an answer the box could have given counts; anything else shows the box again.
    const bool valid = std::find(std::begin(all_buttons), std::end(all_buttons), static_cast<int>(value)) != std::end(all_buttons);
    return valid ? static_cast<int>(value) : 0;
}

void forget_remembered_answers()
{
    const LSTATUS status = ::RegDeleteTreeW(HKEY_CURRENT_USER, message_box_answers_key);
    if (status != ERROR_FILE_NOT_FOUND)
        throw_if_win32_error(status);
}

int show_message_box(const message_box_request& request)
{
    dialog_state state{request, buttons_of(request.style)};
    if (const int answer = remembered_answer(request.suppression_name);
        answer && std::find(state.buttons.begin(), state.buttons.end(), answer) != state.buttons.end())
        return answer;

    state.caption = request.caption.empty() ? product_title() : std::wstring(request.caption);
    if (request.style & MB_ICONMASK)
        ::MessageBeep(request.style & MB_ICONMASK);
    const INT_PTR result = ::DialogBoxParamW(::GetModuleHandleW(nullptr), MAKEINTRESOURCEW(message_box_dialog_id),
                                             request.owner, dialog_procedure, reinterpret_cast<LPARAM>(&state));
    throw_last_error_if(result == -1 || result == 0);
    if (state.remember && state.answer != IDCANCEL && !request.suppression_name.empty())
        remember_answer(request.suppression_name, state.answer);
    return static_cast<int>(result);
}

}  // namespace tessel
