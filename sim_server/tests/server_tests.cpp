#include "test_support.h"

#include "base/utf.h"
#include "server_link/device_identity.h"

#include <olectl.h>

using namespace sim_test;
using tessel::com_ptr;

namespace {

std::wstring name_of(IUsbDevice* device)
{
    BSTR text = nullptr;
    device->GetName(&text);
    return text_of(text);
}

VARIANT key_variant(const wchar_t* key)
{
    VARIANT v;
    ::VariantInit(&v);
    v.vt = VT_BSTR;
    v.bstrVal = key ? ::SysAllocString(key) : nullptr;
    return v;
}

bool bool_answer(HRESULT (IUsbDevice::*method)(VARIANT_BOOL*), IUsbDevice* device, HRESULT* hr = nullptr)
{
    VARIANT_BOOL value = VARIANT_FALSE;
    const HRESULT result = (device->*method)(&value);
    if (hr)
        *hr = result;
    return value != VARIANT_FALSE;
}

constexpr GUID disk_class = {0x4d36e967, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};

}  // namespace

using sim_server_com = server_test;

TEST_F(sim_server_com, default_scenario_is_what_the_demo_shows)
{
    auto server = create();
    ASSERT_TRUE(server);
    auto init = server.try_query<IUsbServerInit>();
    ASSERT_TRUE(init);
    EXPECT_EQ(init->Initialize(), S_OK);
    VARIANT_BOOL running = VARIANT_FALSE;
    EXPECT_EQ(server->IsRunning(&running), S_OK);
    EXPECT_EQ(running, VARIANT_TRUE);

    const auto all = devices(server.get());
    ASSERT_EQ(all.size(), 5u);
    std::vector<std::wstring> names;
    for (const auto& device : all)
        names.push_back(name_of(device.get()));
    EXPECT_EQ(names, (std::vector<std::wstring>{L"Arcturus Flash 32GB", L"Generic USB 3.0 Hub",
                                                 L"Kestrel K120 Keyboard", L"Labelwise LP-420 Label Printer",
                                                 L"Vaultkey Licence Dongle"}));

    BSTR text = nullptr;
    EXPECT_EQ(all[0]->GetClientName(&text), S_OK);
    EXPECT_EQ(text_of(text), L"WORKSTATION-07");
    EXPECT_EQ(all[1]->GetClientName(&text), S_OK);
    EXPECT_EQ(text, nullptr);
    EXPECT_TRUE(bool_answer(&IUsbDevice::IsConnected, all[0].get()));
    EXPECT_FALSE(bool_answer(&IUsbDevice::IsConnected, all[4].get()));
    EXPECT_TRUE(bool_answer(&IUsbDevice::NeedsShareConfirmation, all[2].get()));
    EXPECT_FALSE(bool_answer(&IUsbDevice::NeedsShareConfirmation, all[0].get()));

    // Shares name the very objects GetDevices hands out, so the program can match by pointer.
    const auto shared = shares(server.get());
    ASSERT_EQ(shared.size(), 3u);
    com_ptr<IUsbDevice> device;
    ASSERT_EQ(shared[0]->GetDevice(device.put()), S_OK);
    EXPECT_EQ(device.get(), all[0].get());
    EXPECT_EQ(shared[0]->GetAuthenticationKey(&text), S_OK);
    EXPECT_EQ(text_of(text), L"correct-horse-battery");
    EXPECT_EQ(shared[1]->GetAuthenticationKey(&text), S_OK);
    EXPECT_EQ(text, nullptr) << "a share without a key reports a null BSTR";
    ASSERT_EQ(shared[2]->GetDevice(device.put()), S_OK);
    EXPECT_EQ(device.get(), all[4].get());

    // Each device has a node in the local device tree that a device walk can read.
    const std::wstring flash_id = device_id_of(devinst_of(all[0].get()));
    EXPECT_EQ(flash_id, L"USB\\VID_3F41&PID_2A07\\AC3200417F5E0091");
    const local_node flash = read_local_node(flash_id);
    ASSERT_TRUE(flash.found);
    EXPECT_EQ(flash.friendly_name, L"Arcturus Flash 32GB USB Device");
    EXPECT_EQ(flash.description, L"USB Mass Storage Device");
    EXPECT_TRUE(IsEqualGUID(flash.class_guid, disk_class));
    const local_node hub = read_local_node(device_id_of(devinst_of(all[1].get())));
    EXPECT_TRUE(hub.found);
    EXPECT_EQ(hub.friendly_name, L"") << "no friendly name: a walk falls back to the description";
    EXPECT_EQ(hub.description, L"Generic SuperSpeed USB Hub");
    // What tells the devices apart, as the program and the console companion read it: the
    // hub has no serial number, the card reader below it has one.
    const auto flash_identity = servercfg::read_node_identity(flash_id);
    EXPECT_EQ(flash_identity.vid_pid, (servercfg::usb_vid_pid{0x3F41, 0x2A07}));
    EXPECT_EQ(flash_identity.serial, L"AC3200417F5E0091");
    EXPECT_EQ(flash_identity.setup_class, L"DiskDrive");
    const auto hub_identity = servercfg::read_node_identity(device_id_of(devinst_of(all[1].get())));
    EXPECT_EQ(hub_identity.vid_pid, (servercfg::usb_vid_pid{0x1A40, 0x0801}));
    EXPECT_EQ(hub_identity.serial, L"");
    EXPECT_EQ(hub_identity.setup_class, L"USB") << "Wine knows no name for this class by itself";
    const auto reader = servercfg::read_node_identity(L"USBSTOR\\DISK&VEN_PELLUCID&PROD_CARD_READER&REV_1.00\\000000001532&0");
    EXPECT_EQ(reader.setup_class, L"DiskDrive");
    EXPECT_EQ(reader.vid_pid, std::nullopt) << "neither its ID nor its hardware IDs name one";
    std::vector<DWORD> handles;
    for (const auto& d : all)
        handles.push_back(devinst_of(d.get()));
    std::sort(handles.begin(), handles.end());
    EXPECT_EQ(std::unique(handles.begin(), handles.end()), handles.end()) << "each device has its own node";

    // The nodes go with the server.
    device.reset();
    init.reset();
    server.reset();
    EXPECT_FALSE(read_local_node(flash_id).found);
}

TEST_F(sim_server_com, share_and_unshare)
{
    auto server = create();
    const auto hub = device_named(server.get(), L"Generic USB 3.0 Hub");
    ASSERT_TRUE(hub);

    com_ptr<IUsbShare> share;
    VARIANT key = key_variant(L"p\u00e4ss word");
    ASSERT_EQ(server->ShareDevice(hub.get(), key, share.put()), S_OK);
    ::VariantClear(&key);
    ASSERT_TRUE(share);
    BSTR text = nullptr;
    EXPECT_EQ(share->GetAuthenticationKey(&text), S_OK);
    EXPECT_EQ(text_of(text), L"p\u00e4ss word");
    auto listed = shares(server.get());
    ASSERT_EQ(listed.size(), 4u);
    EXPECT_EQ(listed.back().get(), share.get());

    com_ptr<IUsbShare> second;
    key = key_variant(nullptr);
    EXPECT_EQ(server->ShareDevice(hub.get(), key, second.put()), HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS));
    EXPECT_FALSE(second);

    EXPECT_EQ(server->UnshareDevice(share.get()), S_OK);
    EXPECT_EQ(shares(server.get()).size(), 3u);
    EXPECT_EQ(server->UnshareDevice(share.get()), HRESULT_FROM_WIN32(ERROR_NOT_FOUND));

    // An empty key travels as a null BSTR and comes back as one.
    ASSERT_EQ(server->ShareDevice(hub.get(), key, share.put()), S_OK);
    EXPECT_EQ(share->GetAuthenticationKey(&text), S_OK);
    EXPECT_EQ(text, nullptr);

    // Objects that are not the server's own are refused.
    com_ptr<IUsbShare> none;
    EXPECT_EQ(server->ShareDevice(nullptr, key, none.put()), E_INVALIDARG);
    VARIANT number;
    number.vt = VT_I4;
    number.lVal = 5;
    const auto keyboard = device_named(server.get(), L"Kestrel K120 Keyboard");
    EXPECT_EQ(server->ShareDevice(keyboard.get(), number, none.put()), DISP_E_TYPEMISMATCH);
    EXPECT_EQ(server->UnshareDevice(nullptr), HRESULT_FROM_WIN32(ERROR_NOT_FOUND));

    // A second server is independent of the first.
    auto other = create();
    EXPECT_EQ(shares(other.get()).size(), 3u);
    EXPECT_EQ(other->ShareDevice(hub.get(), key, none.put()), E_INVALIDARG);
}

TEST_F(sim_server_com, scenario_failures_return_the_chosen_codes)
{
    use_scenario(R"({
        "running": false,
        "devices": [
            {"id": "a", "name": "Device A", "class": "hid"},
            {"id": "b", "name": "Device B", "connected": false}
        ],
        "failures": [
            {"method": "ShareDevice", "hresult": "0x80070005"},
            {"method": "IsConnected", "hresult": "E_UNEXPECTED", "device": "b"},
            {"method": "GetClientName", "hresult": -2147467259},
            {"method": "GetSettingsAsync.completion", "hresult": "RPC_E_DISCONNECTED"},
            {"method": "SetSettingsAsync", "hresult": "0x800706BA"}
        ]
    })");
    auto server = create();
    ASSERT_TRUE(server);
    VARIANT_BOOL running = VARIANT_TRUE;
    EXPECT_EQ(server->IsRunning(&running), S_OK);
    EXPECT_EQ(running, VARIANT_FALSE);

    const auto all = devices(server.get());
    ASSERT_EQ(all.size(), 2u);
    com_ptr<IUsbShare> share;
    VARIANT key = key_variant(nullptr);
    EXPECT_EQ(server->ShareDevice(all[0].get(), key, share.put()), E_ACCESSDENIED);
    EXPECT_FALSE(share);
    EXPECT_TRUE(shares(server.get()).empty()) << "a failed share changes nothing";

    HRESULT hr = S_OK;
    EXPECT_TRUE(bool_answer(&IUsbDevice::IsConnected, all[0].get(), &hr));
    EXPECT_EQ(hr, S_OK) << "a failure for one device leaves the others alone";
    bool_answer(&IUsbDevice::IsConnected, all[1].get(), &hr);
    EXPECT_EQ(hr, E_UNEXPECTED);
    BSTR text = nullptr;
    EXPECT_EQ(all[0]->GetClientName(&text), E_FAIL);

    // The read is accepted and ends with the code; the write is refused at once.
    com_ptr<IUsbServerOperation> op;
    ASSERT_EQ(server->GetSettingsAsync(op.put()), S_OK);
    auto handler = tessel::make_com_object<recording_handler>();
    ASSERT_EQ(op->SetCompletedHandler(handler.get()), S_OK);
    ASSERT_TRUE(pump_until([&] { return handler->calls > 0; }));
    EXPECT_EQ(handler->result, RPC_E_DISCONNECTED);
    UsbServerSettings settings{};
    EXPECT_EQ(op->GetSettings(&settings), RPC_E_DISCONNECTED);
    const UsbServerSettings changed{usb_settings_port, nullptr, 1, VARIANT_FALSE, VARIANT_FALSE};
    EXPECT_EQ(server->SetSettingsAsync(&changed, op.put()), HRESULT_FROM_WIN32(RPC_S_SERVER_UNAVAILABLE));
    EXPECT_FALSE(op);
}

TEST_F(sim_server_com, settings_are_read_and_written_asynchronously_on_the_calling_thread)
{
    use_scenario(R"({"settings": {"endpoints": "0.0.0.0:1", "port": 4000, "statistics": true},
                     "settings_read_delay_ms": 100})");
    auto server = create();
    ASSERT_TRUE(server);

    com_ptr<IUsbServerOperation> read;
    ASSERT_EQ(server->GetSettingsAsync(read.put()), S_OK);
    HRESULT result = S_OK;
    EXPECT_EQ(read->GetResult(&result), E_PENDING) << "nothing completes before the message loop runs";
    auto handler = tessel::make_com_object<recording_handler>();
    ASSERT_EQ(read->SetCompletedHandler(handler.get()), S_OK);
    EXPECT_EQ(read->SetCompletedHandler(handler.get()), static_cast<HRESULT>(0x8000000E));
    EXPECT_EQ(handler->calls, 0);
    ASSERT_TRUE(pump_until([&] { return handler->calls > 0; }));
    pump_for(150);
    EXPECT_EQ(handler->calls, 1);
    EXPECT_EQ(handler->thread_id, ::GetCurrentThreadId());
    EXPECT_EQ(handler->result, S_OK);

    UsbServerSettings settings{};
    ASSERT_EQ(read->GetSettings(&settings), S_OK);
    EXPECT_EQ(settings.fields, ULONG{usb_settings_endpoints | usb_settings_port | usb_settings_statistics})
        << "advertisement is unknown to this server";
    EXPECT_EQ(text_of(settings.endpoints), L"0.0.0.0:1");
    EXPECT_EQ(settings.port, 4000);
    EXPECT_EQ(settings.statistics, VARIANT_TRUE);

    // A write changes only the members it names.
    const UsbServerSettings changed{usb_settings_port | usb_settings_advertisement, nullptr, 8080, VARIANT_TRUE,
                                    VARIANT_FALSE};
    com_ptr<IUsbServerOperation> write;
    ASSERT_EQ(server->SetSettingsAsync(&changed, write.put()), S_OK);
    ASSERT_TRUE(pump_until([&] { return SUCCEEDED(write->GetResult(&result)); }));
    EXPECT_EQ(result, S_OK);
    EXPECT_EQ(write->GetSettings(&settings), static_cast<HRESULT>(0x8000000E)) << "a write delivers no settings";
    // A handler set after the end runs at once.
    auto late = tessel::make_com_object<recording_handler>();
    ASSERT_EQ(write->SetCompletedHandler(late.get()), S_OK);
    EXPECT_EQ(late->calls, 1);

    ASSERT_EQ(server->GetSettingsAsync(read.put()), S_OK);
    ASSERT_TRUE(pump_until([&] { return SUCCEEDED(read->GetResult(&result)); }));
    ASSERT_EQ(read->GetSettings(&settings), S_OK);
    EXPECT_EQ(settings.fields, ULONG{usb_settings_endpoints | usb_settings_port | usb_settings_advertisement |
                                     usb_settings_statistics});
    EXPECT_EQ(text_of(settings.endpoints), L"0.0.0.0:1");
    EXPECT_EQ(settings.port, 8080);
    EXPECT_EQ(settings.advertisement, VARIANT_TRUE);
    EXPECT_EQ(settings.statistics, VARIANT_TRUE);

    // An operation in flight does not keep the server: let go of, the server goes, and the
    // call stays pending, as with a connection that went away.
    ASSERT_EQ(server->GetSettingsAsync(read.put()), S_OK);
    server.reset();
    pump_for(200);
    EXPECT_EQ(read->GetResult(&result), E_PENDING);
}

TEST_F(sim_server_com, unusable_scenarios_fail_creation_with_a_clear_code)
{
    com_ptr<IUsbServer> server;
    use_scenario(R"({"devices": [{"id": "a", "name": "A", "conected": true}]})");
    EXPECT_EQ(create(server), HRESULT_FROM_WIN32(ERROR_INVALID_DATA));
    use_scenario("{\"running\": tru}");
    EXPECT_EQ(create(server), HRESULT_FROM_WIN32(ERROR_INVALID_DATA));
    ::SetEnvironmentVariableW(sim_server::scenario_variable, L"Z:\\nonexistent\\folder\\scenario.json");
    EXPECT_EQ(create(server), HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
    EXPECT_FALSE(server);
}

TEST_F(sim_server_com, listeners_are_advised_and_unadvised)
{
    auto server = create();
    auto listener = tessel::make_com_object<recording_listener>();
    EXPECT_EQ(server->AdviseListener(nullptr), E_POINTER);
    EXPECT_EQ(server->UnadviseListener(listener.get()), CONNECT_E_NOCONNECTION);
    EXPECT_EQ(server->AdviseListener(listener.get()), S_OK);
    EXPECT_EQ(server->UnadviseListener(listener.get()), S_OK);
    EXPECT_EQ(server->UnadviseListener(listener.get()), CONNECT_E_NOCONNECTION);
}

TEST_F(sim_server_com, the_module_counts_live_objects)
{
    const HMODULE module = ::GetModuleHandleW(L"UlmoraSimServer.dll");
    ASSERT_NE(module, nullptr);
    using can_unload_fn = HRESULT(STDAPICALLTYPE*)();
    using get_class_fn = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
    const auto can_unload =
        reinterpret_cast<can_unload_fn>(reinterpret_cast<void*>(::GetProcAddress(module, "DllCanUnloadNow")));
    const auto get_class =
        reinterpret_cast<get_class_fn>(reinterpret_cast<void*>(::GetProcAddress(module, "DllGetClassObject")));
    ASSERT_TRUE(can_unload && get_class);
    EXPECT_EQ(can_unload(), S_OK);

    com_ptr<IClassFactory> factory;
    EXPECT_EQ(get_class(CLSID_UsbServer, __uuidof(IUsbServer), factory.put_void()), E_NOINTERFACE);
    EXPECT_EQ(get_class(__uuidof(IUsbServer), __uuidof(IClassFactory), factory.put_void()),
              CLASS_E_CLASSNOTAVAILABLE);
    ASSERT_EQ(get_class(CLSID_UsbServer, __uuidof(IClassFactory), factory.put_void()), S_OK);
    com_ptr<IUsbServer> server;
    EXPECT_EQ(factory->CreateInstance(factory.get(), __uuidof(IUsbServer), server.put_void()), CLASS_E_NOAGGREGATION);
    ASSERT_EQ(factory->CreateInstance(nullptr, __uuidof(IUsbServer), server.put_void()), S_OK);
    factory.reset();

    auto device = devices(server.get()).front();
    server.reset();
    EXPECT_EQ(can_unload(), S_FALSE) << "a device object the caller still holds keeps the module";
    device.reset();
    EXPECT_EQ(can_unload(), S_OK);
}

TEST_F(sim_server_com, unregistering_removes_the_class)
{
    const HMODULE module = ::GetModuleHandleW(L"UlmoraSimServer.dll");
    ASSERT_NE(module, nullptr);
    using entry = HRESULT(STDAPICALLTYPE*)();
    const auto register_server =
        reinterpret_cast<entry>(reinterpret_cast<void*>(::GetProcAddress(module, "DllRegisterServer")));
    const auto unregister_server =
        reinterpret_cast<entry>(reinterpret_cast<void*>(::GetProcAddress(module, "DllUnregisterServer")));
    ASSERT_TRUE(register_server && unregister_server);

    com_ptr<IUsbServer> server;
    EXPECT_EQ(unregister_server(), S_OK);
    EXPECT_EQ(unregister_server(), S_OK) << "unregistering twice is no error";
    EXPECT_EQ(create(server), REGDB_E_CLASSNOTREG);
    EXPECT_EQ(register_server(), S_OK);
    EXPECT_EQ(create(server), S_OK);

    HKEY key = nullptr;
    ASSERT_EQ(::RegOpenKeyExW(HKEY_LOCAL_MACHINE,
                              L"Software\\Classes\\CLSID\\{5A0C3E71-8D24-4B96-A1F3-6E2B9C4D7F05}\\InprocServer32", 0,
                              KEY_READ, &key),
              ERROR_SUCCESS);
    const tessel::unique_hkey inproc(key);
    wchar_t model[32] = {};
    DWORD size = sizeof model;
    EXPECT_EQ(::RegGetValueW(inproc.get(), nullptr, L"ThreadingModel", RRF_RT_REG_SZ, nullptr, model, &size),
              ERROR_SUCCESS);
    EXPECT_STREQ(model, L"Apartment");
}
