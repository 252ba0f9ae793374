// HTTPURLResponse: the status line and header fields of an HTTP answer, and
// the URL that gave it (after any redirects).
//
// Header fields are kept as received, in their order; a field received more
// than once is one entry, its values joined with ", ". Look-ups by name
// ignore letter case.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

class HTTPURLResponse;
using HTTPURLResponseRef = std::shared_ptr<const HTTPURLResponse>;

class HTTPURLResponse final : public Object {
public:
    // Tests make responses of their own this way, with no network.
    static HTTPURLResponseRef create(URL url, std::int64_t statusCode, std::string httpVersion,
                                     Dictionary headerFields = {});

    const URL& url() const { return url_; }
    std::int64_t statusCode() const { return statusCode_; }
    // "HTTP/1.1", "HTTP/2", ...
    const std::string& httpVersion() const { return httpVersion_; }
    const Dictionary& allHeaderFields() const { return headerFields_; }
    std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;

    std::string className() const override { return "NSHTTPURLResponse"; }
    std::string description() const override;

private:
    template <class> friend struct ObjectAllocator;
    HTTPURLResponse(URL url, std::int64_t statusCode, std::string httpVersion, Dictionary headerFields);

    URL url_;
    std::int64_t statusCode_;
    std::string httpVersion_;
    Dictionary headerFields_;
};

}  // namespace platform
