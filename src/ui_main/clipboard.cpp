#include "ui_main/clipboard.h"

#include "base/com_object.h"
#include "base/failure.h"

#include <ole2.h>
#include <shlobj.h>

#include <cstring>

namespace servercfg {
namespace {

// One format, one medium: Unicode text in global memory.
class text_data_object final : public tessel::com_object<IDataObject> {
public:
    explicit text_data_object(std::wstring text) : text_(std::move(text)) {}

    HRESULT STDMETHODCALLTYPE GetData(FORMATETC* format, STGMEDIUM* medium) noexcept override
    {
        if (!format || !medium)
            return E_POINTER;
        if (const HRESULT hr = QueryGetData(format); hr != S_OK)
            return hr;
        const SIZE_T bytes = (text_.size() + 1) * sizeof(wchar_t);
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
    HRESULT STDMETHODCALLTYPE GetDataHere(FORMATETC*, STGMEDIUM*) noexcept override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE QueryGetData(FORMATETC* format) noexcept override
    {
        if (!format)
            return E_POINTER;
        if (format->cfFormat != CF_UNICODETEXT || (format->tymed & TYMED_HGLOBAL) == 0)
            return DV_E_FORMATETC;
        return format->dwAspect == DVASPECT_CONTENT ? S_OK : DV_E_DVASPECT;
    }
    HRESULT STDMETHODCALLTYPE GetCanonicalFormatEtc(FORMATETC*, FORMATETC* out) noexcept override
    {
        if (out)
            out->ptd = nullptr;
        return DATA_S_SAMEFORMATETC;
    }
    HRESULT STDMETHODCALLTYPE SetData(FORMATETC*, STGMEDIUM*, BOOL) noexcept override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE EnumFormatEtc(DWORD direction, IEnumFORMATETC** out) noexcept override
    {
        if (direction != DATADIR_GET)
            return E_NOTIMPL;
        FORMATETC format{CF_UNICODETEXT, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
        return ::SHCreateStdEnumFmtEtc(1, &format, out);
    }
    HRESULT STDMETHODCALLTYPE DAdvise(FORMATETC*, DWORD, IAdviseSink*, DWORD*) noexcept override
    {
        return OLE_E_ADVISENOTSUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DUnadvise(DWORD) noexcept override { return OLE_E_ADVISENOTSUPPORTED; }
    HRESULT STDMETHODCALLTYPE EnumDAdvise(IEnumSTATDATA**) noexcept override { return OLE_E_ADVISENOTSUPPORTED; }

private:
    std::wstring text_;
};

}  // namespace

void copy_text_to_clipboard(const tessel::windows::ole_thread& thread, const std::wstring& text)
{
    thread.call([&] {
        const auto data = tessel::make_com_object<text_data_object>(text);
        tessel::throw_if_failed(::OleSetClipboard(data.get()));
        // Rendered now rather than when the OLE thread ends: other programs read it at
        // once, and nothing depends on this program staying alive.
        tessel::throw_if_failed(::OleFlushClipboard());
    });
}

}  // namespace servercfg
