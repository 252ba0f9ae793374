// QMHTTPAuth: credentials for an HTTP call, a user name and a password.
// QMHTTPClient sends them preemptively as "Authorization: Basic ...".
#pragma once

#include <memory>
#include <optional>
#include <string>

class QMHTTPAuth {
public:
    virtual ~QMHTTPAuth() = default;

    virtual std::optional<std::string> username() const = 0;
    virtual std::optional<std::string> password() const = 0;
};
using QMHTTPAuthRef = std::shared_ptr<QMHTTPAuth>;
