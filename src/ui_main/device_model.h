#pragma once
// The device model behind the main window's tree: one top-level row per device the server
// knows, with the device's local subtree below it, and the rules that keep the rows equal
// to the server's state (full refresh, single-row updates, client changes, share and
// unshare, the two view options).
//
// The model writes to the tree through device_rows, which the main window implements
// over the toolkit's tree view and tests implement with a recording list. All calls run
// on the UI thread.

#include "server_link/server_api.h"
#include "base/com_ptr.h"
#include "format/ts_printf.h"
#include "ui_main/local_devices.h"

#include <windows.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace servercfg {

// What the columns of a top-level row show. Texts are markup.
struct device_row {
    std::wstring name;  // column 0, with the icon
    device_icon icon;
    std::wstring share;   // column 1: the share marker as a button
    std::wstring client;  // column 2
    std::wstring key;     // column 3
    bool disconnected = false;
    // The server's location of the device (device slot 13).
    std::wstring location;
    // Plain texts of the cells' tooltips; empty: none. The name's tells the device apart
    // (location, instance ID, VID:PID, serial number, setup class), the share cell's how
    // it is shared (never the key), the client cell's who holds it.
    std::wstring name_tip;
    std::wstring share_tip;
    std::wstring client_tip;
};

// The model's view of the tree. A row handle stays valid until the row is removed or the
// rows are cleared.
class device_rows {
public:
    using row_handle = void*;
    virtual ~device_rows() = default;

    // Many changes, one repaint.
    virtual void suspend_redraw() = 0;
    virtual void resume_redraw() = 0;
    virtual void clear() = 0;
    // Adds a top-level row before `before` (null: at the end) with a child row for every
    // node below `subtree`'s root, depth first. Children show child_row_text(name).
    virtual row_handle insert_row(row_handle before, const device_row& row, const local_device_node* subtree) = 0;
    virtual void update_row(row_handle row, const device_row& data) = 0;
    // The rows below a top-level row again, from a new walk of its local subtree (null: none).
    virtual void replace_children(row_handle row, const local_device_node* subtree) = 0;
    virtual void remove_row(row_handle row) = 0;
    virtual void set_collapsed(row_handle row, bool collapsed) = 0;
    [[nodiscard]] virtual bool collapsed(row_handle row) const = 0;
};

// "[[[i{}]]]": the text of a child row.
[[nodiscard]] std::wstring child_row_text(std::wstring_view name);

// Asked while a device is shared; the main window answers with its dialogs.
class share_prompts {
public:
    virtual ~share_prompts() = default;
    // The Yes/No question before sharing a device that asks for it.
    virtual bool confirm_share(const std::wstring& device_name) = 0;
    // The share dialog: the key typed, or nothing after Cancel.
    virtual std::optional<std::wstring> ask_key(const std::wstring& device_name) = 0;
    virtual void show_error(const std::wstring& text) = 0;
};

struct view_options {
    bool hide_disconnected = false;
    bool collapse_all = false;
};

// The data of a top-level row.
struct device_t {
    tessel::com_ptr<IUsbDevice> device;  // never null
    tessel::com_ptr<IUsbShare> share;    // null: not shared
};

class device_model {
public:
    struct texts {
        std::wstring unknown_device = L"Unknown device";
        // Icon handles of the shared and not-shared markers, as numbers for "[[[r:{}: ]]]".
        std::uintptr_t shared_marker = 0;
        std::uintptr_t not_shared_marker = 0;
        // Lines of the name's tooltip, each with its value as {0}; a line whose value is
        // empty is left out.
        std::wstring tip_location{};
        std::wstring tip_instance_id{};
        std::wstring tip_vid_pid{};
        std::wstring tip_serial{};
        std::wstring tip_class{};
        // The share cell's tooltip: the state, then what a click does.
        std::wstring shared_with_key{};
        std::wstring shared_without_key{};
        std::wstring not_shared{};
        std::wstring share_action{};
        std::wstring unshare_action{};
        // The client cell's: {0} the client's name.
        std::wstring client_connected{};
        std::wstring client_none{};
    };

    device_model(device_rows& rows, device_node_source& nodes);
    device_model(const device_model&) = delete;
    device_model& operator=(const device_model&) = delete;

    void set_texts(texts t) { texts_ = std::move(t); }
    // A new size also forgets the local subtrees, whose icons have the old one.
    void set_icon_size(int pixels) noexcept;
    [[nodiscard]] int icon_size() const noexcept { return icon_size_; }
    // The machine's device nodes changed: the next rows walk their local subtrees again.
    void forget_local_subtrees() noexcept;
    [[nodiscard]] view_options& options() noexcept { return options_; }

    // Every row again from the server's state. Throws fibra::details::hresult_error when
    // the server's lists cannot be read (the rows are then empty).
    void full_refresh(IUsbServer& server);
    // A new device: its row at the end (or, when it has one already, the row updated).
    void device_added(IUsbServer& server, IUsbDevice* device);
    // A device changed: its row is re-read, removed (gone from the server, or hidden as
    // disconnected) or, when it has none and should have one, made.
    void device_changed(IUsbServer& server, IUsbDevice* device);
    // The device's client column is re-read.
    void client_changed(IUsbDevice* device);
    // Rows whose device came or went on this machine (its connected state flipped, or its
    // device node changed) wait for a new walk of their local subtree: many changes in a
    // row cost one walk each, done here.
    [[nodiscard]] bool walks_pending() const noexcept;
    void walk_pending_rows();
    // Collapses or expands every top-level row.
    void collapse_all(bool collapse);

    // The share action of a row: share it (with confirmation and key) or unshare it.
    void toggle_share(IUsbServer& server, std::size_t row, share_prompts& prompts);

    [[nodiscard]] std::size_t size() const noexcept { return rows_.size(); }
    [[nodiscard]] const device_t& device_at(std::size_t row) const { return rows_[row].data; }
    [[nodiscard]] const device_row& row_at(std::size_t row) const { return rows_[row].shown; }
    [[nodiscard]] device_rows::row_handle handle_at(std::size_t row) const { return rows_[row].handle; }
    // The index of the top-level row with this handle, or nothing.
    [[nodiscard]] std::optional<std::size_t> index_of(device_rows::row_handle handle) const noexcept;
    [[nodiscard]] std::optional<std::size_t> index_of(const IUsbDevice* device) const noexcept;

    // The first server failure met since the last call (reported once by the caller),
    // or S_OK. Failures of single rows leave their cells empty and land here.
    HRESULT take_failure() noexcept { return std::exchange(failure_, S_OK); }

private:
    struct entry {
        device_t data;
        device_row shown;
        device_rows::row_handle handle = nullptr;
        // The local subtree as walked for this row, and from which device instance handle:
        // a full refresh takes it over for the same device rather than walking again.
        std::optional<local_device_node> walked;
        DWORD devinst = 0;
        // What the walk found out about the device's own node.
        device_identity identity;
        bool walk_pending = false;
    };
    // The shares with the device each belongs to, in GetShares order.
    struct share_list {
        std::vector<tessel::com_ptr<IUsbShare>> shares;
        std::vector<IUsbDevice*> devices;
        std::vector<tessel::com_ptr<IUsbDevice>> keep;  // holds the devices compared above
    };

    class update_scope {
    public:
        explicit update_scope(device_model& model);
        ~update_scope();
        update_scope(const update_scope&) = delete;
        update_scope& operator=(const update_scope&) = delete;

    private:
        device_model& model_;
    };

    share_list read_shares(IUsbServer& server, bool throw_on_failure);
    // Builds and inserts the row of one device before `before`; false when the device is
    // hidden. previous: the rows before a full refresh by device, whose walked subtrees
    // may serve.
    using previous_rows = std::unordered_map<const IUsbDevice*, entry*>;
    bool build_row(IUsbDevice* device, const share_list& shares, std::size_t before,
                   previous_rows* previous = nullptr);
    // connected: what IsConnected answered already, if it was asked.
    void fill_columns(entry& e, std::optional<bool> connected = std::nullopt);
    void walk(entry& e, const std::wstring& name);
    void fill_share(entry& e, bool shared);
    void fill_client(entry& e);
    [[nodiscard]] std::wstring share_cell(bool shared) const;
    [[nodiscard]] std::wstring name_tip(const entry& e) const;
    // Where a device's row goes so that rows keep the server's order.
    std::size_t insertion_point(IUsbServer& server, IUsbDevice* device);
    void remove_at(std::size_t index);
    void note(HRESULT code) noexcept;

    device_rows& tree_;
    device_node_source& nodes_;
    texts texts_;
    view_options options_;
    int icon_size_ = 16;
    int update_counter_ = 0;
    std::vector<entry> rows_;
    HRESULT failure_ = S_OK;
    const ts_printf::compiled_format share_format_{L"[[[H[[[r:{}: ]]]]]]"};
    const ts_printf::compiled_format client_format_{
        L"[[[v#[{0?<}server.client.connected{0?|}server.client.disconnected{0?>}]# ]]] {1}"};
};

// Reads a BSTR out-value: the text, or nothing when the call fails.
[[nodiscard]] std::optional<std::wstring> read_text(HRESULT (STDMETHODCALLTYPE IUsbDevice::*method)(BSTR*),
                                                    IUsbDevice& device, HRESULT* failure = nullptr);

}  // namespace servercfg
