#include "QMFoundation/Networking/QMHTTPRequest.h"

#include "QMFoundation/Objects/NSObject+QMObjectDescribing.h"

#include <array>
#include <utility>

using platform::Value;

QMHTTPRequestRef QMHTTPRequest::create(std::optional<platform::URL> URL, std::optional<std::string> method,
                                       std::optional<platform::Dictionary> params, std::optional<platform::Data> data,
                                       std::optional<platform::Dictionary> headers)
{
    auto request = platform::makeObject<QMHTTPRequest>();
    request->URL_ = std::move(URL);
    request->method_ = method ? std::move(method) : std::optional<std::string>("GET");
    request->params_ = std::move(params);
    request->data_ = std::move(data);
    request->headers_ = std::move(headers);
    return request;
}

QMHTTPRequestRef QMHTTPRequest::requestWithURL(std::optional<platform::URL> URL)
{
    return create(std::move(URL));
}

QMHTTPRequestRef QMHTTPRequest::requestWithURL(std::optional<platform::URL> URL, std::optional<std::string> method,
                                               std::optional<platform::Dictionary> params)
{
    return create(std::move(URL), std::move(method), std::move(params));
}

QMHTTPRequestRef QMHTTPRequest::requestWithURL(std::optional<platform::URL> URL, std::optional<std::string> method,
                                               std::optional<platform::Dictionary> params,
                                               std::optional<platform::Data> data,
                                               std::optional<platform::Dictionary> headers)
{
    return create(std::move(URL), std::move(method), std::move(params), std::move(data), std::move(headers));
}

template <typename T>
void QMHTTPRequest::change(std::string_view key, T& field, T value)
{
    willChangeValueForKey(key);
    field = std::move(value);
    didChangeValueForKey(key);
}

void QMHTTPRequest::setURL(std::optional<platform::URL> URL) { change("URL", URL_, std::move(URL)); }
void QMHTTPRequest::setMethod(std::optional<std::string> method) { change("method", method_, std::move(method)); }
void QMHTTPRequest::setParams(std::optional<platform::Dictionary> params) { change("params", params_, std::move(params)); }
void QMHTTPRequest::setData(std::optional<platform::Data> data) { change("data", data_, std::move(data)); }
void QMHTTPRequest::setHeaders(std::optional<platform::Dictionary> headers) { change("headers", headers_, std::move(headers)); }
void QMHTTPRequest::setName(std::optional<std::string> name) { change("name", name_, std::move(name)); }

std::optional<std::vector<std::string>> QMHTTPRequest::attributeKeys() const
{
    return std::vector<std::string>{"URL", "method", "params", "headers", "data"};
}

std::string QMHTTPRequest::description() const
{
    return defaultDescription(*this);
}

const platform::PropertyTable& QMHTTPRequest::propertyTable() const
{
    using Request = QMHTTPRequest;
    static const auto table = platform::PropertyTable::extending<Request>(Object::propertyTable(), {
        {"URL", [](const Request& request) { return Value(request.URL()); },
         [](Request& request, const Value& value) { request.setURL(value.url() ? std::optional(*value.url()) : std::nullopt); }},
        {"method", [](const Request& request) { return Value(request.method()); },
         [](Request& request, const Value& value) { request.setMethod(value.string() ? std::optional(*value.string()) : std::nullopt); }},
        {"params", [](const Request& request) { return Value(request.params()); },
         [](Request& request, const Value& value) { request.setParams(value.dictionary() ? std::optional(*value.dictionary()) : std::nullopt); }},
        {"data", [](const Request& request) { return Value(request.data()); },
         [](Request& request, const Value& value) { request.setData(value.data() ? std::optional(*value.data()) : std::nullopt); }},
        {"headers", [](const Request& request) { return Value(request.headers()); },
         [](Request& request, const Value& value) { request.setHeaders(value.dictionary() ? std::optional(*value.dictionary()) : std::nullopt); }},
        {"name", [](const Request& request) { return Value(request.name()); },
         [](Request& request, const Value& value) { request.setName(value.string() ? std::optional(*value.string()) : std::nullopt); }},
        {"isGETRequest", [](const Request& request) { return Value(request.isGETRequest()); }},
        {"isPOSTRequest", [](const Request& request) { return Value(request.isPOSTRequest()); }},
        {"isPUTRequest", [](const Request& request) { return Value(request.isPUTRequest()); }},
        {"isDELETERequest", [](const Request& request) { return Value(request.isDELETERequest()); }},
    });
    return table;
}

std::vector<std::string> QMHTTPRequest::keyPathsForValuesAffectingValueForKey(std::string_view key) const
{
    static constexpr std::array<std::string_view, 4> kPredicates{"isGETRequest", "isPOSTRequest", "isPUTRequest", "isDELETERequest"};
    for (const auto predicate : kPredicates) {
        if (key == predicate) {
            return {"method"};
        }
    }
    return Object::keyPathsForValuesAffectingValueForKey(key);
}

// The setters announce their own changes.
bool QMHTTPRequest::automaticallyNotifiesObserversForKey(std::string_view key) const
{
    static constexpr std::array<std::string_view, 6> kAnnounced{"URL", "method", "params", "data", "headers", "name"};
    for (const auto announced : kAnnounced) {
        if (key == announced) {
            return false;
        }
    }
    return Object::automaticallyNotifiesObserversForKey(key);
}
