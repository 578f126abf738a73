#include "base/module_path.h"
#include "base/unique_handle.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::wstring program_path()
{
    return tessel::module_folder() + L"ServerCfg.exe";
}

// The icon's pixels, 32-bit BGRA top row first, straight alpha as icons keep it.
std::vector<std::uint32_t> pixels_of(HICON icon, int& width, int& height)
{
    ICONINFO info{};
    if (!::GetIconInfo(icon, &info))
        return {};
    tessel::unique_hbitmap colour(info.hbmColor), mask(info.hbmMask);
    BITMAP bitmap{};
    if (!colour || !::GetObjectW(colour.get(), sizeof bitmap, &bitmap))
        return {};
    width = bitmap.bmWidth;
    height = bitmap.bmHeight;
    BITMAPINFO request{};
    request.bmiHeader.biSize = sizeof request.bmiHeader;
    request.bmiHeader.biWidth = width;
    request.bmiHeader.biHeight = -height;
    request.bmiHeader.biPlanes = 1;
    request.bmiHeader.biBitCount = 32;
    request.bmiHeader.biCompression = BI_RGB;
    std::vector<std::uint32_t> pixels(static_cast<std::size_t>(width) * height);
    const HDC screen = ::GetDC(nullptr);
    const int rows = ::GetDIBits(screen, colour.get(), 0, height, pixels.data(), &request, DIB_RGB_COLORS);
    ::ReleaseDC(nullptr, screen);
    return rows == height ? pixels : std::vector<std::uint32_t>{};
}

TEST(application_icon, the_program_carries_every_size_drawn_with_alpha)
{
    const tessel::unique_hmodule program(
        ::LoadLibraryExW(program_path().c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
    ASSERT_TRUE(program) << "ServerCfg.exe not found beside the tests";

    // The icon group lists each size once, all of them 32-bit.
    const HRSRC group = ::FindResourceW(program.get(), MAKEINTRESOURCEW(1), RT_GROUP_ICON);
    ASSERT_NE(group, nullptr);
    const auto* directory = static_cast<const std::uint8_t*>(::LockResource(::LoadResource(program.get(), group)));
    ASSERT_NE(directory, nullptr);
    std::uint16_t count = 0;
    std::memcpy(&count, directory + 4, 2);
    ASSERT_EQ(count, 8);
    std::vector<int> sizes;
    for (int i = 0; i < count; ++i) {
        const std::uint8_t* entry = directory + 6 + 14 * i;
        std::uint16_t bits = 0;
        std::memcpy(&bits, entry + 6, 2);
        EXPECT_EQ(bits, 32) << "entry " << i;
        sizes.push_back(entry[0] == 0 ? 256 : entry[0]);
    }
    EXPECT_EQ(sizes, (std::vector<int>{16, 20, 24, 32, 40, 48, 64, 256}));

    // Each size is its own drawing, not a scaled neighbour: transparent outside the rounded
    // corner, the blue ground opaque just inside it.
    for (const int size : {16, 24, 32, 48, 256}) {
        tessel::unique_hicon icon(static_cast<HICON>(
            ::LoadImageW(program.get(), MAKEINTRESOURCEW(1), IMAGE_ICON, size, size, LR_DEFAULTCOLOR)));
        ASSERT_TRUE(icon) << size;
        int width = 0, height = 0;
        const std::vector<std::uint32_t> pixels = pixels_of(icon.get(), width, height);
        ASSERT_EQ(width, size);
        ASSERT_EQ(height, size);
        ASSERT_FALSE(pixels.empty());
        EXPECT_EQ(pixels[0] >> 24, 0u) << "corner at " << size;
        const std::uint32_t ground = pixels[static_cast<std::size_t>(size * 85 / 100) * size + size * 15 / 100];
        EXPECT_EQ(ground >> 24, 0xFFu) << "ground at " << size;
        EXPECT_NEAR(static_cast<int>(ground & 0xFF), 0x8f, 8) << "blue at " << size;
        EXPECT_NEAR(static_cast<int>((ground >> 16) & 0xFF), 0x24, 8) << "red at " << size;
    }
}

}  // namespace
