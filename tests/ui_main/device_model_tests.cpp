// The device model against a scripted server and a recording tree: full refresh, the
// single-row updates of the notifications, share and unshare, and the view options.

#include "fake_device_source.h"
#include "fake_server.h"
#include "ui_main/device_model.h"

#include <gtest/gtest.h>

#include <list>

namespace {

using namespace servercfg;
using tessel::com_ptr;

// The tree as a list of top-level rows with their child texts, depth first.
class recording_rows final : public device_rows {
public:
    struct row {
        device_row data;
        std::vector<std::wstring> children;
        bool collapsed = false;
    };
    std::list<row> rows;
    int suspended = 0;
    int redraws = 0;

    void suspend_redraw() override { ++suspended; }
    void resume_redraw() override
    {
        --suspended;
        ++redraws;
    }
    void clear() override { rows.clear(); }
    row_handle insert_row(row_handle before, const device_row& data, const local_device_node* subtree) override
    {
        auto at = rows.end();
        for (auto it = rows.begin(); it != rows.end(); ++it)
            if (&*it == before)
                at = it;
        row r{data, {}, false};
        if (subtree)
            add_children(*subtree, r.children);
        return &*rows.insert(at, std::move(r));
    }
    void update_row(row_handle handle, const device_row& data) override { find(handle).data = data; }
    void replace_children(row_handle handle, const local_device_node* subtree) override
    {
        row& r = find(handle);
        r.children.clear();
        if (subtree)
            add_children(*subtree, r.children);
    }
    void remove_row(row_handle handle) override
    {
        rows.remove_if([handle](const row& r) { return &r == handle; });
    }
    void set_collapsed(row_handle handle, bool collapsed) override { find(handle).collapsed = collapsed; }
    bool collapsed(row_handle handle) const override { return const_cast<recording_rows*>(this)->find(handle).collapsed; }

    row& find(row_handle handle)
    {
        for (row& r : rows)
            if (&r == handle)
                return r;
        throw std::logic_error("no such row");
    }
    std::vector<std::wstring> names() const
    {
        std::vector<std::wstring> result;
        for (const row& r : rows)
            result.push_back(r.data.name);
        return result;
    }
    const row& at(std::size_t i) const { return *std::next(rows.begin(), static_cast<std::ptrdiff_t>(i)); }

private:
    static void add_children(const local_device_node& node, std::vector<std::wstring>& into)
    {
        for (const local_device_node& child : node.children) {
            into.push_back(child_row_text(child.name));
            add_children(child, into);
        }
    }
};

class prompts final : public share_prompts {
public:
    bool confirm_answer = true;
    std::optional<std::wstring> key = L"";
    int confirmations = 0;
    int key_requests = 0;
    std::wstring asked_name;
    std::vector<std::wstring> errors;

    bool confirm_share(const std::wstring& name) override
    {
        ++confirmations;
        asked_name = name;
        return confirm_answer;
    }
    std::optional<std::wstring> ask_key(const std::wstring& name) override
    {
        ++key_requests;
        asked_name = name;
        return key;
    }
    void show_error(const std::wstring& text) override { errors.push_back(text); }
};

class device_model_test : public testing::Test {
protected:
    device_model_test()
    {
        model.set_texts({L"Unknown device", 0x1111, 0x2222});
        // A hub node with a storage device below it, for the device named "Hub".
        source.nodes[1] = {L"USB\\HUB\\1", servercfg::usb_class_guid, std::nullopt, L"Generic USB Hub", {2}};
        source.nodes[2] = {L"USB\\DISK\\1", fake_devices::disk_class, std::nullopt, L"USB Mass Storage Device", {}};
    }
    IUsbServer& api() { return *server.get(); }

    com_ptr<fake_server::server> server = tessel::make_com_object<fake_server::server>();
    fake_devices::fake_source source;
    recording_rows tree;
    device_model model{tree, source};
};

TEST_F(device_model_test, full_refresh_builds_every_column_with_the_first_share_of_a_device)
{
    auto flash = server->add(L"Flash");
    auto hub = server->add(L"Hub", 1);
    auto dongle = server->add(L"Dongle");
    flash->client = L"LAB PC 3";
    dongle->connected = false;
    dongle->failures[L"GetClientName"] = E_FAIL;
    server->add_share(flash, L"first");
    server->add_share(flash, L"second");
    // A share of a device the server does not list is ignored.
    auto stranger = tessel::make_com_object<fake_server::device>();
    server->add_share(stranger, L"orphan");

    model.full_refresh(api());
    ASSERT_EQ(tree.names(), (std::vector<std::wstring>{L"Flash", L"Hub", L"Dongle"}));
    const auto& f = tree.at(0).data;
    EXPECT_EQ(f.share, L"[[[H[[[r:4369: ]]]]]]");
    EXPECT_EQ(f.client, L"[[[v#[server.client.connected]# ]]] LAB PC 3");
    EXPECT_EQ(f.key, L"first");
    EXPECT_FALSE(f.disconnected);
    EXPECT_EQ(model.device_at(0).share.get(), static_cast<IUsbShare*>(server->shares[0].get()));

    const auto& h = tree.at(1).data;
    EXPECT_EQ(h.share, L"[[[H[[[r:8738: ]]]]]]");
    EXPECT_EQ(h.client, L"[[[v#[server.client.disconnected]# ]]] ");
    EXPECT_EQ(h.key, L"");
    EXPECT_EQ(tree.at(1).children, std::vector<std::wstring>{L"[[[iUSB Mass Storage Device]]]"});
    EXPECT_EQ(std::get<std::uint32_t>(h.icon), fake_devices::disk_class.Data1) << "the storage device's icon";

    EXPECT_TRUE(tree.at(2).data.disconnected);
    EXPECT_EQ(tree.at(2).data.client, L"") << "a failing GetClientName leaves the column empty";
    EXPECT_EQ(flash->calls[L"GetLocation"], 1) << "device slot 13 is read while the row is built";
    EXPECT_EQ(server->shares[0]->key_reads, 1) << "share slot 8 is read while the row is built";
    EXPECT_EQ(tree.redraws, 1);
    EXPECT_EQ(tree.suspended, 0);
    EXPECT_EQ(model.take_failure(), E_FAIL);
    EXPECT_EQ(model.take_failure(), S_OK);

    // Again: the rows are replaced, not added to.
    model.full_refresh(api());
    EXPECT_EQ(tree.rows.size(), 3u);

    // The server's lists cannot be read: an error, and no rows left behind.
    server->failures[L"GetDevices"] = RPC_E_DISCONNECTED;
    EXPECT_THROW(model.full_refresh(api()), fibra::details::hresult_error);
    EXPECT_TRUE(tree.rows.empty());
    EXPECT_EQ(tree.suspended, 0) << "the redraw is resumed also when the refresh fails";
}

TEST_F(device_model_test, a_refresh_walks_a_device_node_again_only_once_the_machines_nodes_or_the_icon_size_changed)
{
    auto hub = server->add(L"Hub", 1);
    model.full_refresh(api());
    const int walked = source.opened_total;
    ASSERT_EQ(walked, 2);

    source.nodes[2].friendly = L"Card Reader";
    hub->name = L"Renamed hub";
    model.full_refresh(api());
    EXPECT_EQ(source.opened_total, walked) << "the same device node is not walked again";
    EXPECT_EQ(tree.at(0).data.name, L"Renamed hub") << "the server's name is read every time";
    EXPECT_EQ(tree.at(0).children, std::vector<std::wstring>{L"[[[iUSB Mass Storage Device]]]"});

    model.forget_local_subtrees();
    model.full_refresh(api());
    EXPECT_EQ(tree.at(0).children, std::vector<std::wstring>{L"[[[iCard Reader]]]"});

    const int before_resize = source.opened_total;
    model.set_icon_size(24);
    model.full_refresh(api());
    EXPECT_EQ(source.opened_total, before_resize + 2) << "icons of the new size";

    // Another node behind the same device object is walked.
    source.nodes[3] = {L"USB\\DISK\\2", fake_devices::disk_class, L"Other disk", std::nullopt, {}};
    hub->devinst = 3;
    model.full_refresh(api());
    EXPECT_TRUE(tree.at(0).children.empty());
    EXPECT_EQ(std::get<std::uint32_t>(tree.at(0).data.icon), fake_devices::disk_class.Data1);
}

TEST_F(device_model_test, a_device_that_comes_and_goes_is_walked_again_once_however_often_it_flipped)
{
    auto hub = server->add(L"Hub", 1);
    model.full_refresh(api());
    for (const bool connected : {false, true, false, true}) {
        hub->connected = connected;
        model.device_changed(api(), hub.get());
    }
    const int opened = source.opened_total;
    source.nodes[2].friendly = L"Card Reader";
    ASSERT_TRUE(model.walks_pending());
    model.walk_pending_rows();
    EXPECT_EQ(source.opened_total, opened + 2) << "one walk of the hub and its disk";
    EXPECT_EQ(tree.at(0).children, std::vector<std::wstring>{L"[[[iCard Reader]]]"});
}

TEST_F(device_model_test, hide_disconnected_hides_only_devices_that_answer_not_connected)
{
    server->add(L"Plugged");
    server->add(L"Unplugged")->connected = false;
    auto unknown = server->add(L"Unknown state");
    unknown->connected = false;
    unknown->failures[L"IsConnected"] = E_FAIL;
    model.options().hide_disconnected = true;
    model.full_refresh(api());
    EXPECT_EQ(tree.names(), (std::vector<std::wstring>{L"Plugged", L"Unknown state"}));
    EXPECT_FALSE(tree.at(1).data.disconnected) << "a failed IsConnected counts as connected";
}

TEST_F(device_model_test, notifications_keep_the_rows_equal_to_the_server)
{
    auto a = server->add(L"A");
    auto b = server->add(L"B");
    auto c = server->add(L"C");
    model.options().hide_disconnected = true;
    model.full_refresh(api());

    // Unplugged while hidden: the row goes; plugged again: it comes back in server order.
    b->connected = false;
    model.device_changed(api(), b.get());
    EXPECT_EQ(tree.names(), (std::vector<std::wstring>{L"A", L"C"}));
    b->connected = true;
    model.device_changed(api(), b.get());
    EXPECT_EQ(tree.names(), (std::vector<std::wstring>{L"A", L"B", L"C"}));

    // Without the filter an unplugged device stays, dimmed; one the server removed goes.
    model.options().hide_disconnected = false;
    c->connected = false;
    model.device_changed(api(), c.get());
    EXPECT_TRUE(tree.at(2).data.disconnected);
    a->connected = false;
    server->devices.erase(server->devices.begin());
    model.device_changed(api(), a.get());
    EXPECT_EQ(tree.names(), (std::vector<std::wstring>{L"B", L"C"}));

    // Added: at the end; added twice: still one row.
    auto d = server->add(L"D");
    model.device_added(api(), d.get());
    model.device_added(api(), d.get());
    EXPECT_EQ(tree.names(), (std::vector<std::wstring>{L"B", L"C", L"D"}));

    // Shared by someone else: the change notification shows it.
    server->add_share(b, L"k");
    model.device_changed(api(), b.get());
    EXPECT_EQ(tree.at(0).data.share, L"[[[H[[[r:4369: ]]]]]]");
    EXPECT_EQ(tree.at(0).data.key, L"k");

    // Client changes rewrite the client column of that row only.
    c->client = L"DESK-1";
    model.client_changed(c.get());
    EXPECT_EQ(tree.at(1).data.client, L"[[[v#[server.client.connected]# ]]] DESK-1");
    auto stranger = tessel::make_com_object<fake_server::device>();
    model.client_changed(stranger.get());  // no row: nothing happens
    EXPECT_EQ(tree.rows.size(), 3u);
}

TEST_F(device_model_test, share_asks_first_when_the_device_wants_it_and_passes_the_key_as_a_bstr)
{
    auto keyboard = server->add(L"Keyboard");
    keyboard->needs_confirmation = true;
    model.full_refresh(api());
    prompts ask;

    ask.confirm_answer = false;
    model.toggle_share(api(), 0, ask);
    EXPECT_EQ(ask.confirmations, 1);
    EXPECT_EQ(ask.key_requests, 0) << "No stops before the share dialog";
    EXPECT_EQ(server->share_calls, 0);

    ask.confirm_answer = true;
    ask.key.reset();  // Cancel in the share dialog
    model.toggle_share(api(), 0, ask);
    EXPECT_EQ(ask.key_requests, 1);
    EXPECT_EQ(server->share_calls, 0);

    ask.key = L"";
    model.toggle_share(api(), 0, ask);
    EXPECT_EQ(ask.asked_name, L"Keyboard");
    EXPECT_EQ(server->last_key_type, VT_BSTR);
    EXPECT_TRUE(server->last_key_was_null) << "an empty key is a null BSTR";
    EXPECT_EQ(tree.at(0).data.share, L"[[[H[[[r:4369: ]]]]]]");
    ASSERT_TRUE(model.device_at(0).share);

    // Unshare: the share goes and the key column is cleared, even when the server fails.
    server->failures[L"UnshareDevice"] = E_ACCESSDENIED;
    model.toggle_share(api(), 0, ask);
    EXPECT_EQ(server->unshare_calls, 1);
    EXPECT_FALSE(model.device_at(0).share);
    EXPECT_EQ(tree.at(0).data.share, L"[[[H[[[r:8738: ]]]]]]");
    EXPECT_EQ(tree.at(0).data.key, L"");
    ASSERT_EQ(ask.errors.size(), 1u);
    EXPECT_NE(ask.errors[0].find(L"(0x80070005)"), std::wstring::npos) << ask.errors[0];

    keyboard->needs_confirmation = false;
    ask.key = L"  secret ";
    model.toggle_share(api(), 0, ask);
    EXPECT_EQ(server->last_key, L"  secret ");
    EXPECT_FALSE(server->last_key_was_null);
    EXPECT_EQ(tree.at(0).data.key, L"  secret ") << "the key as typed";
}

TEST_F(device_model_test, collapse_all_acts_on_every_top_level_row_and_new_rows_follow_it)
{
    server->add(L"Hub", 1);
    server->add(L"Other hub", 1);
    model.full_refresh(api());
    tree.set_collapsed(model.handle_at(0), true);  // collapsed by hand

    model.collapse_all(false);
    EXPECT_FALSE(tree.at(0).collapsed) << "unchecking expands also rows collapsed by hand";
    EXPECT_FALSE(tree.at(1).collapsed);
    model.collapse_all(true);
    EXPECT_TRUE(tree.at(0).collapsed);
    EXPECT_TRUE(tree.at(1).collapsed);
    EXPECT_EQ(tree.suspended, 0);

    model.options().collapse_all = true;
    model.collapse_all(false);
    auto added = server->add(L"Late hub", 1);
    model.device_added(api(), added.get());
    EXPECT_TRUE(tree.at(2).collapsed) << "only the new row is collapsed";
    EXPECT_FALSE(tree.at(0).collapsed);
}

}  // namespace
