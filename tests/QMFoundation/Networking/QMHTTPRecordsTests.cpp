// The request and response records: defaults, the exact method predicates,
// their key-value dependencies and the description.
#include "QMFoundation/Networking/QMHTTPRequest.h"
#include "QMFoundation/Networking/QMHTTPResponse.h"

#include "tests/Support/AssertionCapture.h"
#include "tests/Support/ChangeRecorder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace platform;

namespace {

TEST(QMHTTPRequestTest, MethodDefaultsToGETAndPredicatesCompareExactly)
{
    EXPECT_EQ(QMHTTPRequest::create()->method(), "GET");
    EXPECT_EQ(QMHTTPRequest::requestWithURL(URL::fromString("http://h/"), std::nullopt, std::nullopt)->method(), "GET");

    const auto request = QMHTTPRequest::create();
    struct Row {
        std::optional<std::string> method;
        std::vector<bool> getPostPutDelete;
    };
    const Row rows[] = {
        {"GET", {true, false, false, false}},   {"POST", {false, true, false, false}},
        {"PUT", {false, false, true, false}},   {"DELETE", {false, false, false, true}},
        {"post", {false, false, false, false}}, {"PATCH", {false, false, false, false}},
        {std::nullopt, {false, false, false, false}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.method.value_or("(none)"));
        request->setMethod(row.method);
        EXPECT_EQ((std::vector<bool>{request->isGETRequest(), request->isPOSTRequest(), request->isPUTRequest(),
                                     request->isDELETERequest()}),
                  row.getPostPutDelete);
        EXPECT_EQ(request->valueForKey("isPOSTRequest"), Value(request->isPOSTRequest()));
    }
}

TEST(QMHTTPRequestTest, PredicateObserversHearOfMethodChanges)
{
    const auto request = QMHTTPRequest::create();
    const auto recorder = testsupport::ChangeRecorder::create();
    request->addObserver(recorder, "isPOSTRequest", NSKeyValueObservingOptionNew);
    request->addObserver(recorder, "isDELETERequest", NSKeyValueObservingOptionNew);
    request->setMethod("POST");
    request->setValueForKey("DELETE", "method");
    request->setData(Data{1});  // not a dependency
    EXPECT_EQ(recorder->seen(), (std::vector<std::string>{"isPOSTRequest=1", "isDELETERequest=0", "isPOSTRequest=0",
                                                          "isDELETERequest=1"}));
    request->removeObserver(*recorder, "isPOSTRequest");
    request->removeObserver(*recorder, "isDELETERequest");
}

TEST(QMHTTPRequestTest, DescribesItsFiveAttributesInOrder)
{
    const auto request = QMHTTPRequest::requestWithURL(URL::fromString("http://h/p"), std::string("PUT"), Dictionary{{"a", 1}});
    request->setName("not described");
    const auto text = request->description();
    EXPECT_EQ(text.rfind("QMHTTPRequest <0x", 0), 0u) << text;
    const auto url = text.find("URL: http://h/p");
    const auto method = text.find("method: PUT");
    const auto params = text.find("params: ");
    const auto headers = text.find("headers: ");
    const auto data = text.find("data: ");
    EXPECT_TRUE(url < method && method < params && params < headers && headers < data) << text;
    EXPECT_EQ(text.find("not described"), std::string::npos);
}

TEST(QMHTTPResponseTest, AnErrorIsAStatusAbove399)
{
    for (const auto& [status, isError] : std::vector<std::pair<std::int64_t, bool>>{
             {-500, false}, {0, false}, {200, false}, {399, false}, {400, true}, {599, true}, {1000, true}}) {
        SCOPED_TRACE(status);
        EXPECT_EQ(QMHTTPResponse::responseWithStatus(status, std::nullopt, std::nullopt)->isErrorResponse(), isError);
    }
}

TEST(QMHTTPResponseTest, ContentIsTheBodyAsUTF8OrNothing)
{
    EXPECT_EQ(QMHTTPResponse::responseWithStatus(200, {}, Data{'o', 'k'})->content(), "ok");
    EXPECT_EQ(QMHTTPResponse::responseWithStatus(200, {}, Data{})->content(), "");
    const auto invalid = QMHTTPResponse::responseWithStatus(200, {}, Data{0xC3, 0x28});
    EXPECT_FALSE(invalid->content());
    EXPECT_EQ(invalid->body(), (Data{0xC3, 0x28}));
    EXPECT_FALSE(QMHTTPResponse::create()->content());
}

// The dependency is declared for "errorResponse", not for the getter's name.
TEST(QMHTTPResponseTest, OnlyErrorResponseObserversHearOfStatusChanges)
{
    const auto response = QMHTTPResponse::create(200);
    const auto recorder = testsupport::ChangeRecorder::create();
    response->addObserver(recorder, "errorResponse", NSKeyValueObservingOptionNew);
    response->addObserver(recorder, "isErrorResponse", NSKeyValueObservingOptionNew);
    response->setStatus(500);
    EXPECT_EQ(recorder->seen(), (std::vector<std::string>{"errorResponse=1"}));
    EXPECT_EQ(response->valueForKey("isErrorResponse"), Value(true));
    response->removeObserver(*recorder, "errorResponse");
    response->removeObserver(*recorder, "isErrorResponse");
}

TEST(QMHTTPResponseTest, FromTheTransportsAnswer)
{
    const auto answer = HTTPURLResponse::create(*URL::fromString("http://h/"), 418, "HTTP/1.1", Dictionary{{"X-Tea", "yes"}});
    const auto response = QMHTTPResponse::responseFromURLResponse(answer, Data{'t'});
    EXPECT_EQ(response->status(), 418);
    EXPECT_EQ(response->headers(), (Dictionary{{"X-Tea", "yes"}}));
    EXPECT_EQ(response->content(), "t");

    const auto failure = testsupport::captureAssertion([] { QMHTTPResponse::responseFromURLResponse(nullptr, std::nullopt); });
    EXPECT_EQ(failure.description, "Invalid parameter not satisfying: URLResponse != nil");
    EXPECT_EQ(failure.file, "QMFoundation/QMHTTPResponse");
    EXPECT_EQ(failure.line, 31);
}

}  // namespace
