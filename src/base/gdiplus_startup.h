#pragma once
// GDI+ for as long as its owner lives. Start-ups nest: each owner shuts down only its own.

#include "base/unique_handle.h"

#include <windows.h>
#include <gdiplus.h>

namespace tessel {

namespace details {
struct gdiplus_token_traits {
    using type = ULONG_PTR;
    static constexpr type invalid() noexcept { return 0; }
    static void close(type token) noexcept { Gdiplus::GdiplusShutdown(token); }
};
}  // namespace details

using unique_gdiplus = unique_any<details::gdiplus_token_traits>;

// Empty when GDI+ cannot start; what then needs it fails on its own.
[[nodiscard]] inline unique_gdiplus gdiplus_startup() noexcept
{
    const Gdiplus::GdiplusStartupInput input;
    ULONG_PTR token = 0;
    return unique_gdiplus(Gdiplus::GdiplusStartup(&token, &input, nullptr) == Gdiplus::Ok ? token : 0);
}

}  // namespace tessel
