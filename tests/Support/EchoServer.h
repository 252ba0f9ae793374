// The HTTP test server of the URL loading tests
// (tests/Platform/URLLoading/http_test_server.py), started for one test, and
// what its "/echo" paths report of the request they received.
//
//   testsupport::clearProxyVariables();
//   testsupport::LocalServer server(testsupport::echoServerCommand());
//   ... load server.url("/echo?q=1") ...
//   const testsupport::EchoedRequest seen(body);
//   EXPECT_EQ(seen.target(), "/echo?q=1");
#pragma once

#include "tests/Support/LocalServer.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace testsupport {

inline std::vector<std::string> echoServerCommand()
{
    return {"python3", sourceFile("tests/Platform/URLLoading/http_test_server.py")};
}

// libcurl would send even 127.0.0.1 through a proxy named in these.
inline void clearProxyVariables()
{
    for (const char* variable : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy"}) {
        unsetenv(variable);
    }
}

class EchoedRequest {
public:
    explicit EchoedRequest(std::string_view echoed) : seen_(nlohmann::json::parse(echoed)) {}

    std::string method() const { return seen_["method"].get<std::string>(); }
    // The request target as sent: path and query.
    std::string target() const { return seen_["target"].get<std::string>(); }
    // The body in Base64.
    std::string body() const { return seen_["body"].get<std::string>(); }
    // The first field of that name, compared exactly as the server got it.
    std::optional<std::string> field(const std::string& name) const
    {
        for (const auto& entry : seen_["headers"]) {
            if (entry[0].get<std::string>() == name) {
                return entry[1].get<std::string>();
            }
        }
        return std::nullopt;
    }
    // How many fields of that name came, in any letter case.
    std::size_t count(std::string_view name) const
    {
        const auto folded = [](std::string_view text) {
            std::string lower(text);
            std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
            return lower;
        };
        std::size_t found = 0;
        for (const auto& entry : seen_["headers"]) {
            found += folded(entry[0].get<std::string>()) == folded(name) ? 1 : 0;
        }
        return found;
    }

private:
    nlohmann::json seen_;
};

}  // namespace testsupport
