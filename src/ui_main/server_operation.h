#pragma once
// Awaiting an asynchronous server call: `HRESULT result = co_await server_operation(op);`
// continues when the server reports the call ended, on the thread that awaited (the
// server calls the completion handler on the apartment that set it). An operation that
// has ended already continues at once.
//
// A window that goes while its call is still pending ends the wait itself: given a place
// for it, the awaiter leaves its handler there, and the window calls the handler's
// OnCompleted when it is destroyed. The coroutine then continues at once (the result is
// E_FAIL, the call being still pending), sees its window gone and lets go of the server's
// objects, which it would otherwise hold for the rest of the process.

#include "server_link/server_api.h"
#include "base/com_object.h"
#include "base/com_ptr.h"

#include <coroutine>
#include <utility>

namespace servercfg {

class server_operation {
public:
    explicit server_operation(tessel::com_ptr<IUsbServerOperation> operation,
                              tessel::com_ptr<IUsbServerOperationHandler>* waiting_handler = nullptr)
        : operation_(std::move(operation)), waiting_handler_(waiting_handler)
    {
    }

    [[nodiscard]] bool await_ready() const noexcept
    {
        HRESULT result = S_OK;
        return !operation_ || operation_->GetResult(&result) != E_PENDING;
    }

    // False resumes at once: the server refused the handler, or ran it inside the call.
    bool await_suspend(std::coroutine_handle<> waiting) noexcept
    {
        try {
            auto handler = tessel::make_com_object<completion>(waiting);
            if (FAILED(operation_->SetCompletedHandler(handler.get())))
                return false;
            if (handler->take())
                return false;  // already called back: continue here
            if (waiting_handler_)
                *waiting_handler_ = tessel::com_ptr<IUsbServerOperationHandler>(handler.get());
            return true;
        } catch (...) {
            // Not waiting goes on at once and reads the operation's result as it is.
            tessel::log_caught_exception(L"a server operation could not be waited for");
            return false;
        }
    }

    [[nodiscard]] HRESULT await_resume() const noexcept
    {
        if (!operation_)
            return E_POINTER;
        HRESULT result = E_FAIL;
        if (FAILED(operation_->GetResult(&result)) || result == E_PENDING)
            return E_FAIL;
        return result;
    }

private:
    class completion final : public tessel::com_object<IUsbServerOperationHandler> {
    public:
        explicit completion(std::coroutine_handle<> waiting) noexcept : waiting_(waiting) {}
        HRESULT STDMETHODCALLTYPE OnCompleted(IUsbServerOperation*) noexcept override
        {
            if (calling_) {
                called_inside_ = true;
                return S_OK;
            }
            if (auto waiting = std::exchange(waiting_, nullptr))
                waiting.resume();
            return S_OK;
        }
        // After SetCompletedHandler: true when the handler ran inside that call; from then
        // on a call resumes the coroutine.
        bool take() noexcept
        {
            calling_ = false;
            if (called_inside_)
                waiting_ = nullptr;
            return called_inside_;
        }

    private:
        std::coroutine_handle<> waiting_;
        bool calling_ = true;
        bool called_inside_ = false;
    };

    tessel::com_ptr<IUsbServerOperation> operation_;
    tessel::com_ptr<IUsbServerOperationHandler>* waiting_handler_;
};

// Ends the wait of a coroutine parked on server_operation (see above); nothing when it has
// ended already.
inline void end_server_wait(tessel::com_ptr<IUsbServerOperationHandler>& waiting_handler) noexcept
{
    if (auto handler = std::move(waiting_handler))
        (void)handler->OnCompleted(nullptr);  // ours: it only resumes the coroutine
}

}  // namespace servercfg
