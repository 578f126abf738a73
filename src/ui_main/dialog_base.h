#pragma once
// A dialog of the program, modal or modeless: the object is the dialog's state, found
// again from the window in every message, and handlers that throw end in an error report
// instead of leaving the dialog procedure. window() is null once the window has gone.

#include "base/failure.h"

#include <windows.h>

namespace servercfg {

template <class derived>
class dialog_base {
public:
    // Runs the dialog's modal loop; answers what EndDialog was given, or -1 when the
    // dialog cannot be created.
    INT_PTR run(HWND owner, int template_id)
    {
        return ::DialogBoxParamW(::GetModuleHandleW(nullptr), MAKEINTRESOURCEW(template_id), owner,
                                 &dialog_base::procedure, reinterpret_cast<LPARAM>(this));
    }
    // Creates the dialog modeless, hidden unless its template says otherwise; null when it
    // cannot be created.
    HWND create_modeless(HWND owner, int template_id)
    {
        return ::CreateDialogParamW(::GetModuleHandleW(nullptr), MAKEINTRESOURCEW(template_id), owner,
                                    &dialog_base::procedure, reinterpret_cast<LPARAM>(this));
    }
    [[nodiscard]] HWND window() const noexcept { return window_; }

protected:
    dialog_base() = default;
    ~dialog_base() = default;

    HWND window_ = nullptr;

private:
    static INT_PTR CALLBACK procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) noexcept
    {
        auto* self = reinterpret_cast<derived*>(::GetWindowLongPtrW(window, DWLP_USER));
        if (message == WM_INITDIALOG) {
            self = static_cast<derived*>(reinterpret_cast<dialog_base*>(lparam));
            self->window_ = window;
            ::SetWindowLongPtrW(window, DWLP_USER, reinterpret_cast<LONG_PTR>(self));
        }
        if (!self)
            return FALSE;
        INT_PTR result = FALSE;
        try {
            result = self->handle(message, wparam, lparam);
        } catch (...) {
            tessel::log_caught_exception(L"a dialog's message handler failed");
        }
        if (message == WM_NCDESTROY) {
            // A late coroutine must not reach a dead window through the object.
            ::SetWindowLongPtrW(window, DWLP_USER, 0);
            self->window_ = nullptr;
        }
        return result;
    }
};

}  // namespace servercfg
