#include "server_link/device_identity.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using servercfg::usb_vid_pid;

TEST(device_identity, usb_instance_ids_give_ids_and_only_real_serials)
{
    const std::vector<std::wstring> none;
    auto flash = servercfg::identity_from_node_facts(L"USB\\VID_0781&PID_5567\\4C530001230612116484", L"USB", none);
    EXPECT_EQ(flash.vid_pid, (usb_vid_pid{0x0781, 0x5567}));
    EXPECT_EQ(flash.serial, L"4C530001230612116484");
    EXPECT_EQ(servercfg::format_vid_pid(*flash.vid_pid), L"0781:5567");

    // A last part that Windows made up holds '&'; a composite device's interface and other
    // enumerators carry no serial in this place.
    EXPECT_EQ(servercfg::serial_in_instance_id(L"USB\\VID_046D&PID_C52B\\5&2C4B1A0&0&3"), L"");
    EXPECT_EQ(servercfg::serial_in_instance_id(L"USB\\VID_046D&PID_C52B&MI_00\\6&1F2E&0&0000"), L"");
    EXPECT_EQ(servercfg::serial_in_instance_id(L"USBSTOR\\DISK&VEN_SANDISK\\4C53000123"), L"");
    EXPECT_EQ(servercfg::serial_in_instance_id(L"USB\\ROOT_HUB30\\4&1A2B"), L"");
    EXPECT_EQ(servercfg::serial_in_instance_id(L"USB\\VID_0781&PID_5567\\"), L"");
    EXPECT_EQ(servercfg::serial_in_instance_id(L"usb\\vid_0781&pid_5567\\abc"), L"abc");

    // Without ids in the instance ID, the first hardware ID that names both gives them.
    const std::vector<std::wstring> hardware{L"HID\\Generic", L"HID\\VID_046D&PID_C52B&REV_1201", L"USB\\VID_FFFF&PID_0001"};
    auto child = servercfg::identity_from_node_facts(L"HID\\Generic\\7&1&0", L"HIDClass", hardware);
    EXPECT_EQ(child.vid_pid, (usb_vid_pid{0x046d, 0xc52b}));
    EXPECT_EQ(child.serial, L"");
    EXPECT_EQ(child.setup_class, L"HIDClass");
    EXPECT_FALSE(servercfg::identity_from_node_facts(L"ROOT\\SYSTEM\\0000", L"", none).vid_pid);
    // Ids cut short are no ids.
    EXPECT_FALSE(servercfg::vid_pid_in_id(L"USB\\VID_07&PID_5567"));
}

TEST(device_identity, vid_pid_text_reads_both_spellings_and_refuses_the_rest)
{
    EXPECT_EQ(servercfg::parse_vid_pid(L"0781:5567"), (usb_vid_pid{0x0781, 0x5567}));
    EXPECT_EQ(servercfg::parse_vid_pid(L"vid_781&pid_ffff"), (usb_vid_pid{0x0781, 0xffff}));
    for (const wchar_t* bad : {L"", L":", L"0781:", L":5567", L"10781:5567", L"0781:5567:1", L"07g1:5567",
                               L"0781-5567", L"VID_0781PID_5567", L"VID_0781&PID_"})
        EXPECT_FALSE(servercfg::parse_vid_pid(bad)) << bad;
}

TEST(device_identity, a_node_this_machine_does_not_have_keeps_its_id_only)
{
    const auto identity = servercfg::read_node_identity(L"USB\\VID_1234&PID_5678\\NOSUCHDEVICE42");
    EXPECT_EQ(identity.instance_id, L"USB\\VID_1234&PID_5678\\NOSUCHDEVICE42");
    EXPECT_EQ(identity.setup_class, L"");
    EXPECT_EQ(identity.serial, L"NOSUCHDEVICE42");
    EXPECT_TRUE(servercfg::read_node_identity(L"").instance_id.empty());
}

}  // namespace
