// QMHTTPTestClient: a stand-in for QMHTTPClient that answers with a canned
// response or a canned error, synchronously inside `send`, without touching
// the network.
//
//   auto client = QMHTTPTestClient::clientWithResponse(QMHTTPResponse::responseWithStatus(200, {}, body));
//   operation->setClient(client);
//   operation->start();   // finishes at once
//
// It reports exactly as the real client does (`sending` false first, then
// the delegate), but it tests `sending`, not a connection, for reuse: it can
// be sent again once it has answered. The request and auth are kept and
// never read; a missing canned response is handed back as it is.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Object.h"
#include "QMFoundation/Networking/QMHTTPAuth.h"
#include "QMFoundation/Networking/QMHTTPClient.h"
#include "QMFoundation/Networking/QMHTTPRequest.h"
#include "QMFoundation/Networking/QMHTTPResponse.h"

#include <memory>
#include <string>

class QMHTTPTestClient;
using QMHTTPTestClientRef = std::shared_ptr<QMHTTPTestClient>;

class QMHTTPTestClient : public platform::Object, public QMHTTPClientProtocol {
public:
    static QMHTTPTestClientRef create(QMHTTPRequestRef request = nullptr, QMHTTPResponseRef response = nullptr,
                                      QMHTTPAuthRef auth = nullptr, platform::ErrorRef error = nullptr);
    static QMHTTPTestClientRef client() { return create(); }
    static QMHTTPTestClientRef clientWithResponse(QMHTTPResponseRef response);
    static QMHTTPTestClientRef clientWithRequest(QMHTTPRequestRef request, QMHTTPResponseRef response);

    void send() override;
    // Nothing to wait for or to stop: the answer came inside `send`.
    void waitUntilFinished() override {}
    void cancel() override {}
    [[nodiscard]] QMHTTPResponseRef send(platform::ErrorRef* error) override;

    Delegate delegate() const override { return delegate_; }
    void setDelegate(Delegate delegate) override { delegate_ = std::move(delegate); }
    QMHTTPRequestRef request() const override { return request_; }
    void setRequest(QMHTTPRequestRef request) override { request_ = std::move(request); }
    QMHTTPResponseRef response() const override { return response_; }
    void setResponse(QMHTTPResponseRef response) { response_ = std::move(response); }
    bool isSending() const override { return sending_; }

    const QMHTTPAuthRef& auth() const { return auth_; }
    void setAuth(QMHTTPAuthRef auth) { auth_ = std::move(auth); }
    const platform::ErrorRef& error() const { return error_; }
    void setError(platform::ErrorRef error) { error_ = std::move(error); }

    std::string className() const override { return "QMHTTPTestClient"; }

protected:
    QMHTTPTestClient() = default;

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
