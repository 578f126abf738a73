// The main window against the substitute server, in this process.

#include "ui_main/main_dialog.h"

#include "child_process.h"
#include "fake_device_source.h"
#include "fake_server.h"
#include "message_pump.h"

#include "base/utf.h"
#include "controls/treeview.h"
#include "nsm/app_settings.h"
#include "ui_main/local_devices.h"

#include <gtest/gtest.h>

#include <objbase.h>
#include <shellapi.h>

#include <cwchar>

namespace {

using servercfg::main_dialog;
namespace ids = servercfg::main_dialog_controls;

RECT child_rect(HWND dialog, int id)
{
    RECT r{};
    ::GetWindowRect(::GetDlgItem(dialog, id), &r);
    ::MapWindowPoints(nullptr, dialog, reinterpret_cast<POINT*>(&r), 2);
    return r;
}

void pump()
{
    test_support::pump_for(0);
}

class main_window : public testing::Test {
protected:
    void SetUp() override
    {
        ::RegDeleteTreeW(HKEY_CURRENT_USER, app_settings_key.data());
        current_app_settings() = app_settings{};
        ASSERT_TRUE(SUCCEEDED(::CoInitialize(nullptr)));
        ASSERT_TRUE(registration_.registered());
        ASSERT_EQ(::CoCreateInstance(CLSID_UsbServer, nullptr, CLSCTX_ALL, __uuidof(IUsbServer), server_.put_void()),
                  S_OK);
    }
    void TearDown() override
    {
        server_.reset();
        ::CoUninitialize();
        ::RegDeleteTreeW(HKEY_CURRENT_USER, app_settings_key.data());
    }

    test_support::registered_sim_server registration_;
    tessel::com_ptr<IUsbServer> server_;
};

TEST_F(main_window, keeps_its_controls_anchored_when_resized_and_never_shrinks_below_its_design)
{
    tessel::value_on_stack<main_dialog> dialog(server_);
    const HWND window = dialog.create(SW_SHOW);
    pump();

    EXPECT_FALSE(::IsWindowEnabled(::GetDlgItem(window, ids::copy_device_id)));

    RECT client_before;
    ::GetClientRect(window, &client_before);
    const RECT close_before = child_rect(window, IDCANCEL);
    const RECT settings_before = child_rect(window, ids::settings);
    const RECT tree_before = child_rect(window, ids::tree_placeholder);
    const RECT label_before = child_rect(window, ids::devices_label);
    // The tree reaches down to the buttons.
    EXPECT_LT(tree_before.bottom, settings_before.top);
    EXPECT_GT(tree_before.bottom, settings_before.top - 40);

    RECT frame;
    ::GetWindowRect(window, &frame);
    ::SetWindowPos(window, nullptr, 0, 0, frame.right - frame.left + 200, frame.bottom - frame.top + 100,
                   SWP_NOMOVE | SWP_NOZORDER);
    pump();
    RECT client_after;
    ::GetClientRect(window, &client_after);
    ASSERT_EQ(client_after.right - client_before.right, 200);
    ASSERT_EQ(client_after.bottom - client_before.bottom, 100);

    const RECT close_after = child_rect(window, IDCANCEL);
    EXPECT_EQ(close_after.left - close_before.left, 200) << "Close follows the bottom-right corner";
    EXPECT_EQ(close_after.top - close_before.top, 100);
    EXPECT_EQ(close_after.right - close_after.left, close_before.right - close_before.left);
    const RECT settings_after = child_rect(window, ids::settings);
    EXPECT_EQ(settings_after.left, settings_before.left) << "Settings stays at the left";
    EXPECT_EQ(settings_after.top - settings_before.top, 100);
    const RECT tree_after = child_rect(window, ids::tree_placeholder);
    EXPECT_EQ(tree_after.right - tree_before.right, 200) << "the tree takes the new room";
    EXPECT_EQ(tree_after.bottom - tree_before.bottom, 100);
    EXPECT_EQ(child_rect(window, ids::devices_label).top, label_before.top);

    ::SetWindowPos(window, nullptr, 0, 0, 100, 100, SWP_NOMOVE | SWP_NOZORDER);
    pump();
    RECT small;
    ::GetClientRect(window, &small);
    EXPECT_GE(small.right, client_before.right);
    EXPECT_GE(small.bottom, client_before.bottom);
}

// The edge of an icon's bitmap, in pixels.
int icon_edge(HICON icon)
{
    ICONINFO info{};
    BITMAP bitmap{};
    if (icon && ::GetIconInfo(icon, &info))
        ::GetObjectW(info.hbmColor, sizeof bitmap, &bitmap);
    ::DeleteObject(info.hbmColor);
    ::DeleteObject(info.hbmMask);
    return bitmap.bmWidth;
}

// The tree takes a new DPI only after its window (WM_DPICHANGED_AFTERPARENT, which Windows
// sends once the window's WM_DPICHANGED is done): markers and class icons must follow the
// size the tree draws icons at then. Wine keeps a window's DPI for its life, so a larger
// message font, which the tree reads at the same moment, stands in for the higher DPI.
TEST_F(main_window, markers_and_class_icons_follow_the_trees_icon_size_after_a_dpi_change)
{
    tessel::value_on_stack<main_dialog> dialog(server_);
    const HWND window = dialog.create(SW_SHOW);
    pump();
    // The share marker a row draws: the icon handle in "[[[H[[[r:<handle>: ]]]]]]".
    const auto marker = [&] {
        const std::wstring& share = dialog.model().row_at(0).share;
        return icon_edge(reinterpret_cast<HICON>(std::wcstoull(share.c_str() + share.find(L"[[[r:") + 5, nullptr, 10)));
    };
    const int before = dialog.tree()->list().icon_pixel_size();
    ASSERT_EQ(marker(), before);

    NONCLIENTMETRICSW metrics{};
    metrics.cbSize = sizeof metrics;
    ASSERT_TRUE(::SystemParametersInfoW(SPI_GETNONCLIENTMETRICS, sizeof metrics, &metrics, 0));
    const NONCLIENTMETRICSW saved = metrics;
    metrics.lfMessageFont.lfHeight *= 2;
    ASSERT_TRUE(::SystemParametersInfoW(SPI_SETNONCLIENTMETRICS, sizeof metrics, &metrics, 0));
    RECT frame;
    ::GetWindowRect(window, &frame);
    ::SendMessageW(window, WM_DPICHANGED, MAKEWPARAM(144, 144), reinterpret_cast<LPARAM>(&frame));
    ::SendMessageW(dialog.tree()->window(), WM_DPICHANGED_AFTERPARENT, 0, 0);
    pump();
    ::SystemParametersInfoW(SPI_SETNONCLIENTMETRICS, sizeof saved, const_cast<NONCLIENTMETRICSW*>(&saved), 0);

    const int after = dialog.tree()->list().icon_pixel_size();
    ASSERT_NE(after, before);
    EXPECT_EQ(marker(), after) << "the share marker";
    const auto* flash_icon = std::get_if<servercfg::shared_icon>(&dialog.model().row_at(0).icon);
    ASSERT_TRUE(flash_icon && *flash_icon);
    EXPECT_EQ(icon_edge((*flash_icon)->get()), after) << "the class icon";
    ::DestroyWindow(window);
    pump();
}

TEST(main_window_help, the_help_file_and_topic_reach_hh_as_one_argument)
{
    const std::wstring file = L"C:\\Program Files\\Ulmora Tools\\doc\\en\\ulmo.chm";
    const std::wstring command = L"hh.exe " + servercfg::help_file_argument(file, servercfg::help_topic);
    int count = 0;
    LPWSTR* arguments = ::CommandLineToArgvW(command.c_str(), &count);
    ASSERT_TRUE(arguments);
    ASSERT_EQ(count, 2) << tessel::utf16_to_utf8(command);
    EXPECT_EQ(std::wstring(arguments[1]), file + L"::/redirect.html#Server Configuration Utility");
    ::LocalFree(arguments);
}

TEST(main_window_listener, a_server_that_keeps_the_listener_after_the_window_has_gone_reaches_nothing)
{
    ASSERT_TRUE(SUCCEEDED(::CoInitialize(nullptr)));
    current_app_settings() = app_settings{};
    auto server = tessel::make_com_object<fake_server::server>();
    auto device = server->add(L"Flash");
    server->failures[L"UnadviseListener"] = E_FAIL;
    {
        tessel::value_on_stack<main_dialog> dialog(tessel::com_ptr<IUsbServer>(server), std::make_unique<fake_devices::fake_source>());
        const HWND window = dialog.create(SW_HIDE);
        pump();
        ASSERT_EQ(server->listeners.size(), 1u);
        EXPECT_EQ(static_cast<IUsbServerListener*>(&dialog.listener()), server->listeners[0].get());
        // The window itself is the help site the help addresses are built from.
        tessel::com_ptr<IHelpSite> help;
        ASSERT_EQ(dialog.QueryInterface(__uuidof(IHelpSite), help.put_void()), S_OK);
        BSTR name = nullptr;
        EXPECT_EQ(help->GetProductShortName(&name), S_OK);
        EXPECT_STREQ(name, L"ulmo");
        ::SysFreeString(name);
        // A notification the window has not handled yet when it goes.
        server->listeners[0]->OnDeviceChanged(device.get());
        ::DestroyWindow(window);
        pump();
    }
    ASSERT_EQ(server->listeners.size(), 1u) << "the server kept its listener";
    const int calls = device->calls[L"IsConnected"];
    IUsbServerListener& kept = *server->listeners[0].get();
    EXPECT_EQ(kept.OnDeviceAdded(device.get()), S_OK);
    EXPECT_EQ(kept.OnDeviceChanged(device.get()), S_OK);
    EXPECT_EQ(kept.OnClientConnectionChanged2(device.get()), S_OK);
    pump();
    EXPECT_EQ(device->calls[L"IsConnected"], calls) << "no work reached the closed window";
    server->listeners.clear();  // the last reference: the listener goes now
    server.reset();
    device.reset();
    ::CoUninitialize();
}

TEST_F(main_window, the_system_walk_finds_the_substitute_servers_child_nodes_and_class_icons)
{
    ULONG count = 0;
    IUsbDevice** devices = nullptr;
    ASSERT_EQ(server_->GetDevices(&count, &devices), S_OK);
    std::optional<servercfg::local_device_node> hub;
    const auto source = servercfg::make_system_device_source();
    for (ULONG i = 0; i < count; ++i) {
        BSTR name = nullptr;
        devices[i]->GetName(&name);
        if (name && std::wstring(name) == L"Generic USB 3.0 Hub") {
            tessel::com_ptr<IUsbDeviceNode> node;
            ASSERT_EQ(devices[i]->QueryInterface(__uuidof(IUsbDeviceNode), node.put_void()), S_OK);
            hub = servercfg::build_local_subtree(*source, node->GetDevInst(), name, {16, L"Unknown device"});
        }
        ::SysFreeString(name);
        devices[i]->Release();
    }
    ::CoTaskMemFree(devices);

    ASSERT_TRUE(hub);
    EXPECT_EQ(hub->instance_id, L"USB\\VID_1A40&PID_0801\\5&2C4B1A0&0&2");
    ASSERT_EQ(hub->children.size(), 2u);
    ASSERT_EQ(hub->children[0].children.size(), 1u);
    // The row shows the card reader's (disk) icon, not the hub's own USB icon.
    const auto* row_icon = std::get_if<servercfg::shared_icon>(&hub->icon);
    const auto* disk_icon = std::get_if<servercfg::shared_icon>(&hub->children[0].children[0].icon);
    ASSERT_TRUE(row_icon && disk_icon);
    EXPECT_EQ(row_icon->get(), disk_icon->get()) << "one shared handle per class";
    EXPECT_NE(std::get_if<servercfg::shared_icon>(&hub->children[0].icon)->get(), row_icon->get());
}

}  // namespace
