#pragma once
// Interfaces the main window offers to the parts it hosts: the site through which the
// program's vector-icon collection is loaded, and the help site that names the product
// for online help addresses.

#include <unknwn.h>
#include <windows.h>

// The module whose resources hold a window's vector icons.
struct IVectorSite : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetIconModule(HMODULE* module) = 0;  // 3
};

struct IVectorSite2 : IVectorSite {
    // Loads the "VICON2" resource with this id from the icon module; S_FALSE when the
    // module has none.
    virtual HRESULT STDMETHODCALLTYPE LoadIconCollection(int resource_id) = 0;  // 4
};

struct IHelpSite : IUnknown {
    // The help topic of the window (a BSTR the caller frees).
    virtual HRESULT STDMETHODCALLTYPE GetHelpTopic(BSTR* topic) = 0;  // 3
    // The product's short name in online help addresses ("ulmo").
    virtual HRESULT STDMETHODCALLTYPE GetProductShortName(BSTR* name) = 0;  // 4
};

// {0d6f43a2-7c1b-4e58-9a3d-52b8e1f06c47}
__CRT_UUID_DECL(IVectorSite, 0x0d6f43a2, 0x7c1b, 0x4e58, 0x9a, 0x3d, 0x52, 0xb8, 0xe1, 0xf0, 0x6c, 0x47)
// {8e2a9c51-3f64-4b07-b1d8-c47a05e93b12}
__CRT_UUID_DECL(IVectorSite2, 0x8e2a9c51, 0x3f64, 0x4b07, 0xb1, 0xd8, 0xc4, 0x7a, 0x05, 0xe9, 0x3b, 0x12)
// {5b7d1e08-a2c9-4f36-8e41-9d06b3c27a85}
__CRT_UUID_DECL(IHelpSite, 0x5b7d1e08, 0xa2c9, 0x4f36, 0x8e, 0x41, 0x9d, 0x06, 0xb3, 0xc2, 0x7a, 0x85)
