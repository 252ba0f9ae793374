// QMHTTPClientDelegate: how a client reports the outcome of its one request.
// Both methods are optional. Exactly one of them is called per completed
// send, on the thread whose run loop serves the client, after the client
// has left its sending state.
#pragma once

#include "Platform/Foundation/Error.h"
#include "QMFoundation/Networking/QMHTTPResponse.h"

class QMHTTPClientProtocol;

class QMHTTPClientDelegate {
public:
    virtual ~QMHTTPClientDelegate() = default;

    // The request completed at the HTTP level, whatever the status.
    virtual void HTTPClientDidReceiveResponse(QMHTTPClientProtocol& client, const QMHTTPResponseRef& response)
    {
        static_cast<void>(client);
        static_cast<void>(response);
    }
    // The request could not be completed: no answer, or not a whole one.
    virtual void HTTPClientDidFailWithError(QMHTTPClientProtocol& client, const platform::ErrorRef& error)
    {
        static_cast<void>(client);
        static_cast<void>(error);
    }
};
