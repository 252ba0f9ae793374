#include "QMFoundation/Networking/QMHTTPAPIRequestOperation.h"

#include "Platform/Foundation/RunLoop.h"
#include "Platform/Foundation/StringPaths.h"
#include "QMFoundation/Networking/QMHTTPRequest.h"

#include <utility>

using platform::Value;

QMHTTPAPIRequestOperation::QMHTTPAPIRequestOperation(std::optional<platform::URL> baseURL, std::optional<std::string> path,
                                                     std::optional<std::string> method,
                                                     std::optional<platform::Dictionary> params,
                                                     std::optional<platform::Dictionary> headers,
                                                     std::optional<platform::Data> body)
    : baseURL_(std::move(baseURL)),
      path_(std::move(path)),
      method_(std::move(method)),
      params_(std::move(params)),
      headers_(std::move(headers)),
      body_(std::move(body))
{
}

QMHTTPAPIRequestOperationRef QMHTTPAPIRequestOperation::create(std::optional<platform::URL> baseURL,
                                                               std::optional<std::string> path,
                                                               std::optional<std::string> method,
                                                               std::optional<platform::Dictionary> params,
                                                               std::optional<platform::Dictionary> headers,
                                                               std::optional<platform::Data> body)
{
    return platform::makeObject<QMHTTPAPIRequestOperation>(std::move(baseURL), std::move(path), std::move(method), std::move(params),
                                                           std::move(headers), std::move(body));
}

void QMHTTPAPIRequestOperation::start()
{
    // File-path joining, kept as callers know it (see the header). The
    // parameters are left out of the URL on purpose: the client adds them
    // for the methods that carry them, and only once.
    std::optional<platform::URL> URL;
    if (baseURL_) {
        URL = platform::URL::fromString(platform::stringByAppendingPathComponent(baseURL_->absoluteString(), path_.value_or("")));
    }
    const auto request = QMHTTPRequest::requestWithURL(std::move(URL), method_, params_, body_, headers_);
    if (!client_) {
        client_ = QMHTTPClient::clientWithRequest(request, basicAuth_);
    }
    client_->setDelegate(std::static_pointer_cast<QMHTTPAPIRequestOperation>(shared_from_this()));
    client_->send();

    const auto loop = platform::RunLoop::currentRunLoop();
    const auto distantFuture = platform::Date::now().dateByAddingTimeInterval(1e9);
    while (!isFinished() && loop->runModeBeforeDate(platform::NSDefaultRunLoopMode, distantFuture)) {
    }
    operationStateDidChange();
}

void QMHTTPAPIRequestOperation::HTTPClientDidReceiveResponse(QMHTTPClientProtocol&, const QMHTTPResponseRef& response)
{
    setExecuting(false);
    if (response && response->isErrorResponse()) {
        error_ = handleAPIErrorResponse(response);
    } else {
        platform::ErrorRef parseError;
        if (!parseResponse(response, &parseError)) {
            error_ = parseError;
        }
    }
    setFinished(true);
    didFinish();
}

void QMHTTPAPIRequestOperation::HTTPClientDidFailWithError(QMHTTPClientProtocol&, const platform::ErrorRef& error)
{
    setExecuting(false);
    error_ = handleConnectionError(error);
    setFinished(true);
    didFinish();
}

platform::ErrorRef QMHTTPAPIRequestOperation::handleAPIErrorResponse(const QMHTTPResponseRef&)
{
    return nullptr;
}

bool QMHTTPAPIRequestOperation::parseResponse(const QMHTTPResponseRef&, platform::ErrorRef*)
{
    return true;
}

platform::ErrorRef QMHTTPAPIRequestOperation::handleConnectionError(const platform::ErrorRef& error)
{
    return error;
}

void QMHTTPAPIRequestOperation::setExecutingValue(bool executing)
{
    willChangeValueForKey("executingValue");
    executingValue_.store(executing);
    didChangeValueForKey("executingValue");
}

void QMHTTPAPIRequestOperation::setFinishedValue(bool finished)
{
    willChangeValueForKey("finishedValue");
    finishedValue_.store(finished);
    didChangeValueForKey("finishedValue");
}

void QMHTTPAPIRequestOperation::setExecuting(bool executing)
{
    if (executingValue() != executing) {
        setExecutingValue(executing);
    }
}

void QMHTTPAPIRequestOperation::setFinished(bool finished)
{
    if (finishedValue() != finished) {
        setFinishedValue(finished);
    }
}

bool QMHTTPAPIRequestOperation::automaticallyNotifiesObserversForKey(std::string_view key) const
{
    // Announced by their setters, under these names and no others.
    if (key == "isExecuting" || key == "isFinished" || key == "executingValue" || key == "finishedValue") {
        return false;
    }
    return Operation::automaticallyNotifiesObserversForKey(key);
}

const platform::PropertyTable& QMHTTPAPIRequestOperation::propertyTable() const
{
    using Call = QMHTTPAPIRequestOperation;
    static const auto table = platform::PropertyTable::extending<Call>(Operation::propertyTable(), {
        {"baseURL", [](const Call& call) { return Value(call.baseURL()); }},
        {"path", [](const Call& call) { return Value(call.path()); }},
        {"method", [](const Call& call) { return Value(call.method()); }},
        {"params", [](const Call& call) { return Value(call.params()); }},
        {"headers", [](const Call& call) { return Value(call.headers()); }},
        {"body", [](const Call& call) { return Value(call.body()); }},
        {"error", [](const Call& call) { return Value(call.error()); }},
        {"executingValue", [](const Call& call) { return Value(call.executingValue()); },
         [](Call& call, const Value& value) { call.setExecutingValue(value.boolValue().value_or(false)); }},
        {"finishedValue", [](const Call& call) { return Value(call.finishedValue()); },
         [](Call& call, const Value& value) { call.setFinishedValue(value.boolValue().value_or(false)); }},
    });
    return table;
}
