#pragma once
// The system's own texts (error messages) in the language the program shows: with a
// German pack an error reads German throughout, not German around an English reason.

#include <windows.h>

#include <string>

namespace tessel {

// The language id of the texts in use: the locale of the chosen pack's tables (en-US for
// the built-in English); 0 when Windows does not know that locale.
[[nodiscard]] LANGID ui_language_id();

// The text of a message id from the system (module null) or from a module's message table:
// in the given language, else in the system's default choice when there is none in that
// language. Without trailing line breaks; empty when there is no text at all.
[[nodiscard]] std::wstring message_text(DWORD id, LANGID language, HMODULE module = nullptr);

// system_message() in the UI language, else in the system's own choice.
[[nodiscard]] std::wstring ui_system_message(HRESULT code);

}  // namespace tessel
