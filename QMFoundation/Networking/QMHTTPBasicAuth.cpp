#include "QMFoundation/Networking/QMHTTPBasicAuth.h"

#include <utility>

QMHTTPBasicAuthRef QMHTTPBasicAuth::create(std::optional<std::string> username, std::optional<std::string> password)
{
    auto auth = platform::makeObject<QMHTTPBasicAuth>();
    auth->username_ = std::move(username);
    auth->password_ = std::move(password);
    return auth;
}

QMHTTPBasicAuthRef QMHTTPBasicAuth::basicAuthWithUsername(std::optional<std::string> username,
                                                          std::optional<std::string> password)
{
    return create(std::move(username), std::move(password));
}
