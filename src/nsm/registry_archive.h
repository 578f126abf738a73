#pragma once
// The registry archive: a record stored under a registry key. Scalar members become named
// values, nested objects and arrays become subkeys.
//
//   member "name", member version N   value "name" (or "name@N")
//   array element i                   value or subkey "0000i" (five digits, so that the
//                                     reader's name sort gives element order)
//   array                             subkey with "@count" (REG_DWORD)
//   object                            subkey, "@version" when not 0, "@id" when one is set
//
// The reader hands out entries sorted by name and hides the "@" markers.

#include "base/unique_handle.h"
#include "nsm/archive.h"

#include <windows.h>

#include <memory>
#include <string>

namespace tessel::nsm {

// The registry calls with which the reader reads a key: the system's by default. The fuzz
// campaign reads damaged keys held in memory through calls of its own, at a speed the
// registry of a test system does not allow.
struct registry_read_calls {
    decltype(&::RegOpenKeyExW) open_key = ::RegOpenKeyExW;
    decltype(&::RegCloseKey) close_key = ::RegCloseKey;
    decltype(&::RegQueryValueExW) query_value = ::RegQueryValueExW;
    decltype(&::RegEnumValueW) enum_value = ::RegEnumValueW;
    decltype(&::RegEnumKeyExW) enum_key = ::RegEnumKeyExW;
};

class registry final : public archive {
public:
    // root: a predefined key (HKEY_CURRENT_USER...) or a key the caller keeps open.
    // transaction: a kernel transaction handle, or null. block_mode: records as raw blocks
    // (no record here uses it). write_all_members: write members equal to their defaults too.
    registry(HKEY root, std::wstring subkey, HANDLE transaction = nullptr, bool block_mode = false,
             bool write_all_members = false);
    // A reader of `key`, which the caller keeps open and which `calls` understand (they
    // must outlive the archive); path_text names it in messages. It cannot be written.
    registry(HKEY key, std::wstring path_text, const registry_read_calls& calls);
    ~registry() override;

    [[nodiscard]] std::uint32_t archive_options() const override;
    [[nodiscard]] int table_driven_loading() const override { return 1; }
    // Opens the key for reading, creating it empty when it is missing.
    [[nodiscard]] std::unique_ptr<reader_base> create_reader() override;
    // (Re)opens the key for reading and writing. Throws load_exception ("Error creating key").
    [[nodiscard]] std::unique_ptr<writer_base> create_writer() override;

    // write_null deletes the named value instead of doing nothing (outside arrays).
    void set_remove_absent_values(bool remove) noexcept { remove_absent_values_ = remove; }

    [[nodiscard]] HKEY root() const noexcept { return root_; }
    [[nodiscard]] const std::wstring& subkey() const noexcept { return subkey_; }
    // "HKEY_CURRENT_USER\Software\..." for messages.
    [[nodiscard]] std::wstring path_text() const;

private:
    void open(REGSAM access);

    HKEY root_;
    std::wstring subkey_;
    HANDLE transaction_;
    unique_hkey key_;
    bool read_only_ = false;
    bool block_mode_;
    bool write_all_members_;
    bool remove_absent_values_ = false;
    // Set for a key read through calls of the caller's.
    HKEY borrowed_ = nullptr;
    std::wstring borrowed_path_;
    const registry_read_calls* calls_;
};

}  // namespace tessel::nsm
