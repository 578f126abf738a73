// The watch loop. Everything here runs on the main thread, a single-threaded apartment:
// notifications arrive through its messages and only queue the device; the loop does the
// work after the notification has returned to the server. Two things come from outside
// that thread: the console's control handler (a thread of the system's) and the
// session-end messages of a hidden window; both only raise the stop event, except that
// the system ends the process as soon as a close, log-off or shutdown handler returns,
// so those wait for the loop to have released everything first.

#include "console/watch.h"

#include "console/exit_codes.h"
#include "console/texts.h"

#include "base/failure.h"
#include "base/unique_handle.h"
#include "server_link/server_connection.h"
#include "server_link/server_listener.h"

#include <algorithm>
#include <atomic>
#include <chrono>

namespace servercfg::console {
namespace {

// Prefixes every line with the time it was written.
class stamped_sink final : public text_sink {
public:
    explicit stamped_sink(text_sink& target) : target_(target) {}
    void write(std::wstring_view text) override
    {
        for (;;) {
            const std::size_t end = text.find(L'\n');
            if (end == std::wstring_view::npos) {
                pending_ += text;
                return;
            }
            pending_ += text.substr(0, end);
            target_.line(say(text_id::watch_line, std::chrono::system_clock::now(), pending_));
            pending_.clear();
            text.remove_prefix(end + 1);
        }
    }

private:
    text_sink& target_;
    std::wstring pending_;
};

// The events the loop waits on besides its messages. The console handler runs on a
// thread of its own and may outlive nothing of the loop's: it only sees these.
struct stop_events {
    tessel::unique_handle stop{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    tessel::unique_handle released{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

std::atomic<stop_events*> active_events{nullptr};

// Made once and never freed: a handler still running on the system's thread after the
// watch has ended must not touch freed events.
stop_events& process_stop_events()
{
    static stop_events* const events = new stop_events;
    return *events;
}

BOOL WINAPI console_handler(DWORD type) noexcept
{
    stop_events* events = active_events.load();
    if (!events)
        return FALSE;
    ::SetEvent(events->stop.get());
    // After these the system ends the process when the handler returns (Windows gives it
    // five seconds): the loop must have let go of the server by then.
    if (type == CTRL_CLOSE_EVENT || type == CTRL_LOGOFF_EVENT || type == CTRL_SHUTDOWN_EVENT)
        ::WaitForSingleObject(events->released.get(), 4500);
    return TRUE;
}

class watcher {
public:
    watcher(const program_io& io, const configuration& document, const apply_options& options)
        : io_(io), out_(io.out), document_(document), options_(options)
    {
    }
    watcher(const watcher&) = delete;
    watcher& operator=(const watcher&) = delete;
    ~watcher() { disconnect(); }

    int run(HANDLE stop)
    {
        ULONGLONG next_attempt = 0;
        ULONGLONG next_heartbeat = 0;
        DWORD retry = first_retry_ms;
        bool told_waiting = false;
        while (::WaitForSingleObject(stop, 0) != WAIT_OBJECT_0) {
            const ULONGLONG now = ::GetTickCount64();
            const busy_scope busy(busy_);
            if (!session_ && now >= next_attempt) {
                std::wstring why;
                if (connect(why)) {
                    retry = first_retry_ms;
                    told_waiting = false;
                    next_heartbeat = now + heartbeat_interval_ms;
                } else {
                    if (!told_waiting && !why.empty())
                        out_.line(say(text_id::watch_waiting, why));
                    told_waiting = true;
                    next_attempt = ::GetTickCount64() + retry;
                    retry = std::min(retry * 2, longest_retry_ms);
                }
            }
            if (session_ && !pending_.empty())
                handle_pending();
            if (session_ && ::GetTickCount64() >= next_heartbeat) {
                heartbeat();
                next_heartbeat = ::GetTickCount64() + heartbeat_interval_ms;
                if (!session_)
                    next_attempt = ::GetTickCount64() + retry;
            }
            if (!pending_.empty() && session_)
                continue;
            const ULONGLONG due = session_ ? next_heartbeat : next_attempt;
            const ULONGLONG later = ::GetTickCount64();
            const DWORD wait = due > later ? static_cast<DWORD>(due - later) : 0;
            busy_ = false;
            ::MsgWaitForMultipleObjectsEx(1, &stop, wait, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
            pump();
        }
        return finish();
    }

    // Between two steps of the loop the server can be let go of at once; while a step
    // runs (it may wait for the server and run messages meanwhile) it cannot.
    [[nodiscard]] bool busy() const noexcept { return busy_; }

    // Lets go of everything the server handed out; safe to call more than once.
    void disconnect() noexcept
    {
        if (listener_)
            listener_->stop();
        registration_.reset();
        listener_.reset();
        pending_.clear();
        session_.reset();
    }

    // The end of the watch: everything released, the last line written.
    int finish() noexcept
    {
        if (!finished_) {
            finished_ = true;
            disconnect();
            try {
                out_.line(say(text_id::watch_ended));
            } catch (...) {
                tessel::log_caught_exception(L"ulmora-cfg: the last line of the watch could not be written");
            }
        }
        return failed_ ? exit_rules_failed : exit_done;
    }

private:
    struct busy_scope {
        explicit busy_scope(bool& flag) noexcept : flag_(flag) { flag_ = true; }
        ~busy_scope() { flag_ = false; }
        busy_scope(const busy_scope&) = delete;
        busy_scope& operator=(const busy_scope&) = delete;
        bool& flag_;
    };

    static void pump()
    {
        MSG message;
        while (::PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            ::TranslateMessage(&message);
            ::DispatchMessageW(&message);
        }
    }

    // Reaches the server, listens to it and applies the document; false, with why, when
    // the server cannot be reached (why stays empty when it went away again at once).
    bool connect(std::wstring& why)
    {
        tessel::com_ptr<IUsbServer> server;
        try {
            server = io_.create_server ? io_.create_server() : create_server();
        } catch (const fibra::details::hresult_error& e) {
            why = say(text_id::server_not_created, error_text(e.code()), static_cast<std::uint32_t>(e.code()));
            return false;
        }
        if (!server_is_running(*server.get())) {
            why = say(text_id::server_not_running);
            return false;
        }
        try {
            listener_ = tessel::make_com_object<server_listener>(
                [this](server_event event, tessel::com_ptr<IUsbDevice> device) { queue(event, std::move(device)); });
            registration_ = listener_registration(server, tessel::com_ptr<IUsbServerListener>(listener_));
            session_.emplace(std::move(server));
            if (connected_before_)
                out_.line(say(text_id::watch_back));
            else
                out_.line(say(text_id::watch_started));
            connected_before_ = true;
            apply_all();
        } catch (const fibra::details::hresult_error& e) {
            lost(e.code());
            return false;
        }
        return static_cast<bool>(session_);
    }

    void queue(server_event event, tessel::com_ptr<IUsbDevice> device)
    {
        // A client coming or going changes nothing the rules decide.
        if (event == server_event::client_changed)
            return;
        if (std::none_of(pending_.begin(), pending_.end(), [&](const auto& d) { return d.get() == device.get(); }))
            pending_.push_back(std::move(device));
    }

    void apply_all()
    {
        std::vector<device_entry> entries = session_->read_devices();
        server_settings_values current;
        if (!document_.server.empty())
            current = session_->read_settings();
        note(carry_out(*session_, entries, plan_apply(document_, entries, current, options_), out_, true));
    }

    void handle_pending()
    {
        const auto devices = std::move(pending_);
        pending_.clear();
        try {
            const auto shares = session_->read_shares();
            for (const auto& device : devices) {
                std::vector<device_entry> entries{session_->read_device(device, shares)};
                // An unplugged or removed device has nothing to share until it is back,
                // which the server announces.
                if (!entries.front().connected)
                    continue;
                apply_plan plan;
                if (auto change = plan_device(document_, entries.front(), 0, options_))
                    plan.devices.push_back(std::move(*change));
                if (!plan.empty())
                    note(carry_out(*session_, entries, plan, out_, true));
            }
        } catch (const fibra::details::hresult_error& e) {
            lost(e.code());
        }
    }

    void heartbeat()
    {
        VARIANT_BOOL running = VARIANT_FALSE;
        const HRESULT hr = session_->server().IsRunning(&running);
        if (FAILED(hr))
            lost(hr);
        else if (running == VARIANT_FALSE)
            lost(HRESULT_FROM_WIN32(ERROR_SERVICE_NOT_ACTIVE));
    }

    void lost(HRESULT code)
    {
        out_.line(say(text_id::watch_lost, error_text(code), static_cast<std::uint32_t>(code)));
        disconnect();
    }

    void note(const apply_report& report)
    {
        if (report.failed)
            failed_ = true;
    }

    const program_io& io_;
    stamped_sink out_;
    const configuration& document_;
    const apply_options options_;
    std::optional<server_session> session_;
    tessel::com_ptr<server_listener> listener_;
    listener_registration registration_;
    std::vector<tessel::com_ptr<IUsbDevice>> pending_;
    bool connected_before_ = false;
    bool failed_ = false;
    bool finished_ = false;
    bool busy_ = false;
};

// The hidden top-level window that hears of log-off and shutdown: a program that uses
// windows gets no console events for those, only these messages.
struct session_window_state {
    watcher* watch;
    HANDLE stop;
};

LRESULT CALLBACK session_window_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam) noexcept
{
    auto* state = reinterpret_cast<session_window_state*>(::GetWindowLongPtrW(window, GWLP_USERDATA));
    if (message == WM_QUERYENDSESSION)
        return TRUE;
    if (message == WM_ENDSESSION && wparam && state) {
        // The process may be ended as soon as this returns: let go of the server now,
        // unless a step of the loop is using it (this came through its wait for the
        // server); that step ends the watch as soon as it returns.
        ::SetEvent(state->stop);
        if (!state->watch->busy())
            state->watch->finish();
        return 0;
    }
    return ::DefWindowProcW(window, message, wparam, lparam);
}

tessel::unique_hwnd make_session_window(session_window_state& state)
{
    WNDCLASSEXW wc{};
    wc.cbSize = sizeof wc;
    wc.lpfnWndProc = &session_window_proc;
    wc.hInstance = ::GetModuleHandleW(nullptr);
    wc.lpszClassName = session_window_class;
    ::RegisterClassExW(&wc);  // a second watch in this process finds it registered
    tessel::unique_hwnd window(::CreateWindowExW(0, session_window_class, L"", WS_POPUP, 0, 0, 0, 0, nullptr, nullptr,
                                                 wc.hInstance, nullptr));
    if (window)
        ::SetWindowLongPtrW(window.get(), GWLP_USERDATA, reinterpret_cast<LONG_PTR>(&state));
    else
        tessel::debug_report(L"ulmora-cfg: no window for log-off and shutdown; the watch ends with the process then");
    return window;
}

}  // namespace

int run_watch(const program_io& io, const configuration& document, const apply_options& options)
{
    stop_events& events = process_stop_events();
    tessel::throw_last_error_if(!events.stop || !events.released);
    ::ResetEvent(events.stop.get());
    ::ResetEvent(events.released.get());
    watcher watch(io, document, options);
    session_window_state state{&watch, events.stop.get()};
    const tessel::unique_hwnd window = make_session_window(state);

    active_events = &events;
    ::SetConsoleCtrlHandler(&console_handler, TRUE);
    const int exit = watch.run(events.stop.get());
    ::SetEvent(events.released.get());
    ::SetConsoleCtrlHandler(&console_handler, FALSE);
    active_events = nullptr;
    return exit;
}

}  // namespace servercfg::console
