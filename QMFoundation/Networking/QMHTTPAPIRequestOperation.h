// QMHTTPAPIRequestOperation: one call to a web API (base URL, path, method,
// parameters, header fields, body) as an operation, sent through a
// QMHTTPClient. Meant to be subclassed per call: the hooks decide how a good
// answer is parsed and how an error status or a failure becomes `error`.
//
//   class ListItems : public QMHTTPJSONAPIRequestOperation { ... parseResponse ... };
//   auto list = ListItems::create(URL::fromString("https://api.example.com"), "v1/items", "GET", Dictionary{{"page", 2}});
//   list->start();              // returns with the outcome in
//   if (list->error()) ...
//
// How the URL is made: the base URL's text and the path are joined with
// file-path rules, so runs of "/" collapse, the "//" after the scheme
// included: "https://api.example.com" and "v1/items" give
// "https:/api.example.com/v1/items". The transport reads one to three
// slashes after an http(s) scheme as the start of the host, so the call
// still reaches the host. The parameters never go into this URL; the client
// puts them into the query for GET and DELETE only.
//
// Contract (what runs where, in which order):
// - The operation is concurrent and `start` blocks: it sends, then runs the
//   calling thread's run loop in the default mode until the client's answer
//   has arrived, so the client's callbacks and every hook run on the thread
//   that called `start`. `start` neither looks at `isCancelled` nor marks
//   the operation executing.
// - State is kept in `executingValue` and `finishedValue` and announced to
//   key-value observers under those two names only, never under
//   "isExecuting" or "isFinished". Queues and waiters learn of the end from
//   `start` itself, which returns only when the operation has finished.
// - On an answer: an error status (400 and above) gives `error` =
//   `handleAPIErrorResponse`; any other status runs `parseResponse`, whose
//   out-parameter becomes `error` when it returns false. On a failure:
//   `error` = `handleConnectionError`. Then the operation is finished, then
//   `didFinish` runs. A bare operation therefore succeeds on a 404.
// - A client set before `start` is used as it is: the request built here is
//   not given to it and `basicAuth` is ignored. A used real client raises
//   out of `start` ("can only perform one connection request").
// - Should the run loop fall empty before an answer (the client was
//   cancelled and nothing else is scheduled), `start` returns with the
//   operation unfinished rather than spin; it will never finish.
// - Not thread-safe to configure: set the properties, then start once.
//   `isFinished` and `isExecuting` may be read from any thread.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Operation.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"
#include "QMFoundation/Networking/QMHTTPAuth.h"
#include "QMFoundation/Networking/QMHTTPClient.h"
#include "QMFoundation/Networking/QMHTTPClientDelegate.h"
#include "QMFoundation/Networking/QMHTTPResponse.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

class QMHTTPAPIRequestOperation;
using QMHTTPAPIRequestOperationRef = std::shared_ptr<QMHTTPAPIRequestOperation>;

class QMHTTPAPIRequestOperation : public platform::Operation, public QMHTTPClientDelegate {
public:
    // No method is filled in here: a missing one becomes "GET" in the request.
    static QMHTTPAPIRequestOperationRef create(std::optional<platform::URL> baseURL = std::nullopt,
                                               std::optional<std::string> path = std::nullopt,
                                               std::optional<std::string> method = std::nullopt,
                                               std::optional<platform::Dictionary> params = std::nullopt,
                                               std::optional<platform::Dictionary> headers = std::nullopt,
                                               std::optional<platform::Data> body = std::nullopt);

    const QMHTTPClientProtocolRef& client() const { return client_; }
    void setClient(QMHTTPClientProtocolRef client) { client_ = std::move(client); }
    const QMHTTPAuthRef& basicAuth() const { return basicAuth_; }
    void setBasicAuth(QMHTTPAuthRef basicAuth) { basicAuth_ = std::move(basicAuth); }
    const std::optional<platform::URL>& baseURL() const { return baseURL_; }
    void setBaseURL(std::optional<platform::URL> baseURL) { baseURL_ = std::move(baseURL); }
    const std::optional<std::string>& path() const { return path_; }
    void setPath(std::optional<std::string> path) { path_ = std::move(path); }
    const std::optional<std::string>& method() const { return method_; }
    void setMethod(std::optional<std::string> method) { method_ = std::move(method); }
    const std::optional<platform::Dictionary>& params() const { return params_; }
    void setParams(std::optional<platform::Dictionary> params) { params_ = std::move(params); }
    const std::optional<platform::Dictionary>& headers() const { return headers_; }
    void setHeaders(std::optional<platform::Dictionary> headers) { headers_ = std::move(headers); }
    const std::optional<platform::Data>& body() const { return body_; }
    void setBody(std::optional<platform::Data> body) { body_ = std::move(body); }
    // The outcome: nothing means success.
    const platform::ErrorRef& error() const { return error_; }
    void setError(platform::ErrorRef error) { error_ = std::move(error); }
    bool executingValue() const { return executingValue_.load(); }
    bool finishedValue() const { return finishedValue_.load(); }

    // --- Operation
    void start() override;
    bool isConcurrent() const override { return true; }
    bool isExecuting() const override { return executingValue(); }
    bool isFinished() const override { return finishedValue(); }

    // --- QMHTTPClientDelegate
    void HTTPClientDidReceiveResponse(QMHTTPClientProtocol& client, const QMHTTPResponseRef& response) override;
    void HTTPClientDidFailWithError(QMHTTPClientProtocol& client, const platform::ErrorRef& error) override;

    std::string className() const override { return "QMHTTPAPIRequestOperation"; }
    const platform::PropertyTable& propertyTable() const override;
    bool automaticallyNotifiesObserversForKey(std::string_view key) const override;

protected:
    template <class> friend struct platform::ObjectAllocator;
    QMHTTPAPIRequestOperation(std::optional<platform::URL> baseURL, std::optional<std::string> path,
                              std::optional<std::string> method, std::optional<platform::Dictionary> params,
                              std::optional<platform::Dictionary> headers, std::optional<platform::Data> body);

    // Hooks, with what the base class does.
    // An answer with an error status: its error (none here).
    virtual platform::ErrorRef handleAPIErrorResponse(const QMHTTPResponseRef& response);
    // Any other answer: false and an error when it cannot be used (true here).
    [[nodiscard]] virtual bool parseResponse(const QMHTTPResponseRef& response, platform::ErrorRef* error);
    // A failure of the connection: its error (the same one here).
    virtual platform::ErrorRef handleConnectionError(const platform::ErrorRef& error);
    // Called last, once the outcome is recorded and the operation finished.
    virtual void didFinish() {}

    // Store through the announcing setters only when the value changes.
    void setExecuting(bool executing);
    void setFinished(bool finished);
    void setExecutingValue(bool executing);
    void setFinishedValue(bool finished);

private:
    QMHTTPClientProtocolRef client_;
    QMHTTPAuthRef basicAuth_;
    std::optional<platform::URL> baseURL_;
    std::optional<std::string> path_;
    std::optional<std::string> method_;
    std::optional<platform::Dictionary> params_;
    std::optional<platform::Dictionary> headers_;
    std::optional<platform::Data> body_;
    platform::ErrorRef error_;
    std::atomic<bool> executingValue_{false};
    std::atomic<bool> finishedValue_{false};
};
