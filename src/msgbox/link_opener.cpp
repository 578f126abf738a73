#include "msgbox/link_opener.h"

#include "base/com_ptr.h"
#include "base/failure.h"
#include "base/scope_exit.h"
#include "base/unique_handle.h"
#include "format/ts_printf.h"
#include "localization/localization.h"
#include "msgbox/message_box.h"

#include <exdisp.h>
#include <shellapi.h>
#include <shldisp.h>
#include <shlguid.h>
#include <shlobj.h>

#include <cwctype>

namespace tessel {
namespace {

bool running_under_wine() noexcept
{
    const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
    return ntdll && ::GetProcAddress(ntdll, "wine_get_version");
}

bool process_is_elevated() noexcept
{
    HANDLE token = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token))
        return true;  // cannot tell: assume the worst
    const unique_handle owner(token);
    TOKEN_ELEVATION elevation{};
    DWORD size = sizeof elevation;
    return !::GetTokenInformation(token, TokenElevation, &elevation, size, &size) || elevation.TokenIsElevated;
}

struct variant_owner {
    VARIANT value;
    variant_owner() noexcept { ::VariantInit(&value); }
    explicit variant_owner(const std::wstring& text) : variant_owner()
    {
        value.vt = VT_BSTR;
        value.bstrVal = ::SysAllocString(text.c_str());
        if (!value.bstrVal)
            throw_hresult(E_OUTOFMEMORY);
    }
    explicit variant_owner(int number) noexcept : variant_owner()
    {
        value.vt = VT_I4;
        value.lVal = number;
    }
    variant_owner(const variant_owner&) = delete;
    ~variant_owner() { ::VariantClear(&value); }
};

// The shell of the desktop window, which Explorer runs as the signed-in user; S_FALSE
// when there is no desktop window to ask.
HRESULT desktop_shell_execute(const std::wstring& file, const std::wstring& parameters)
{
    com_ptr<IShellWindows> windows;
    HRESULT result = ::CoCreateInstance(CLSID_ShellWindows, nullptr, CLSCTX_LOCAL_SERVER, __uuidof(IShellWindows),
                                        windows.put_void());
    if (FAILED(result))
        return result;
    variant_owner location, root;
    long window = 0;
    com_ptr<IDispatch> desktop;
    result = windows->FindWindowSW(&location.value, &root.value, SWC_DESKTOP, &window, SWFO_NEEDDISPATCH, desktop.put());
    if (result != S_OK || !desktop)
        return FAILED(result) ? result : S_FALSE;
    com_ptr<IShellBrowser> browser;
    throw_if_failed(desktop.query<IServiceProvider>()->QueryService(SID_STopLevelBrowser, __uuidof(IShellBrowser),
                                                                    browser.put_void()));
    com_ptr<IShellView> view;
    throw_if_failed(browser->QueryActiveShellView(view.put()));
    com_ptr<IDispatch> background;
    throw_if_failed(view->GetItemObject(SVGIO_BACKGROUND, __uuidof(IDispatch), background.put_void()));
    com_ptr<IDispatch> application;
    throw_if_failed(background.query<IShellFolderViewDual>()->get_Application(application.put()));
    const unique_bstr name(::SysAllocString(file.c_str()));
    if (!name)
        throw_hresult(E_OUTOFMEMORY);
    variant_owner arguments(parameters), folder, operation(std::wstring(L"open")), show(SW_SHOWNORMAL);
    return application.query<IShellDispatch2>()->ShellExecute(name.get(), arguments.value, folder.value,
                                                              operation.value, show.value);
}

class shell_link_launcher final : public link_launcher {
public:
    bool start_unelevated(const std::wstring& file, const std::wstring& parameters) override
    {
        if (!process_is_elevated())
            return start_from_here(file, parameters);
        HRESULT result;
        {
            // The calling thread may not have COM yet (a message box on a worker thread);
            // one that already has another apartment model works as it is.
            const unique_couninitialize com = co_initialize();
            try {
                result = desktop_shell_execute(file, parameters);
            } catch (...) {
                result = hresult_from_caught_exception();
            }
        }
        if (result != S_OK)
            debug_report(ts_printf::format(L"no desktop shell to start a link as the signed-in user ({b016X})",
                                           static_cast<std::uint32_t>(result)));
        return result == S_OK;
    }
    bool start_here(HWND, const std::wstring& file, const std::wstring& parameters) override
    {
        return start_from_here(file, parameters);
    }
    bool ask(HWND owner, const std::wstring& text) override
    {
        return show_message_box({.owner = owner, .text = text, .style = MB_YESNO | MB_ICONWARNING}) == IDYES;
    }
    void tell(HWND owner, const std::wstring& text) override
    {
        show_message_box({.owner = owner, .text = text, .style = MB_OK | MB_ICONWARNING});
    }

private:
    static bool start_from_here(const std::wstring& file, const std::wstring& parameters) noexcept
    {
        const auto result = reinterpret_cast<INT_PTR>(::ShellExecuteW(
            nullptr, L"open", file.c_str(), parameters.empty() ? nullptr : parameters.c_str(), nullptr, SW_SHOWNORMAL));
        return result > 32;
    }
};

bool host_character(wchar_t c) noexcept
{
    return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || (c >= L'0' && c <= L'9') || c == L'.' || c == L'-';
}

bool start(HWND owner, const std::wstring& file, const std::wstring& parameters, const std::wstring& shown,
           link_launcher& launcher)
{
    if (launcher.start_unelevated(file, parameters))
        return true;
    if (!running_under_wine() &&
        !launcher.ask(owner, ts_printf::format(load_string(string_ids::error_link_elevated), shown))) {
        ::SetLastError(ERROR_CANCELLED);
        return false;
    }
    return launcher.start_here(owner, file, parameters);
}

bool is_openable_text_file(const std::wstring& path) noexcept
{
    const auto letter = [](wchar_t c) { return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z'); };
    constexpr std::wstring_view extension = L".txt";
    if (path.size() <= 3 + extension.size() || !letter(path[0]) || path[1] != L':' || path[2] != L'\\')
        return false;
    for (const wchar_t c : path) {
        if (c < L' ' || c == L'"')
            return false;  // the path is passed quoted on a command line
    }
    for (std::size_t i = 0; i < extension.size(); ++i) {
        if (std::towlower(path[path.size() - extension.size() + i]) != extension[i])
            return false;
    }
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

}  // namespace

bool is_openable_link(std::wstring_view address) noexcept
{
    constexpr std::wstring_view scheme = L"https://";
    if (address.size() <= scheme.size())
        return false;
    for (std::size_t i = 0; i < scheme.size(); ++i) {
        if (std::towlower(address[i]) != scheme[i])
            return false;
    }
    std::size_t at = scheme.size();
    const std::size_t host_start = at;
    while (at < address.size() && host_character(address[at]))
        ++at;
    if (at == host_start || address[host_start] == L'.' || address[host_start] == L'-')
        return false;
    if (at < address.size() && address[at] == L':') {
        const std::size_t port_start = ++at;
        while (at < address.size() && address[at] >= L'0' && address[at] <= L'9')
            ++at;
        if (at == port_start || at - port_start > 5)
            return false;
    }
    if (at < address.size() && address[at] != L'/' && address[at] != L'?' && address[at] != L'#')
        return false;
    for (; at < address.size(); ++at) {
        const wchar_t c = address[at];
        if (c <= L' ' || c == 0x7F || c == L'"' || c == L'\\' || c == L'<' || c == L'>' || c == L'`' ||
            (c >= 0x80 && c <= 0x9F))
            return false;
    }
    return true;
}

link_launcher& system_link_launcher() noexcept
{
    static shell_link_launcher launcher;
    return launcher;
}

bool open_link(HWND owner, std::wstring_view address, link_launcher& launcher) noexcept
try {
    if (!owner)
        owner = ::GetActiveWindow();
    const std::wstring text(address);
    if (!is_openable_link(address)) {
        launcher.tell(owner, ts_printf::format(load_string(string_ids::error_link_refused), text));
        return false;
    }
    return start(owner, text, {}, text, launcher);
} catch (...) {
    log_caught_exception(L"a link could not be opened");
    return false;
}

bool open_help_file(HWND owner, const std::wstring& help_address, link_launcher& launcher) noexcept
try {
    if (!owner)
        owner = ::GetActiveWindow();
    return start(owner, L"hh.exe", help_address, help_address, launcher);
} catch (...) {
    log_caught_exception(L"the help file could not be opened");
    return false;
}

bool open_text_file(HWND owner, const std::wstring& path, link_launcher& launcher) noexcept
try {
    if (!owner)
        owner = ::GetActiveWindow();
    if (!is_openable_text_file(path)) {
        launcher.tell(owner, ts_printf::format(load_string(string_ids::error_text_file_refused), path));
        return false;
    }
    wchar_t system_folder[MAX_PATH]{};
    const UINT length = ::GetSystemDirectoryW(system_folder, MAX_PATH);
    throw_last_error_if(length == 0 || length >= MAX_PATH);
    // Notepad by its full path: the ".txt" association may name an editor that runs what
    // it opens, and a bare name is looked for in the current folder first.
    const std::wstring viewer = std::wstring(system_folder) + L"\\notepad.exe";
    const std::wstring parameters = L"\"" + path + L"\"";
    if (launcher.start_unelevated(viewer, parameters))
        return true;
    // Wine has no elevation, so starting it here is starting it as the user.
    if (running_under_wine())
        return launcher.start_here(owner, viewer, parameters);
    launcher.tell(owner, ts_printf::format(load_string(string_ids::error_text_file_unopened), path));
    return false;
} catch (...) {
    log_caught_exception(L"a text file could not be opened");
    return false;
}

}  // namespace tessel
