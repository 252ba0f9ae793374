// QMHTTPJSONAPIRequestOperation: an API call whose parameters travel as a
// JSON body, except for GET and DELETE.
//
// - Method exactly "GET" or "DELETE": the parameters go into the query, no
//   body, the header fields as given.
// - Any other method (a missing one and "post" included): the parameters
//   become a compact JSON body with "Content-Type: application/json;
//   charset=utf-8", and the caller's header fields are applied on top, so a
//   caller's own "Content-Type" wins. Parameters that are not valid JSON give
//   no body (the header is still set). No parameters: no body, no header.
// The client sends a body only for exactly "POST" and "PUT", so a "post"
// call builds one that never goes out.
//
// No JSON is decoded here; a subclass does that in `parseResponse`.
#pragma once

#include "QMFoundation/Networking/QMHTTPAPIRequestOperation.h"

#include <memory>
#include <optional>
#include <string>

class QMHTTPJSONAPIRequestOperation;
using QMHTTPJSONAPIRequestOperationRef = std::shared_ptr<QMHTTPJSONAPIRequestOperation>;

class QMHTTPJSONAPIRequestOperation : public QMHTTPAPIRequestOperation {
public:
    static QMHTTPJSONAPIRequestOperationRef create(std::optional<platform::URL> baseURL, std::optional<std::string> path,
                                                   std::optional<std::string> method,
                                                   std::optional<platform::Dictionary> params,
                                                   std::optional<platform::Dictionary> headers);

    std::string className() const override { return "QMHTTPJSONAPIRequestOperation"; }

protected:
    template <class> friend struct platform::ObjectAllocator;
    QMHTTPJSONAPIRequestOperation(std::optional<platform::URL> baseURL, std::optional<std::string> path,
                                  std::optional<std::string> method, std::optional<platform::Dictionary> params,
                                  std::optional<platform::Dictionary> headers);

private:
    struct Encoded {
        std::optional<platform::Dictionary> params;
        platform::Dictionary headers;
        std::optional<platform::Data> body;
    };
    static Encoded encode(const std::optional<std::string>& method, std::optional<platform::Dictionary> params,
                          const std::optional<platform::Dictionary>& headers);
    QMHTTPJSONAPIRequestOperation(std::optional<platform::URL> baseURL, std::optional<std::string> path,
                                  std::optional<std::string> method, Encoded encoded);
};
