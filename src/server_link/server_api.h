#pragma once
// The sharing server's COM API as this program uses it.
//
// Slot order is the contract: every interface lists its methods in vtable order, and the
// slots the program never calls are declared as ReservedN placeholders so that the
// numbering holds (slot numbers count the three IUnknown slots). The server is used only
// from the UI thread's single-threaded apartment.
//
// Choices of our own, beyond the server's documented slots:
// - Collections come back as a CoTaskMemAlloc'ed array of interface pointers with a count;
//   the caller owns the array and one reference to each element.
// - The server's settings are read with GetSettingsAsync (slot 30) and written with
//   SetSettingsAsync (slot 29). Both return an IUsbServerOperation whose completion is
//   reported on the caller's apartment through IUsbServerOperationHandler.
// - The listener is handed over with AdviseListener / UnadviseListener (slots 31, 32).

#include <oaidl.h>
#include <unknwn.h>
#include <windows.h>

// {5a0c3e71-8d24-4b96-a1f3-6e2b9c4d7f05}
inline constexpr CLSID CLSID_UsbServer = {0x5a0c3e71, 0x8d24, 0x4b96, {0xa1, 0xf3, 0x6e, 0x2b, 0x9c, 0x4d, 0x7f, 0x05}};

struct IUsbDevice;
struct IUsbShare;
struct IUsbServerListener;
struct IUsbServerOperation;

// Which members of UsbServerSettings carry a value.
enum usb_server_settings_field : ULONG {
    usb_settings_endpoints = 0x1,
    usb_settings_port = 0x2,
    usb_settings_advertisement = 0x4,
    usb_settings_statistics = 0x8,
};

// The four server settings. Read: `fields` tells which values the server knows. Write:
// `fields` tells which members the user set; the others are left as they are.
struct UsbServerSettings {
    ULONG fields;
    BSTR endpoints;  // owned by whoever holds the struct (SysFreeString)
    USHORT port;
    VARIANT_BOOL advertisement;
    VARIANT_BOOL statistics;
};

struct IUsbServer : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Reserved3() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved4() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved5() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved6() = 0;
    virtual HRESULT STDMETHODCALLTYPE IsRunning(VARIANT_BOOL* running) = 0;  // 7
    virtual HRESULT STDMETHODCALLTYPE Reserved8() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved9() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved10() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved11() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved12() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved13() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved14() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved15() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved16() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved17() = 0;
    // key: VT_BSTR; an empty key is a null BSTR.
    virtual HRESULT STDMETHODCALLTYPE ShareDevice(IUsbDevice* device, VARIANT key, IUsbShare** share) = 0;  // 18
    virtual HRESULT STDMETHODCALLTYPE UnshareDevice(IUsbShare* share) = 0;                                  // 19
    virtual HRESULT STDMETHODCALLTYPE Reserved20() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved21() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved22() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved23() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved24() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved25() = 0;
    virtual HRESULT STDMETHODCALLTYPE GetDevices(ULONG* count, IUsbDevice*** devices) = 0;  // 26
    virtual HRESULT STDMETHODCALLTYPE GetShares(ULONG* count, IUsbShare*** shares) = 0;     // 27
    virtual HRESULT STDMETHODCALLTYPE Reserved28() = 0;
    virtual HRESULT STDMETHODCALLTYPE SetSettingsAsync(const UsbServerSettings* changed,
                                                       IUsbServerOperation** operation) = 0;  // 29
    virtual HRESULT STDMETHODCALLTYPE GetSettingsAsync(IUsbServerOperation** operation) = 0;  // 30
    virtual HRESULT STDMETHODCALLTYPE AdviseListener(IUsbServerListener* listener) = 0;       // 31
    virtual HRESULT STDMETHODCALLTYPE UnadviseListener(IUsbServerListener* listener) = 0;     // 32
};

struct IUsbServerInit : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Initialize() = 0;  // 3
};

struct IUsbDevice : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Reserved3() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved4() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved5() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved6() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved7() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved8() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved9() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved10() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved11() = 0;
    virtual HRESULT STDMETHODCALLTYPE GetName(BSTR* name) = 0;  // 12
    // The server's own identifier of the device (its location on the server's bus),
    // kept with the row; the program shows it as the name's tooltip.
    virtual HRESULT STDMETHODCALLTYPE GetLocation(BSTR* location) = 0;  // 13
    virtual HRESULT STDMETHODCALLTYPE Reserved14() = 0;
    virtual HRESULT STDMETHODCALLTYPE IsConnected(VARIANT_BOOL* connected) = 0;                 // 15
    virtual HRESULT STDMETHODCALLTYPE GetClientName(BSTR* client) = 0;                          // 16
    virtual HRESULT STDMETHODCALLTYPE NeedsShareConfirmation(VARIANT_BOOL* confirmation) = 0;  // 17
};

// Answered by device objects: the configuration-manager device instance of the device
// on this machine, the root of the local device walk.
struct IUsbDeviceNode : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Reserved3() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved4() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved5() = 0;
    virtual DWORD STDMETHODCALLTYPE GetDevInst() = 0;  // 6
};

struct IUsbShare : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Reserved3() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved4() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved5() = 0;
    virtual HRESULT STDMETHODCALLTYPE Reserved6() = 0;
    virtual HRESULT STDMETHODCALLTYPE GetDevice(IUsbDevice** device) = 0;  // 7
    // The share's authentication key (a null BSTR when the share has none).
    virtual HRESULT STDMETHODCALLTYPE GetAuthenticationKey(BSTR* key) = 0;  // 8
};

// Implemented by the program; each notification keeps what it needs and returns S_OK at once.
struct IUsbServerListener : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE OnDeviceAdded(IUsbDevice* device) = 0;              // 3
    virtual HRESULT STDMETHODCALLTYPE OnDeviceChanged(IUsbDevice* device) = 0;            // 4
    virtual HRESULT STDMETHODCALLTYPE OnClientConnectionChanged(IUsbDevice* device) = 0;  // 5
    virtual HRESULT STDMETHODCALLTYPE OnClientConnectionChanged2(IUsbDevice* device) = 0; // 6
};

struct IUsbServerOperationHandler;

// An asynchronous server call. The handler is called once, on the thread that set it,
// when the call has ended (at once when it already has).
struct IUsbServerOperation : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE SetCompletedHandler(IUsbServerOperationHandler* handler) = 0;  // 3
    // S_OK and the call's result once ended; E_PENDING before.
    virtual HRESULT STDMETHODCALLTYPE GetResult(HRESULT* result) = 0;  // 4
    // The settings a GetSettingsAsync call read; the caller frees `endpoints`.
    virtual HRESULT STDMETHODCALLTYPE GetSettings(UsbServerSettings* settings) = 0;  // 5
};

struct IUsbServerOperationHandler : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE OnCompleted(IUsbServerOperation* operation) = 0;  // 3
};

// {9b41d2c6-3e87-4f1a-b5d0-7c28e6a93f14}
__CRT_UUID_DECL(IUsbServer, 0x9b41d2c6, 0x3e87, 0x4f1a, 0xb5, 0xd0, 0x7c, 0x28, 0xe6, 0xa9, 0x3f, 0x14)
// {1f6e8a32-c4d9-47b0-9e25-a83d5f07c6b9}
__CRT_UUID_DECL(IUsbServerInit, 0x1f6e8a32, 0xc4d9, 0x47b0, 0x9e, 0x25, 0xa8, 0x3d, 0x5f, 0x07, 0xc6, 0xb9)
// {6c2f8b14-9a3e-4d71-b058-e47a1c93d2f6}
__CRT_UUID_DECL(IUsbDeviceNode, 0x6c2f8b14, 0x9a3e, 0x4d71, 0xb0, 0x58, 0xe4, 0x7a, 0x1c, 0x93, 0xd2, 0xf6)
// {aea81425-4dba-4c0f-8bca-357ccd017cbe}
__CRT_UUID_DECL(IUsbDevice, 0xaea81425, 0x4dba, 0x4c0f, 0x8b, 0xca, 0x35, 0x7c, 0xcd, 0x01, 0x7c, 0xbe)
// {3831ce3f-2824-4e79-afb0-d574a66fe145}
__CRT_UUID_DECL(IUsbShare, 0x3831ce3f, 0x2824, 0x4e79, 0xaf, 0xb0, 0xd5, 0x74, 0xa6, 0x6f, 0xe1, 0x45)
// {e15f8498-ffcb-45b9-852f-ba3a2f813ffa}
__CRT_UUID_DECL(IUsbServerListener, 0xe15f8498, 0xffcb, 0x45b9, 0x85, 0x2f, 0xba, 0x3a, 0x2f, 0x81, 0x3f, 0xfa)
// {010324ab-67fc-475c-9016-fb2a782bc492}
__CRT_UUID_DECL(IUsbServerOperation, 0x010324ab, 0x67fc, 0x475c, 0x90, 0x16, 0xfb, 0x2a, 0x78, 0x2b, 0xc4, 0x92)
// {f82b90e9-b6b3-4dfc-8ba2-83132616aeb0}
__CRT_UUID_DECL(IUsbServerOperationHandler, 0xf82b90e9, 0xb6b3, 0x4dfc, 0x8b, 0xa2, 0x83, 0x13, 0x26, 0x16, 0xae, 0xb0)
