#pragma once
// Configuration documents as files: reading one with its errors told the user, and
// writing one, privately when it holds keys.

#include "console/commands.h"
#include "console/configuration.h"

#include <string>

namespace servercfg::console {

// Reads the document and its key files; false after printing why it cannot be used.
[[nodiscard]] bool read_document(const program_io& io, const std::wstring& path, configuration& document);

// The text of a document error in the user's language.
[[nodiscard]] std::wstring document_error_text(const std::wstring& path, const document_error& error);

// Writes the file whole or not at all (a new file moved over the old one). A private file
// is readable by the Administrators group and the current user only, from the moment it
// exists. Throws fibra::details::hresult_error.
void write_document_file(const std::wstring& path, const std::string& text, bool private_file);

}  // namespace servercfg::console
