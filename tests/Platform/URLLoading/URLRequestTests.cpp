#include "Platform/URLLoading/HTTPURLResponse.h"
#include "Platform/URLLoading/URLRequest.h"

#include <gtest/gtest.h>

using namespace platform;

namespace {

URL url(std::string_view text)
{
    return *URL::fromString(text);
}

TEST(URLRequest, HeaderFieldNamesIgnoreCaseAndKeepTheirFirstSpellingAndPlace)
{
    auto request = MutableURLRequest::create(url("https://example.com/a"));
    request->setValueForHTTPHeaderField("text/plain", "Content-Type");
    request->setValueForHTTPHeaderField("x", "X-First");
    request->setValueForHTTPHeaderField("application/json", "content-type");
    EXPECT_EQ(request->valueForHTTPHeaderField("CONTENT-TYPE"), "application/json");
    ASSERT_EQ(request->headerFields().size(), 2u);
    EXPECT_EQ(request->headerFields()[0].first, "Content-Type");
    request->setValueForHTTPHeaderField(std::nullopt, "x-first");
    EXPECT_FALSE(request->valueForHTTPHeaderField("X-First"));
    EXPECT_EQ(request->allHTTPHeaderFields(), (Dictionary{{"Content-Type", "application/json"}}));
}

TEST(URLRequest, CopiesAreIndependentValues)
{
    auto request = MutableURLRequest::create(url("https://example.com/a"), URLRequestCachePolicy::ReloadIgnoringLocalCacheData, 15);
    request->setHTTPMethod("PUT");
    request->setHTTPBody(Data{1, 2, 3});
    request->setHTTPShouldHandleCookies(false);
    request->setValueForHTTPHeaderField("1", "X-Version");
    const auto frozen = request->copy();
    request->setHTTPMethod("DELETE");
    request->setValueForHTTPHeaderField("2", "X-Version");

    EXPECT_EQ(frozen->httpMethod(), "PUT");
    EXPECT_EQ(frozen->valueForHTTPHeaderField("x-version"), "1");
    EXPECT_EQ(frozen->httpBody(), (Data{1, 2, 3}));
    EXPECT_FALSE(frozen->httpShouldHandleCookies());
    EXPECT_EQ(frozen->cachePolicy(), URLRequestCachePolicy::ReloadIgnoringLocalCacheData);
    EXPECT_EQ(frozen->timeoutInterval(), 15);
    const auto thawed = frozen->mutableCopy();
    thawed->setHTTPMethod("PATCH");
    EXPECT_EQ(frozen->httpMethod(), "PUT");
    EXPECT_EQ(URLRequest::create(url("https://example.com"))->httpMethod(), "GET");
}

TEST(HTTPURLResponse, AnswersFieldsByNameInAnyCase)
{
    const auto response = HTTPURLResponse::create(url("https://example.com"), 404, "HTTP/1.1", Dictionary{{"Content-Type", "text/html"}});
    EXPECT_EQ(response->statusCode(), 404);
    EXPECT_EQ(response->valueForHTTPHeaderField("content-type"), "text/html");
    EXPECT_FALSE(response->valueForHTTPHeaderField("Content-Length"));
}

}  // namespace
