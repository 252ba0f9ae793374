// QMHTTPRequest: what one HTTP call asks for: URL, method, parameters, body,
// header fields and a free label. A record only; QMHTTPClient decides what of
// it goes over the wire (parameters only for GET and DELETE, the body only
// for POST and PUT).
//
//   auto request = QMHTTPRequest::requestWithURL(URL::fromString("https://api.example.com/items"),
//                                                std::string("GET"), Dictionary{{"page", 2}});
//
// Setters announce their change to key-value observers under the property's
// name; the four method predicates ("isGETRequest", ...) depend on "method",
// so their observers hear of every change of the method. Not thread-safe:
// fill a request in on one thread, or hand it over complete.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class QMHTTPRequest;
using QMHTTPRequestRef = std::shared_ptr<QMHTTPRequest>;

class QMHTTPRequest : public platform::Object {
public:
    // A missing method becomes "GET"; every other part may be missing.
    static QMHTTPRequestRef create(std::optional<platform::URL> URL = std::nullopt,
                                   std::optional<std::string> method = std::nullopt,
                                   std::optional<platform::Dictionary> params = std::nullopt,
                                   std::optional<platform::Data> data = std::nullopt,
                                   std::optional<platform::Dictionary> headers = std::nullopt);
    static QMHTTPRequestRef requestWithURL(std::optional<platform::URL> URL);
    static QMHTTPRequestRef requestWithURL(std::optional<platform::URL> URL, std::optional<std::string> method,
                                           std::optional<platform::Dictionary> params);
    static QMHTTPRequestRef requestWithURL(std::optional<platform::URL> URL, std::optional<std::string> method,
                                           std::optional<platform::Dictionary> params,
                                           std::optional<platform::Data> data,
                                           std::optional<platform::Dictionary> headers);

    const std::optional<platform::URL>& URL() const { return URL_; }
    void setURL(std::optional<platform::URL> URL);
    const std::optional<std::string>& method() const { return method_; }
    void setMethod(std::optional<std::string> method);
    const std::optional<platform::Dictionary>& params() const { return params_; }
    void setParams(std::optional<platform::Dictionary> params);
    const std::optional<platform::Data>& data() const { return data_; }
    void setData(std::optional<platform::Data> data);
    // Field names to string values.
    const std::optional<platform::Dictionary>& headers() const { return headers_; }
    void setHeaders(std::optional<platform::Dictionary> headers);
    // Never read by the client.
    const std::optional<std::string>& name() const { return name_; }
    void setName(std::optional<std::string> name);

    // The method compared exactly, letter case included: "post" is none of these.
    bool isGETRequest() const { return method_ == "GET"; }
    bool isPOSTRequest() const { return method_ == "POST"; }
    bool isPUTRequest() const { return method_ == "PUT"; }
    bool isDELETERequest() const { return method_ == "DELETE"; }

    std::string className() const override { return "QMHTTPRequest"; }
    // "URL", "method", "params", "headers", "data".
    std::optional<std::vector<std::string>> attributeKeys() const override;
    std::string description() const override;
    const platform::PropertyTable& propertyTable() const override;
    std::vector<std::string> keyPathsForValuesAffectingValueForKey(std::string_view key) const override;
    bool automaticallyNotifiesObserversForKey(std::string_view key) const override;

protected:
    template <class> friend struct platform::ObjectAllocator;
    QMHTTPRequest() = default;

private:
    template <typename T>
    void change(std::string_view key, T& field, T value);

    std::optional<platform::URL> URL_;
    std::optional<std::string> method_;
    std::optional<platform::Dictionary> params_;
    std::optional<platform::Data> data_;
    std::optional<platform::Dictionary> headers_;
    std::optional<std::string> name_;
};
