// QMHTTPClientProtocol: the interface of an HTTP client, so that a test
// double (QMHTTPTestClient) can stand in for the real QMHTTPClient. The
// design names the interface and the real class alike; in C++ the interface
// carries the suffix.
#pragma once

#include "Platform/Foundation/Error.h"
#include "QMFoundation/Networking/QMHTTPClientDelegate.h"
#include "QMFoundation/Networking/QMHTTPRequest.h"
#include "QMFoundation/Networking/QMHTTPResponse.h"

#include <memory>

class QMHTTPClientProtocol {
public:
    using Delegate = std::weak_ptr<QMHTTPClientDelegate>;

    virtual ~QMHTTPClientProtocol() = default;

    // Starts the request; the outcome reaches the delegate.
    virtual void send() = 0;
    // Blocks until the outcome is in, running the current run loop.
    virtual void waitUntilFinished() = 0;
    virtual void cancel() = 0;
    // `send`, then `waitUntilFinished`: the response, or nothing and the
    // failure in `error` (when given).
    [[nodiscard]] virtual QMHTTPResponseRef send(platform::ErrorRef* error) = 0;

    virtual Delegate delegate() const = 0;
    virtual void setDelegate(Delegate delegate) = 0;
    virtual QMHTTPRequestRef request() const = 0;
    virtual void setRequest(QMHTTPRequestRef request) = 0;
    virtual QMHTTPResponseRef response() const = 0;
    virtual bool isSending() const = 0;
};
using QMHTTPClientProtocolRef = std::shared_ptr<QMHTTPClientProtocol>;

