#include "app/server_api.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

namespace {

// The slot of a virtual member function: mingw uses the Itanium ABI, whose member
// function pointer to a virtual function stores 1 + the byte offset in the vtable.
template <class F>
size_t slot_of(F member)
{
    static_assert(sizeof(F) >= sizeof(std::uintptr_t));
    std::uintptr_t value;
    std::memcpy(&value, &member, sizeof value);
    return (value - 1) / sizeof(void*);
}

TEST(server_api, slots_the_program_calls_sit_where_the_server_expects_them)
{
    EXPECT_EQ(slot_of(&IUsbServer::IsRunning), 7u);
    EXPECT_EQ(slot_of(&IUsbServer::ShareDevice), 18u);
    EXPECT_EQ(slot_of(&IUsbServer::UnshareDevice), 19u);
    EXPECT_EQ(slot_of(&IUsbServer::GetDevices), 26u);
    EXPECT_EQ(slot_of(&IUsbServer::GetShares), 27u);
    EXPECT_EQ(slot_of(&IUsbServer::SetSettingsAsync), 29u);
    EXPECT_EQ(slot_of(&IUsbServer::GetSettingsAsync), 30u);
    EXPECT_EQ(slot_of(&IUsbServer::AdviseListener), 31u);
    EXPECT_EQ(slot_of(&IUsbServer::UnadviseListener), 32u);
    EXPECT_EQ(slot_of(&IUsbServerInit::Initialize), 3u);
    EXPECT_EQ(slot_of(&IUsbDevice::GetName), 12u);
    EXPECT_EQ(slot_of(&IUsbDevice::GetLocation), 13u);
    EXPECT_EQ(slot_of(&IUsbDevice::IsConnected), 15u);
    EXPECT_EQ(slot_of(&IUsbDevice::GetClientName), 16u);
    EXPECT_EQ(slot_of(&IUsbDevice::NeedsShareConfirmation), 17u);
    EXPECT_EQ(slot_of(&IUsbDeviceNode::GetDevInst), 6u);
    EXPECT_EQ(slot_of(&IUsbShare::GetDevice), 7u);
    EXPECT_EQ(slot_of(&IUsbShare::GetAuthenticationKey), 8u);
    EXPECT_EQ(slot_of(&IUsbServerListener::OnDeviceAdded), 3u);
    EXPECT_EQ(slot_of(&IUsbServerListener::OnDeviceChanged), 4u);
    EXPECT_EQ(slot_of(&IUsbServerListener::OnClientConnectionChanged), 5u);
    EXPECT_EQ(slot_of(&IUsbServerListener::OnClientConnectionChanged2), 6u);
    EXPECT_EQ(slot_of(&IUsbServerOperation::SetCompletedHandler), 3u);
    EXPECT_EQ(slot_of(&IUsbServerOperation::GetResult), 4u);
    EXPECT_EQ(slot_of(&IUsbServerOperation::GetSettings), 5u);
    EXPECT_EQ(slot_of(&IUsbServerOperationHandler::OnCompleted), 3u);
}

TEST(server_api, identifiers_are_the_published_ones)
{
    const GUID server_iid = {0x9b41d2c6, 0x3e87, 0x4f1a, {0xb5, 0xd0, 0x7c, 0x28, 0xe6, 0xa9, 0x3f, 0x14}};
    const GUID init_iid = {0x1f6e8a32, 0xc4d9, 0x47b0, {0x9e, 0x25, 0xa8, 0x3d, 0x5f, 0x07, 0xc6, 0xb9}};
    const GUID node_iid = {0x6c2f8b14, 0x9a3e, 0x4d71, {0xb0, 0x58, 0xe4, 0x7a, 0x1c, 0x93, 0xd2, 0xf6}};
    const CLSID server_clsid = {0x5a0c3e71, 0x8d24, 0x4b96, {0xa1, 0xf3, 0x6e, 0x2b, 0x9c, 0x4d, 0x7f, 0x05}};
    EXPECT_TRUE(IsEqualGUID(__uuidof(IUsbServer), server_iid));
    EXPECT_TRUE(IsEqualGUID(__uuidof(IUsbServerInit), init_iid));
    EXPECT_TRUE(IsEqualGUID(__uuidof(IUsbDeviceNode), node_iid));
    EXPECT_TRUE(IsEqualGUID(CLSID_UsbServer, server_clsid));
}

}  // namespace
