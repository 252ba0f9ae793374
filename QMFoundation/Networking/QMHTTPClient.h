// QMHTTPClient: sends exactly one HTTP request over the platform's URL
// loading and hands back one response record.
//
//   platform::ErrorRef error;
//   auto client = QMHTTPClient::clientWithRequest(request, QMHTTPBasicAuth::basicAuthWithUsername("u", "p"));
//   if (auto response = client->send(&error)) { ... response->status(), response->content() ... }
//
// The interface is QMHTTPClientProtocol, so that QMHTTPTestClient can stand
// in for the real one.
//
// What goes over the wire:
// - GET and DELETE (exactly so spelled) carry `params` in the query. When the
//   URL already has a "?", the parameters are appended with no "&" between:
//   "...?a=1" plus {"b": 2} gives "...?a=1b=2". Callers rely on this.
// - POST and PUT (exactly so spelled) carry `data` as the body; no other
//   method sends a body or the parameters.
// - A 15-second inactivity time-out, no local cache, no cookies either way.
// - With an auth object, "Authorization: Basic <user:password in Base64>"
//   is sent preemptively; credentials outside ASCII give "Basic " alone.
//   Caller header fields are set afterwards and so replace it. Redirects are
//   followed; "Authorization" is not carried to another host.
//
// Contract (what runs where, in which order):
// - A client is confined to the thread that calls `send`: the connection
//   runs on that thread's run loop in the default mode, and the delegate is
//   called there while the loop runs. `waitUntilFinished` runs that loop
//   until the outcome is in; call it on the same thread. Nothing is locked.
//   Debug builds check it: the thread of the first `send`, `waitUntilFinished`
//   or `cancel` owns the client, and those calls from any other thread raise
//   "NSInternalInconsistencyException" through the assertion handler.
// - A client is single-use: a second `send` raises
//   "NSInternalInconsistencyException", even after the first has finished.
// - `sending` is true from `send` until the outcome; it turns false before
//   the delegate is told. `cancel` stops the connection silently: `sending`
//   stays true and the delegate hears nothing; a later `waitUntilFinished`
//   returns once the run loop has nothing else to run.
// - An HTTP error status is an answer (`HTTPClientDidReceiveResponse`), not
//   a failure; a failure is the transport's error, unchanged.
// - The delegate is held weakly; while the connection is in flight it holds
//   the client, so a client need not be kept by its caller.
#pragma once

#include "Platform/Dispatch/SequenceChecker.h"
#include "Platform/Foundation/Error.h"
#include "Platform/URLLoading/URLConnection.h"
#include "Platform/URLLoading/URLRequest.h"
#include "QMFoundation/Networking/QMHTTPAuth.h"
#include "QMFoundation/Networking/QMHTTPClientBase.h"
#include "QMFoundation/Networking/QMHTTPRequest.h"
#include "QMFoundation/Networking/QMHTTPResponse.h"

#include <memory>
#include <optional>
#include <string>

class QMHTTPClient;
using QMHTTPClientRef = std::shared_ptr<QMHTTPClient>;

class QMHTTPClient : public QMHTTPClientBase, public platform::URLConnectionDelegate {
public:
    static constexpr double TimeoutInterval = 15.0;

    static QMHTTPClientRef create(QMHTTPRequestRef request = nullptr, QMHTTPAuthRef auth = nullptr);
    static QMHTTPClientRef client() { return create(); }
    static QMHTTPClientRef clientWithRequest(QMHTTPRequestRef request, QMHTTPAuthRef auth = nullptr);

    void send() override;
    using QMHTTPClientBase::send;
    void waitUntilFinished() override;
    void cancel() override;

    // Set by `send`.
    const platform::URLConnectionRef& URLConnection() const { return URLConnection_; }
    const platform::HTTPURLResponseRef& URLResponse() const { return URLResponse_; }
    const std::optional<platform::Data>& URLResponseBody() const { return URLResponseBody_; }

    // --- What the connection reports
    void connectionDidReceiveResponse(const platform::URLConnectionRef& connection,
                                      const platform::HTTPURLResponseRef& response) override;
    void connectionDidReceiveData(const platform::URLConnectionRef& connection, const platform::Data& data) override;
    void connectionDidFinishLoading(const platform::URLConnectionRef& connection) override;
    void connectionDidFailWithError(const platform::URLConnectionRef& connection, const platform::ErrorRef& error) override;

    std::string className() const override { return "QMHTTPClient"; }

protected:
    template <class> friend struct platform::ObjectAllocator;
    QMHTTPClient(QMHTTPRequestRef request, QMHTTPAuthRef auth);

    // The platform request for `request` and `auth`, as the banner describes
    // it; nothing when no URL can be made of it. A missing request fails the
    // parameter assertion "request != nil". Subclasses may adjust the result
    // (a shorter time-out, say).
    virtual platform::MutableURLRequestRef URLRequestForRequest(const QMHTTPRequestRef& request, const QMHTTPAuthRef& auth);
    // The connection for that request, not started; nothing when there is no
    // platform request.
    platform::URLConnectionRef URLConnectionForRequest(const QMHTTPRequestRef& request, const QMHTTPAuthRef& auth);

private:
    [[no_unique_address]] platform::SequenceChecker sequence_;
    bool sent_ = false;
    platform::URLConnectionRef URLConnection_;
    platform::HTTPURLResponseRef URLResponse_;
    std::optional<platform::Data> URLResponseBody_;
};
