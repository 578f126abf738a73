#pragma once
// The program's main window (dialog resource 130): a resizable modeless dialog with the
// tree of shareable local USB devices and the commands Share, Settings, Copy device ID,
// Help, About and Close.
//
// The tree is the toolkit's tree view, created in place of the placeholder 1003 (and
// taking its id); the device model keeps its rows equal to the server's state. A row's
// share action is the share marker's button in column 1, Enter or a double click on the
// row, and the row's context menu (right click, Shift+F10, the menu key).
//
// The object is the window's listener and its icon and help site. It lives on wWinMain's
// stack as tessel::value_on_stack<main_dialog>, so references never destroy it. What the
// server is handed is main_dialog_listener, a counted object of its own that passes the
// notifications on until the window goes: a server that keeps it after a failed
// UnadviseListener, or calls it late, reaches nothing that has gone. Coroutines the window started resume only inside its own message loop, which has
// ended by the time the object is destroyed.
//
// Failures of the server: a refresh that cannot read the server's lists, and the first
// call that finds the server gone, are each shown once; rows whose single calls fail keep
// those cells empty. The window stays usable and closable throughout.

#include "app/ole_thread.h"
#include "server_link/server_api.h"
#include "base/async_context.h"
#include "base/com_object.h"
#include "base/com_ptr.h"
#include "base/coroutine.h"
#include "controls/window_icons.h"
#include "ui_main/device_model.h"
#include "ui_main/dialog_base.h"
#include "ui_main/dialog_layout.h"
#include "ui_main/local_devices.h"
#include "ui_main/sites.h"
#include "ui_main/update_hooks.h"

#include <windows.h>

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::windows::new_controls {
class rich_view;
}  // namespace tessel::windows::new_controls

namespace tessel::windows::new_controls::treeview::impl {
class treeview;
class tree_node;
}  // namespace tessel::windows::new_controls::treeview::impl

namespace servercfg {

inline constexpr int main_dialog_id = 130;

namespace main_dialog_controls {
inline constexpr int devices_label = 1002;
inline constexpr int tree_placeholder = 1003;
inline constexpr int about = 1004;
inline constexpr int settings = 1005;
inline constexpr int copy_device_id = 1014;
inline constexpr int hide_disconnected = 1016;
inline constexpr int collapse_all = 1017;
inline constexpr int help = 9;
// The promotion line between the left and the right buttons, made at run time.
inline constexpr int promotion = 1020;
// The tree takes the placeholder's id.
inline constexpr int tree = tree_placeholder;
}  // namespace main_dialog_controls

// The context menu's commands.
namespace main_dialog_menu {
inline constexpr int share = 40001;
inline constexpr int copy_device_id = 40002;
}  // namespace main_dialog_menu

// The help topic, and the local help file beside the program.
inline constexpr wchar_t help_topic[] = L"Server Configuration Utility";
inline constexpr wchar_t local_help_file[] = L"doc\\en\\ulmo.chm";
// The product's short name in online help addresses.
inline constexpr wchar_t product_short_name[] = L"ulmo";

// What hh.exe is given to open the topic in the local help file: one quoted argument.
[[nodiscard]] std::wstring help_file_argument(std::wstring_view help_file, std::wstring_view topic);

class device_tree_rows;
class main_dialog;

// What the server holds while the window listens: a counted object of its own that
// passes notifications on to the window until the window detaches it. A server that keeps
// it after a failed UnadviseListener, or calls it late, reaches nothing that has gone.
class main_dialog_listener final : public tessel::com_object<IUsbServerListener> {
public:
    explicit main_dialog_listener(main_dialog* dialog) noexcept : dialog_(dialog) {}
    // From now on notifications are ignored.
    void detach() noexcept { dialog_ = nullptr; }
    [[nodiscard]] main_dialog* dialog() const noexcept { return dialog_; }

    HRESULT STDMETHODCALLTYPE OnDeviceAdded(IUsbDevice* device) noexcept override;
    HRESULT STDMETHODCALLTYPE OnDeviceChanged(IUsbDevice* device) noexcept override;
    HRESULT STDMETHODCALLTYPE OnClientConnectionChanged(IUsbDevice* device) noexcept override;
    HRESULT STDMETHODCALLTYPE OnClientConnectionChanged2(IUsbDevice* device) noexcept override;

private:
    main_dialog* dialog_;
};

class main_dialog : public tessel::com_object<IUsbServerListener, IVectorSite2, IHelpSite>,
                    public dialog_base<main_dialog>,
                    public tessel::windows::impl::async_context,
                    private share_prompts {
public:
    // nodes: the local device tree; unset, this machine's.
    explicit main_dialog(tessel::com_ptr<IUsbServer> server, std::unique_ptr<device_node_source> nodes = {});
    ~main_dialog() override;
    main_dialog(const main_dialog&) = delete;
    main_dialog& operator=(const main_dialog&) = delete;

    // Creates the modeless dialog without owner and shows it. A failure is fatal.
    HWND create(int show_command);
    // Before create().
    void set_update_hooks(update_hooks hooks) { hooks_ = std::move(hooks); }

    [[nodiscard]] const device_model& model() const noexcept { return *model_; }
    [[nodiscard]] tessel::windows::new_controls::treeview::impl::treeview* tree() const noexcept { return tree_.get(); }
    // Every row again from the server, as after the window's start.
    void refresh();
    // Shows the promotion line as the update hooks say it reads now, or hides it.
    void show_promotion();
    // The share action of the top-level row `row` (its index in the model).
    void share_action(std::size_t row);
    // Copies the selected row's instance ID; false when no row with one is selected.
    bool copy_selected_device_id();
    // The window's keys that no control handles itself (F5, Ctrl+C on the tree), from the
    // message loop before the dialog manager; true when the message was one.
    bool translate_shortcut(const MSG& message);

    // What the server holds while the window is open.
    [[nodiscard]] main_dialog_listener& listener() const noexcept { return *listener_.get(); }

    // IUnknown: IVectorSite is answered by the IVectorSite2 table.
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) noexcept override;
    // IVectorSite, IVectorSite2
    HRESULT STDMETHODCALLTYPE GetIconModule(HMODULE* module) noexcept override;
    HRESULT STDMETHODCALLTYPE LoadIconCollection(int resource_id) noexcept override;
    // IHelpSite
    HRESULT STDMETHODCALLTYPE GetHelpTopic(BSTR* topic) noexcept override;
    HRESULT STDMETHODCALLTYPE GetProductShortName(BSTR* name) noexcept override;

    // IUsbServerListener: each starts the work on the UI thread and returns at once.
    HRESULT STDMETHODCALLTYPE OnDeviceAdded(IUsbDevice* device) noexcept override;
    HRESULT STDMETHODCALLTYPE OnDeviceChanged(IUsbDevice* device) noexcept override;
    HRESULT STDMETHODCALLTYPE OnClientConnectionChanged(IUsbDevice* device) noexcept override;
    HRESULT STDMETHODCALLTYPE OnClientConnectionChanged2(IUsbDevice* device) noexcept override;

private:
    friend class main_dialog_listener;
    friend class dialog_base<main_dialog>;
    enum class server_event { device_added, device_changed, client_changed };
    // Parameters by value: the frame outlives the notification call. The window is found
    // again through the listener once on the UI thread; a detached one ends the work.
    static fibra::fire_and_forget handle_server_event(tessel::com_ptr<main_dialog_listener> listener,
                                                      server_event event, tessel::com_ptr<IUsbDevice> device);
    void on_server_event(server_event event, IUsbDevice* device);

    INT_PTR handle(UINT message, WPARAM wparam, LPARAM lparam);
    void on_init_dialog();
    void on_command(int id);
    void on_destroy() noexcept;
    INT_PTR on_notify(const NMHDR& header);
    void create_tree();
    void create_promotion_line();
    void prepare_markers();
    void update_copy_button();
    void show_context_menu(tessel::windows::new_controls::treeview::impl::tree_node* node, POINT screen);
    void copy_device_id(const std::wstring& instance_id);
    std::optional<std::size_t> model_row_of(tessel::windows::new_controls::treeview::impl::tree_node* node) const;
    void open_help();
    void show_about();
    void close();
    static fibra::fire_and_forget run_settings(main_dialog* self);
    // Shows a failure of the server: a lost server once, anything else each time.
    void report_server_failure(HRESULT code, std::uint32_t message_id);
    void report_model_failure();
    int show_message(std::wstring_view text, UINT style);

    // share_prompts
    bool confirm_share(const std::wstring& device_name) override;
    std::optional<std::wstring> ask_key(const std::wstring& device_name) override;
    void show_error(const std::wstring& text) override;

    tessel::com_ptr<IUsbServer> server_;
    tessel::com_ptr<main_dialog_listener> listener_;
    std::unique_ptr<device_node_source> nodes_;
    update_hooks hooks_;
    std::unique_ptr<tessel::windows::new_controls::treeview::impl::treeview> tree_;
    std::unique_ptr<device_tree_rows> rows_;
    std::unique_ptr<device_model> model_;
    // The share markers, drawn at the tree's icon size.
    tessel::unique_hicon shared_marker_;
    tessel::unique_hicon not_shared_marker_;
    int marker_size_ = 0;
    // Markers that rows may still show until the next refresh has replaced them.
    std::vector<tessel::unique_hicon> retired_markers_;
    // The handlers the settings writes wait on while the server's answers are outstanding,
    // one per write; a write that ends takes its own out.
    std::list<tessel::com_ptr<IUsbServerOperationHandler>> settings_write_waits_;
    // A walk of rows' local subtrees is posted and not yet done.
    bool walk_posted_ = false;
    // What screen readers hear for a disconnected device's row.
    std::wstring disconnected_text_;
    bool server_lost_reported_ = false;
    bool showing_message_ = false;
    bool listening_ = false;
    std::unique_ptr<tessel::windows::ole_thread> ole_thread_;
    tessel::windows::window_icons icons_;
    // The rich view of the promotion line; it belongs to its window.
    tessel::windows::new_controls::rich_view* promotion_ = nullptr;
    // Where the controls go as the window is resized.
    anchored_layout layout_;
};

}  // namespace servercfg
