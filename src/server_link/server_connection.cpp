#include "server_link/server_connection.h"

#include "base/failure.h"

namespace servercfg {

tessel::com_ptr<IUsbServer> create_server()
{
    tessel::com_ptr<IUsbServer> server;
    tessel::throw_if_failed(
        ::CoCreateInstance(CLSID_UsbServer, nullptr, CLSCTX_ALL, __uuidof(IUsbServer), server.put_void()));
    return server;
}

bool server_is_running(IUsbServer& server) noexcept
{
    tessel::com_ptr<IUsbServer> held(&server);
    // A server that fails to initialise says so through IsRunning below; its own code
    // would tell the user nothing more than "not running" does.
    if (auto init = held.try_query<IUsbServerInit>())
        tessel::log_if_failed(init->Initialize());
    VARIANT_BOOL running = VARIANT_FALSE;
    return SUCCEEDED(server.IsRunning(&running)) && running != VARIANT_FALSE;
}

}  // namespace servercfg
