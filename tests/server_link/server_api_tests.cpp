#include "server_link/server_api.h"

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

}  // namespace
