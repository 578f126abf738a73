#include "console/document_file.h"

#include "console/texts.h"

#include "base/failure.h"
#include "base/unique_handle.h"
#include "base/utf.h"

#include <sddl.h>

namespace servercfg::console {
namespace {

// "D:P" protects the list from inherited entries, so nothing but these two can read it.
std::wstring private_descriptor()
{
    tessel::unique_handle token;
    tessel::throw_last_error_if(!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.put()));
    DWORD size = 0;
    ::GetTokenInformation(token.get(), TokenUser, nullptr, 0, &size);
    std::vector<BYTE> user(size);
    tessel::throw_last_error_if(!::GetTokenInformation(token.get(), TokenUser, user.data(), size, &size));
    wchar_t* text = nullptr;
    tessel::throw_last_error_if(!::ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid, &text));
    const tessel::unique_hlocal owned(text);
    return L"D:P(A;;FA;;;BA)(A;;FA;;;" + std::wstring(text) + L")";
}

}  // namespace

std::wstring document_error_text(const std::wstring& path, const document_error& error)
{
    const auto code = [&] { return static_cast<std::uint32_t>(error.code()); };
    switch (error.problem()) {
    case document_problem::unreadable_file:
        return say(text_id::document_unreadable, path, error_text(error.code()), code());
    case document_problem::unreadable_key_file:
        return say(text_id::document_key_file, path, tessel::utf8_to_utf16(error.path()), error.detail(),
                   error_text(error.code()), code());
    case document_problem::too_large:
        return say(text_id::document_too_large, path);
    default:
        break;
    }
    const std::wstring problem =
        error.problem() == document_problem::archive
            ? translated(error.detail())
            : say_item(text_id::document_problems, static_cast<std::size_t>(error.problem()), error.detail());
    return say(text_id::document_error, path, error.line(), error.column(), tessel::utf8_to_utf16(error.path()),
               problem);
}

bool read_document(const program_io& io, const std::wstring& path, configuration& document)
{
    try {
        document = read_configuration_file(path);
        return true;
    } catch (const document_error& e) {
        io.err.line(document_error_text(path, e));
        return false;
    }
}

void write_document_file(const std::wstring& path, const std::string& text, bool private_file)
{
    SECURITY_ATTRIBUTES attributes{sizeof attributes, nullptr, FALSE};
    tessel::unique_hlocal descriptor;
    if (private_file) {
        PSECURITY_DESCRIPTOR made = nullptr;
        tessel::throw_last_error_if(!::ConvertStringSecurityDescriptorToSecurityDescriptorW(
            private_descriptor().c_str(), SDDL_REVISION_1, &made, nullptr));
        descriptor.reset(made);
        attributes.lpSecurityDescriptor = made;
    }
    // Beside the target, so the move is a rename on the same volume; the new file has its
    // own protection from the start and keeps it through the move.
    // Always a file of our own making: an existing one would keep its own protection.
    const std::wstring temporary = path + L".new";
    ::DeleteFileW(temporary.c_str());
    {
        tessel::unique_file file(::CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, &attributes, CREATE_NEW,
                                               FILE_ATTRIBUTE_NORMAL, nullptr));
        tessel::throw_last_error_if(!file);
        DWORD written = 0;
        if (!::WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ||
            written != text.size()) {
            const DWORD error = ::GetLastError();
            file.reset();
            ::DeleteFileW(temporary.c_str());
            tessel::throw_win32(error);
        }
    }
    if (!::MoveFileExW(temporary.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING)) {
        const DWORD error = ::GetLastError();
        ::DeleteFileW(temporary.c_str());
        tessel::throw_win32(error);
    }
}

}  // namespace servercfg::console
