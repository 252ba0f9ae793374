#include "Platform/URLLoading/URLRequest.h"

#include "Platform/URLLoading/internal/HeaderFieldNames.h"

#include <algorithm>

namespace platform {

URLRequest::URLRequest(URL url, URLRequestCachePolicy cachePolicy, double timeoutInterval)
    : url_(std::move(url)), cachePolicy_(cachePolicy), timeoutInterval_(timeoutInterval)
{
}

URLRequestRef URLRequest::create(URL url, URLRequestCachePolicy cachePolicy, double timeoutInterval)
{
    return makeObject<URLRequest>(std::move(url), cachePolicy, timeoutInterval);
}

MutableURLRequestRef MutableURLRequest::create(URL url, URLRequestCachePolicy cachePolicy, double timeoutInterval)
{
    return makeObject<MutableURLRequest>(std::move(url), cachePolicy, timeoutInterval);
}

std::optional<std::string> URLRequest::valueForHTTPHeaderField(std::string_view field) const
{
    const auto found = std::find_if(headerFields_.begin(), headerFields_.end(),
                                    [&](const auto& entry) { return urlloading_internal::sameFieldName(entry.first, field); });
    return found == headerFields_.end() ? std::nullopt : std::optional<std::string>(found->second);
}

Dictionary URLRequest::allHTTPHeaderFields() const
{
    Dictionary fields;
    for (const auto& [name, value] : headerFields_) {
        fields.set(name, value);
    }
    return fields;
}

void URLRequest::copyFields(const URLRequest& other)
{
    httpMethod_ = other.httpMethod_;
    httpShouldHandleCookies_ = other.httpShouldHandleCookies_;
    httpBody_ = other.httpBody_;
    headerFields_ = other.headerFields_;
}

URLRequestRef URLRequest::copy() const
{
    auto copied = makeObject<URLRequest>(url_, cachePolicy_, timeoutInterval_);
    copied->copyFields(*this);
    return copied;
}

MutableURLRequestRef URLRequest::mutableCopy() const
{
    auto copied = MutableURLRequest::create(url_, cachePolicy_, timeoutInterval_);
    copied->copyFields(*this);
    return copied;
}

std::string URLRequest::description() const
{
    return "<" + className() + ": " + url_.absoluteString() + ">";
}

void MutableURLRequest::setValueForHTTPHeaderField(std::optional<std::string> value, std::string_view field)
{
    const auto found = std::find_if(headerFields_.begin(), headerFields_.end(),
                                    [&](const auto& entry) { return urlloading_internal::sameFieldName(entry.first, field); });
    if (!value) {
        if (found != headerFields_.end()) {
            headerFields_.erase(found);
        }
    } else if (found != headerFields_.end()) {
        found->second = std::move(*value);
    } else {
        headerFields_.emplace_back(std::string(field), std::move(*value));
    }
}

}  // namespace platform
