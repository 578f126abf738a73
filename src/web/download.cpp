#include "web/download.h"

#include "base/failure.h"
#include "base/module_path.h"
#include "format/ts_printf.h"
#include "localization/localization.h"
#include "localization/pack_file.h"
#include "web/update_check.h"
#include "web/update_service.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <vector>

namespace tessel::web {
namespace {

struct file_identity {
    DWORD volume = 0;
    DWORD index_high = 0;
    DWORD index_low = 0;
    std::uint64_t size = 0;
    bool operator==(const file_identity&) const = default;
};

file_identity identity_of(HANDLE file)
{
    BY_HANDLE_FILE_INFORMATION info{};
    throw_last_error_if(!::GetFileInformationByHandle(file, &info));
    return {info.dwVolumeSerialNumber, info.nFileIndexHigh, info.nFileIndexLow,
            (std::uint64_t{info.nFileSizeHigh} << 32) | info.nFileSizeLow};
}

// Writes the body and deletes the file unless it is kept. The file is marked for deletion
// through its own handle from the start, so no other file of that name can be hit, and a
// body that never completes leaves nothing behind, also when the process ends without
// unwinding (killed, or closed while a stalled transfer still held the file).
class file_sink final : public body_sink {
public:
    file_sink(const std::wstring& path, body_sink* progress) : progress_(progress)
    {
        file_.reset(::CreateFileW(path.c_str(), GENERIC_WRITE | DELETE, 0, nullptr, CREATE_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr));
        throw_last_error_if(!file_);
        throw_last_error_if(!delete_on_close(true));
    }
    file_sink(const file_sink&) = delete;
    ~file_sink()
    {
        if (file_ && !kept_)
            log_if_failed(delete_on_close(true) ? S_OK : HRESULT_FROM_WIN32(::GetLastError()));
    }

    void write(const void* data, DWORD size) override
    {
        const auto* bytes = static_cast<const std::byte*>(data);
        while (size > 0) {
            DWORD written = 0;
            throw_last_error_if(!::WriteFile(file_.get(), bytes, size, &written, nullptr) || written == 0);
            bytes += written;
            size -= written;
        }
    }
    void progress(std::uint64_t received, std::int64_t total) noexcept override
    {
        if (progress_)
            progress_->progress(received, total);
    }

    // Gives the complete file its final name. From here it is no longer marked: the
    // destructor marks it again unless keep_and_close() came first.
    void rename(const std::wstring& path)
    {
        throw_last_error_if(!delete_on_close(false));
        const std::size_t name_bytes = path.size() * sizeof(wchar_t);
        std::vector<std::byte> buffer(sizeof(FILE_RENAME_INFO) + name_bytes);
        auto* info = reinterpret_cast<FILE_RENAME_INFO*>(buffer.data());
        info->ReplaceIfExists = TRUE;
        info->RootDirectory = nullptr;
        info->FileNameLength = static_cast<DWORD>(name_bytes);
        std::memcpy(info->FileName, path.data(), name_bytes);
        throw_last_error_if(!::SetFileInformationByHandle(file_.get(), FileRenameInfo, info,
                                                          static_cast<DWORD>(buffer.size())));
    }
    [[nodiscard]] HANDLE handle() const noexcept { return file_.get(); }
    void keep_and_close() noexcept
    {
        kept_ = true;
        file_.reset();
    }

private:
    bool delete_on_close(bool on) noexcept
    {
        FILE_DISPOSITION_INFO disposition{on};
        return ::SetFileInformationByHandle(file_.get(), FileDispositionInfo, &disposition, sizeof disposition) != FALSE;
    }

    unique_file file_;
    body_sink* progress_;
    bool kept_ = false;
};

}  // namespace

task<downloaded_file> download_file(const HttpClient& client, std::wstring address, std::wstring folder,
                                    std::wstring name, std::uint64_t limit, stop_token stop, body_sink* progress)
{
    const http_request request = co_await open_https(client, HttpClient::canonicalize(address), L"Accept: */*", stop);
    throw_if_not_ok(request.handle());

    const std::wstring path = folder + L'\\' + name;
    const std::wstring temporary = path + L".download";
    file_sink sink(temporary, progress);
    const std::uint64_t size = co_await read_body(request, sink, limit, stop, 256 * 1024);
    sink.rename(path);
    const file_identity written = identity_of(sink.handle());
    sink.keep_and_close();

    // The file cannot stay open for writing: the installer's own start needs it shared
    // for reading only. Reopened, it must be the very file that was written.
    downloaded_file result;
    result.path = path;
    result.size = size;
    result.handle.reset(
        ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!result.handle) {
        const DWORD error = ::GetLastError();
        ::DeleteFileW(path.c_str());
        throw_win32(error);
    }
    if (!(identity_of(result.handle.get()) == written) || written.size != size) {
        result.handle.reset();
        ::DeleteFileW(path.c_str());
        throw_hresult(e_download_replaced);
    }
    co_return result;
}

void save_file_atomically(const std::wstring& path, std::string_view bytes)
{
    file_sink sink(path + L".download", nullptr);
    for (std::size_t offset = 0; offset < bytes.size();) {
        const DWORD part = static_cast<DWORD>(std::min<std::size_t>(bytes.size() - offset, 1u << 30));
        sink.write(bytes.data() + offset, part);
        offset += part;
    }
    sink.rename(path);
    sink.keep_and_close();
}

task<void> install_language_pack(const HttpClient& client, language_pack_offer offer, std::wstring languages_folder,
                                 stop_token stop)
{
    const http_request request =
        co_await open_https(client, HttpClient::canonicalize(offer.url), L"Accept: */*", stop);
    throw_if_not_ok(request.handle());
    const std::string bytes = co_await read_body_text(request, max_language_pack_size, stop);
    const std::span<const std::byte> pack(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size());
    if (!is_well_formed_pack(pack) || !find_module(pack, common_module_name))
        throw_hresult(e_bad_language_pack);
    if (!::CreateDirectoryW(languages_folder.c_str(), nullptr) && ::GetLastError() != ERROR_ALREADY_EXISTS)
        throw_last_error();
    save_file_atomically(languages_folder + L'\\' + language_pack_file_name(offer), bytes);
}

std::wstring installer_command_line(std::wstring_view path, HANDLE process_handle)
{
    return ts_printf::format(L"\"{}\" /UPDATE={}", path,
                             static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(process_handle)));
}

void start_installer(const downloaded_file& installer, HWND main_window)
{
    HANDLE duplicate = nullptr;
    throw_last_error_if(!::DuplicateHandle(::GetCurrentProcess(), ::GetCurrentProcess(), ::GetCurrentProcess(),
                                           &duplicate, 0, TRUE, DUPLICATE_SAME_ACCESS));
    const unique_handle own_process(duplicate);
    // The path of the very file that was checked, named as the application so that nothing
    // is searched for; the handle stays open (no writers, no delete) until the start is done.
    const std::wstring path = final_path_of(installer.handle.get());
    std::wstring command_line = installer_command_line(path, duplicate);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    throw_last_error_if(!::CreateProcessW(path.c_str(), command_line.data(), nullptr, nullptr, TRUE,
                                          NORMAL_PRIORITY_CLASS, nullptr, nullptr, &startup, &process));
    const unique_handle process_handle(process.hProcess), thread_handle(process.hThread);
    ::PostMessageW(main_window, WM_CLOSE, 0, 0);
}

}  // namespace tessel::web
