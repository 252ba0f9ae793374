// The read-only view of a REST operation for bindings.
#include "QMFoundation/REST/QMRESTAPIRequest.h"

#include "tests/Support/AssertionCapture.h"

#include <gtest/gtest.h>

using platform::Data;
using platform::URL;

namespace {

QMRESTAPIRequestOperationRef operationFor(const std::string& url)
{
    return QMRESTAPIRequestOperation::create(*URL::fromString(url), "PUT");
}

TEST(QMRESTAPIRequestTest, ShowsTheOperationsRequestAsItIsNow)
{
    const auto operation = operationFor("https://example.com/v1/items/7");
    const auto request = QMRESTAPIRequest::create(operation);
    EXPECT_EQ(request->URL().absoluteString(), "https://example.com/v1/items/7");
    EXPECT_FALSE(request->body());
    EXPECT_TRUE(request->headers().empty());

    operation->request()->setValueForHTTPHeaderField("application/json", "Accept");
    operation->request()->setHTTPBody(Data{'{', '}'});
    EXPECT_EQ(request->headers().get("Accept"), platform::Value("application/json"));
    EXPECT_EQ(request->body(), "{}");
    EXPECT_EQ(request->valueForKey("body"), platform::Value("{}"));

    // A body that is not UTF-8 has no text.
    operation->request()->setHTTPBody(Data{'o', 'k', 0xc3});
    EXPECT_FALSE(request->body());
    operation->request()->setHTTPBody(Data{});
    EXPECT_EQ(request->body(), "");
}

TEST(QMRESTAPIRequestTest, CancelReachesTheOperationButTheViewNeverReadsCancelled)
{
    const auto operation = operationFor("http://127.0.0.1:9/");
    const auto request = QMRESTAPIRequest::create(operation);
    EXPECT_FALSE(request->isLoading());
    request->cancel();
    EXPECT_TRUE(operation->isFinished());
    EXPECT_FALSE(request->isCancelled());
    EXPECT_FALSE(request->isLoading());
    request->waitUntilFinished();  // returns: the operation has finished
}

TEST(QMRESTAPIRequestTest, AMissingOperationFailsItsAssertion)
{
    const auto failure = testsupport::captureAssertion([] { QMRESTAPIRequest::create(); });
    EXPECT_EQ(failure.description, "Invalid parameter not satisfying: requestOperation");
    EXPECT_EQ(failure.file, "QMFoundation/QMRESTAPIRequest");
    EXPECT_EQ(failure.line, 40);
}

}  // namespace
