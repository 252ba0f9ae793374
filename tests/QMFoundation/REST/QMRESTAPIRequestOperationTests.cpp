// The REST operation: canned outcomes and the hooks they reach, its state and
// cancellation, real loads against the URL loading tests' server, and server
// trust against two https servers with certificates of their own.
#include "QMFoundation/REST/QMRESTAPIRequestOperation.h"

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/OperationQueue.h"
#include "Platform/Security/SecTrust.h"
#include "Platform/URLLoading/URLError.h"
#include "tests/Support/AssertionCapture.h"
#include "tests/Support/ChangeRecorder.h"
#include "tests/Support/HTTPTestServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <future>
#include <latch>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using platform::Data;
using platform::ErrorRef;
using platform::URL;

namespace {

// Records which hooks ran, with what, and where; answers as a test tells it.
class RecordingOperation final : public QMRESTAPIRequestOperation {
public:
    static std::shared_ptr<RecordingOperation> create(const std::string& url,
                                                      std::optional<std::string> method = std::nullopt)
    {
        return initialized(platform::makeObject<RecordingOperation>(*URL::fromString(url), std::move(method)));
    }

    // What the test sets before `start`.
    ErrorRef apiError;
    ErrorRef parseError;
    std::optional<std::string> systemVersion;
    double timeout = 15.0;
    std::promise<void> challenged;

    std::vector<std::string> calls() const
    {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    std::optional<Data> dataSeen() const
    {
        std::lock_guard lock(mutex_);
        return data_;
    }
    std::int64_t statusSeen() const
    {
        std::lock_guard lock(mutex_);
        return status_;
    }
    bool finishedDuringFinishHook() const
    {
        std::lock_guard lock(mutex_);
        return finishedInHook_;
    }
    bool hooksRanOnConnectionQueue() const
    {
        std::lock_guard lock(mutex_);
        return onConnectionQueue_;
    }

    double requestTimeoutInterval() const override { return timeout; }
    platform::URLRequestCachePolicy requestCachePolicy() const override
    {
        return platform::URLRequestCachePolicy::ReturnCacheDataElseLoad;
    }

    void connectionWillSendRequestForAuthenticationChallenge(
        const platform::URLConnectionRef& connection, const platform::URLAuthenticationChallengeRef& challenge) override
    {
        QMRESTAPIRequestOperation::connectionWillSendRequestForAuthenticationChallenge(connection, challenge);
        std::call_once(challengedOnce_, [this] { challenged.set_value(); });
    }

protected:
    void requestDidFinish() override
    {
        record("finish");
        std::lock_guard lock(mutex_);
        finishedInHook_ = isFinished();
    }
    ErrorRef handleConnectionError(const ErrorRef& error) override
    {
        record("connectionError");
        return QMRESTAPIRequestOperation::handleConnectionError(error);
    }
    ErrorRef handleAPIErrorResponse(const platform::HTTPURLResponseRef& response, const std::optional<Data>& data) override
    {
        record("apiError", data, response->statusCode());
        return apiError;
    }
    bool parseResponseData(const std::optional<Data>& data, ErrorRef* error) override
    {
        record("parse", data, response()->statusCode());
        if (parseError) {
            *error = parseError;
            return false;
        }
        return true;
    }
    std::string operatingSystemVersion() const override
    {
        return systemVersion ? *systemVersion : QMRESTAPIRequestOperation::operatingSystemVersion();
    }

private:
    using QMRESTAPIRequestOperation::QMRESTAPIRequestOperation;

    void record(std::string call, std::optional<Data> data = std::nullopt, std::int64_t status = 0)
    {
        const bool onQueue = platform::OperationQueue::currentQueue() == connectionQueue();
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
        if (data) {
            data_ = std::move(data);
        }
        if (status != 0) {
            status_ = status;
        }
        onConnectionQueue_ = calls_.size() == 1 ? onQueue : onConnectionQueue_ && onQueue;
    }

    mutable std::mutex mutex_;  // guards the fields below
    std::vector<std::string> calls_;
    std::optional<Data> data_;
    std::int64_t status_ = 0;
    bool finishedInHook_ = false;
    bool onConnectionQueue_ = false;
    std::once_flag challengedOnce_;
};

Data bytes(std::string_view text)
{
    return Data(text.begin(), text.end());
}

ErrorRef makeError(std::int64_t code)
{
    return platform::Error::create("QMRESTTest", code, {});
}

void clearProxies()
{
    for (const char* variable : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
        unsetenv(variable);
    }
}

// A port nothing listens on: one a server had a moment ago.
int closedPort()
{
    return testsupport::startHTTPTestServer()->port();
}

// --- Without a network: canned outcomes, state, cancellation

// Nothing listens there: an outcome that needed the network would fail.
const std::string kNowhere = "http://127.0.0.1:9/items";

TEST(QMRESTAPIRequestOperationTest, ACannedOutcomeGoesToParsingBelow400AndToTheErrorHookFrom400)
{
    const std::pair<std::int64_t, const char*> rows[] = {{200, "parse"}, {204, "parse"}, {399, "parse"},
                                                         {400, "apiError"}, {404, "apiError"}, {500, "apiError"}};
    for (const auto& [status, hook] : rows) {
        SCOPED_TRACE(status);
        const auto operation = RecordingOperation::create(kNowhere);
        operation->_setResponseWithStatusCode(status, bytes("payload"));
        ErrorRef error;
        // The base hooks make no error of any status.
        EXPECT_TRUE(operation->execute(&error));
        EXPECT_FALSE(error);
        EXPECT_THAT(operation->calls(), testing::ElementsAre(hook, "finish"));
        EXPECT_EQ(operation->dataSeen(), bytes("payload"));
        EXPECT_EQ(operation->statusSeen(), status);
        EXPECT_FALSE(operation->finishedDuringFinishHook());
        EXPECT_TRUE(operation->isFinished());
        EXPECT_FALSE(operation->isExecuting());

        const auto response = operation->response();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->url(), operation->request()->url());
        EXPECT_EQ(response->httpVersion(), "HTTP/1.1");
        EXPECT_TRUE(response->allHeaderFields().empty());
    }
}

TEST(QMRESTAPIRequestOperationTest, HooksTurnOutcomesIntoErrors)
{
    const auto rejected = RecordingOperation::create(kNowhere);
    rejected->apiError = makeError(1);
    rejected->_setResponseWithStatusCode(422, bytes("{}"));
    ErrorRef error;
    EXPECT_FALSE(rejected->execute(&error));
    EXPECT_EQ(error, rejected->apiError);

    const auto unreadable = RecordingOperation::create(kNowhere);
    unreadable->parseError = makeError(2);
    unreadable->_setResponseWithStatusCode(200, std::nullopt);
    EXPECT_FALSE(unreadable->execute());
    EXPECT_EQ(unreadable->error(), unreadable->parseError);
    EXPECT_FALSE(unreadable->dataSeen());  // no body is nothing, not empty data
    EXPECT_FALSE(unreadable->responseData());

    // The base class itself accepts anything.
    const auto plain = QMRESTAPIRequestOperation::create(*URL::fromString(kNowhere));
    plain->_setResponseWithStatusCode(500, bytes("boom"));
    EXPECT_TRUE(plain->execute());
    EXPECT_EQ(plain->responseData(), bytes("boom"));
}

TEST(QMRESTAPIRequestOperationTest, TheRequestIsPreparedWithTheObjectsOwnPolicyAndTimeOut)
{
    const auto plain = QMRESTAPIRequestOperation::create(*URL::fromString("https://example.com/v1/items"));
    const auto& request = *plain->request();
    EXPECT_EQ(request.url().absoluteString(), "https://example.com/v1/items");
    EXPECT_EQ(request.cachePolicy(), platform::URLRequestCachePolicy::ReloadIgnoringLocalCacheData);
    EXPECT_EQ(request.timeoutInterval(), 15.0);
    EXPECT_FALSE(request.httpShouldHandleCookies());
    EXPECT_EQ(request.httpMethod(), "GET");

    const auto patched = RecordingOperation::create("https://example.com/v1/items", "PATCH");
    EXPECT_EQ(patched->request()->httpMethod(), "PATCH");
    EXPECT_EQ(patched->request()->cachePolicy(), platform::URLRequestCachePolicy::ReturnCacheDataElseLoad);
    EXPECT_FALSE(patched->isExecuting());
    EXPECT_FALSE(patched->isFinished());
    EXPECT_TRUE(patched->isConcurrent());

    const auto failure = testsupport::captureAssertion([] { QMRESTAPIRequestOperation::create(); });
    EXPECT_EQ(failure.description, "Invalid parameter not satisfying: URL");
    EXPECT_EQ(failure.file, "QMFoundation/QMRESTAPIRequestOperation");
    EXPECT_EQ(failure.line, 43);
}

TEST(QMRESTAPIRequestOperationTest, StateIsAnnouncedUnderTheValueKeysOnly)
{
    const auto operation = RecordingOperation::create(kNowhere);
    const auto recorder = testsupport::ChangeRecorder::create();
    for (const char* key : {"finishedValue", "executingValue", "isFinished", "isExecuting"}) {
        operation->addObserver(recorder, key, platform::NSKeyValueObservingOptionNew);
    }
    operation->_setResponseWithStatusCode(200, bytes("x"));
    operation->start();
    EXPECT_EQ(recorder->seen(), std::vector<std::string>{"finishedValue=1"});
    for (const char* key : {"finishedValue", "executingValue", "isFinished", "isExecuting"}) {
        operation->removeObserver(*recorder, key);
    }
}

TEST(QMRESTAPIRequestOperationTest, CancelBeforeStartFinishesWithoutErrorOrHooks)
{
    const auto operation = RecordingOperation::create(kNowhere);
    operation->cancel();
    EXPECT_TRUE(operation->isFinished());
    EXPECT_FALSE(operation->isExecuting());
    EXPECT_FALSE(operation->isCancelled());  // the platform's own flag is not set
    EXPECT_TRUE(operation->connection()->isCancelled());
    // A later start finds the operation finished and returns at once.
    EXPECT_TRUE(operation->execute());
    EXPECT_TRUE(operation->calls().empty());
}

TEST(QMRESTAPIRequestOperationTest, AQueuesCancelAllReachesTheOperationsOwnCancel)
{
    const auto queue = platform::OperationQueue::create();
    queue->setSuspended(true);
    const auto operation = RecordingOperation::create(kNowhere);
    queue->addOperation(operation);
    queue->cancelAllOperations();
    EXPECT_TRUE(operation->isFinished());
    queue->setSuspended(false);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_FALSE(operation->error());
    EXPECT_TRUE(operation->calls().empty());
}

// --- Real loads over plain HTTP

class QMRESTAPIRequestOperationLoadTest : public ::testing::Test {
protected:
    void SetUp() override { clearProxies(); }

    static nlohmann::json wire(const RecordingOperation& operation)
    {
        const auto data = operation.responseData().value_or(Data{});
        return nlohmann::json::parse(std::string(data.begin(), data.end()));
    }
    static std::optional<std::string> field(const nlohmann::json& seen, const std::string& name)
    {
        for (const auto& entry : seen["headers"]) {
            if (entry[0].get<std::string>() == name) {
                return entry[1].get<std::string>();
            }
        }
        return std::nullopt;
    }

    std::unique_ptr<testsupport::LocalServer> server_ = testsupport::startHTTPTestServer();
};

TEST_F(QMRESTAPIRequestOperationLoadTest, SendsTheRequestAsFilledInAndHandsTheAnswerToTheHooksOnItsQueue)
{
    const auto operation = RecordingOperation::create(server_->url("/echo?page=2"), "POST");
    operation->request()->setValueForHTTPHeaderField("application/json; charset=utf-8", "Content-Type");
    operation->request()->setHTTPBody(bytes(R"({"name":"zarvo"})"));
    ErrorRef error;
    ASSERT_TRUE(operation->execute(&error)) << error->localizedDescription();
    EXPECT_THAT(operation->calls(), testing::ElementsAre("parse", "finish"));
    EXPECT_TRUE(operation->hooksRanOnConnectionQueue());
    EXPECT_EQ(operation->statusSeen(), 200);
    EXPECT_EQ(operation->dataSeen(), operation->responseData());

    const auto seen = wire(*operation);
    EXPECT_EQ(seen["method"], "POST");
    EXPECT_EQ(seen["target"], "/echo?page=2");
    EXPECT_EQ(seen["body"], "eyJuYW1lIjoiemFydm8ifQ==");
    EXPECT_EQ(field(seen, "Content-Type"), "application/json; charset=utf-8");
    EXPECT_FALSE(field(seen, "Cookie"));
}

TEST_F(QMRESTAPIRequestOperationLoadTest, ChangesToTheRequestAfterTheConnectionWasMadeAreNotSent)
{
    const auto operation = RecordingOperation::create(server_->url("/echo"));
    operation->request()->setValueForHTTPHeaderField("early", "X-Early");
    ASSERT_TRUE(operation->connection());
    operation->request()->setValueForHTTPHeaderField("late", "X-Late");
    ASSERT_TRUE(operation->execute());
    const auto seen = wire(*operation);
    EXPECT_EQ(field(seen, "X-Early"), "early");
    EXPECT_FALSE(field(seen, "X-Late"));
}

TEST_F(QMRESTAPIRequestOperationLoadTest, ErrorStatusesReachTheErrorHookWithTheirBody)
{
    const auto operation = RecordingOperation::create(server_->url("/status/404"));
    operation->apiError = makeError(404);
    ErrorRef error;
    EXPECT_FALSE(operation->execute(&error));
    EXPECT_EQ(error, operation->apiError);
    EXPECT_THAT(operation->calls(), testing::ElementsAre("apiError", "finish"));
    EXPECT_EQ(operation->statusSeen(), 404);
    EXPECT_EQ(operation->dataSeen(), bytes("status 404"));
}

TEST_F(QMRESTAPIRequestOperationLoadTest, AFailedConnectionIsTheConnectionHooksError)
{
    const auto operation = RecordingOperation::create("http://127.0.0.1:" + std::to_string(closedPort()) + "/echo");
    ErrorRef error;
    EXPECT_FALSE(operation->execute(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), platform::NSURLErrorDomain);
    EXPECT_EQ(error->code(), platform::NSURLErrorCannotConnectToHost);
    EXPECT_THAT(operation->calls(), testing::ElementsAre("connectionError", "finish"));
    EXPECT_TRUE(operation->hooksRanOnConnectionQueue());
    EXPECT_FALSE(operation->response());
}

TEST_F(QMRESTAPIRequestOperationLoadTest, ACancelRacingAStartEndsItWhicheverComesFirst)
{
    // As a queue's cancel-all does while one of its threads starts the
    // operation: the two meet on the connection with nothing ordering them.
    for (int round = 0; round < 100; ++round) {
        SCOPED_TRACE(round);
        const auto operation = RecordingOperation::create(server_->url("/slow?seconds=60"));
        // Both sides made ready beforehand, so that they meet at the connection.
        static_cast<void>(operation->connection());
        std::latch bothReady(2);
        std::thread starter([&] {
            static_cast<void>(platform::RunLoop::currentRunLoop());
            bothReady.arrive_and_wait();
            operation->start();
        });
        bothReady.arrive_and_wait();
        operation->cancel();
        starter.join();
        EXPECT_TRUE(operation->isFinished());
        EXPECT_FALSE(operation->error());
        EXPECT_TRUE(operation->calls().empty());
    }
}

TEST_F(QMRESTAPIRequestOperationLoadTest, OperationsRunFromAQueueAndFromSeveralThreadsAtOnce)
{
    const auto queue = platform::OperationQueue::create();
    std::vector<std::shared_ptr<RecordingOperation>> operations;
    for (int index = 0; index < 6; ++index) {
        operations.push_back(RecordingOperation::create(server_->url("/echo?n=" + std::to_string(index))));
        queue->addOperation(operations.back());
    }
    queue->waitUntilAllOperationsAreFinished();
    for (std::size_t index = 0; index < operations.size(); ++index) {
        SCOPED_TRACE(index);
        EXPECT_TRUE(operations[index]->isFinished());
        EXPECT_FALSE(operations[index]->error());
        EXPECT_EQ(wire(*operations[index])["target"], "/echo?n=" + std::to_string(index));
    }
}

// --- Server trust over https

class QMRESTAPIRequestOperationTrustTest : public ::testing::Test {
protected:
    void SetUp() override { clearProxies(); }

    static std::string url(const testsupport::LocalServer& server, const std::string& host = "127.0.0.1",
                           const std::string& path = "/echo")
    {
        return "https://" + host + ":" + std::to_string(server.port()) + path;
    }

    struct Outcome {
        bool succeeded;
        ErrorRef error;
        std::optional<Data> cookie;
    };
    static Outcome run(const std::string& address, bool trustsServer, std::optional<Data> cookie,
                       std::optional<std::string> systemVersion = std::nullopt)
    {
        const auto operation = RecordingOperation::create(address);
        operation->setTrustsServer(trustsServer);
        operation->setServerTrustExceptionCookie(std::move(cookie));
        operation->systemVersion = std::move(systemVersion);
        ErrorRef error;
        const bool succeeded = operation->execute(&error);
        return {succeeded, error, operation->serverTrustExceptionCookie()};
    }
    static void expectRefused(const Outcome& outcome)
    {
        EXPECT_FALSE(outcome.succeeded);
        ASSERT_TRUE(outcome.error);
        EXPECT_EQ(outcome.error->domain(), platform::NSURLErrorDomain);
        EXPECT_EQ(outcome.error->code(), platform::NSURLErrorServerCertificateUntrusted);
    }

    testsupport::TemporaryDirectory firstCertificate_;
    testsupport::TemporaryDirectory secondCertificate_;
    std::unique_ptr<testsupport::LocalServer> first_ = testsupport::startHTTPSTestServer(firstCertificate_);
    std::unique_ptr<testsupport::LocalServer> second_ = testsupport::startHTTPSTestServer(secondCertificate_);
};

TEST_F(QMRESTAPIRequestOperationTrustTest, AnUntrustedServerIsRefusedByDefault)
{
    const auto outcome = run(url(*first_), false, std::nullopt);
    expectRefused(outcome);
    EXPECT_FALSE(outcome.cookie);
}

TEST_F(QMRESTAPIRequestOperationTrustTest, TrustingAServerRecordsACookieThatAloneAdmitsThatServerOnly)
{
    const auto trusted = run(url(*first_), true, std::nullopt);
    ASSERT_TRUE(trusted.succeeded) << trusted.error->localizedDescription();
    ASSERT_TRUE(trusted.cookie);

    // The cookie alone, without the user's word: the same server is accepted,
    // and the cookie handed back is the one given.
    const auto again = run(url(*first_), false, trusted.cookie);
    EXPECT_TRUE(again.succeeded);
    EXPECT_EQ(again.cookie, trusted.cookie);

    // Not another server, not even with the user's word: a given cookie is
    // applied rather than replaced.
    expectRefused(run(url(*second_), false, trusted.cookie));
    const auto other = run(url(*second_), true, trusted.cookie);
    expectRefused(other);
    EXPECT_EQ(other.cookie, trusted.cookie);
    // Nor the same server reached under another name.
    EXPECT_FALSE(run(url(*first_, "localhost"), false, trusted.cookie).succeeded);

    // The second server's own cookie does not admit the first.
    const auto secondCookie = run(url(*second_), true, std::nullopt).cookie;
    ASSERT_TRUE(secondCookie);
    EXPECT_NE(secondCookie, trusted.cookie);
    expectRefused(run(url(*first_), false, secondCookie));
}

TEST_F(QMRESTAPIRequestOperationTrustTest, ACookieThatIsNotOneOfOursAdmitsNothing)
{
    for (const Data& foreign : {bytes("not ours"), Data{}, bytes("zarvo-trust-exception 1 127.0.0.1 00")}) {
        SCOPED_TRACE(std::string(foreign.begin(), foreign.end()));
        expectRefused(run(url(*first_), false, foreign));
        const auto withWord = run(url(*first_), true, foreign);
        expectRefused(withWord);
        EXPECT_EQ(withWord.cookie, foreign);
    }
}

TEST_F(QMRESTAPIRequestOperationTrustTest, UpTo10Point8ATrustedServerIsAcceptedWithoutACookie)
{
    for (const char* version : {"10.8", "10.7.5", "9"}) {
        SCOPED_TRACE(version);
        const auto old = run(url(*first_), true, std::nullopt, version);
        EXPECT_TRUE(old.succeeded);
        EXPECT_FALSE(old.cookie);
        // Without the user's word the system still decides.
        expectRefused(run(url(*first_), false, std::nullopt, version));
    }
    const auto newer = run(url(*first_), true, std::nullopt, "10.8.1");
    EXPECT_TRUE(newer.succeeded);
    EXPECT_TRUE(newer.cookie);
}

TEST_F(QMRESTAPIRequestOperationTrustTest, CancelFromAnotherThreadEndsAStartInProgress)
{
    // The server holds its answer back; the challenge says the load is under way.
    const auto operation = RecordingOperation::create(url(*first_, "127.0.0.1", "/slow?seconds=60"));
    operation->setTrustsServer(true);
    auto challenged = operation->challenged.get_future();
    std::thread starter([&] { operation->start(); });
    challenged.wait();
    operation->cancel();
    starter.join();
    EXPECT_TRUE(operation->isFinished());
    EXPECT_FALSE(operation->error());
    EXPECT_TRUE(operation->calls().empty());
}

}  // namespace
