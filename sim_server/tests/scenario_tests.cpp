#include "scenario.h"

#include "base/unique_handle.h"
#include "base/utf.h"

#include <gtest/gtest.h>

using namespace sim_server;

namespace {

// The message of the scenario_error that parsing throws, or "" when it does not throw.
std::string error_of(std::string_view text)
{
    try {
        (void)parse_scenario(text);
    } catch (const scenario_error& e) {
        EXPECT_EQ(e.code(), HRESULT_FROM_WIN32(ERROR_INVALID_DATA));
        return e.what();
    }
    return "";
}

}  // namespace

TEST(sim_scenario, a_full_document_is_read)
{
    const scenario s = parse_scenario(R"(
    {
        "running": false,
        "settings": {"endpoints": "[::]:1\u00e9", "port": 65535, "advertisement": false, "statistics": null},
        "settings_read_delay_ms": 250,
        "devices": [
            {"id": "k", "name": "Kestrel \"K\"", "location": "2-1", "class": "keyboard",
             "description": "HID Keyboard Device", "friendly_name": "K", "connected": false,
             "client": "PC \ud83d\ude00", "needs_share_confirmation": true},
            {"id": "x", "name": "X", "class": "{4D36E967-E325-11CE-BFC1-08002BE10318}",
             "instance_id": "USB\\VID_3F41&PID_2A07\\AC32", "hardware_ids": ["USB\\VID_3F41&PID_2A07"],
             "children": [{"instance_id": "USBSTOR\\DISK\\AC32&0", "hardware_ids": ["GenDisk"]}]}
        ],
        "shares": [{"device": "k", "key": "s"}, {"device": "k"}, {"device": "x", "key": null}],
        "failures": [{"method": "GetName", "hresult": 2147942405, "device": "x"},
                     {"method": "IsRunning", "hresult": "-2147467259"},
                     {"method": "GetDevices", "hresult": "0x8007000E"}]
    })");
    EXPECT_FALSE(s.running);
    EXPECT_EQ(s.settings.endpoints, L"[::]:1\u00e9");
    EXPECT_EQ(s.settings.port, 65535);
    EXPECT_EQ(s.settings.advertisement, false);
    EXPECT_FALSE(s.settings.statistics) << "null means unknown";
    EXPECT_EQ(s.settings_read_delay_ms, 250u);
    ASSERT_EQ(s.devices.size(), 2u);
    const device_spec& k = s.devices[0];
    EXPECT_EQ(k.name, L"Kestrel \"K\"");
    EXPECT_EQ(k.location, L"2-1");
    EXPECT_TRUE(IsEqualGUID(k.class_guid, *parse_device_class(L"keyboard")));
    EXPECT_EQ(k.description, L"HID Keyboard Device");
    EXPECT_EQ(k.friendly_name, L"K");
    EXPECT_FALSE(k.connected);
    EXPECT_EQ(k.client, L"PC \U0001F600");
    EXPECT_TRUE(k.needs_share_confirmation);
    const device_spec& x = s.devices[1];
    EXPECT_TRUE(IsEqualGUID(x.class_guid, *parse_device_class(L"disk")));
    EXPECT_EQ(x.description, L"USB Device");
    EXPECT_FALSE(x.friendly_name);
    EXPECT_TRUE(x.connected);
    EXPECT_EQ(x.instance_id, L"USB\\VID_3F41&PID_2A07\\AC32");
    EXPECT_EQ(x.hardware_ids, std::vector<std::wstring>{L"USB\\VID_3F41&PID_2A07"});
    ASSERT_EQ(x.children.size(), 1u);
    EXPECT_EQ(x.children[0].instance_id, L"USBSTOR\\DISK\\AC32&0");
    EXPECT_EQ(x.children[0].hardware_ids, std::vector<std::wstring>{L"GenDisk"});
    EXPECT_TRUE(k.instance_id.empty()) << "no ID given: a root-enumerated one is made up";
    ASSERT_EQ(s.shares.size(), 3u);
    EXPECT_EQ(s.shares[0].key, L"s");
    EXPECT_EQ(s.shares[1].key, L"");
    EXPECT_EQ(s.shares[2].key, L"");
    ASSERT_EQ(s.failures.size(), 3u);
    EXPECT_EQ(s.failures[0].code, E_ACCESSDENIED);
    EXPECT_EQ(s.failures[0].device_id, L"x");
    EXPECT_EQ(s.failures[1].code, E_FAIL);
    EXPECT_EQ(s.failures[2].code, E_OUTOFMEMORY);

    const scenario empty = parse_scenario("\xEF\xBB\xBF { } ");
    EXPECT_TRUE(empty.running);
    EXPECT_TRUE(empty.devices.empty());
    EXPECT_NO_THROW(validate(default_scenario()));
}

TEST(sim_scenario, errors_say_where_and_why)
{
    // Malformed text: where reading stopped, and the member being read.
    EXPECT_EQ(error_of(""), "line 1, column 1 (byte 0), the scenario: Object expected");
    EXPECT_EQ(error_of("{\n  \"running\": tru\n}"), "line 2, column 14 (byte 15), running: bad json format");
    EXPECT_EQ(error_of("{\"devices\": [{\"id\" \"a\"}]}"), "line 1, column 20 (byte 19), devices[0]: bad json format");
    EXPECT_EQ(error_of("{\"settings\": {\"endpoints\": \"open"),
              "line 1, column 28 (byte 27), settings.endpoints: bad json format");
    EXPECT_EQ(error_of("{\"running\": true"), "line 1, column 17 (byte 16), the scenario: bad json format");
    EXPECT_EQ(error_of("{}\n[]"), "line 2, column 1 (byte 3), the scenario: has text after its end");
    EXPECT_EQ(error_of("{\"running\": true, \"running\": false}"),
              "line 1, column 30 (byte 29), running: is given twice");

    // Members that do not fit.
    EXPECT_EQ(error_of("{\"runing\": true}"), "line 1, column 12 (byte 11), the scenario: has an unknown member \"runing\"");
    EXPECT_EQ(error_of("{\"devices\": [{\"id\": \"a\", \"name\": \"A\", \"conected\": true}]}"),
              "line 1, column 51 (byte 50), devices[0]: has an unknown member \"conected\"");
    EXPECT_EQ(error_of("{\"running\": 1}"), "line 1, column 13 (byte 12), running: Boolean expected");
    EXPECT_EQ(error_of("{\"running\": null}"), "line 1, column 17 (byte 16), running: Boolean expected");
    EXPECT_EQ(error_of("{\"devices\": [{\"id\": \"a\"}]}"),
              "line 1, column 24 (byte 23), devices[0]: needs the member \"name\"");
    EXPECT_EQ(error_of("{\"failures\": [{\"hresult\": 1, \"method\": \"GetName\"}, {\"method\": \"GetName\"}]}"),
              "line 1, column 72 (byte 71), failures[1]: needs the member \"hresult\"");
    EXPECT_EQ(error_of("{\"devices\": [{\"id\": \"a\", \"name\": 5}]}"),
              "line 1, column 34 (byte 33), devices[0].name: String expected");
    EXPECT_EQ(error_of("{\"devices\": [{\"id\": \"a\", \"name\": \"A\", \"class\": \"toaster\"}]}"),
              "line 1, column 48 (byte 47), devices[0].class: must be one of usb, hid, disk, keyboard, mouse, printer, "
              "smartcard, image, media, net, ports, bluetooth or a GUID in braces");
    for (const char* port : {"65536", "80.5", "-1", "\"80\"", "true"})
        EXPECT_EQ(error_of(std::string("{\"settings\": {\"port\": ") + port + "}}"),
                  "line 1, column 23 (byte 22), settings.port: must be a whole number from 0 to 65535")
            << port;
    EXPECT_EQ(error_of("{\"settings_write_delay_ms\": 86400001}"),
              "line 1, column 29 (byte 28), settings_write_delay_ms: must be a whole number from 0 to 86400000");
    for (const char* code : {"\"oops\"", "4294967296", "-2147483649", "1.5", "\"0x1z\"", "false", "{}"})
        EXPECT_EQ(error_of(std::string("{\"failures\": [{\"method\": \"GetName\", \"hresult\": ") + code + "}]}"),
                  "line 1, column 48 (byte 47), failures[0].hresult: must be an HRESULT such as \"0x80070005\" or "
                  "\"E_ACCESSDENIED\"")
            << code;
    // null is past when it is seen.
    EXPECT_EQ(error_of("{\"failures\": [{\"method\": \"GetName\", \"hresult\": null}]}"),
              "line 1, column 52 (byte 51), failures[0].hresult: must be an HRESULT such as \"0x80070005\" or "
              "\"E_ACCESSDENIED\"");
    EXPECT_EQ(error_of("{\"shares\": {}}"), "line 1, column 12 (byte 11), shares: Array expected");
    EXPECT_EQ(error_of("{\"shares\": [\"a\"]}"), "line 1, column 13 (byte 12), shares[0]: Object expected");

    // Rules across members.
    EXPECT_EQ(error_of("{\"devices\": [{\"id\": \"a\", \"name\": \"A\"}, {\"id\": \"a\", \"name\": \"B\"}]}"),
              "devices[1]: the device id \"a\" is used twice");
    EXPECT_EQ(error_of("{\"devices\": [{\"id\": \"\", \"name\": \"A\"}]}"), "devices[0]: the device id is empty");
    EXPECT_EQ(error_of("{\"shares\": [{\"device\": \"a\"}]}"), "shares[0]: there is no device \"a\"");
    EXPECT_EQ(error_of("{\"failures\": [{\"method\": \"Frob\", \"hresult\": \"E_FAIL\"}]}"),
              "failures[0]: \"Frob\" is not a method that can fail");
    EXPECT_EQ(error_of("{\"failures\": [{\"method\": \"GetName\", \"hresult\": 0}]}"),
              "failures[0]: the code must be a failure (negative HRESULT)");
    EXPECT_EQ(error_of("{\"failures\": [{\"method\": \"GetName\", \"hresult\": \"E_FAIL\", \"device\": \"z\"}]}"),
              "failures[0]: there is no device \"z\"");
    // Instance IDs Windows could not have given, or two nodes with one ID.
    const auto device_with = [](const char* identity) {
        return std::string("{\"devices\": [{\"id\": \"a\", \"name\": \"A\", ") + identity + "}]}";
    };
    EXPECT_EQ(error_of(device_with(R"("instance_id": "USB\\VID_1")")),
              "devices[0]: the instance ID \"USB\\VID_1\" must be three parts separated by backslashes "
              "(enumerator\\device\\instance)");
    EXPECT_EQ(error_of(device_with(R"("instance_id": "USB\\VID 1\\2")")),
              "devices[0]: the instance ID \"USB\\VID 1\\2\" may hold only printable ASCII without blanks or commas");
    EXPECT_EQ(error_of(device_with(R"("instance_id": "A\\B\\C", "children": [{"instance_id": "a\\b\\c"}])")),
              "devices[0].children[0]: the instance ID \"a\\b\\c\" is used twice");
    EXPECT_EQ(error_of(device_with(R"("hardware_ids": ["USB,1"])")),
              "devices[0]: the hardware ID \"USB,1\" must be 1 to 199 characters of printable ASCII without blanks or "
              "commas");
}

TEST(sim_scenario, hresults_and_classes_are_parsed_strictly)
{
    EXPECT_EQ(parse_hresult(L"0x80070005"), E_ACCESSDENIED);
    EXPECT_EQ(parse_hresult(L"0X8007000e"), E_OUTOFMEMORY);
    EXPECT_EQ(parse_hresult(L"2147942405"), E_ACCESSDENIED);
    EXPECT_EQ(parse_hresult(L"-2147024891"), E_ACCESSDENIED);
    EXPECT_EQ(parse_hresult(L"-2147483648"), static_cast<HRESULT>(0x80000000u));
    EXPECT_EQ(parse_hresult(L"RPC_E_DISCONNECTED"), RPC_E_DISCONNECTED);
    EXPECT_EQ(parse_hresult(L"0"), S_OK);
    for (const wchar_t* bad : {L"", L"0x", L"0x100000000", L"4294967296", L"-2147483649", L"12a", L"-0x5",
                               L"e_fail", L" 1", L"99999999999"})
        EXPECT_FALSE(parse_hresult(bad)) << tessel::utf16_to_utf8(bad);

    EXPECT_TRUE(parse_device_class(L"{36FC9E60-C465-11CF-8056-444553540000}"));
    EXPECT_TRUE(IsEqualGUID(*parse_device_class(L"{36fc9e60-c465-11cf-8056-444553540000}"),
                            *parse_device_class(L"usb")));
    EXPECT_FALSE(parse_device_class(L"USB"));
    EXPECT_FALSE(parse_device_class(L"{36FC9E60-C465-11CF-8056-44455354000}"));
    EXPECT_FALSE(parse_device_class(L"36FC9E60-C465-11CF-8056-444553540000"));
    EXPECT_FALSE(parse_device_class(L"{36FC9E60-C465-11CF-8056-44455354000X}"));
}

TEST(sim_scenario, files_are_read_and_their_errors_named)
{
    wchar_t folder[MAX_PATH];
    ::GetTempPathW(MAX_PATH, folder);
    const std::wstring path = std::wstring(folder) + L"sim-scenario-file-test.json";
    const std::string text = "{\"devices\": [{\"id\": \"a\", \"name\": \"A\"}],\n \"extra\": 1}";
    {
        const tessel::unique_file file(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
        ASSERT_TRUE(file);
        DWORD written = 0;
        ASSERT_TRUE(::WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr));
    }
    try {
        (void)load_scenario_file(path);
        ADD_FAILURE() << "an unknown member was accepted";
    } catch (const scenario_error& e) {
        EXPECT_NE(std::string(e.what()).find("sim-scenario-file-test.json\", line 2, column 11 (byte 50), the scenario: "
                                             "has an unknown member \"extra\""),
                  std::string::npos)
            << e.what();
    }
    ::DeleteFileW(path.c_str());
    try {
        (void)load_scenario_file(path);
        ADD_FAILURE() << "a missing file was accepted";
    } catch (const scenario_error& e) {
        EXPECT_EQ(e.code(), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
        EXPECT_NE(std::string(e.what()).find("cannot be opened"), std::string::npos) << e.what();
    }
}

TEST(sim_scenario, the_example_file_is_valid)
{
    const scenario s = load_scenario_file(L"" SIM_SCENARIO_FOLDER L"example.json");
    EXPECT_EQ(s.devices.size(), 3u);
    EXPECT_EQ(s.shares.size(), 2u);
    EXPECT_EQ(s.failures.size(), 2u);
    EXPECT_FALSE(s.settings.statistics);
}
