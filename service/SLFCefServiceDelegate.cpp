#include "service/SLFCefServiceDelegate.h"

#include "dbg/NSLog.h"

bool SLFCefServiceDelegate::listenerShouldAcceptNewConnection(SLFCefXPCListener&,
                                                              const std::shared_ptr<SLFCefXPCConnection>& connection)
{
    // The exported interface is the request interface, fixed for every
    // connection (protocol/OverlayProtocol.h); the object is this connection's.
    auto exportedObject = std::make_shared<SLFCefOverlayXPC>();
    connection->setExportedObject(exportedObject);
    // The callback side: errors of its calls are swallowed.
    exportedObject->setCallbackProxy(connection->remoteObjectProxy());
    connection->setInterruptionHandler([] {});
    // Keeps the object alive until the connection has gone.
    connection->setInvalidationHandler([exportedObject] { exportedObject->invalidate(); });
    GError* error = nullptr;
    if (!connection->resume(&error)) {
        NSLog("%s - Could not export the overlay object: %s",
              "-[SLFCefServiceDelegate listener:shouldAcceptNewConnection:]", error ? error->message : "?");
        g_clear_error(&error);
        return false;
    }
    return true;
}
