#pragma once
// The share device dialog: names the device about to be shared and takes an optional
// authentication key. Ends with IDOK (the key then holds what was typed, untrimmed, at
// most 259 characters) or IDCANCEL (the key untouched).

#include "ui_main/dialog_base.h"
#include "ui_main/dialog_layout.h"

#include <windows.h>

#include <string>

namespace servercfg {

inline constexpr int share_dialog_id = 131;

namespace share_dialog_controls {
inline constexpr int device_label = 1007;
inline constexpr int device = 1005;
inline constexpr int key_label = 1008;
inline constexpr int key = 1006;
}  // namespace share_dialog_controls

// What the key edit returns for a 260-character buffer.
inline constexpr int share_key_buffer = 260;

class share_dialog : public dialog_base<share_dialog> {
public:
    share_dialog(std::wstring device_text, std::wstring key) : device_text_(std::move(device_text)), key_(std::move(key))
    {
    }

    // IDOK or IDCANCEL.
    INT_PTR show(HWND owner) { return run(owner, share_dialog_id); }
    [[nodiscard]] const std::wstring& key() const noexcept { return key_; }

private:
    friend class dialog_base<share_dialog>;
    INT_PTR handle(UINT message, WPARAM wparam, LPARAM lparam);
    void on_init();

    std::wstring device_text_;
    std::wstring key_;
    anchored_layout layout_;
};

}  // namespace servercfg
