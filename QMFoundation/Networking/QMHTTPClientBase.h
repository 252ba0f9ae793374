// QMHTTPClientBase: what the real client and the test double share: the
// sending flag, the weak delegate, auth, request, response and error, the
// synchronous `send:` and the way the outcome is reported (leave the
// sending state, then tell the delegate).
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Object.h"
#include "QMFoundation/Networking/QMHTTPAuth.h"
#include "QMFoundation/Networking/QMHTTPClientProtocol.h"

#include <memory>

class QMHTTPClientBase : public platform::Object, public QMHTTPClientProtocol {
public:
    // `send`, `waitUntilFinished`, then the response, or nothing and the
    // error in `error` (when given).
    [[nodiscard]] QMHTTPResponseRef send(platform::ErrorRef* error) final;
    using QMHTTPClientProtocol::send;

    Delegate delegate() const override { return delegate_; }
    void setDelegate(Delegate delegate) override { delegate_ = std::move(delegate); }
    QMHTTPRequestRef request() const override { return request_; }
    void setRequest(QMHTTPRequestRef request) override { request_ = std::move(request); }
    QMHTTPResponseRef response() const override { return response_; }
    bool isSending() const override { return sending_; }

    const QMHTTPAuthRef& auth() const { return auth_; }
    void setAuth(QMHTTPAuthRef auth) { auth_ = std::move(auth); }
    const platform::ErrorRef& error() const { return error_; }

protected:
    QMHTTPClientBase(QMHTTPRequestRef request, QMHTTPAuthRef auth) : auth_(std::move(auth)), request_(std::move(request)) {}

    void setSending(bool sending) { sending_ = sending; }
    void setResponse(QMHTTPResponseRef response) { response_ = std::move(response); }
    void setError(platform::ErrorRef error) { error_ = std::move(error); }

    // Leave the sending state, then tell the delegate of `response` or `error`.
    void didReceiveResponse();
    void didFailToConnect();

private:
    bool sending_ = false;
    Delegate delegate_;
    QMHTTPAuthRef auth_;
    QMHTTPRequestRef request_;
    QMHTTPResponseRef response_;
    platform::ErrorRef error_;
};
