#pragma once
// Downloads that the elevated program later runs or loads, and the hand-over to the
// installer.
//
// A file arrives under a temporary name and gets its final name only when the whole body
// is there and its length matches the announced one; on any failure or cancellation it is
// deleted. Only https addresses are followed, at every redirect. The installer goes into a
// staging folder only administrators can write (web/staging_folder.h), is checked for the
// publisher's signature (web/installer_trust.h) and stays open without write or delete
// sharing until it has started, so that no other process can swap it between the download,
// the check and the start.

#include "base/unique_handle.h"
#include "web/http_client.h"
#include "web/task.h"
#include "web/update_response.h"

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace tessel::web {

struct downloaded_file {
    std::wstring path;
    // Read access, shared for reading only.
    unique_file handle;
    std::uint64_t size = 0;
};

// Fetches an https address into folder\name. Fails with e_insecure_address for any other
// address or a redirect away from https, E_INVALIDARG for a status other than 200, the
// network's or the file system's Win32 code, ERROR_FILE_TOO_LARGE beyond limit and
// ERROR_INTERNET_CONNECTION_ABORTED for a body shorter than announced. progress may be null.
task<downloaded_file> download_file(const HttpClient& client, std::wstring address, std::wstring folder,
                                    std::wstring name, std::uint64_t limit, stop_token stop, body_sink* progress);

// Fetches a language pack (https only, at most max_language_pack_size), keeps it only when
// the pack loader finds it well formed with the module "common" (else e_bad_language_pack),
// and writes it into languages_folder under language_pack_file_name.
task<void> install_language_pack(const HttpClient& client, language_pack_offer offer, std::wstring languages_folder,
                                 stop_token stop);

// Writes bytes under a temporary name beside path and renames the file to path once it is
// all there; nothing is left behind on failure.
void save_file_atomically(const std::wstring& path, std::string_view bytes);

// Starts the installer by the path of its open handle (as the application name and, quoted,
// in the command line) with the value of an inheritable handle of this process
// ("/UPDATE=<value>"), so that it can wait for the program to end; then posts WM_CLOSE to
// main_window. Throws when the installer cannot be started, and then posts nothing. The
// caller has checked the signature through the same handle.
void start_installer(const downloaded_file& installer, HWND main_window);

// The command line start_installer uses.
[[nodiscard]] std::wstring installer_command_line(std::wstring_view path, HANDLE process_handle);

}  // namespace tessel::web
