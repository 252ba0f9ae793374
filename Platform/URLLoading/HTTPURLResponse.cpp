#include "Platform/URLLoading/HTTPURLResponse.h"

#include "Platform/URLLoading/internal/HeaderFieldNames.h"

namespace platform {

HTTPURLResponse::HTTPURLResponse(URL url, std::int64_t statusCode, std::string httpVersion, Dictionary headerFields)
    : url_(std::move(url)), statusCode_(statusCode), httpVersion_(std::move(httpVersion)), headerFields_(std::move(headerFields))
{
}

HTTPURLResponseRef HTTPURLResponse::create(URL url, std::int64_t statusCode, std::string httpVersion, Dictionary headerFields)
{
    return makeObject<HTTPURLResponse>(std::move(url), statusCode, std::move(httpVersion), std::move(headerFields));
}

std::optional<std::string> HTTPURLResponse::valueForHTTPHeaderField(std::string_view field) const
{
    for (const auto& [name, value] : headerFields_) {
        if (urlloading_internal::sameFieldName(name, field)) {
            const auto* text = value.string();
            return text ? std::optional<std::string>(*text) : std::nullopt;
        }
    }
    return std::nullopt;
}

std::string HTTPURLResponse::description() const
{
    return "<" + className() + ": " + url_.absoluteString() + " { Status Code: " + std::to_string(statusCode_) + " }>";
}

}  // namespace platform
