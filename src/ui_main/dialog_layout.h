#pragma once
// Fitting a dialog that was drawn for the English texts to the texts it shows (German
// ones are often longer): each named label or check box grows to its text, the controls
// to its right on the same line move along, and the dialog widens when something would
// pass its right margin, taking the controls anchored to its right edge with it.

#include <windows.h>

#include <initializer_list>
#include <vector>

namespace servercfg {

struct text_fit {
    int id;
    bool check_box = false;
    // Controls on the same line after it, moved by as much as it grows.
    std::vector<int> pushed{};
};

void fit_dialog_to_texts(HWND dialog, std::initializer_list<text_fit> fits, std::initializer_list<int> right_anchored);

}  // namespace servercfg
