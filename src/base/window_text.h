#pragma once
// Measuring the texts of dialog controls, for dialogs that fit their controls to their
// (translated) texts.

#include <windows.h>

#include <string>

namespace tessel::windows {

[[nodiscard]] std::wstring window_text(HWND window);

// The size the control's text takes in the control's font: on one line, or wrapped at
// max_width. An empty text measures as one line of height.
[[nodiscard]] SIZE control_text_extent(HWND control, int max_width = 0x7FFF, bool word_break = false);

// Dialog units to pixels in the dialog's font and DPI.
[[nodiscard]] int dialog_units_x(HWND dialog, int units) noexcept;
[[nodiscard]] int dialog_units_y(HWND dialog, int units) noexcept;

}  // namespace tessel::windows
