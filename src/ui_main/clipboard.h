#pragma once
// Text for the clipboard, put there through OLE on the OLE thread.

#include "app/ole_thread.h"

#include <string>

namespace servercfg {

// Puts `text` on the clipboard as Unicode text (CF_UNICODETEXT) from the OLE thread and
// renders it at once, so that it stays there whatever happens to this program. Throws
// fibra::details::hresult_error.
void copy_text_to_clipboard(const tessel::windows::ole_thread& thread, const std::wstring& text);

}  // namespace servercfg
