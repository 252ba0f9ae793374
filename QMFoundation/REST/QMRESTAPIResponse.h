// QMRESTAPIResponse: what a caller keeps of a finished REST call: status,
// header fields, body text, the parsed result, the error and the trust
// exception cookie. Subclasses of the operation fill it in; the operation
// itself never makes one. A plain record: one thread at a time.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

class QMRESTAPIResponse;
using QMRESTAPIResponseRef = std::shared_ptr<QMRESTAPIResponse>;

class QMRESTAPIResponse final : public platform::Object {
public:
    static QMRESTAPIResponseRef create();

    std::int64_t statusCode() const { return statusCode_; }
    void setStatusCode(std::int64_t statusCode) { statusCode_ = statusCode; }
    const platform::Dictionary& headers() const { return headers_; }
    void setHeaders(platform::Dictionary headers) { headers_ = std::move(headers); }
    const std::optional<std::string>& body() const { return body_; }
    void setBody(std::optional<std::string> body) { body_ = std::move(body); }
    const platform::Value& result() const { return result_; }
    void setResult(platform::Value result) { result_ = std::move(result); }
    const platform::ErrorRef& error() const { return error_; }
    void setError(platform::ErrorRef error) { error_ = std::move(error); }
    bool hasError() const { return error_ != nullptr; }
    const std::optional<platform::Data>& serverTrustExceptionCookie() const { return serverTrustExceptionCookie_; }
    void setServerTrustExceptionCookie(std::optional<platform::Data> cookie)
    {
        serverTrustExceptionCookie_ = std::move(cookie);
    }

    std::string className() const override { return "QMRESTAPIResponse"; }
    const platform::PropertyTable& propertyTable() const override;

private:
    template <class> friend struct platform::ObjectAllocator;
    QMRESTAPIResponse() = default;

    std::int64_t statusCode_ = 0;
    platform::Dictionary headers_;
    std::optional<std::string> body_;
    platform::Value result_;
    platform::ErrorRef error_;
    std::optional<platform::Data> serverTrustExceptionCookie_;
};
