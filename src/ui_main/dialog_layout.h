#pragma once
// Fitting a dialog that was drawn for the English texts to the texts it shows (German
// ones are often longer): each named label or check box grows to its text, the controls
// to its right on the same line move along, and the dialog widens when something would
// pass its right margin, taking the controls anchored to its right edge with it.

#include <windows.h>

#include <initializer_list>
#include <span>
#include <vector>

namespace servercfg {

struct text_fit {
    int id;
    bool check_box = false;
    // Controls on the same line after it, moved by as much as it grows.
    std::vector<int> pushed{};
};

void fit_dialog_to_texts(HWND dialog, std::initializer_list<text_fit> fits, std::initializer_list<int> right_anchored);

// Where a control's edges go when its resizable dialog changes size: each edge keeps its
// distance to the dialog's left or top edge, or follows its right or bottom edge.
struct anchor {
    int id;
    bool left_follows, right_follows, top_follows, bottom_follows;
};

// The designed layout of a resizable dialog, kept in 1/100 dialog units: those follow the
// dialog's font and so its DPI, and after a move to a monitor with another DPI the same
// numbers still fit (pixels taken at creation would not).
class anchored_layout {
public:
    // Takes the dialog's client size and the controls' places as the designed layout.
    void capture(HWND dialog, std::span<const anchor> anchors);
    [[nodiscard]] bool captured() const noexcept { return designed_client_.cx != 0; }
    // Places the controls for the dialog's present client size.
    void apply(HWND dialog) const;
    // The designed window size at the dialog's present DPI: the smallest that fits.
    [[nodiscard]] SIZE minimum_window_size(HWND dialog) const;

private:
    std::vector<anchor> anchors_;
    std::vector<RECT> designed_;  // layout units, one per anchor
    SIZE designed_client_{};
};

// A child's rectangle in its dialog's client coordinates.
[[nodiscard]] RECT child_rect(HWND dialog, int id);

}  // namespace servercfg
