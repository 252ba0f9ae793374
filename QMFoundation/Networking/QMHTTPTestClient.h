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
#include "QMFoundation/Networking/QMHTTPAuth.h"
#include "QMFoundation/Networking/QMHTTPClientBase.h"
#include "QMFoundation/Networking/QMHTTPRequest.h"
#include "QMFoundation/Networking/QMHTTPResponse.h"

#include <memory>
#include <string>

class QMHTTPTestClient;
using QMHTTPTestClientRef = std::shared_ptr<QMHTTPTestClient>;

class QMHTTPTestClient : public QMHTTPClientBase {
public:
    static QMHTTPTestClientRef create(QMHTTPRequestRef request = nullptr, QMHTTPResponseRef response = nullptr,
                                      QMHTTPAuthRef auth = nullptr, platform::ErrorRef error = nullptr);
    static QMHTTPTestClientRef client() { return create(); }
    static QMHTTPTestClientRef clientWithResponse(QMHTTPResponseRef response);
    static QMHTTPTestClientRef clientWithRequest(QMHTTPRequestRef request, QMHTTPResponseRef response);

    void send() override;
    using QMHTTPClientBase::send;
    // Nothing to wait for or to stop: the answer came inside `send`.
    void waitUntilFinished() override {}
    void cancel() override {}

    // The canned outcome.
    using QMHTTPClientBase::setError;
    using QMHTTPClientBase::setResponse;

    std::string className() const override { return "QMHTTPTestClient"; }

protected:
    template <class> friend struct platform::ObjectAllocator;
    QMHTTPTestClient(QMHTTPRequestRef request, QMHTTPAuthRef auth) : QMHTTPClientBase(std::move(request), std::move(auth)) {}
};
