// The server's census: what it handed out and what is still held, by kind of object, so
// that a test of the program can tell which kind it leaked.

#include "server.h"

#include "base/com_ptr.h"

#include <gtest/gtest.h>

#include <windows.h>
#include <objbase.h>

#include <fstream>
#include <string>
#include <vector>

namespace {

using sim_server::census;
using sim_server::object_kind;

long objects(object_kind kind)
{
    return census[static_cast<int>(kind)].objects;
}

long references(object_kind kind)
{
    return census[static_cast<int>(kind)].references;
}

std::vector<std::string> report_lines(const std::wstring& path)
{
    std::vector<std::string> lines;
    std::ifstream file(path.c_str(), std::ios::binary);
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

TEST(census, a_device_kept_after_the_server_is_released_is_reported_by_kind)
{
    wchar_t folder[MAX_PATH];
    ::GetTempPathW(MAX_PATH, folder);
    const std::wstring path = std::wstring(folder) + L"sim-census-test.txt";
    ::DeleteFileW(path.c_str());
    ::SetEnvironmentVariableW(L"ULMORA_SIM_REFERENCE_REPORT", path.c_str());

    tessel::com_ptr<IUsbDevice> kept;
    {
        auto server = sim_server::usb_server::create(sim_server::default_scenario(), {});
        ULONG count = 0;
        IUsbDevice** devices = nullptr;
        ASSERT_EQ(server->GetDevices(&count, &devices), S_OK);
        ASSERT_GE(count, 2u);
        EXPECT_EQ(objects(object_kind::server), 1);
        // The server's own references to each device (shares hold theirs too), and the caller's.
        EXPECT_GE(references(object_kind::device), 2 * objects(object_kind::device));
        kept = tessel::com_ptr<IUsbDevice>::attach(devices[0]);
        for (ULONG i = 1; i < count; ++i)
            devices[i]->Release();
        ::CoTaskMemFree(devices);
    }
    // Only what the caller still holds is left.
    EXPECT_EQ(objects(object_kind::server), 0);
    EXPECT_EQ(references(object_kind::server), 0);
    EXPECT_EQ(objects(object_kind::device), 1);
    EXPECT_EQ(references(object_kind::device), 1);
    EXPECT_EQ(objects(object_kind::share), 0);

    sim_server::write_census_report();
    kept.reset();
    sim_server::write_census_report();
    ::SetEnvironmentVariableW(L"ULMORA_SIM_REFERENCE_REPORT", nullptr);
    const std::string process = std::to_string(::GetCurrentProcessId());
    EXPECT_EQ(report_lines(path), (std::vector<std::string>{"live device 1 1", "end " + process, "end " + process}));
    ::DeleteFileW(path.c_str());
}

}  // namespace
