#pragma once
// Awaiting an asynchronous server call: `HRESULT result = co_await server_operation(op);`
// continues when the server reports the call ended, on the thread that awaited (the
// server calls the completion handler on the apartment that set it). An operation that
// has ended already continues at once.

#include "app/server_api.h"
#include "base/com_object.h"
#include "base/com_ptr.h"

#include <coroutine>
#include <utility>

namespace servercfg {

class server_operation {
public:
    explicit server_operation(tessel::com_ptr<IUsbServerOperation> operation) : operation_(std::move(operation)) {}

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
            return !handler->take();  // already called back: continue here
        } catch (...) {
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
};

}  // namespace servercfg
