#include "app/ole_thread.h"

#include "base/com_ptr.h"
#include "base/failure.h"

#include <gtest/gtest.h>

#include <ole2.h>
#include <shlobj.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(ole_thread, calls_from_any_thread_run_synchronously_on_the_ole_thread)
{
    tessel::windows::ole_thread ole;
    EXPECT_NE(ole.thread_id(), ::GetCurrentThreadId());

    DWORD ran_on = 0;
    HRESULT ole_state = S_OK;
    ole.call([&] {
        ran_on = ::GetCurrentThreadId();
        // OLE is initialised there: a second OleInitialize answers S_FALSE.
        ole_state = ::OleInitialize(nullptr);
        ::OleUninitialize();
    });
    EXPECT_EQ(ran_on, ole.thread_id());
    EXPECT_EQ(ole_state, S_FALSE);

    // Work that throws reaches the caller; a call from the OLE thread itself does not deadlock.
    EXPECT_THROW(ole.call([] { tessel::throw_hresult(E_ACCESSDENIED); }), fibra::details::hresult_error);
    bool nested = false;
    ole.call([&] { ole.call([&] { nested = true; }); });
    EXPECT_TRUE(nested);
}

// Each call's record lives on the caller's stack and is gone the moment the call returns:
// a worker that touched it after letting the caller go would write into the next call's
// frame. Many short calls from several threads give that window every chance to show.
TEST(ole_thread, hundreds_of_thousands_of_calls_with_records_on_the_callers_stack)
{
    tessel::windows::ole_thread ole;
    constexpr int callers = 4;
    constexpr int calls_each = 50'000;
    std::vector<int> results(callers, 0);
    std::atomic<int> wrong_values{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < callers; ++i)
        threads.emplace_back([&, i] {
            for (int round = 0; round < calls_each; ++round) {
                // A value on this frame that the work checks: a stale record pointing at
                // a reused frame would see another round's value.
                volatile int expected = round;
                ole.call([&] {
                    if (expected != round)
                        ++wrong_values;
                    ++results[i];
                });
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(results, std::vector<int>(callers, calls_each));
    EXPECT_EQ(wrong_values.load(), 0);
}

// A data object that renders its text only when asked, as OLE clipboard sources do: the
// text stays on the clipboard after its thread is gone only if OleFlushClipboard rendered
// it into the clipboard itself.
class text_data_object final : public IDataObject {
public:
    explicit text_data_object(std::wstring text) : text_(std::move(text)) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) noexcept override
    {
        *out = iid == IID_IUnknown || iid == IID_IDataObject ? static_cast<IDataObject*>(this) : nullptr;
        if (!*out)
            return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() noexcept override { return ++references_; }
    ULONG STDMETHODCALLTYPE Release() noexcept override
    {
        const ULONG left = --references_;
        if (left == 0)
            delete this;
        return left;
    }
    HRESULT STDMETHODCALLTYPE GetData(FORMATETC* format, STGMEDIUM* medium) noexcept override
    {
        if (QueryGetData(format) != S_OK)
            return DV_E_FORMATETC;
        const std::size_t bytes = (text_.size() + 1) * sizeof(wchar_t);
        HGLOBAL memory = ::GlobalAlloc(GMEM_MOVEABLE, bytes);
        if (!memory)
            return E_OUTOFMEMORY;
        std::memcpy(::GlobalLock(memory), text_.c_str(), bytes);
        ::GlobalUnlock(memory);
        medium->tymed = TYMED_HGLOBAL;
        medium->hGlobal = memory;
        medium->pUnkForRelease = nullptr;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE QueryGetData(FORMATETC* format) noexcept override
    {
        return format->cfFormat == CF_UNICODETEXT && (format->tymed & TYMED_HGLOBAL) ? S_OK : DV_E_FORMATETC;
    }
    HRESULT STDMETHODCALLTYPE EnumFormatEtc(DWORD direction, IEnumFORMATETC** out) noexcept override
    {
        FORMATETC format{CF_UNICODETEXT, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
        return direction == DATADIR_GET ? ::SHCreateStdEnumFmtEtc(1, &format, out) : E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetDataHere(FORMATETC*, STGMEDIUM*) noexcept override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetCanonicalFormatEtc(FORMATETC*, FORMATETC*) noexcept override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetData(FORMATETC*, STGMEDIUM*, BOOL) noexcept override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE DAdvise(FORMATETC*, DWORD, IAdviseSink*, DWORD*) noexcept override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE DUnadvise(DWORD) noexcept override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE EnumDAdvise(IEnumSTATDATA**) noexcept override { return E_NOTIMPL; }

private:
    std::wstring text_;
    std::atomic<ULONG> references_{1};
};

TEST(ole_thread, clipboard_data_survives_the_thread_through_the_final_flush)
{
    {
        tessel::windows::ole_thread ole;
        HRESULT set = E_FAIL;
        ole.call([&] {
            const auto data = tessel::com_ptr<IDataObject>::attach(new text_data_object(L"shared device key"));
            set = ::OleSetClipboard(data.get());
        });
        ASSERT_EQ(set, S_OK);
    }
    ASSERT_TRUE(::OpenClipboard(nullptr));
    HANDLE data = ::GetClipboardData(CF_UNICODETEXT);
    const auto* text = data ? static_cast<const wchar_t*>(::GlobalLock(data)) : nullptr;
    EXPECT_STREQ(text ? text : L"(nothing)", L"shared device key");
    if (text)
        ::GlobalUnlock(data);
    ::CloseClipboard();
}

HANDLE WINAPI failing_create_event(LPSECURITY_ATTRIBUTES, BOOL, BOOL, LPCWSTR)
{
    ::SetLastError(ERROR_NO_SYSTEM_RESOURCES);
    return nullptr;
}

TEST(ole_thread_death, a_failing_set_up_ends_the_process)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH({ tessel::windows::ole_thread ole(failing_create_event); },
                 "FAIL FAST: CreateEvent failed for the OLE thread .* \\(0x800705AA\\)");
}

}  // namespace
