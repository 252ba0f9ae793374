// The read-only view of a REST operation for bindings.
#include "QMFoundation/REST/QMRESTAPIRequest.h"

#include "tests/Support/AssertionCapture.h"
#include "tests/Support/ChangeRecorder.h"

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

// Bindings observe the view's keys. Each depends on a key path through the
// operation: it changes with a new operation, and with a change that the
// operation of the moment announces under the path's last key.
TEST(QMRESTAPIRequestTest, EachBoundKeyHearsOfTheOperationAndOfTheKeyItDependsOn)
{
    const auto first = operationFor("https://example.com/first");
    const auto request = QMRESTAPIRequest::create(first);
    const auto recorder = testsupport::ChangeRecorder::create();
    const std::pair<std::string, std::string> dependencies[] = {
        {"URL", "URL"}, {"body", "data"}, {"headers", "headers"}, {"loading", "executing"}};
    for (const auto& [key, operationKey] : dependencies) {
        request->addObserver(recorder, key, platform::NSKeyValueObservingOptionNew);
    }
    const auto announce = [](const QMRESTAPIRequestOperationRef& operation, const std::string& key) {
        operation->willChangeValueForKey(key);
        operation->didChangeValueForKey(key);
    };

    first->request()->setHTTPBody(Data{'o', 'n', 'e'});
    std::vector<std::string> expected;
    for (const auto& [key, operationKey] : dependencies) {
        SCOPED_TRACE(operationKey);
        announce(first, operationKey);
        expected.push_back(key + "=" + request->valueForKey(key).description());
        EXPECT_EQ(recorder->seen(), expected);
    }

    const auto second = operationFor("https://example.com/second");
    request->setRequestOperation(second);
    ASSERT_EQ(recorder->seen().size(), expected.size() + 4);
    EXPECT_EQ(recorder->seen()[expected.size()], "URL=https://example.com/second");
    announce(first, "URL");  // no longer the view's operation
    announce(second, "URL");
    EXPECT_EQ(recorder->seen().size(), expected.size() + 5);

    // Set by key-value coding, the operation is announced the same way.
    request->setValueForKey(platform::Value(first), "requestOperation");
    EXPECT_EQ(recorder->seen().back(), "loading=0");
    EXPECT_EQ(recorder->seen().size(), expected.size() + 9);

    // Set to nothing, the view shows nothing.
    request->setValueForKey(platform::Value(), "requestOperation");
    ASSERT_EQ(recorder->seen().size(), expected.size() + 13);
    EXPECT_EQ(recorder->seen()[expected.size() + 9], "URL=<null>");
    EXPECT_EQ(recorder->seen().back(), "loading=0");

    for (const auto& [key, operationKey] : dependencies) {
        request->removeObserver(*recorder, key);
    }
    EXPECT_EQ(first->observationCount(), 0u);
    EXPECT_EQ(second->observationCount(), 0u);
}

TEST(QMRESTAPIRequestTest, AMissingOperationFailsItsAssertion)
{
    const auto failure = testsupport::captureAssertion([] { QMRESTAPIRequest::create(); });
    EXPECT_EQ(failure.description, "Invalid parameter not satisfying: requestOperation");
    EXPECT_EQ(failure.file, "QMFoundation/QMRESTAPIRequest");
    EXPECT_EQ(failure.line, 40);
}

}  // namespace
