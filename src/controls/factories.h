#pragma once
// The Direct2D and DirectWrite factories every control draws with: one of each for the
// process, made on first use. Start-up asks for the DirectWrite one early, so that a
// failure shows before any window exists.

#include <d2d1.h>
#include <dwrite.h>

namespace tessel::d2d {

// Both throw fibra::details::hresult_error when the factory cannot be made.
[[nodiscard]] ID2D1Factory* d2d_factory();
[[nodiscard]] IDWriteFactory* dwrite_factory();

}  // namespace tessel::d2d
