#include "ui_main/device_model.h"

#include "app/startup.h"
#include "base/failure.h"
#include "localization/localization.h"

#include <oleauto.h>

#include <algorithm>
#include <utility>

namespace servercfg {
namespace {

using tessel::com_ptr;

// A counted array of interface pointers that the caller owns, element references included.
template <class T>
class owned_array {
public:
    ~owned_array()
    {
        for (ULONG i = 0; i < count; ++i)
            if (items[i])
                items[i]->Release();
        ::CoTaskMemFree(items);
    }
    ULONG count = 0;
    T** items = nullptr;
};

std::wstring bstr_text(BSTR text)
{
    return text ? std::wstring(text, ::SysStringLen(text)) : std::wstring();
}

// A failed IsConnected counts as connected, so that such a device stays visible.
bool is_connected(IUsbDevice& device, HRESULT* failure)
{
    VARIANT_BOOL connected = VARIANT_TRUE;
    const HRESULT hr = device.IsConnected(&connected);
    if (FAILED(hr)) {
        if (failure)
            *failure = hr;
        return true;
    }
    return connected != VARIANT_FALSE;
}

}  // namespace

std::wstring child_row_text(std::wstring_view name)
{
    std::wstring text;
    text.reserve(name.size() + 7);
    text += L"[[[i";
    text += name;
    text += L"]]]";
    return text;
}

std::optional<std::wstring> read_text(HRESULT (STDMETHODCALLTYPE IUsbDevice::*method)(BSTR*), IUsbDevice& device,
                                      HRESULT* failure)
{
    BSTR value = nullptr;
    const HRESULT hr = (device.*method)(&value);
    const tessel::unique_bstr owned(value);
    if (FAILED(hr)) {
        if (failure)
            *failure = hr;
        return std::nullopt;
    }
    return bstr_text(value);
}

device_model::device_model(device_rows& rows, device_node_source& nodes) : tree_(rows), nodes_(nodes) {}

void device_model::set_icon_size(int pixels) noexcept
{
    if (pixels != icon_size_)
        forget_local_subtrees();
    icon_size_ = pixels;
}

void device_model::forget_local_subtrees() noexcept
{
    for (entry& e : rows_)
        e.walked.reset();
}

device_model::update_scope::update_scope(device_model& model) : model_(model)
{
    if (model_.update_counter_++ == 0)
        model_.tree_.suspend_redraw();
}

device_model::update_scope::~update_scope()
{
    if (--model_.update_counter_ == 0)
        model_.tree_.resume_redraw();
}

void device_model::note(HRESULT code) noexcept
{
    if (FAILED(code) && SUCCEEDED(failure_))
        failure_ = code;
}

std::optional<std::size_t> device_model::index_of(device_rows::row_handle handle) const noexcept
{
    for (std::size_t i = 0; i < rows_.size(); ++i)
        if (rows_[i].handle == handle)
            return i;
    return std::nullopt;
}

std::optional<std::size_t> device_model::index_of(const IUsbDevice* device) const noexcept
{
    for (std::size_t i = 0; i < rows_.size(); ++i)
        if (rows_[i].data.device.get() == device)
            return i;
    return std::nullopt;
}

device_model::share_list device_model::read_shares(IUsbServer& server, bool throw_on_failure)
{
    share_list list;
    owned_array<IUsbShare> shares;
    const HRESULT hr = server.GetShares(&shares.count, &shares.items);
    if (FAILED(hr)) {
        if (throw_on_failure)
            tessel::throw_hresult(hr);
        note(hr);
        return list;
    }
    list.shares.reserve(shares.count);
    list.devices.reserve(shares.count);
    list.keep.reserve(shares.count);
    for (ULONG i = 0; i < shares.count; ++i) {
        if (!shares.items[i])
            continue;
        com_ptr<IUsbDevice> device;
        const HRESULT got = shares.items[i]->GetDevice(device.put());
        note(got);
        list.shares.emplace_back(shares.items[i]);
        list.devices.push_back(SUCCEEDED(got) ? device.get() : nullptr);
        list.keep.push_back(std::move(device));
    }
    return list;
}

std::wstring device_model::share_cell(bool shared) const
{
    std::wstring text;
    ts_printf::format_to(text, share_format_, shared ? texts_.shared_marker : texts_.not_shared_marker);
    return text;
}

void device_model::fill_share(entry& e, bool shared)
{
    e.shown.share = share_cell(shared);
    e.shown.share_tip = shared ? (e.shown.key.empty() ? texts_.shared_without_key : texts_.shared_with_key)
                               : texts_.not_shared;
    const std::wstring& action = shared ? texts_.unshare_action : texts_.share_action;
    if (!action.empty())
        e.shown.share_tip += (e.shown.share_tip.empty() ? L"" : L"\n") + action;
}

void device_model::fill_client(entry& e)
{
    HRESULT failure = S_OK;
    const auto client = read_text(&IUsbDevice::GetClientName, *e.data.device.get(), &failure);
    note(failure);
    e.shown.client.clear();
    e.shown.client_tip.clear();
    if (!client)
        return;
    ts_printf::format_to(e.shown.client, client_format_, !client->empty(), *client);
    if (client->empty())
        e.shown.client_tip = texts_.client_none;
    else if (!texts_.client_connected.empty())
        e.shown.client_tip = ts_printf::format(texts_.client_connected, *client);
}

std::wstring device_model::name_tip(const entry& e) const
{
    std::wstring tip;
    const auto line = [&](const std::wstring& format, const std::wstring& value) {
        if (format.empty() || value.empty())
            return;
        if (!tip.empty())
            tip += L'\n';
        tip += ts_printf::format(format, value);
    };
    line(texts_.tip_location, e.shown.location);
    line(texts_.tip_instance_id, e.identity.instance_id);
    if (e.identity.vid_pid)
        line(texts_.tip_vid_pid, format_vid_pid(*e.identity.vid_pid));
    line(texts_.tip_serial, e.identity.serial);
    line(texts_.tip_class, e.identity.setup_class);
    return tip;
}

void device_model::fill_columns(entry& e, std::optional<bool> connected)
{
    IUsbDevice& device = *e.data.device.get();
    HRESULT failure = S_OK;
    e.shown.disconnected = !(connected ? *connected : is_connected(device, &failure));
    note(failure);
    fill_client(e);
    e.shown.key.clear();
    if (e.data.share) {
        BSTR key = nullptr;
        const HRESULT got = e.data.share->GetAuthenticationKey(&key);
        const tessel::unique_bstr owned(key);
        note(got);
        if (SUCCEEDED(got))
            e.shown.key = bstr_text(key);
    }
    fill_share(e, static_cast<bool>(e.data.share));
    failure = S_OK;
    e.shown.location = read_text(&IUsbDevice::GetLocation, device, &failure).value_or(std::wstring());
    note(failure);
    e.shown.name_tip = name_tip(e);
}

void device_model::walk(entry& e, const std::wstring& name)
{
    e.walked = build_local_subtree(nodes_, e.devinst, name, {icon_size_, texts_.unknown_device});
    e.identity = e.walked ? nodes_.identity(e.walked->instance_id) : device_identity{};
}

bool device_model::build_row(IUsbDevice* device, const share_list& shares, std::size_t before,
                             previous_rows* previous)
{
    HRESULT failure = S_OK;
    const bool connected = is_connected(*device, &failure);
    note(failure);
    if (options_.hide_disconnected && !connected)
        return false;

    failure = S_OK;
    std::wstring name = read_text(&IUsbDevice::GetName, *device, &failure).value_or(std::wstring());
    note(failure);
    if (name.empty())
        name = texts_.unknown_device;

    entry e;
    if (const auto node = com_ptr<IUsbDevice>(device).try_query<IUsbDeviceNode>()) {
        e.devinst = node->GetDevInst();
        // The walk costs system calls per node, far more than the row's server calls: a
        // refresh of the same device node takes over what the last walk found (the names
        // and icons of the machine's nodes), until the machine's nodes change.
        if (previous)
            if (const auto same = previous->find(device); same != previous->end() &&
                                                           same->second->devinst == e.devinst &&
                                                           same->second->walked && !same->second->walk_pending) {
                e.walked = std::move(same->second->walked);
                e.identity = std::move(same->second->identity);
                same->second->walked.reset();
                e.walked->name = name;
            }
        if (!e.walked)
            walk(e, name);
    }
    const std::optional<local_device_node>& subtree = e.walked;

    e.data.device = com_ptr<IUsbDevice>(device);
    const auto match = std::find(shares.devices.begin(), shares.devices.end(), device);
    if (match != shares.devices.end())
        e.data.share = shares.shares[static_cast<std::size_t>(match - shares.devices.begin())];
    e.shown.name = subtree ? subtree->name : name;
    if (subtree)
        e.shown.icon = subtree->icon;
    fill_columns(e, connected);

    before = std::min(before, rows_.size());
    e.handle = tree_.insert_row(before < rows_.size() ? rows_[before].handle : nullptr, e.shown,
                                subtree ? &*subtree : nullptr);
    if (options_.collapse_all && !tree_.collapsed(e.handle))
        tree_.set_collapsed(e.handle, true);
    rows_.insert(rows_.begin() + static_cast<std::ptrdiff_t>(before), std::move(e));
    return true;
}

void device_model::full_refresh(IUsbServer& server)
{
    update_scope scope(*this);
    std::vector<entry> old_rows = std::exchange(rows_, {});
    previous_rows previous;
    previous.reserve(old_rows.size());
    for (entry& e : old_rows)
        previous.emplace(e.data.device.get(), &e);
    tree_.clear();
    const share_list shares = read_shares(server, true);
    owned_array<IUsbDevice> devices;
    tessel::throw_if_failed(server.GetDevices(&devices.count, &devices.items));
    rows_.reserve(devices.count);
    for (ULONG i = 0; i < devices.count; ++i)
        if (devices.items[i])
            build_row(devices.items[i], shares, rows_.size(), &previous);
}

void device_model::device_added(IUsbServer& server, IUsbDevice* device)
{
    if (!device)
        return;
    if (index_of(device)) {
        device_changed(server, device);
        return;
    }
    update_scope scope(*this);
    build_row(device, read_shares(server, false), rows_.size());
}

std::size_t device_model::insertion_point(IUsbServer& server, IUsbDevice* device)
{
    owned_array<IUsbDevice> devices;
    if (FAILED(server.GetDevices(&devices.count, &devices.items)))
        return rows_.size();
    // The first row whose device the server lists after this one.
    bool after = false;
    for (ULONG i = 0; i < devices.count; ++i) {
        if (devices.items[i] == device) {
            after = true;
            continue;
        }
        if (after)
            if (const auto row = index_of(devices.items[i]))
                return *row;
    }
    return rows_.size();
}

void device_model::remove_at(std::size_t index)
{
    tree_.remove_row(rows_[index].handle);
    rows_.erase(rows_.begin() + static_cast<std::ptrdiff_t>(index));
}

void device_model::device_changed(IUsbServer& server, IUsbDevice* device)
{
    if (!device)
        return;
    const auto index = index_of(device);
    HRESULT failure = S_OK;
    const bool connected = is_connected(*device, &failure);
    note(failure);

    // A device that the server took away reports itself disconnected and is no longer
    // listed: its row goes, whatever the view options say.
    bool listed = true;
    if (!connected) {
        owned_array<IUsbDevice> devices;
        const HRESULT hr = server.GetDevices(&devices.count, &devices.items);
        note(hr);
        if (SUCCEEDED(hr))
            listed = std::find(devices.items, devices.items + devices.count, device) != devices.items + devices.count;
    }
    if (!listed || (options_.hide_disconnected && !connected)) {
        if (index)
            remove_at(*index);
        return;
    }

    const share_list shares = read_shares(server, false);
    if (!index) {
        update_scope scope(*this);
        build_row(device, shares, insertion_point(server, device));
        return;
    }

    entry& e = rows_[*index];
    const auto match = std::find(shares.devices.begin(), shares.devices.end(), device);
    e.data.share = match != shares.devices.end()
                       ? shares.shares[static_cast<std::size_t>(match - shares.devices.begin())]
                       : nullptr;
    failure = S_OK;
    if (const auto name = read_text(&IUsbDevice::GetName, *device, &failure); name && !name->empty())
        e.shown.name = *name;
    note(failure);
    // Plugged in or out, the device's nodes came or went on this machine: what was walked
    // before no longer holds.
    DWORD devinst = e.devinst;
    if (const auto node = com_ptr<IUsbDevice>(device).try_query<IUsbDeviceNode>())
        devinst = node->GetDevInst();
    if (e.shown.disconnected == connected || devinst != e.devinst) {
        e.devinst = devinst;
        e.walk_pending = true;
    }
    fill_columns(e, connected);
    tree_.update_row(e.handle, e.shown);
}

bool device_model::walks_pending() const noexcept
{
    return std::any_of(rows_.begin(), rows_.end(), [](const entry& e) { return e.walk_pending; });
}

void device_model::walk_pending_rows()
{
    update_scope scope(*this);
    for (entry& e : rows_) {
        if (!e.walk_pending)
            continue;
        e.walk_pending = false;
        walk(e, e.shown.name);
        e.shown.icon = e.walked ? e.walked->icon : device_icon{};
        e.shown.name_tip = name_tip(e);
        tree_.update_row(e.handle, e.shown);
        tree_.replace_children(e.handle, e.walked ? &*e.walked : nullptr);
    }
}

void device_model::client_changed(IUsbDevice* device)
{
    const auto index = index_of(device);
    if (!index)
        return;
    entry& e = rows_[*index];
    HRESULT failure = S_OK;
    if (const auto name = read_text(&IUsbDevice::GetName, *device, &failure); name && !name->empty())
        e.shown.name = *name;
    note(failure);
    fill_client(e);
    tree_.update_row(e.handle, e.shown);
}

void device_model::collapse_all(bool collapse)
{
    update_scope scope(*this);
    for (const entry& e : rows_)
        tree_.set_collapsed(e.handle, collapse);
}

void device_model::toggle_share(IUsbServer& server, std::size_t row, share_prompts& prompts)
{
    if (row >= rows_.size())
        return;
    // Held: a prompt runs a modal loop, in which notifications may change the rows.
    const com_ptr<IUsbDevice> device = rows_[row].data.device;

    if (com_ptr<IUsbShare> share = rows_[row].data.share) {
        const HRESULT hr = server.UnshareDevice(share.get());
        if (const auto index = index_of(device.get())) {
            entry& e = rows_[*index];
            e.data.share = nullptr;
            e.shown.key.clear();
            fill_share(e, false);
            tree_.update_row(e.handle, e.shown);
        }
        if (FAILED(hr))
            prompts.show_error(format_error_message(tessel::string_ids::device_unshare_failed, hr));
        return;
    }

    VARIANT_BOOL needs_confirmation = VARIANT_FALSE;
    if (SUCCEEDED(device->NeedsShareConfirmation(&needs_confirmation)) && needs_confirmation != VARIANT_FALSE) {
        const std::wstring name = read_text(&IUsbDevice::GetName, *device.get()).value_or(rows_[row].shown.name);
        if (!prompts.confirm_share(name))
            return;
    }
    std::wstring name = read_text(&IUsbDevice::GetName, *device.get()).value_or(std::wstring());
    if (name.empty())
        if (const auto index = index_of(device.get()))
            name = rows_[*index].shown.name;
    const auto key = prompts.ask_key(name);
    if (!key)
        return;

    VARIANT key_value;
    ::VariantInit(&key_value);
    key_value.vt = VT_BSTR;
    key_value.bstrVal = key->empty() ? nullptr : ::SysAllocStringLen(key->data(), static_cast<UINT>(key->size()));
    if (!key->empty() && !key_value.bstrVal)
        tessel::throw_hresult(E_OUTOFMEMORY);
    com_ptr<IUsbShare> share;
    const HRESULT hr = server.ShareDevice(device.get(), key_value, share.put());
    ::VariantClear(&key_value);
    if (FAILED(hr)) {
        prompts.show_error(format_error_message(tessel::string_ids::device_share_failed, hr));
        return;
    }
    if (const auto index = index_of(device.get())) {
        entry& e = rows_[*index];
        e.data.share = std::move(share);
        e.shown.key = *key;
        fill_share(e, true);
        tree_.update_row(e.handle, e.shown);
    }
}

}  // namespace servercfg
