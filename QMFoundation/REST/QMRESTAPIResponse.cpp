#include "QMFoundation/REST/QMRESTAPIResponse.h"

using platform::Value;

QMRESTAPIResponseRef QMRESTAPIResponse::create()
{
    return platform::makeObject<QMRESTAPIResponse>();
}

const platform::PropertyTable& QMRESTAPIResponse::propertyTable() const
{
    using Response = QMRESTAPIResponse;
    static const auto table = platform::PropertyTable::extending<Response>(Object::propertyTable(), {
        {"statusCode", [](const Response& response) { return Value(response.statusCode()); },
         [](Response& response, const Value& value) { response.setStatusCode(value.integerValue().value_or(0)); }},
        {"headers", [](const Response& response) { return Value(response.headers()); },
         [](Response& response, const Value& value) {
             response.setHeaders(value.dictionary() != nullptr ? *value.dictionary() : platform::Dictionary{});
         }},
        {"body", [](const Response& response) { return Value(response.body()); },
         [](Response& response, const Value& value) {
             response.setBody(value.string() != nullptr ? std::optional<std::string>(*value.string()) : std::nullopt);
         }},
        {"result", [](const Response& response) { return response.result(); },
         [](Response& response, const Value& value) { response.setResult(value); }},
        {"error", [](const Response& response) { return Value(response.error()); },
         [](Response& response, const Value& value) { response.setError(value.error()); }},
        {"hasError", [](const Response& response) { return Value(response.hasError()); }},
        {"serverTrustExceptionCookie",
         [](const Response& response) { return Value(response.serverTrustExceptionCookie()); },
         [](Response& response, const Value& value) {
             response.setServerTrustExceptionCookie(value.data() != nullptr ? std::optional<platform::Data>(*value.data())
                                                                            : std::nullopt);
         }},
    });
    return table;
}
