// URLRequest: what one URL load asks for (URL, method, header fields, body,
// cache policy, time-out, cookie switch), immutable, and MutableURLRequest,
// the form a caller fills in.
//
//   auto request = MutableURLRequest::create(*URL::fromString("https://api.example.com/v1/items"),
//                                            URLRequestCachePolicy::ReloadIgnoringLocalCacheData, 15);
//   request->setHTTPMethod("POST");
//   request->setValueForHTTPHeaderField("application/json", "Content-Type");
//   request->setHTTPBody(body);
//   auto connection = URLConnection::create(request->copy(), delegate);
//
// Contract:
// - Header field names compare without regard to letter case; setting a
//   field replaces any value under the same name and keeps the name first
//   given. Fields are sent in the order they were first set.
// - The time-out is an inactivity time-out: a load fails when no byte has
//   moved for that long, not when the whole transfer takes longer.
// - A request is a value: `copy` and `mutableCopy` give independent objects,
//   and an immutable request may be shared between threads.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace platform {

// The platform's values. Nothing is cached by this transport, so every
// policy loads from the origin.
enum class URLRequestCachePolicy : int {
    UseProtocolCachePolicy = 0,
    ReloadIgnoringLocalCacheData = 1,
    ReturnCacheDataElseLoad = 2,
    ReturnCacheDataDontLoad = 3,
};

class URLRequest;
class MutableURLRequest;
using URLRequestRef = std::shared_ptr<const URLRequest>;
using MutableURLRequestRef = std::shared_ptr<MutableURLRequest>;

class URLRequest : public Object {
public:
    using HeaderFields = std::vector<std::pair<std::string, std::string>>;

    static constexpr double DefaultTimeoutInterval = 60;

    static URLRequestRef create(URL url, URLRequestCachePolicy cachePolicy = URLRequestCachePolicy::UseProtocolCachePolicy,
                                double timeoutInterval = DefaultTimeoutInterval);

    const URL& url() const { return url_; }
    URLRequestCachePolicy cachePolicy() const { return cachePolicy_; }
    double timeoutInterval() const { return timeoutInterval_; }
    // "GET" unless set.
    const std::string& httpMethod() const { return httpMethod_; }
    // True unless switched off; this transport never stores or sends cookies
    // either way.
    bool httpShouldHandleCookies() const { return httpShouldHandleCookies_; }
    const std::optional<Data>& httpBody() const { return httpBody_; }

    std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
    const HeaderFields& headerFields() const { return headerFields_; }
    // The fields as a dictionary, in the order they were first set.
    Dictionary allHTTPHeaderFields() const;

    URLRequestRef copy() const;
    MutableURLRequestRef mutableCopy() const;

    std::string className() const override { return "NSURLRequest"; }
    std::string description() const override;

protected:
    template <class> friend struct ObjectAllocator;
    URLRequest(URL url, URLRequestCachePolicy cachePolicy, double timeoutInterval);
    void copyFields(const URLRequest& other);

    URL url_;
    URLRequestCachePolicy cachePolicy_;
    double timeoutInterval_;
    std::string httpMethod_ = "GET";
    bool httpShouldHandleCookies_ = true;
    std::optional<Data> httpBody_;
    HeaderFields headerFields_;
};

class MutableURLRequest final : public URLRequest {
public:
    static MutableURLRequestRef create(URL url,
                                       URLRequestCachePolicy cachePolicy = URLRequestCachePolicy::UseProtocolCachePolicy,
                                       double timeoutInterval = DefaultTimeoutInterval);

    void setURL(URL url) { url_ = std::move(url); }
    void setCachePolicy(URLRequestCachePolicy policy) { cachePolicy_ = policy; }
    void setTimeoutInterval(double seconds) { timeoutInterval_ = seconds; }
    void setHTTPMethod(std::string method) { httpMethod_ = std::move(method); }
    void setHTTPShouldHandleCookies(bool handles) { httpShouldHandleCookies_ = handles; }
    void setHTTPBody(std::optional<Data> body) { httpBody_ = std::move(body); }
    // Nothing removes the field.
    void setValueForHTTPHeaderField(std::optional<std::string> value, std::string_view field);

    std::string className() const override { return "NSMutableURLRequest"; }

private:
    friend class URLRequest;
    template <class> friend struct ObjectAllocator;
    using URLRequest::URLRequest;
};

}  // namespace platform
