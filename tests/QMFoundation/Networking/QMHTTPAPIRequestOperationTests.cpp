// The API request operations against a real local server, with injected
// test clients, and on operation queues.
#include "QMFoundation/Networking/QMHTTPAPIRequestOperation.h"
#include "QMFoundation/Networking/QMHTTPBasicAuth.h"
#include "QMFoundation/Networking/QMHTTPJSONAPIRequestOperation.h"
#include "QMFoundation/Networking/QMHTTPTestClient.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/JSON.h"
#include "Platform/Foundation/OperationQueue.h"
#include "Platform/URLLoading/URLError.h"
#include "QMFoundation/Strings/NSData+QMBase64Transcoding.h"
#include "tests/Support/AssertionCapture.h"
#include "tests/Support/ChangeRecorder.h"
#include "tests/Support/EchoServer.h"
#include "tests/Support/LocalServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using namespace platform;

namespace {

// An API call as applications write them: error statuses and unreadable
// answers become errors of its own domain, a good answer a JSON object.
class ItemCall final : public QMHTTPJSONAPIRequestOperation {
public:
    static std::shared_ptr<ItemCall> create(std::optional<URL> baseURL, std::string path, std::string method,
                                            std::optional<Dictionary> params = std::nullopt,
                                            std::optional<Dictionary> headers = std::nullopt)
    {
        return platform::makeObject<ItemCall>(std::move(baseURL), std::move(path), std::move(method), std::move(params),
                                              std::move(headers));
    }

    std::optional<Dictionary> item;
    std::vector<std::string> steps;
    bool finishedBeforeDidFinish = false;

protected:
    using QMHTTPJSONAPIRequestOperation::QMHTTPJSONAPIRequestOperation;

    ErrorRef handleAPIErrorResponse(const QMHTTPResponseRef& response) override
    {
        steps.push_back("error status");
        return Error::create("ItemAPI", response->status(), {});
    }
    bool parseResponse(const QMHTTPResponseRef& response, ErrorRef* error) override
    {
        steps.push_back("parse");
        const auto parsed = response->content() ? JSONSerialization::valueWithString(*response->content()) : std::nullopt;
        if (!parsed || parsed->dictionary() == nullptr) {
            *error = Error::create("ItemAPI", -1, {});
            return false;
        }
        item = *parsed->dictionary();
        return true;
    }
    ErrorRef handleConnectionError(const ErrorRef& error) override
    {
        steps.push_back("connection error");
        return Error::create("ItemAPI", -2, Dictionary{{"NSUnderlyingError", error}});
    }
    void didFinish() override
    {
        steps.push_back("did finish");
        finishedBeforeDidFinish = isFinished();
    }
};

class QMHTTPAPIRequestOperationTest : public ::testing::Test {
protected:
    void SetUp() override { testsupport::clearProxyVariables(); }

    // What the echo path received for an operation that has run.
    static testsupport::EchoedRequest echoed(const QMHTTPAPIRequestOperation& operation)
    {
        const auto client = std::dynamic_pointer_cast<QMHTTPClient>(operation.client());
        EXPECT_TRUE(client && client->response() && client->response()->content());
        return testsupport::EchoedRequest(client && client->response() ? client->response()->content().value_or("{}") : "{}");
    }

    URL root() const { return *URL::fromString(server_.url("")); }

    testsupport::LocalServer server_{testsupport::echoServerCommand()};
};

TEST_F(QMHTTPAPIRequestOperationTest, JoinsBaseAndPathAsFilePathsAndStillReachesTheHost)
{
    struct Row {
        std::string base;
        std::string path;
        std::string target;
    };
    const Row rows[] = {
        {server_.url(""), "echo", "/echo"},
        {server_.url("/echo/"), "/v1/items", "/echo/v1/items"},
        {server_.url("/echo"), "v1//items/", "/echo/v1/items"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.base + " + " + row.path);
        const auto operation = QMHTTPAPIRequestOperation::create(URL::fromString(row.base), row.path);
        operation->start();
        EXPECT_TRUE(operation->isFinished());
        EXPECT_FALSE(operation->error());
        EXPECT_EQ(echoed(*operation).target(), row.target);
        // The URL the client was given has lost the "//" after the scheme.
        const auto client = std::dynamic_pointer_cast<QMHTTPClient>(operation->client());
        ASSERT_TRUE(client && client->request() && client->request()->URL());
        EXPECT_EQ(client->request()->URL()->absoluteString().rfind("http:/127.0.0.1:", 0), 0u);
    }
}

TEST_F(QMHTTPAPIRequestOperationTest, SendsGETParametersOnceWithCredentials)
{
    const auto operation = QMHTTPAPIRequestOperation::create(root(), "echo", std::string("GET"), Dictionary{{"page", 2}},
                                                             Dictionary{{"Accept", "application/json"}});
    operation->setBasicAuth(QMHTTPBasicAuth::basicAuthWithUsername("u", "p"));
    operation->start();
    const auto seen = echoed(*operation);
    EXPECT_EQ(seen.target(), "/echo?page=2");
    EXPECT_EQ(seen.field("Authorization"), "Basic dTpw");
    EXPECT_EQ(seen.field("Accept"), "application/json");
}

TEST_F(QMHTTPAPIRequestOperationTest, JSONCallsCarryTheirParametersAsABodyExceptForGETAndDELETE)
{
    struct Row {
        std::string method;
        std::optional<Dictionary> headers;
        std::string target;
        std::string body;
        std::optional<std::string> contentType;
    };
    const std::string json = "application/json; charset=utf-8";
    const Row rows[] = {
        {"POST", Dictionary{{"X-A", "b"}}, "/echo", "{\"a\":1}", json},
        {"PUT", Dictionary{{"Content-Type", "text/plain"}}, "/echo", "{\"a\":1}", "text/plain"},
        // The body is built, but the client sends one only for POST and PUT.
        {"post", std::nullopt, "/echo", "", json},
        {"DELETE", std::nullopt, "/echo?a=1", "", std::nullopt},
        {"GET", std::nullopt, "/echo?a=1", "", std::nullopt},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.method);
        const auto operation = QMHTTPJSONAPIRequestOperation::create(root(), "echo", row.method, Dictionary{{"a", 1}}, row.headers);
        operation->start();
        const auto seen = echoed(*operation);
        EXPECT_EQ(seen.method(), row.method);
        EXPECT_EQ(seen.target(), row.target);
        const auto body = dataWithBase64EncodedString(seen.body());
        EXPECT_EQ(std::string(body.begin(), body.end()), row.body);
        EXPECT_EQ(seen.field("Content-Type"), row.contentType);
        if (row.headers && row.headers->contains("X-A")) {
            EXPECT_EQ(seen.field("X-A"), "b");
        }
    }
    // Without parameters: no body and no content type, whatever the method.
    const auto bare = QMHTTPJSONAPIRequestOperation::create(root(), "echo", "POST", std::nullopt, std::nullopt);
    EXPECT_FALSE(bare->body());
    EXPECT_FALSE(bare->headers()->contains("Content-Type"));
    // Parameters that are not JSON give no body.
    const auto dated = QMHTTPJSONAPIRequestOperation::create(root(), "echo", "POST", Dictionary{{"at", Date(0)}}, std::nullopt);
    EXPECT_FALSE(dated->body());
}

TEST_F(QMHTTPAPIRequestOperationTest, TheHooksTurnAnswersIntoErrors)
{
    // A bare operation succeeds whatever the status.
    const auto bare = QMHTTPAPIRequestOperation::create(root(), "status/500");
    bare->start();
    EXPECT_TRUE(bare->isFinished());
    EXPECT_FALSE(bare->error());

    struct Row {
        std::string path;
        std::int64_t code;  // 0: success
        std::vector<std::string> steps;
    };
    const Row rows[] = {
        {"reply?body=%7B%22id%22%3A7%7D", 0, {"parse", "did finish"}},
        {"status/404", 404, {"error status", "did finish"}},
        {"reply?body=%5B1%2C2%5D", -1, {"parse", "did finish"}},          // JSON, but not an object
        {"reply?body=%3Chtml%3E&type=text/html", -1, {"parse", "did finish"}},  // not JSON at all
        {"big?bytes=256", -1, {"parse", "did finish"}},                   // not even text
        {"garbage", -2, {"connection error", "did finish"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        const auto call = ItemCall::create(root(), row.path, "GET");
        call->start();
        EXPECT_TRUE(call->isFinished());
        EXPECT_TRUE(call->finishedBeforeDidFinish);
        EXPECT_EQ(call->steps, row.steps);
        if (row.code == 0) {
            EXPECT_FALSE(call->error());
            EXPECT_EQ(call->item, (Dictionary{{"id", 7}}));
        } else {
            ASSERT_TRUE(call->error());
            EXPECT_EQ(call->error()->domain(), "ItemAPI");
            EXPECT_EQ(call->error()->code(), row.code);
        }
    }
}

TEST_F(QMHTTPAPIRequestOperationTest, AFailedConnectionIsTheErrorInTheBaseClass)
{
    const auto operation = QMHTTPAPIRequestOperation::create(URL::fromString("http://127.0.0.1:1"), "x");
    operation->start();
    ASSERT_TRUE(operation->error());
    EXPECT_EQ(operation->error()->domain(), NSURLErrorDomain);
    EXPECT_EQ(operation->error()->code(), NSURLErrorCannotConnectToHost);
}

TEST(QMHTTPAPIRequestOperationStateTest, StateIsAnnouncedOnlyUnderItsOwnNames)
{
    const auto operation = QMHTTPAPIRequestOperation::create(URL::fromString("http://unused.invalid"), "x");
    operation->setClient(QMHTTPTestClient::clientWithResponse(QMHTTPResponse::responseWithStatus(200, {}, {})));
    EXPECT_TRUE(operation->isConcurrent());
    const auto recorder = testsupport::ChangeRecorder::create();
    for (const char* key : {"executingValue", "finishedValue", "isExecuting", "isFinished"}) {
        operation->addObserver(recorder, key, NSKeyValueObservingOptionNew);
    }
    operation->start();
    EXPECT_EQ(recorder->seen(), (std::vector<std::string>{"finishedValue=1"}));
    EXPECT_TRUE(operation->isFinished());
    EXPECT_FALSE(operation->isExecuting());
    for (const char* key : {"executingValue", "finishedValue", "isExecuting", "isFinished"}) {
        operation->removeObserver(*recorder, key);
    }
}

TEST(QMHTTPAPIRequestOperationStateTest, AnInjectedClientIsUsedAsItIs)
{
    const auto canned = makeURLError(NSURLErrorTimedOut, "http://unused.invalid/");
    const auto client = QMHTTPTestClient::create(nullptr, nullptr, nullptr, canned);
    const auto operation = QMHTTPAPIRequestOperation::create(URL::fromString("http://unused.invalid"), "x");
    operation->setClient(client);
    operation->setBasicAuth(QMHTTPBasicAuth::basicAuthWithUsername("u", "p"));
    operation->start();
    EXPECT_EQ(operation->error(), canned);
    EXPECT_FALSE(client->request());
    EXPECT_FALSE(client->auth());

    // A real client that was used already raises out of `start`.
    const auto used = QMHTTPClient::clientWithRequest(QMHTTPRequest::create(URL::fromString("http://127.0.0.1:1/")));
    static_cast<void>(used->send(nullptr));
    const auto again = QMHTTPAPIRequestOperation::create(URL::fromString("http://unused.invalid"), "x");
    again->setClient(used);
    EXPECT_EQ(testsupport::raisedReason(NSInternalInconsistencyException, [&] { again->start(); }),
              "QMHTTPClient can only perform one connection request.");
    EXPECT_FALSE(again->isFinished());
}

// Each queue thread runs its operation's connection on its own run loop.
TEST_F(QMHTTPAPIRequestOperationTest, RunsOnAQueueFromSeveralThreads)
{
    const auto queue = OperationQueue::create();
    queue->setMaxConcurrentOperationCount(4);
    std::vector<std::shared_ptr<ItemCall>> calls;
    std::atomic<int> completions{0};
    for (int index = 0; index < 12; ++index) {
        auto call = ItemCall::create(root(), "reply?body=%7B%22id%22%3A7%7D", "GET");
        call->setCompletionBlock([&completions] { ++completions; });
        calls.push_back(call);
        queue->addOperation(call);
    }
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(completions.load(), 12);
    for (const auto& call : calls) {
        EXPECT_TRUE(call->isFinished());
        EXPECT_FALSE(call->error());
        EXPECT_EQ(call->item, (Dictionary{{"id", 7}}));
    }
}

}  // namespace
