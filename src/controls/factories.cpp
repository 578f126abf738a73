#include "controls/factories.h"

#include "base/com_ptr.h"
#include "base/failure.h"

namespace tessel::d2d {

ID2D1Factory* d2d_factory()
{
    static const com_ptr<ID2D1Factory> factory = [] {
        com_ptr<ID2D1Factory> made;
        throw_if_failed(::D2D1CreateFactory(D2D1_FACTORY_TYPE_SINGLE_THREADED, __uuidof(ID2D1Factory), nullptr,
                                            made.put_void()));
        return made;
    }();
    return factory.get();
}

IDWriteFactory* dwrite_factory()
{
    static const com_ptr<IDWriteFactory> factory = [] {
        com_ptr<IDWriteFactory> made;
        throw_if_failed(::DWriteCreateFactory(DWRITE_FACTORY_TYPE_SHARED, __uuidof(IDWriteFactory),
                                              reinterpret_cast<IUnknown**>(made.put())));
        return made;
    }();
    return factory.get();
}

}  // namespace tessel::d2d
