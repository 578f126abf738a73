#include "controls/window_icons.h"

#include "base/dpi.h"

namespace tessel::windows {
namespace {

unique_hicon load_icon(int resource_id, int size) noexcept
{
    // Not LR_SHARED: a shared icon would be kept at the first size ever asked for.
    return unique_hicon(static_cast<HICON>(::LoadImageW(::GetModuleHandleW(nullptr), MAKEINTRESOURCEW(resource_id),
                                                        IMAGE_ICON, size, size, LR_DEFAULTCOLOR)));
}

}  // namespace

void window_icons::apply(HWND window, int resource_id) noexcept
{
    const UINT dpi = dpi_for_window(window);
    unique_hicon big = load_icon(resource_id, system_metric_for_dpi(SM_CXICON, dpi));
    unique_hicon small = load_icon(resource_id, system_metric_for_dpi(SM_CXSMICON, dpi));
    if (!big || !small)
        return;
    ::SendMessageW(window, WM_SETICON, ICON_BIG, reinterpret_cast<LPARAM>(big.get()));
    ::SendMessageW(window, WM_SETICON, ICON_SMALL, reinterpret_cast<LPARAM>(small.get()));
    // The icons set before are no longer shown: only now may they go.
    big_ = std::move(big);
    small_ = std::move(small);
}

}  // namespace tessel::windows
