#pragma once
// The server's device, share and operation objects, and the table of injected failures
// that their methods consult.

#include "scenario.h"

#include "server_link/server_api.h"
#include "base/com_object.h"
#include "base/com_ptr.h"

#include <atomic>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#define SIM_SERVER_RESERVED(slot) \
    HRESULT STDMETHODCALLTYPE Reserved##slot() noexcept override { return E_NOTIMPL; }

namespace sim_server {

// Objects alive plus IClassFactory::LockServer locks: what DllCanUnloadNow answers from.
inline std::atomic<long> module_references{0};

// Every call the server, its devices and its shares answered (QueryInterface and their
// methods, not AddRef and Release, which a proxy mostly answers itself): what a client
// of a real server, in another process, would pay a round trip for. Benchmarks read it.
inline std::atomic<std::uint64_t> calls_answered{0};

// What the server has handed out, by kind of object: live objects and the references
// held on them. Once the program has let go of the server, everything here must be back
// at zero; what is not was leaked by whoever still holds it.
enum class object_kind { server, device, share, operation, class_factory, count };

struct census_entry {
    std::atomic<long> objects{0};
    std::atomic<long> references{0};
};
inline census_entry census[static_cast<int>(object_kind::count)];

[[nodiscard]] const char* object_kind_name(object_kind kind) noexcept;

// The kind an object is counted as, by the first interface it implements.
template <class first_interface>
constexpr object_kind kind_of() noexcept
{
    if constexpr (std::is_same_v<first_interface, IUsbServer>)
        return object_kind::server;
    else if constexpr (std::is_same_v<first_interface, IUsbDevice>)
        return object_kind::device;
    else if constexpr (std::is_same_v<first_interface, IUsbShare>)
        return object_kind::share;
    else if constexpr (std::is_same_v<first_interface, IUsbServerOperation>)
        return object_kind::operation;
    else if constexpr (std::is_same_v<first_interface, IClassFactory>)
        return object_kind::class_factory;
    else
        static_assert(sizeof(first_interface) == 0, "count the new kind of object in object_kind");
}

// Appends this process's census to the file named by ULMORA_SIM_REFERENCE_REPORT, if set:
// a line "live <kind> <objects> <references>" for every kind still in use, then
// "end <process id>". Called when the DLL leaves the process.
void write_census_report() noexcept;

// A COM object of this DLL: the module cannot unload while one lives, and the census
// counts it and every reference taken on it.
template <class first_interface, class... more_interfaces>
class module_object : public tessel::com_object<first_interface, more_interfaces...> {
    using base = tessel::com_object<first_interface, more_interfaces...>;
    static constexpr int kind = static_cast<int>(kind_of<first_interface>());

public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) noexcept override
    {
        ++calls_answered;
        return base::QueryInterface(iid, out);
    }
    ULONG STDMETHODCALLTYPE AddRef() noexcept override
    {
        ++census[kind].references;
        return base::AddRef();
    }
    ULONG STDMETHODCALLTYPE Release() noexcept override
    {
        --census[kind].references;
        return base::Release();
    }

protected:
    module_object() noexcept
    {
        ++module_references;
        ++census[kind].objects;
        ++census[kind].references;  // the one a new object starts with
    }
    ~module_object() override
    {
        --census[kind].objects;
        --module_references;
    }
};

// E_ILLEGAL_METHOD_CALL, which mingw's headers lack: a call out of order.
inline constexpr HRESULT illegal_method_call = static_cast<HRESULT>(0x8000000Eu);

// Methods told to fail, by method name and device id (empty: every device).
class failure_table {
public:
    // S_OK clears the entry.
    void set(const std::wstring& method, const std::wstring& device_id, HRESULT code);
    void clear() noexcept { entries_.clear(); }
    // From now on every method fails with RPC_E_DISCONNECTED, as calls through a proxy
    // whose server process has ended do.
    void disconnect() noexcept { disconnected_ = true; }
    // The code to fail with, or S_OK: a device's own entry first, then the general one.
    [[nodiscard]] HRESULT find(std::wstring_view method, std::wstring_view device_id = {}) const;
    [[nodiscard]] std::vector<failure_spec> list() const;

private:
    std::map<std::pair<std::wstring, std::wstring>, HRESULT, std::less<>> entries_;
    bool disconnected_ = false;
};

// While a server is stopped (the "stop" command), no new server can be created until
// this GetTickCount64 time, as while a service restarts.
inline std::atomic<ULONGLONG> creation_refused_until{0};

// The device as the server knows it. The server changes it; the object reports it.
struct device_state {
    device_spec spec;
    // The device's local node while it is plugged in; no_devinst otherwise.
    DWORD devinst = 0;
    // Taken out of the server: reports "not connected", belongs to no share.
    bool removed = false;
};

class device_object final : public module_object<IUsbDevice, IUsbDeviceNode> {
public:
    device_object(device_state state, std::shared_ptr<const failure_table> failures)
        : state(std::move(state)), failures_(std::move(failures))
    {
    }

    device_state state;

    SIM_SERVER_RESERVED(3)
    SIM_SERVER_RESERVED(4)
    SIM_SERVER_RESERVED(5)
    SIM_SERVER_RESERVED(6)
    SIM_SERVER_RESERVED(7)
    SIM_SERVER_RESERVED(8)
    SIM_SERVER_RESERVED(9)
    SIM_SERVER_RESERVED(10)
    SIM_SERVER_RESERVED(11)
    SIM_SERVER_RESERVED(14)
    HRESULT STDMETHODCALLTYPE GetName(BSTR* name) noexcept override;
    HRESULT STDMETHODCALLTYPE GetLocation(BSTR* location) noexcept override;
    HRESULT STDMETHODCALLTYPE IsConnected(VARIANT_BOOL* connected) noexcept override;
    HRESULT STDMETHODCALLTYPE GetClientName(BSTR* client) noexcept override;
    HRESULT STDMETHODCALLTYPE NeedsShareConfirmation(VARIANT_BOOL* confirmation) noexcept override;
    DWORD STDMETHODCALLTYPE GetDevInst() noexcept override
    {
        ++calls_answered;
        return state.devinst;
    }

    [[nodiscard]] HRESULT injected_failure(std::wstring_view method) const
    {
        return failures_->find(method, state.spec.id);
    }

private:
    std::shared_ptr<const failure_table> failures_;
};

class share_object final : public module_object<IUsbShare> {
public:
    share_object(tessel::com_ptr<device_object> device, std::wstring key,
                 std::shared_ptr<const failure_table> failures)
        : device(std::move(device)), key(std::move(key)), failures_(std::move(failures))
    {
    }

    const tessel::com_ptr<device_object> device;
    const std::wstring key;

    SIM_SERVER_RESERVED(3)
    SIM_SERVER_RESERVED(4)
    SIM_SERVER_RESERVED(5)
    SIM_SERVER_RESERVED(6)
    HRESULT STDMETHODCALLTYPE GetDevice(IUsbDevice** device) noexcept override;
    HRESULT STDMETHODCALLTYPE GetAuthenticationKey(BSTR* key) noexcept override;

private:
    std::shared_ptr<const failure_table> failures_;
};

// One asynchronous settings call. The server completes it on its own thread; the
// handler runs there too, once.
class operation final : public module_object<IUsbServerOperation> {
public:
    // settings: what a read delivers; nothing for a write.
    void complete(HRESULT result, std::optional<server_settings> settings) noexcept;
    [[nodiscard]] bool completed() const noexcept { return completed_; }

    HRESULT STDMETHODCALLTYPE SetCompletedHandler(IUsbServerOperationHandler* handler) noexcept override;
    HRESULT STDMETHODCALLTYPE GetResult(HRESULT* result) noexcept override;
    HRESULT STDMETHODCALLTYPE GetSettings(UsbServerSettings* settings) noexcept override;

private:
    void call_handler() noexcept;

    bool completed_ = false;
    HRESULT result_ = E_PENDING;
    std::optional<server_settings> settings_;
    tessel::com_ptr<IUsbServerOperationHandler> handler_;
    bool handler_called_ = false;
};

// A BSTR copy for an out-parameter; empty text gives a null BSTR.
HRESULT copy_to_bstr(std::wstring_view text, BSTR* out) noexcept;

}  // namespace sim_server
