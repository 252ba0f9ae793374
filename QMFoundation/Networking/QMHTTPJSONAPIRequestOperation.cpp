#include "QMFoundation/Networking/QMHTTPJSONAPIRequestOperation.h"

#include "Platform/Foundation/JSON.h"

#include <utility>

QMHTTPJSONAPIRequestOperation::QMHTTPJSONAPIRequestOperation(std::optional<platform::URL> baseURL,
                                                             std::optional<std::string> path,
                                                             std::optional<std::string> method,
                                                             std::optional<platform::Dictionary> params,
                                                             std::optional<platform::Dictionary> headers)
    : QMHTTPJSONAPIRequestOperation(std::move(baseURL), std::move(path), method, encode(method, std::move(params), headers))
{
}

QMHTTPJSONAPIRequestOperation::QMHTTPJSONAPIRequestOperation(std::optional<platform::URL> baseURL,
                                                             std::optional<std::string> path,
                                                             std::optional<std::string> method, Encoded encoded)
    : QMHTTPAPIRequestOperation(std::move(baseURL), std::move(path), std::move(method), std::move(encoded.params),
                                std::move(encoded.headers), std::move(encoded.body))
{
}

QMHTTPJSONAPIRequestOperationRef QMHTTPJSONAPIRequestOperation::create(std::optional<platform::URL> baseURL,
                                                                       std::optional<std::string> path,
                                                                       std::optional<std::string> method,
                                                                       std::optional<platform::Dictionary> params,
                                                                       std::optional<platform::Dictionary> headers)
{
    return platform::makeObject<QMHTTPJSONAPIRequestOperation>(std::move(baseURL), std::move(path), std::move(method),
                                                               std::move(params), std::move(headers));
}

QMHTTPJSONAPIRequestOperation::Encoded QMHTTPJSONAPIRequestOperation::encode(const std::optional<std::string>& method,
                                                                             std::optional<platform::Dictionary> params,
                                                                             const std::optional<platform::Dictionary>& headers)
{
    Encoded encoded{std::nullopt, headers.value_or(platform::Dictionary()), std::nullopt};
    if (method == "GET" || method == "DELETE") {
        encoded.params = std::move(params);
        return encoded;
    }
    if (!params) {
        return encoded;
    }
    if (const auto json = platform::JSONSerialization::stringWithValue(platform::Value(std::move(*params)))) {
        encoded.body = platform::Data(json->begin(), json->end());
    }
    encoded.headers.set("Content-Type", "application/json; charset=utf-8");
    for (const auto& [field, value] : headers.value_or(platform::Dictionary())) {
        encoded.headers.set(field, value);
    }
    return encoded;
}
