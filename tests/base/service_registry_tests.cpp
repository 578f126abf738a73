#include "base/com_object.h"
#include "base/service_registry.h"

#include <gtest/gtest.h>

namespace {

class sample_service : public tessel::com_object<IUnknown> {};

constexpr GUID first_id = {0x11111111, 0x2222, 0x3333, {0x44, 0x44, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55}};
constexpr GUID second_id = {0x11111111, 0x2222, 0x3333, {0x44, 0x44, 0x55, 0x55, 0x55, 0x55, 0x55, 0x56}};

TEST(service_registry, services_are_found_by_id_replaced_and_removed)
{
    tessel::service_registry registry;
    EXPECT_FALSE(registry.get<IUnknown>(first_id));

    auto service = tessel::make_com_object<sample_service>();
    registry.add(first_id, tessel::com_ptr<IUnknown>(service.get()));
    EXPECT_EQ(registry.get<IUnknown>(first_id).get(), static_cast<IUnknown*>(service.get()));
    EXPECT_FALSE(registry.get<IUnknown>(second_id));
    EXPECT_FALSE(registry.get<IDispatch>(first_id)) << "an interface the service lacks answers empty";

    auto replacement = tessel::make_com_object<sample_service>();
    registry.add(first_id, tessel::com_ptr<IUnknown>(replacement.get()));
    EXPECT_EQ(registry.get<IUnknown>(first_id).get(), static_cast<IUnknown*>(replacement.get()));

    registry.remove(first_id);
    registry.remove(first_id);
    EXPECT_FALSE(registry.get<IUnknown>(first_id));

    registry.add(second_id, tessel::com_ptr<IUnknown>(service.get()));
    registry.clear();
    EXPECT_FALSE(registry.get<IUnknown>(second_id));
}

TEST(service_registry, the_process_wide_registry_is_the_installed_one_while_it_lives)
{
    EXPECT_EQ(tessel::service_registry::process_wide(), nullptr);
    {
        tessel::service_registry registry;
        tessel::service_registry::install(&registry);
        EXPECT_EQ(tessel::service_registry::process_wide(), &registry);
    }
    EXPECT_EQ(tessel::service_registry::process_wide(), nullptr) << "a destroyed registry must not stay reachable";
}

}  // namespace
