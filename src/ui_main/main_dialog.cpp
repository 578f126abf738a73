#include "ui_main/main_dialog.h"

#include "app/startup.h"
#include "base/dpi.h"
#include "base/failure.h"
#include "base/module_path.h"
#include "base/registered_messages.h"
#include "base/scope_exit.h"
#include "base/window_text.h"
#include "controls/rich_view.h"
#include "controls/treeview.h"
#include "controls/vector_icons.h"
#include "format/ts_printf.h"
#include "localization/localization.h"
#include "msgbox/link_opener.h"
#include "msgbox/message_box.h"
#include "nsm/app_settings.h"
#include "ui_main/about_dialog.h"
#include "ui_main/clipboard.h"
#include "ui_main/device_tree_rows.h"
#include "ui_main/server_operation.h"
#include "ui_main/settings_dialog.h"
#include "ui_main/share_dialog.h"

#include <commctrl.h>
#include <dbt.h>
#include <oleauto.h>
#include <shellapi.h>
#include <windowsx.h>

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <utility>

namespace servercfg {
namespace {

namespace ids = main_dialog_controls;
namespace tv = tessel::windows::new_controls::treeview::impl;
namespace lv = tessel::windows::new_controls::listview::impl;

// Codes with which calls fail once the server (or the connection to it) has gone.
bool server_is_gone(HRESULT code) noexcept
{
    switch (code) {
    case RPC_E_DISCONNECTED:
    case RPC_E_SERVER_DIED:
    case RPC_E_SERVER_DIED_DNE:
    case CO_E_OBJNOTCONNECTED:
    case HRESULT_FROM_WIN32(RPC_S_SERVER_UNAVAILABLE):
    case HRESULT_FROM_WIN32(RPC_S_CALL_FAILED):
    case HRESULT_FROM_WIN32(RPC_S_CALL_FAILED_DNE):
        return true;
    default:
        return false;
    }
}

// Column widths of the tree, DIPs; the titles are items 0, 2, 3 and 4 of the column list
// (item 1, the manufacturer, is not a column of this tree).
struct tree_column {
    std::size_t title_item;
    float width;
};
constexpr tree_column tree_columns[] = {{0, 300}, {2, 84}, {3, 170}, {4, 170}};

// Posted to itself once the window is shown and filled.
constexpr UINT wm_window_ready = WM_APP + 1;
// Posted to itself after a DPI change, which the tree learns after the window.
constexpr UINT wm_dpi_settled = WM_APP + 2;
// Posted to itself when rows wait for a walk of their local subtree: the notifications
// queued before it run first, so that a burst of changes costs one walk per device.
constexpr UINT wm_walk_pending = WM_APP + 3;

// How each control follows a resize: the tree grows with the window, the buttons and the
// promotion line keep to the bottom edge, those on the right to the right edge.
constexpr anchor anchors[] = {
    {ids::devices_label, false, false, false, false},
    {ids::hide_disconnected, false, false, false, false},
    {ids::collapse_all, false, false, false, false},
    {ids::tree_placeholder, false, true, false, true},
    {ids::settings, false, false, true, true},
    {ids::copy_device_id, false, false, true, true},
    {ids::help, true, true, true, true},
    {ids::about, true, true, true, true},
    {IDCANCEL, true, true, true, true},
    {ids::promotion, false, true, true, true},
};

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
    } catch (...) {
        // Nothing is lost for this session; the next successful save writes everything.
        tessel::log_caught_exception(L"the settings could not be saved");
    }
}

}  // namespace

std::wstring help_file_argument(std::wstring_view help_file, std::wstring_view topic)
{
    // One argument, quoted: the path holds blanks under Program Files, and so does the topic.
    return ts_printf::format(L"\"{}::/redirect.html#{}\"", help_file, topic);
}

main_dialog::main_dialog(tessel::com_ptr<IUsbServer> server, std::unique_ptr<device_node_source> nodes)
    : server_(std::move(server)),
      listener_(tessel::make_com_object<main_dialog_listener>(this)),
      nodes_(nodes ? std::move(nodes) : make_system_device_source())
{
    set_cancellation(std::make_shared<fibra::details::cancellation_source_body>());
}

main_dialog::~main_dialog()
{
    if (window_)
        ::DestroyWindow(window_);
    listener_->detach();
}

HRESULT main_dialog::QueryInterface(REFIID iid, void** out) noexcept
{
    if (out && iid == __uuidof(IVectorSite)) {
        *out = static_cast<IVectorSite*>(static_cast<IVectorSite2*>(this));
        AddRef();
        return S_OK;
    }
    return com_object::QueryInterface(iid, out);
}

HRESULT main_dialog::GetIconModule(HMODULE* module) noexcept
{
    if (!module)
        return E_POINTER;
    *module = ::GetModuleHandleW(nullptr);
    return S_OK;
}

HRESULT main_dialog::LoadIconCollection(int resource_id) noexcept
try {
    return tessel::svg::collection_cache::instance().load(::GetModuleHandleW(nullptr), MAKEINTRESOURCEW(resource_id))
               ? S_OK
               : S_FALSE;
} catch (...) {
    return tessel::hresult_from_caught_exception();
}

HRESULT main_dialog::GetHelpTopic(BSTR* topic) noexcept
{
    if (!topic)
        return E_POINTER;
    *topic = ::SysAllocString(help_topic);
    return *topic ? S_OK : E_OUTOFMEMORY;
}

HRESULT main_dialog::GetProductShortName(BSTR* name) noexcept
{
    if (!name)
        return E_POINTER;
    *name = ::SysAllocString(product_short_name);
    return *name ? S_OK : E_OUTOFMEMORY;
}

HRESULT main_dialog::OnDeviceAdded(IUsbDevice* device) noexcept
{
    handle_server_event(listener_, server_event::device_added, tessel::com_ptr<IUsbDevice>(device));
    return S_OK;
}

HRESULT main_dialog::OnDeviceChanged(IUsbDevice* device) noexcept
{
    handle_server_event(listener_, server_event::device_changed, tessel::com_ptr<IUsbDevice>(device));
    return S_OK;
}

HRESULT main_dialog::OnClientConnectionChanged(IUsbDevice* device) noexcept
{
    handle_server_event(listener_, server_event::client_changed, tessel::com_ptr<IUsbDevice>(device));
    return S_OK;
}

HRESULT main_dialog::OnClientConnectionChanged2(IUsbDevice* device) noexcept
{
    return OnClientConnectionChanged(device);
}

HRESULT main_dialog_listener::OnDeviceAdded(IUsbDevice* device) noexcept
{
    return dialog_ ? dialog_->OnDeviceAdded(device) : S_OK;
}

HRESULT main_dialog_listener::OnDeviceChanged(IUsbDevice* device) noexcept
{
    return dialog_ ? dialog_->OnDeviceChanged(device) : S_OK;
}

HRESULT main_dialog_listener::OnClientConnectionChanged(IUsbDevice* device) noexcept
{
    return dialog_ ? dialog_->OnClientConnectionChanged(device) : S_OK;
}

HRESULT main_dialog_listener::OnClientConnectionChanged2(IUsbDevice* device) noexcept
{
    return dialog_ ? dialog_->OnClientConnectionChanged2(device) : S_OK;
}

fibra::fire_and_forget main_dialog::handle_server_event(tessel::com_ptr<main_dialog_listener> listener,
                                                        server_event event, tessel::com_ptr<IUsbDevice> device)
{
    main_dialog* self = listener->dialog();
    if (!self)
        co_return;  // the window has gone; the server did not let go of its listener
    // Posted even when the call came in on the UI thread, so that the notification has
    // returned to the server before any window work starts.
    tessel::windows::impl::async_context ui(self->thread_id(), self->cancellation(), true);
    co_await ui;  // throws operation_cancelled once the window is gone
    self = listener->dialog();
    if (self && self->window_)
        self->on_server_event(event, device.get());
}

void main_dialog::on_server_event(server_event event, IUsbDevice* device)
{
    if (!model_)
        return;
    switch (event) {
    case server_event::device_added: model_->device_added(*server_.get(), device); break;
    case server_event::device_changed: model_->device_changed(*server_.get(), device); break;
    case server_event::client_changed: model_->client_changed(device); break;
    }
    if (!walk_posted_ && model_->walks_pending())
        walk_posted_ = ::PostMessageW(window_, wm_walk_pending, 0, 0) != FALSE;
    report_model_failure();
    update_copy_button();
}

HWND main_dialog::create(int show_command)
{
    HWND window = create_modeless(nullptr, main_dialog_id);
    if (!window)
        tessel::fail_fast_last_error(L"CreateDialogParam failed for main dialog");
    ::ShowWindow(window, show_command);
    return window;
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
    case WM_NOTIFY: {
        const INT_PTR result = on_notify(*reinterpret_cast<const NMHDR*>(lparam));
        ::SetWindowLongPtrW(window_, DWLP_MSGRESULT, result);
        return TRUE;
    }
    case WM_CONTEXTMENU:
        if (tree_ && reinterpret_cast<HWND>(wparam) == tree_->window()) {
            POINT at{GET_X_LPARAM(lparam), GET_Y_LPARAM(lparam)};
            show_context_menu(tree_->selected_node(), at);
            return TRUE;
        }
        return FALSE;
    case WM_SIZE:
        layout_.apply(window_);
        return TRUE;
    case WM_DEVICECHANGE:
        // Sent to every top-level window when the machine's device nodes change, a device
        // arrives or goes: the next refresh walks every device again.
        if ((wparam == DBT_DEVNODES_CHANGED || wparam == DBT_DEVICEARRIVAL || wparam == DBT_DEVICEREMOVECOMPLETE) &&
            model_)
            model_->forget_local_subtrees();
        return TRUE;
    case WM_DPICHANGED:
        icons_.apply(window_);
        // The tree takes the new DPI only after this message (WM_DPICHANGED_AFTERPARENT):
        // its icon size is compared once it has.
        ::PostMessageW(window_, wm_dpi_settled, 0, 0);
        return FALSE;  // the dialog manager rescales the window and its font
    case wm_dpi_settled:
        if (tree_ && tree_->list().icon_pixel_size() != marker_size_) {
            // Markers and class icons follow the new size: the rows are built again.
            prepare_markers();
            refresh();
        }
        return TRUE;
    case wm_walk_pending:
        walk_posted_ = false;
        if (model_) {
            model_->walk_pending_rows();
            update_copy_button();
        }
        return TRUE;
    case WM_GETMINMAXINFO:
        // Never smaller than designed: the controls do not fit otherwise.
        if (layout_.captured()) {
            const SIZE smallest = layout_.minimum_window_size(window_);
            reinterpret_cast<MINMAXINFO*>(lparam)->ptMinTrackSize = {smallest.cx, smallest.cy};
        }
        return TRUE;
    case wm_window_ready:
        if (hooks_.main_window_ready)
            hooks_.main_window_ready(window_);
        return TRUE;
    case WM_CLOSE:
        close();
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
    ole_thread_ = std::make_unique<tessel::windows::ole_thread>();
    tessel::log_if_failed(LoadIconCollection(tessel::svg::icon_collection_resource_id));
    tessel::translate_dialog(window_);
    icons_.apply(window_);

    const app_settings& settings = current_app_settings();
    ::CheckDlgButton(window_, ids::hide_disconnected, settings.hide_disconnected ? BST_CHECKED : BST_UNCHECKED);
    ::CheckDlgButton(window_, ids::collapse_all, settings.collapse_all ? BST_CHECKED : BST_UNCHECKED);

    fit_to_texts(window_);

    // The tree takes the placeholder's place, reaching down to the buttons.
    RECT placeholder = child_rect(window_, ids::tree_placeholder);
    const RECT settings_button = child_rect(window_, ids::settings);
    RECT gap{0, 0, 0, 7};
    ::MapDialogRect(window_, &gap);
    placeholder.bottom = settings_button.top - gap.bottom;
    ::MoveWindow(::GetDlgItem(window_, ids::tree_placeholder), placeholder.left, placeholder.top,
                 placeholder.right - placeholder.left, placeholder.bottom - placeholder.top, FALSE);

    create_promotion_line();

    layout_.capture(window_, anchors);

    create_tree();
    // Listening starts with the first full picture, so that no change is applied to rows
    // that do not exist yet; a change in between is in the refresh already.
    listening_ = SUCCEEDED(server_->AdviseListener(listener_.get()));
    refresh();
    update_copy_button();
    show_promotion();
    if (hooks_.main_window_ready)
        ::PostMessageW(window_, wm_window_ready, 0, 0);
}

void main_dialog::create_promotion_line()
{
    // Between the buttons on the left and those on the right, on the buttons' line, after
    // "Copy device ID" in the tab order.
    const HWND copy_button = ::GetDlgItem(window_, ids::copy_device_id);
    const RECT left = child_rect(window_, ids::copy_device_id);
    const RECT right = child_rect(window_, ids::help);
    RECT gap{0, 0, 7, 2};
    ::MapDialogRect(window_, &gap);
    const int x = left.right + gap.right;
    const int width = std::max<int>(1, right.left - gap.right - x);
    const HWND placeholder = ::CreateWindowExW(
        0, L"STATIC", L"", WS_CHILD | WS_TABSTOP, x, left.top + gap.bottom, width, left.bottom - left.top - gap.bottom,
        window_, reinterpret_cast<HMENU>(static_cast<INT_PTR>(ids::promotion)), ::GetModuleHandleW(nullptr), nullptr);
    if (!placeholder)
        return;  // the window works without it
    ::SendMessageW(placeholder, WM_SETFONT, ::SendMessageW(window_, WM_GETFONT, 0, 0), FALSE);
    ::SetWindowPos(placeholder, copy_button, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE);
    try {
        promotion_ = tessel::windows::new_controls::rich_view::attach(placeholder);
        ::ShowWindow(promotion_->window(), SW_HIDE);
    } catch (...) {
        tessel::log_caught_exception(L"the promotion line could not be made");
    }
}

void main_dialog::show_promotion()
{
    if (!promotion_)
        return;
    std::wstring markup;
    try {
        if (hooks_.promotion)
            markup = hooks_.promotion();
        promotion_->set_text(markup);
    } catch (...) {
        tessel::log_caught_exception(L"the promotion line could not be shown");
        markup.clear();
    }
    ::ShowWindow(promotion_->window(), markup.empty() ? SW_HIDE : SW_SHOWNA);
}

void main_dialog::create_tree()
{
    // The tree takes the placeholder's rectangle, id and place in the tab order.
    const HWND placeholder = ::GetDlgItem(window_, ids::tree_placeholder);
    const RECT r = child_rect(window_, ids::tree_placeholder);
    tree_ = std::make_unique<tv::treeview>(window_, ids::tree, r);
    if (const HWND tree = tree_->window()) {
        ::SetWindowLongPtrW(placeholder, GWLP_ID, 0);
        ::SetWindowLongPtrW(tree, GWLP_ID, ids::tree);
        ::SetWindowPos(tree, placeholder, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE);
        ::DestroyWindow(placeholder);
        ::SetWindowLongPtrW(tree, GWL_STYLE, ::GetWindowLongPtrW(tree, GWL_STYLE) | WS_TABSTOP);
    }

    std::vector<lv::column> columns;
    for (const tree_column& c : tree_columns) {
        columns.push_back({tessel::load_string_item_or(tessel::string_ids::main_columns, c.title_item, {}), c.width});
    }
    tree_->set_columns(std::move(columns));

    // The share marker is a picture: screen readers hear the share state in words.
    tree_->list().handlers().picture_cell_text = [this](lv::row_index row, std::size_t column) -> std::wstring {
        tv::tree_node* node = tree_->node_of_row(row);
        if (column != 1 || !node || node->parent() || !model_)
            return {};
        const auto index = model_->index_of(static_cast<device_rows::row_handle>(node));
        if (!index)
            return {};
        return tessel::load_string_or(
            model_->device_at(*index).share ? tessel::string_ids::device_shared : tessel::string_ids::device_not_shared, {});
    };
    // A disconnected device's row is only dimmed: screen readers hear it in words.
    tree_->list().handlers().row_state_text = [this](lv::row_index row) -> std::wstring {
        tv::tree_node* node = tree_->node_of_row(row);
        if (!node || node->parent() || !model_)
            return {};
        const auto index = model_->index_of(static_cast<device_rows::row_handle>(node));
        return index && model_->row_at(*index).disconnected ? disconnected_text_ : std::wstring();
    };
    rows_ = std::make_unique<device_tree_rows>(*tree_);
    model_ = std::make_unique<device_model>(*rows_, *nodes_);
    prepare_markers();
}

void main_dialog::prepare_markers()
{
    marker_size_ = tree_->list().icon_pixel_size();
    const auto icons = tessel::svg::program_icons();
    const auto marker = [&](const wchar_t* name) {
        return icons ? tessel::svg::create_hicon(tessel::svg::render_icon(icons->find(std::wstring_view(name)), marker_size_))
                     : tessel::unique_hicon();
    };
    // The rows still show the old markers until they are rebuilt: keep those alive.
    auto shared = marker(L"marker.shared");
    auto not_shared = marker(L"marker.not-shared");
    namespace id = tessel::string_ids;
    const auto text = [](std::uint32_t string_id) { return tessel::load_string_or(string_id, {}); };
    device_model::texts texts{text(id::device_unknown),
                              reinterpret_cast<std::uintptr_t>(shared.get()),
                              reinterpret_cast<std::uintptr_t>(not_shared.get()),
                              text(id::device_tip_location),
                              text(id::device_tip_instance_id),
                              text(id::device_tip_vid_pid),
                              text(id::device_tip_serial),
                              text(id::device_tip_class),
                              text(id::device_shared_with_key),
                              text(id::device_shared_without_key),
                              text(id::device_not_shared),
                              text(id::device_share_tooltip),
                              text(id::device_unshare_tooltip),
                              text(id::device_client_connected),
                              text(id::device_client_disconnected)};
    if (texts.unknown_device.empty())
        texts.unknown_device = L"Unknown device";
    rows_->set_child_tip_format(texts.tip_instance_id);
    disconnected_text_ = text(id::device_disconnected);
    model_->set_icon_size(marker_size_);
    model_->set_texts(std::move(texts));
    retired_markers_.push_back(std::move(shared_marker_));
    retired_markers_.push_back(std::move(not_shared_marker_));
    shared_marker_ = std::move(shared);
    not_shared_marker_ = std::move(not_shared);
}

void main_dialog::refresh()
{
    if (!model_)
        return;
    const app_settings& settings = current_app_settings();
    model_->options() = {settings.hide_disconnected, settings.collapse_all};
    try {
        model_->full_refresh(*server_.get());
    } catch (const fibra::details::hresult_error& e) {
        report_server_failure(e.code(), tessel::string_ids::server_call_failed);
    }
    (void)model_->take_failure();  // single rows: their cells say enough
    retired_markers_.clear();
    update_copy_button();
}

std::optional<std::size_t> main_dialog::model_row_of(tv::tree_node* node) const
{
    tv::tree_node* top = device_tree_rows::top_level_of(node);
    if (!top || !model_)
        return std::nullopt;
    return model_->index_of(static_cast<device_rows::row_handle>(top));
}

void main_dialog::share_action(std::size_t row)
{
    if (!model_)
        return;
    model_->toggle_share(*server_.get(), row, *this);
    report_model_failure();
}

bool main_dialog::copy_selected_device_id()
{
    const device_node_info* info = tree_ ? device_tree_rows::info_of(tree_->selected_node()) : nullptr;
    if (!info || info->instance_id.empty())
        return false;
    copy_device_id(info->instance_id);
    return true;
}

void main_dialog::copy_device_id(const std::wstring& instance_id)
{
    try {
        copy_text_to_clipboard(*ole_thread_, instance_id);
    } catch (const fibra::details::hresult_error& e) {
        show_message(format_error_message(tessel::string_ids::error_clipboard, e.code()), MB_OK | MB_ICONERROR);
    }
}

bool main_dialog::translate_shortcut(const MSG& message)
{
    if (!window_ || !tree_)
        return false;
    // F5 anywhere in the window: every row again, every device walked again.
    if (message.message == WM_KEYDOWN && message.wParam == VK_F5 &&
        (message.hwnd == window_ || ::IsChild(window_, message.hwnd))) {
        if (model_)
            model_->forget_local_subtrees();
        refresh();
        return true;
    }
    // Ctrl+C on the tree, as the character it becomes: the button's copy.
    if (message.message == WM_CHAR && message.wParam == 3 && message.hwnd == tree_->window()) {
        copy_selected_device_id();
        return true;
    }
    return false;
}

void main_dialog::update_copy_button()
{
    const device_node_info* info = tree_ ? device_tree_rows::info_of(tree_->selected_node()) : nullptr;
    ::EnableWindow(::GetDlgItem(window_, ids::copy_device_id), info && !info->instance_id.empty());
}

INT_PTR main_dialog::on_notify(const NMHDR& header)
{
    if (header.idFrom == static_cast<UINT_PTR>(ids::promotion) &&
        header.code == tessel::windows::new_controls::rvn_link_activated) {
        const auto& link = reinterpret_cast<const tessel::windows::new_controls::nm_rich_view_link&>(header);
        if (hooks_.open_promotion)
            hooks_.open_promotion(link.argument ? link.argument : L"");
        return 0;
    }
    if (!tree_ || header.hwndFrom != tree_->window())
        return 0;
    switch (header.code) {
    case lv::lvn_selection_changed:
        update_copy_button();
        return 0;
    case lv::lvn_row_activated: {
        const auto& n = reinterpret_cast<const lv::nm_listview_row&>(header);
        auto* node = tv::treeview::node_of(n);
        // Enter or a double click on a device row is its share action; on the rows below
        // it the tree expands and collapses.
        if (node && !node->parent())
            if (const auto row = model_row_of(node))
                share_action(*row);
        return 0;
    }
    case lv::lvn_button_clicked: {
        const auto& n = reinterpret_cast<const lv::nm_listview_button&>(header);
        if (n.column == 1)
            if (const auto row = model_row_of(static_cast<tv::tree_node*>(n.item)))
                share_action(*row);
        return 0;
    }
    case lv::lvn_context_menu: {
        const auto& n = reinterpret_cast<const lv::nm_listview_context_menu&>(header);
        auto* node = static_cast<tv::tree_node*>(n.item);
        if (node)
            tree_->select(node);
        show_context_menu(node, n.screen);
        return 1;
    }
    default:
        return 0;
    }
}

void main_dialog::show_context_menu(tv::tree_node* node, POINT screen)
{
    const auto row = model_row_of(node);
    const device_node_info* info = device_tree_rows::info_of(node);
    if (!row && !info)
        return;
    if (screen.x == -1 && screen.y == -1) {
        // From the keyboard without a place: below the tree's top-left corner.
        RECT r;
        ::GetWindowRect(tree_->window(), &r);
        screen = {r.left + 16, r.top + 16};
    }
    const auto text = [](std::uint32_t id) { return tessel::load_string_or(id, {}); };
    tessel::unique_handle_of<HMENU, ::DestroyMenu> menu(::CreatePopupMenu());
    if (!menu)
        return;
    // The menu runs a message loop of its own, in which server notifications may remove
    // the row and free its node: what the commands need is taken now, and the row is
    // found again by its device afterwards.
    tessel::com_ptr<IUsbDevice> device;
    if (row) {
        device = model_->device_at(*row).device;
        const bool shared = static_cast<bool>(model_->device_at(*row).share);
        ::AppendMenuW(menu.get(), MF_STRING, main_dialog_menu::share,
                      text(shared ? tessel::string_ids::menu_unshare : tessel::string_ids::menu_share).c_str());
    }
    const std::wstring instance_id = info ? info->instance_id : std::wstring();
    ::AppendMenuW(menu.get(), MF_STRING | (instance_id.empty() ? MF_GRAYED : 0), main_dialog_menu::copy_device_id,
                  text(tessel::string_ids::menu_copy_device_id).c_str());
    node = nullptr;
    const int chosen = static_cast<int>(::TrackPopupMenu(menu.get(), TPM_RETURNCMD | TPM_RIGHTBUTTON, screen.x,
                                                         screen.y, 0, window_, nullptr));
    if (!window_ || !model_)
        return;
    if (chosen == main_dialog_menu::share && device) {
        if (const auto now = model_->index_of(device.get()))
            share_action(*now);
    } else if (chosen == main_dialog_menu::copy_device_id && !instance_id.empty()) {
        copy_device_id(instance_id);
    }
}

int main_dialog::show_message(std::wstring_view text, UINT style)
{
    showing_message_ = true;
    const tessel::scope_exit shown([this]() noexcept { showing_message_ = false; });
    return tessel::show_message_box({.owner = window_, .text = text, .style = style});
}

void main_dialog::report_server_failure(HRESULT code, std::uint32_t message_id)
{
    if (server_is_gone(code)) {
        // Every call fails from now on: one message says it, not one per row.
        if (server_lost_reported_)
            return;
        server_lost_reported_ = true;
        message_id = tessel::string_ids::server_lost;
    }
    if (showing_message_)
        return;  // one message at a time; the one on screen already tells
    show_message(format_error_message(message_id, code), MB_OK | MB_ICONERROR);
}

void main_dialog::report_model_failure()
{
    const HRESULT failure = model_ ? model_->take_failure() : S_OK;
    // Single failing calls leave their cells empty; only a lost server is worth a message.
    if (server_is_gone(failure))
        report_server_failure(failure, tessel::string_ids::server_lost);
}

bool main_dialog::confirm_share(const std::wstring& device_name)
{
    const std::wstring question =
        ts_printf::format(tessel::load_string(tessel::string_ids::device_confirm_share), device_name);
    return show_message(question, MB_YESNO | MB_ICONQUESTION) == IDYES;
}

std::optional<std::wstring> main_dialog::ask_key(const std::wstring& device_name)
{
    share_dialog dialog(device_name, L"");
    if (dialog.show(window_) != IDOK)
        return std::nullopt;
    return dialog.key();
}

void main_dialog::show_error(const std::wstring& text)
{
    show_message(text, MB_OK | MB_ICONERROR);
}

fibra::fire_and_forget main_dialog::run_settings(main_dialog* self)
{
    const tessel::windows::impl::async_context ui(self->thread_id(), self->cancellation());
    settings_dialog dialog(self->server_);
    const INT_PTR result = dialog.show(self->window_);
    if (result == IDOK) {
        const settings_record changed(dialog.result());
        tessel::com_ptr<IUsbServerOperation> operation;
        HRESULT outcome = self->server_->SetSettingsAsync(changed.get(), operation.put());
        // Each write keeps its own wait: the user may send the next before this one ends.
        const auto wait = self->settings_write_waits_.emplace(self->settings_write_waits_.end());
        if (SUCCEEDED(outcome))
            outcome = co_await server_operation(operation, &*wait);
        co_await ui;  // throws operation_cancelled when the window has gone meanwhile
        self->settings_write_waits_.erase(wait);
        if (FAILED(outcome) && self->window_)
            self->report_server_failure(outcome, tessel::string_ids::settings_save_failed);
    } else if (result == language_changed_result && self->window_) {
        // The dialog stored the new language; a new copy shows it.
        save_settings_reporting_failure();
        restart_requested = true;
        ::PostMessageW(self->window_, WM_CLOSE, 0, 0);
    }
}

void main_dialog::open_help()
{
    // Both open as the signed-in user, through the program's link opener.
    const std::wstring local = tessel::module_folder() + local_help_file;
    bool opened;
    if (::GetFileAttributesW(local.c_str()) != INVALID_FILE_ATTRIBUTES) {
        opened = tessel::open_help_file(window_, help_file_argument(local, help_topic));
    } else {
        BSTR name = nullptr;
        tessel::log_if_failed(GetProductShortName(&name));
        const tessel::unique_bstr owned(name);
        std::wstring topic = help_topic;
        // An address has no blanks.
        for (std::size_t at = topic.find(L' '); at != std::wstring::npos; at = topic.find(L' ', at))
            topic.replace(at, 1, L"%20");
        opened = tessel::open_link(
            window_, std::wstring(vendor_site) + ts_printf::format(L"online-doc/{}/{}", name ? name : L"", topic));
    }
    if (!opened && ::GetLastError() != ERROR_CANCELLED)  // not when the user declined
        show_message(format_error_message(tessel::string_ids::error_help_unavailable,
                                          tessel::hresult_from_win32(::GetLastError())),
                     MB_OK | MB_ICONERROR);
}

void main_dialog::close()
{
    if (hooks_.may_close && !hooks_.may_close(window_))
        return;
    ::DestroyWindow(window_);
}

void main_dialog::show_about()
{
    about_dialog(hooks_.check_for_updates).show(window_);
    // Windows keeps the windows this one owns (the download's progress) above it. Wine, once
    // a modal box has gone, may stack this window over them and hide them: moving it to the
    // top moves them along, above it.
    ::SetWindowPos(window_, HWND_TOP, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE);
}

void main_dialog::on_command(int id)
{
    app_settings& settings = current_app_settings();
    switch (id) {
    case IDCANCEL:  // the Close button, Escape and the close box
        close();
        break;
    case ids::hide_disconnected:
        settings.hide_disconnected = ::IsDlgButtonChecked(window_, id) == BST_CHECKED;
        refresh();
        save_settings_reporting_failure();
        break;
    case ids::collapse_all:
        settings.collapse_all = ::IsDlgButtonChecked(window_, id) == BST_CHECKED;
        if (model_) {
            model_->options().collapse_all = settings.collapse_all;
            model_->collapse_all(settings.collapse_all);
        }
        save_settings_reporting_failure();
        break;
    case ids::settings:
        run_settings(this);
        break;
    case ids::copy_device_id:
        copy_selected_device_id();
        break;
    case ids::help:
        open_help();
        break;
    case ids::about:
        show_about();
        break;
    default:
        break;
    }
}

void main_dialog::on_destroy() noexcept
{
    // Work still waiting to come back to this window ends instead, also the settings write
    // the server has not answered yet.
    cancel_work();
    for (auto& wait : settings_write_waits_)
        end_server_wait(wait);
    // Whether or not the server lets go of the listener, it reaches this window no more.
    listener_->detach();
    if (listening_)
        server_->UnadviseListener(listener_.get());
    listening_ = false;
    // The rows hold server objects; they go with the window, before the server does.
    model_.reset();
    rows_.reset();
    tree_.reset();
    ole_thread_.reset();
    ::PostQuitMessage(0);
}

}  // namespace servercfg
