#include "controls/embedded_font.h"

#include "base/com_object.h"
#include "base/failure.h"

#include <cstring>

namespace tessel::ui::details {
namespace {

bool read_key(const void* key, UINT32 key_size, font_resource_key& out) noexcept
{
    if (key_size != sizeof(font_resource_key) || !key)
        return false;
    std::memcpy(&out, key, sizeof out);
    return true;
}

}  // namespace

HRESULT resource_load_failure(DWORD last_error) noexcept
{
    return last_error == ERROR_SUCCESS ? E_FAIL : hresult_from_win32(last_error);
}

// The resource bytes live as long as the module; the stream only points at them.
class font_file_stream final : public com_object<IDWriteFontFileStream> {
public:
    font_file_stream(const void* data, UINT64 size) noexcept : data_(static_cast<const BYTE*>(data)), size_(size) {}

    HRESULT STDMETHODCALLTYPE ReadFileFragment(const void** fragment, UINT64 offset, UINT64 size,
                                               void** context) noexcept override
    {
        *fragment = nullptr;
        *context = nullptr;
        if (offset > size_ || size > size_ - offset)
            return E_FAIL;
        *fragment = data_ + offset;
        return S_OK;
    }
    void STDMETHODCALLTYPE ReleaseFileFragment(void*) noexcept override {}
    HRESULT STDMETHODCALLTYPE GetFileSize(UINT64* size) noexcept override
    {
        *size = size_;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetLastWriteTime(UINT64* time) noexcept override
    {
        *time = 0;  // a resource has no time; DirectWrite then never treats it as changed
        return S_OK;
    }

private:
    const BYTE* data_;
    UINT64 size_;
};

class font_file_loader final : public com_object<IDWriteFontFileLoader> {
public:
    HRESULT STDMETHODCALLTYPE CreateStreamFromKey(const void* key, UINT32 key_size,
                                                  IDWriteFontFileStream** stream) noexcept override
    {
        if (!stream)
            return E_POINTER;
        *stream = nullptr;
        font_resource_key k;
        if (!read_key(key, key_size, k))
            return E_INVALIDARG;
        const auto module = reinterpret_cast<HMODULE>(k.module);
        const auto name = reinterpret_cast<const wchar_t*>(k.name);
        HRSRC found = ::FindResourceW(module, name, MAKEINTRESOURCEW(8) /* RT_FONT */);
        if (!found)
            return HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND);
        HGLOBAL loaded = ::LoadResource(module, found);
        const void* bytes = loaded ? ::LockResource(loaded) : nullptr;
        if (!bytes)
            return resource_load_failure(::GetLastError());
        try {
            *stream = make_com_object<font_file_stream>(bytes, ::SizeofResource(module, found)).detach();
            return S_OK;
        } catch (...) {
            return E_OUTOFMEMORY;
        }
    }
};

// One key, one file: the enumerator yields it once.
class font_file_enumerator final : public com_object<IDWriteFontFileEnumerator> {
public:
    font_file_enumerator(IDWriteFactory* factory, IDWriteFontFileLoader* loader, const font_resource_key& key)
        : factory_(factory), loader_(loader), key_(key)
    {
    }

    HRESULT STDMETHODCALLTYPE MoveNext(BOOL* has_current) noexcept override
    {
        *has_current = FALSE;
        if (done_)
            return S_OK;
        done_ = true;
        current_.reset();
        const HRESULT hr = factory_->CreateCustomFontFileReference(&key_, sizeof key_, loader_.get(), current_.put());
        if (FAILED(hr))
            return hr;
        *has_current = TRUE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetCurrentFontFile(IDWriteFontFile** file) noexcept override
    {
        if (!current_) {
            *file = nullptr;
            return E_FAIL;
        }
        current_.copy_to(file);
        return S_OK;
    }

private:
    com_ptr<IDWriteFactory> factory_;
    com_ptr<IDWriteFontFileLoader> loader_;
    font_resource_key key_;
    com_ptr<IDWriteFontFile> current_;
    bool done_ = false;
};

class font_collection_loader final : public com_object<IDWriteFontCollectionLoader> {
public:
    explicit font_collection_loader(IDWriteFontFileLoader* file_loader) : file_loader_(file_loader) {}

    HRESULT STDMETHODCALLTYPE CreateEnumeratorFromKey(IDWriteFactory* factory, const void* key, UINT32 key_size,
                                                      IDWriteFontFileEnumerator** enumerator) noexcept override
    {
        if (!enumerator)
            return E_POINTER;
        *enumerator = nullptr;
        font_resource_key k;
        if (!read_key(key, key_size, k))
            return E_INVALIDARG;
        try {
            *enumerator = make_com_object<font_file_enumerator>(factory, file_loader_.get(), k).detach();
            return S_OK;
        } catch (...) {
            return E_OUTOFMEMORY;
        }
    }

private:
    com_ptr<IDWriteFontFileLoader> file_loader_;
};

com_ptr<IDWriteFontFileLoader> make_font_file_loader() { return make_com_object<font_file_loader>(); }

com_ptr<IDWriteFontCollectionLoader> make_font_collection_loader(IDWriteFontFileLoader* file_loader)
{
    return make_com_object<font_collection_loader>(file_loader);
}

}  // namespace tessel::ui::details

namespace tessel::ui {

embedded_font_loaders::embedded_font_loaders(IDWriteFactory* factory)
    : factory_(factory), file_loader_(details::make_font_file_loader()),
      collection_loader_(details::make_font_collection_loader(file_loader_.get()))
{
    throw_if_failed(factory_->RegisterFontFileLoader(file_loader_.get()));
    const HRESULT hr = factory_->RegisterFontCollectionLoader(collection_loader_.get());
    if (FAILED(hr)) {
        factory_->UnregisterFontFileLoader(file_loader_.get());
        throw_hresult(hr);
    }
}

embedded_font_loaders::~embedded_font_loaders()
{
    factory_->UnregisterFontCollectionLoader(collection_loader_.get());
    factory_->UnregisterFontFileLoader(file_loader_.get());
}

com_ptr<IDWriteFontCollection> embedded_font_loaders::collection(HMODULE module, const wchar_t* name) const
{
    // DirectWrite builds a collection even from a key whose file cannot be read; it is
    // then just empty. Say what is wrong instead.
    if (!::FindResourceW(module, name, MAKEINTRESOURCEW(8) /* RT_FONT */))
        throw_win32(ERROR_RESOURCE_NAME_NOT_FOUND);
    const details::font_resource_key key{reinterpret_cast<std::uint64_t>(module), reinterpret_cast<std::uint64_t>(name)};
    com_ptr<IDWriteFontCollection> result;
    throw_if_failed(factory_->CreateCustomFontCollection(collection_loader_.get(), &key, sizeof key, result.put()));
    if (result->GetFontFamilyCount() == 0)
        throw_hresult(DWRITE_E_FILEFORMAT);
    return result;
}

com_ptr<IDWriteFontCollection> embedded_font_loaders::program_font() const
{
    return collection(::GetModuleHandleW(nullptr), MAKEINTRESOURCEW(embedded_font_resource_id));
}

}  // namespace tessel::ui
