#pragma once
// Registry helpers for the rest of the program: a key opened on first use (optionally
// inside a kernel transaction), multi-string values, and the transacted calls resolved at
// run time.

#include "base/unique_handle.h"

#include <windows.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::registry_ex {

class generic_exception : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class error_creating_key : public generic_exception {
public:
    explicit error_creating_key(LSTATUS status) : generic_exception("error creating key"), status_(status) {}
    [[nodiscard]] LSTATUS status() const noexcept { return status_; }

private:
    LSTATUS status_;
};

// The kernel-transacted registry calls. Some systems do not export them (or export stubs
// that answer ERROR_CALL_NOT_IMPLEMENTED); there the plain calls are used, so the work is
// done, only without the transaction's all-or-nothing guarantee. A null transaction always
// takes the plain call.
LSTATUS create_key(HKEY parent, const wchar_t* subkey, REGSAM access, HANDLE transaction, HKEY* result,
                   DWORD* disposition = nullptr) noexcept;
LSTATUS open_key(HKEY parent, const wchar_t* subkey, REGSAM access, HANDLE transaction, HKEY* result) noexcept;
LSTATUS delete_key(HKEY parent, const wchar_t* subkey, HANDLE transaction) noexcept;

// Which transacted entry points this system has (for tests and diagnostics).
struct transacted_support {
    bool create;
    bool open;
    bool remove;
};
[[nodiscard]] transacted_support transacted_calls_available() noexcept;

// A key opened (or created) with KEY_READ on the first call of get().
class lazy_key {
public:
    lazy_key(HKEY parent, std::wstring subkey, HANDLE transaction = nullptr, bool open_existing_only = false);

    // Throws error_creating_key.
    [[nodiscard]] HKEY get();
    [[nodiscard]] bool is_open() const noexcept { return opened_; }

private:
    HKEY parent_;
    std::wstring subkey_;
    HANDLE transaction_;
    bool open_existing_only_;
    unique_hkey key_;
    bool opened_ = false;
};

// A REG_MULTI_SZ value as its list of strings; nullopt when the value is missing, of
// another type, or cannot be read.
[[nodiscard]] std::optional<std::vector<std::wstring>> read_multi_string(HKEY key, const wchar_t* value_name);

}  // namespace tessel::registry_ex
