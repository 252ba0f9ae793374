// QMHTTPBasicAuth: a user name and a password held as given.
#pragma once

#include "Platform/Foundation/Object.h"
#include "QMFoundation/Networking/QMHTTPAuth.h"

#include <memory>
#include <optional>
#include <string>

class QMHTTPBasicAuth;
using QMHTTPBasicAuthRef = std::shared_ptr<QMHTTPBasicAuth>;

class QMHTTPBasicAuth : public platform::Object, public QMHTTPAuth {
public:
    static QMHTTPBasicAuthRef create(std::optional<std::string> username = std::nullopt,
                                     std::optional<std::string> password = std::nullopt);
    static QMHTTPBasicAuthRef basicAuthWithUsername(std::optional<std::string> username,
                                                    std::optional<std::string> password);

    std::optional<std::string> username() const override { return username_; }
    void setUsername(std::optional<std::string> username) { username_ = std::move(username); }
    std::optional<std::string> password() const override { return password_; }
    void setPassword(std::optional<std::string> password) { password_ = std::move(password); }

    std::string className() const override { return "QMHTTPBasicAuth"; }

protected:
    template <class> friend struct platform::ObjectAllocator;
    QMHTTPBasicAuth() = default;

private:
    std::optional<std::string> username_;
    std::optional<std::string> password_;
};
