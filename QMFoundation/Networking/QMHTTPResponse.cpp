#include "QMFoundation/Networking/QMHTTPResponse.h"

#include "Platform/Foundation/Exception.h"
#include "QMFoundation/Strings/NSData+QMStringDecoding.h"

#include <utility>

using platform::Value;

namespace {

constexpr const char* kAssertionSourceFile = "QMFoundation/QMHTTPResponse";

}  // namespace

QMHTTPResponseRef QMHTTPResponse::create(std::int64_t status, std::optional<platform::Dictionary> headers,
                                         std::optional<platform::Data> body)
{
    auto response = platform::makeObject<QMHTTPResponse>();
    response->status_ = status;
    response->headers_ = std::move(headers);
    response->body_ = std::move(body);
    if (response->body_) {
        response->content_ = stringUsingUTF8Encoding(*response->body_);
    }
    return response;
}

QMHTTPResponseRef QMHTTPResponse::responseWithStatus(std::int64_t status, std::optional<platform::Dictionary> headers,
                                                     std::optional<platform::Data> body)
{
    return create(status, std::move(headers), std::move(body));
}

QMHTTPResponseRef QMHTTPResponse::responseFromURLResponse(const platform::HTTPURLResponseRef& URLResponse,
                                                          std::optional<platform::Data> body)
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(URLResponse != nullptr, "URLResponse != nil", 31);
    return create(URLResponse->statusCode(), URLResponse->allHeaderFields(), std::move(body));
}

void QMHTTPResponse::setStatus(std::int64_t status)
{
    willChangeValueForKey("status");
    status_ = status;
    didChangeValueForKey("status");
}

void QMHTTPResponse::setHeaders(std::optional<platform::Dictionary> headers)
{
    willChangeValueForKey("headers");
    headers_ = std::move(headers);
    didChangeValueForKey("headers");
}

void QMHTTPResponse::setBody(std::optional<platform::Data> body)
{
    willChangeValueForKey("body");
    body_ = std::move(body);
    didChangeValueForKey("body");
}

void QMHTTPResponse::setContent(std::optional<std::string> content)
{
    willChangeValueForKey("content");
    content_ = std::move(content);
    didChangeValueForKey("content");
}

const platform::PropertyTable& QMHTTPResponse::propertyTable() const
{
    using Response = QMHTTPResponse;
    static const auto table = platform::PropertyTable::extending<Response>(Object::propertyTable(), {
        {"status", [](const Response& response) { return Value(response.status()); },
         [](Response& response, const Value& value) { response.setStatus(value.integerValue().value_or(0)); }},
        {"headers", [](const Response& response) { return Value(response.headers()); },
         [](Response& response, const Value& value) { response.setHeaders(value.dictionary() ? std::optional(*value.dictionary()) : std::nullopt); }},
        {"body", [](const Response& response) { return Value(response.body()); },
         [](Response& response, const Value& value) { response.setBody(value.data() ? std::optional(*value.data()) : std::nullopt); }},
        {"content", [](const Response& response) { return Value(response.content()); },
         [](Response& response, const Value& value) { response.setContent(value.string() ? std::optional(*value.string()) : std::nullopt); }},
        // Readable under the property's name and under its getter's.
        {"errorResponse", [](const Response& response) { return Value(response.isErrorResponse()); }},
        {"isErrorResponse", [](const Response& response) { return Value(response.isErrorResponse()); }},
    });
    return table;
}

std::vector<std::string> QMHTTPResponse::keyPathsForValuesAffectingValueForKey(std::string_view key) const
{
    if (key == "errorResponse") {
        return {"status"};
    }
    return Object::keyPathsForValuesAffectingValueForKey(key);
}

bool QMHTTPResponse::automaticallyNotifiesObserversForKey(std::string_view key) const
{
    if (key == "status" || key == "headers" || key == "body" || key == "content") {
        return false;  // the setters announce these
    }
    return Object::automaticallyNotifiesObserversForKey(key);
}
