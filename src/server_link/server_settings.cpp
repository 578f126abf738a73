#include "server_link/server_settings.h"

#include "base/failure.h"

namespace servercfg {

settings_record::settings_record(const server_settings_values& values)
{
    if (values.endpoints) {
        endpoints_.reset(::SysAllocStringLen(values.endpoints->data(), static_cast<UINT>(values.endpoints->size())));
        if (!endpoints_)
            tessel::throw_hresult(E_OUTOFMEMORY);
        record_.fields |= usb_settings_endpoints;
        record_.endpoints = endpoints_.get();
    }
    if (values.port) {
        record_.fields |= usb_settings_port;
        record_.port = *values.port;
    }
    if (values.advertisement) {
        record_.fields |= usb_settings_advertisement;
        record_.advertisement = *values.advertisement ? VARIANT_TRUE : VARIANT_FALSE;
    }
    if (values.statistics) {
        record_.fields |= usb_settings_statistics;
        record_.statistics = *values.statistics ? VARIANT_TRUE : VARIANT_FALSE;
    }
}

server_settings_values values_of(const UsbServerSettings& record)
{
    server_settings_values values;
    if (record.fields & usb_settings_endpoints)
        values.endpoints = record.endpoints ? std::wstring(record.endpoints, ::SysStringLen(record.endpoints))
                                            : std::wstring();
    if (record.fields & usb_settings_port)
        values.port = record.port;
    if (record.fields & usb_settings_advertisement)
        values.advertisement = record.advertisement != VARIANT_FALSE;
    if (record.fields & usb_settings_statistics)
        values.statistics = record.statistics != VARIANT_FALSE;
    return values;
}

}  // namespace servercfg
