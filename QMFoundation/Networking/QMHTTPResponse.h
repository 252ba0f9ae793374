// QMHTTPResponse: the record of one HTTP answer: status, header fields as the
// transport reports them, the raw body and the body read as UTF-8.
//
// An error status (400 and above) is an answer, not a failure: callers test
// `isErrorResponse`. Observers of "errorResponse" hear of changes of
// "status"; observers of "isErrorResponse" do not (the dependency is kept
// under the property's name, not its getter's).
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"
#include "Platform/URLLoading/HTTPURLResponse.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class QMHTTPResponse;
using QMHTTPResponseRef = std::shared_ptr<QMHTTPResponse>;

class QMHTTPResponse : public platform::Object {
public:
    // Sets status, header fields and body, then reads the body as UTF-8.
    static QMHTTPResponseRef create(std::int64_t status = 0, std::optional<platform::Dictionary> headers = std::nullopt,
                                    std::optional<platform::Data> body = std::nullopt);
    static QMHTTPResponseRef responseWithStatus(std::int64_t status, std::optional<platform::Dictionary> headers,
                                                std::optional<platform::Data> body);
    // From the transport's answer; a missing one fails the parameter
    // assertion "URLResponse != nil".
    static QMHTTPResponseRef responseFromURLResponse(const platform::HTTPURLResponseRef& URLResponse,
                                                     std::optional<platform::Data> body);

    std::int64_t status() const { return status_; }
    void setStatus(std::int64_t status);
    const std::optional<platform::Dictionary>& headers() const { return headers_; }
    void setHeaders(std::optional<platform::Dictionary> headers);
    const std::optional<platform::Data>& body() const { return body_; }
    void setBody(std::optional<platform::Data> body);
    // Nothing when there is no body or it is not valid UTF-8. Setting the
    // body does not change it.
    const std::optional<std::string>& content() const { return content_; }
    void setContent(std::optional<std::string> content);

    // Status above 399; zero and negative statuses are not errors.
    bool isErrorResponse() const { return status_ > 399; }

    std::string className() const override { return "QMHTTPResponse"; }
    const platform::PropertyTable& propertyTable() const override;
    std::vector<std::string> keyPathsForValuesAffectingValueForKey(std::string_view key) const override;
    bool automaticallyNotifiesObserversForKey(std::string_view key) const override;

protected:
    template <class> friend struct platform::ObjectAllocator;
    QMHTTPResponse() = default;

private:
    std::int64_t status_ = 0;
    std::optional<platform::Dictionary> headers_;
    std::optional<platform::Data> body_;
    std::optional<std::string> content_;
};
