#include "QMFoundation/REST/QMRESTAPIRequest.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/Unicode.h"

using platform::Value;

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/QMRESTAPIRequest";
}

QMRESTAPIRequest::QMRESTAPIRequest(QMRESTAPIRequestOperationRef requestOperation)
    : requestOperation_(std::move(requestOperation))
{
}

QMRESTAPIRequestRef QMRESTAPIRequest::create()
{
    return create(nullptr);
}

QMRESTAPIRequestRef QMRESTAPIRequest::create(QMRESTAPIRequestOperationRef requestOperation)
{
    // Applications match this failure by its line.
    PLATFORM_PARAMETER_ASSERT_AT_LINE(requestOperation != nullptr, "requestOperation", 40);
    return platform::makeObject<QMRESTAPIRequest>(std::move(requestOperation));
}

void QMRESTAPIRequest::setRequestOperation(QMRESTAPIRequestOperationRef operation)
{
    willChangeValueForKey("requestOperation");
    requestOperation_ = std::move(operation);
    didChangeValueForKey("requestOperation");
}

platform::URL QMRESTAPIRequest::URL() const
{
    return requestOperation_->request()->url();
}

platform::Dictionary QMRESTAPIRequest::headers() const
{
    return requestOperation_->request()->allHTTPHeaderFields();
}

std::optional<std::string> QMRESTAPIRequest::body() const
{
    const auto& data = requestOperation_->request()->httpBody();
    if (!data) {
        return std::nullopt;
    }
    std::string text(data->begin(), data->end());
    if (!platform::isValidUTF8(text)) {
        return std::nullopt;
    }
    return text;
}

bool QMRESTAPIRequest::isLoading() const
{
    return requestOperation_->isExecuting();
}

void QMRESTAPIRequest::cancel()
{
    requestOperation_->cancel();
}

void QMRESTAPIRequest::waitUntilFinished()
{
    requestOperation_->waitUntilFinished();
}

const platform::PropertyTable& QMRESTAPIRequest::propertyTable() const
{
    using Request = QMRESTAPIRequest;
    // Bindings read these when the operation changes, also to nothing by
    // key-value coding: without one the view shows nothing and is not loading.
    static const auto table = platform::PropertyTable::extending<Request>(Object::propertyTable(), {
        {"URL", [](const Request& request) { return request.requestOperation_ ? Value(request.URL()) : Value(); }},
        {"headers", [](const Request& request) { return request.requestOperation_ ? Value(request.headers()) : Value(); }},
        {"body", [](const Request& request) { return request.requestOperation_ ? Value(request.body()) : Value(); }},
        {"loading", [](const Request& request) { return request.requestOperation_ && request.isLoading(); }},
        {"cancelled", [](const Request& request) { return Value(request.isCancelled()); }},
        {"requestOperation", [](const Request& request) { return Value(request.requestOperation()); },
         [](Request& request, const Value& value) {
             request.setRequestOperation(value.objectAs<QMRESTAPIRequestOperation>());
         }},
    });
    return table;
}

std::vector<std::string> QMRESTAPIRequest::keyPathsForValuesAffectingValueForKey(std::string_view key) const
{
    if (key == "URL") {
        return {"requestOperation.URL"};
    }
    if (key == "body") {
        return {"requestOperation.data"};
    }
    if (key == "headers") {
        return {"requestOperation.headers"};
    }
    if (key == "loading") {
        return {"requestOperation.executing"};
    }
    return Object::keyPathsForValuesAffectingValueForKey(key);
}

// The setter announces its own change.
bool QMRESTAPIRequest::automaticallyNotifiesObserversForKey(std::string_view key) const
{
    return key != "requestOperation" && Object::automaticallyNotifiesObserversForKey(key);
}
