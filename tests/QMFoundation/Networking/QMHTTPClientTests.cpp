// QMHTTPClient against a real local server, and its test double.
#include "QMFoundation/Networking/QMHTTPBasicAuth.h"
#include "QMFoundation/Networking/QMHTTPClient.h"
#include "QMFoundation/Networking/QMHTTPTestClient.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/RunLoop.h"
#include "Platform/URLLoading/URLError.h"
#include "QMFoundation/Strings/NSData+QMBase64Transcoding.h"
#include "tests/Support/AssertionCapture.h"
#include "tests/Support/EchoServer.h"
#include "tests/Support/LocalServer.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

using namespace platform;

namespace {

// What a client told its delegate, in order, and what it looked like then.
class Outcomes final : public QMHTTPClientDelegate {
public:
    void HTTPClientDidReceiveResponse(QMHTTPClientProtocol& client, const QMHTTPResponseRef& received) override
    {
        events.push_back("response");
        sendingWhenTold.push_back(client.isSending());
        response = received;
    }
    void HTTPClientDidFailWithError(QMHTTPClientProtocol& client, const ErrorRef& failure) override
    {
        events.push_back("failure");
        sendingWhenTold.push_back(client.isSending());
        error = failure;
    }

    std::vector<std::string> events;
    std::vector<bool> sendingWhenTold;
    QMHTTPResponseRef response;
    ErrorRef error;
};

// A client whose requests give up after one quiet second.
class ImpatientClient final : public QMHTTPClient {
public:
    static std::shared_ptr<ImpatientClient> create(QMHTTPRequestRef request)
    {
        return platform::makeObject<ImpatientClient>(std::move(request));
    }

protected:
    template <class> friend struct platform::ObjectAllocator;
    explicit ImpatientClient(QMHTTPRequestRef request) : QMHTTPClient(std::move(request), nullptr) {}

    MutableURLRequestRef URLRequestForRequest(const QMHTTPRequestRef& request, const QMHTTPAuthRef& auth) override
    {
        auto made = QMHTTPClient::URLRequestForRequest(request, auth);
        made->setTimeoutInterval(1);
        return made;
    }
};

std::string refusedURL()
{
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
    getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
    close(probe);
    return "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
}

Data bytes(std::string_view text)
{
    return Data(text.begin(), text.end());
}

class QMHTTPClientTest : public ::testing::Test {
protected:
    void SetUp() override { testsupport::clearProxyVariables(); }

    URL url(const std::string& path) const { return *URL::fromString(server_.url(path)); }

    // Sends synchronously and reads what the echo path received.
    testsupport::EchoedRequest echoed(const QMHTTPRequestRef& request, const QMHTTPAuthRef& auth = nullptr)
    {
        ErrorRef error;
        const auto response = QMHTTPClient::clientWithRequest(request, auth)->send(&error);
        EXPECT_FALSE(error) << (error ? error->description() : "");
        EXPECT_TRUE(response && response->content());
        return testsupport::EchoedRequest(response && response->content() ? *response->content() : "{}");
    }

    testsupport::LocalServer server_{testsupport::echoServerCommand()};
};

TEST_F(QMHTTPClientTest, PutsParametersInTheQueryOnlyForGETAndDELETE)
{
    struct Row {
        const char* method;
        const char* path;
        Dictionary params;
        const char* target;
    };
    const Row rows[] = {
        {"GET", "/echo", {{"q", "a b"}}, "/echo?q=a%20b"},
        // Appended to a query that is there already, with no "&" between.
        {"GET", "/echo?x=1", {{"y", "2"}}, "/echo?x=1y=2"},
        {"GET", "/echo", {}, "/echo"},
        {"DELETE", "/echo", {{"a", 1}, {"b", "c&d"}}, "/echo?a=1&b=c%26d"},
        {"POST", "/echo", {{"a", 1}}, "/echo"},
        {"PUT", "/echo", {{"a", 1}}, "/echo"},
        {"get", "/echo", {{"a", 1}}, "/echo"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.method) + " " + row.path);
        const auto seen = echoed(QMHTTPRequest::requestWithURL(url(row.path), std::string(row.method), row.params));
        EXPECT_EQ(seen.method(), row.method);
        EXPECT_EQ(seen.target(), row.target);
        EXPECT_EQ(seen.body(), "");
    }
}

TEST_F(QMHTTPClientTest, SendsTheBodyOnlyForPOSTAndPUT)
{
    for (const char* method : {"POST", "PUT", "PATCH", "post", "GET", "DELETE"}) {
        SCOPED_TRACE(method);
        const auto seen = echoed(QMHTTPRequest::requestWithURL(url("/echo"), std::string(method), Dictionary{{"p", 1}},
                                                               bytes("{\"a\":1}"), std::nullopt));
        const bool carriesBody = std::string(method) == "POST" || std::string(method) == "PUT";
        EXPECT_EQ(dataWithBase64EncodedString(seen.body()), carriesBody ? bytes("{\"a\":1}") : Data());
    }
    // Without a method a request is a GET.
    EXPECT_EQ(echoed(QMHTTPRequest::requestWithURL(url("/echo"))).method(), "GET");
}

TEST_F(QMHTTPClientTest, SendsBasicCredentialsAndCallerFieldsOnTop)
{
    const auto request = QMHTTPRequest::requestWithURL(url("/echo"));
    EXPECT_EQ(echoed(request, QMHTTPBasicAuth::basicAuthWithUsername("u", "p")).field("Authorization"), "Basic dTpw");

    // Long credentials are one line, not the encoder's 72-character lines.
    const std::string longName(100, 'n');
    const auto longOne = echoed(request, QMHTTPBasicAuth::basicAuthWithUsername(longName, "secret")).field("Authorization");
    ASSERT_TRUE(longOne);
    EXPECT_EQ(dataWithBase64EncodedString(longOne->substr(6)), bytes(longName + ":secret"));

    // Credentials that are not ASCII convert to nothing at all.
    EXPECT_EQ(echoed(request, QMHTTPBasicAuth::basicAuthWithUsername("jö", "p")).field("Authorization"), "Basic ");

    const auto withFields = QMHTTPRequest::requestWithURL(url("/echo"), std::string("GET"), std::nullopt, std::nullopt,
                                                          Dictionary{{"Authorization", "Bearer t"}, {"X-Count", 3}});
    const auto seen = echoed(withFields, QMHTTPBasicAuth::basicAuthWithUsername("u", "p"));
    EXPECT_EQ(seen.field("Authorization"), "Bearer t");
    EXPECT_EQ(seen.field("X-Count"), "3");
    EXPECT_FALSE(seen.field("Cookie"));
}

TEST_F(QMHTTPClientTest, CredentialsFollowARedirectOnlyOnTheSameHost)
{
    const auto auth = QMHTTPBasicAuth::basicAuthWithUsername("u", "p");
    EXPECT_EQ(echoed(QMHTTPRequest::requestWithURL(url("/redirect?to=/echo")), auth).field("Authorization"), "Basic dTpw");
    // "localhost" is another host than "127.0.0.1", though the same server.
    const auto elsewhere = "http://localhost:" + std::to_string(server_.port()) + "/echo";
    const auto seen = echoed(QMHTTPRequest::requestWithURL(url("/redirect?to=" + elsewhere)), auth);
    EXPECT_EQ(seen.target(), "/echo");
    EXPECT_FALSE(seen.field("Authorization"));
}

TEST_F(QMHTTPClientTest, AnErrorStatusIsAnAnswerAndABodyNeedNotBeText)
{
    const auto outcomes = std::make_shared<Outcomes>();
    const auto client = QMHTTPClient::clientWithRequest(QMHTTPRequest::requestWithURL(url("/status/404")));
    client->setDelegate(outcomes);
    ErrorRef error;
    const auto response = client->send(&error);
    ASSERT_TRUE(response);
    EXPECT_FALSE(error);
    EXPECT_EQ(outcomes->events, (std::vector<std::string>{"response"}));
    EXPECT_EQ(outcomes->response, response);
    EXPECT_EQ(response->status(), 404);
    EXPECT_TRUE(response->isErrorResponse());
    EXPECT_EQ(response->content(), "status 404");
    ASSERT_TRUE(response->headers());
    EXPECT_EQ(response->headers()->get("Content-Length"), Value("10"));

    // Bytes 0 to 255 are not UTF-8.
    const auto binary = QMHTTPClient::clientWithRequest(QMHTTPRequest::requestWithURL(url("/big?bytes=256")))->send(nullptr);
    ASSERT_TRUE(binary && binary->body());
    EXPECT_EQ(binary->body()->size(), 256u);
    EXPECT_FALSE(binary->content());
}

TEST_F(QMHTTPClientTest, ReportsTransportFailuresUnchanged)
{
    struct Row {
        std::string url;
        std::int64_t code;
    };
    const Row rows[] = {
        {refusedURL(), NSURLErrorCannotConnectToHost},
        {server_.url("/garbage"), NSURLErrorBadServerResponse},
        {server_.url("/close-mid-body"), NSURLErrorNetworkConnectionLost},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.url);
        const auto outcomes = std::make_shared<Outcomes>();
        const auto client = QMHTTPClient::clientWithRequest(QMHTTPRequest::requestWithURL(URL::fromString(row.url)));
        client->setDelegate(outcomes);
        ErrorRef error;
        EXPECT_FALSE(client->send(&error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain(), NSURLErrorDomain);
        EXPECT_EQ(error->code(), row.code);
        EXPECT_EQ(outcomes->events, (std::vector<std::string>{"failure"}));
        EXPECT_EQ(outcomes->sendingWhenTold, (std::vector<bool>{false}));
        EXPECT_EQ(client->error(), error);
        EXPECT_FALSE(client->response());
    }
}

TEST_F(QMHTTPClientTest, ASubclassCanShortenTheTimeout)
{
    const auto client = ImpatientClient::create(QMHTTPRequest::requestWithURL(url("/slow?seconds=60")));
    ErrorRef error;
    EXPECT_FALSE(client->send(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSURLErrorTimedOut);
}

// Without a URL nothing is loaded; the failure still comes from the run
// loop, as any connection's would, not from inside `send`.
TEST_F(QMHTTPClientTest, ARequestWithoutAURLFailsLikeAConnection)
{
    const auto outcomes = std::make_shared<Outcomes>();
    const auto client = QMHTTPClient::clientWithRequest(QMHTTPRequest::create());
    client->setDelegate(outcomes);
    client->send();
    EXPECT_TRUE(client->isSending());
    EXPECT_TRUE(outcomes->events.empty());
    client->waitUntilFinished();
    EXPECT_EQ(outcomes->events, (std::vector<std::string>{"failure"}));
    ASSERT_TRUE(client->error());
    EXPECT_EQ(client->error()->code(), NSURLErrorBadURL);
}

TEST_F(QMHTTPClientTest, SendsAtMostOnce)
{
    const auto client = QMHTTPClient::clientWithRequest(QMHTTPRequest::requestWithURL(url("/echo")));
    ASSERT_TRUE(client->send(nullptr));
    EXPECT_FALSE(client->isSending());
    EXPECT_EQ(testsupport::raisedReason(NSInternalInconsistencyException, [&] { client->send(); }),
              "QMHTTPClient can only perform one connection request.");

    const auto failure = testsupport::captureAssertion([] { QMHTTPClient::client()->send(); });
    EXPECT_EQ(failure.description, "Invalid parameter not satisfying: request != nil");
    EXPECT_EQ(failure.file, "QMFoundation/QMHTTPClient");
    EXPECT_EQ(failure.line, 120);
}

TEST_F(QMHTTPClientTest, AnAsynchronousSendAnswersOnTheRunLoopAndCancelIsSilent)
{
    const auto outcomes = std::make_shared<Outcomes>();
    auto client = QMHTTPClient::clientWithRequest(QMHTTPRequest::requestWithURL(url("/echo")));
    client->setDelegate(outcomes);
    client->send();
    EXPECT_TRUE(outcomes->events.empty());
    // Nobody holds the client now but its connection, which is in flight.
    const std::weak_ptr<QMHTTPClient> inFlight = client;
    client.reset();
    while (outcomes->events.empty()
           && RunLoop::currentRunLoop()->runModeBeforeDate(NSDefaultRunLoopMode, Date::now().dateByAddingTimeInterval(30))) {
    }
    EXPECT_EQ(outcomes->events, (std::vector<std::string>{"response"}));
    EXPECT_EQ(outcomes->sendingWhenTold, (std::vector<bool>{false}));

    // Cancelled, a client stays "sending" and says nothing; waiting ends
    // once the run loop has nothing left.
    const auto slow = std::make_shared<Outcomes>();
    const auto cancelled = QMHTTPClient::clientWithRequest(QMHTTPRequest::requestWithURL(url("/slow?seconds=3")));
    cancelled->setDelegate(slow);
    cancelled->send();
    cancelled->cancel();
    cancelled->waitUntilFinished();
    EXPECT_TRUE(cancelled->isSending());
    EXPECT_TRUE(slow->events.empty());
    EXPECT_FALSE(cancelled->response());
}

#ifndef NDEBUG
TEST_F(QMHTTPClientTest, DebugBuildsRaiseWhenASecondThreadUsesIt)
{
    // Made on one thread, sent from another: the sending thread owns it.
    QMHTTPClientRef client;
    std::thread([&] { client = QMHTTPClient::clientWithRequest(QMHTTPRequest::requestWithURL(url("/echo"))); }).join();
    const auto outcomes = std::make_shared<Outcomes>();
    client->setDelegate(outcomes);
    client->send();

    AssertionFailure failure;
    std::thread([&] { failure = testsupport::captureAssertion([&] { client->cancel(); }); }).join();
    EXPECT_EQ(failure.method, "cancel");
    // The refused cancel left the connection alone: it still answers here.
    client->waitUntilFinished();
    EXPECT_EQ(outcomes->events, (std::vector<std::string>{"response"}));
}
#endif

TEST_F(QMHTTPClientTest, ADelegateThatWentAwayHearsNothing)
{
    const auto client = QMHTTPClient::clientWithRequest(QMHTTPRequest::requestWithURL(url("/echo")));
    client->setDelegate(std::make_shared<Outcomes>());
    EXPECT_TRUE(client->delegate().expired());
    EXPECT_TRUE(client->send(nullptr));
}

TEST(QMHTTPTestClientTest, AnswersFromInsideSendWithWhatItWasGiven)
{
    const auto canned = QMHTTPResponse::responseWithStatus(201, Dictionary{{"X", "y"}}, bytes("made"));
    const auto answering = QMHTTPTestClient::clientWithResponse(canned);
    const auto outcomes = std::make_shared<Outcomes>();
    answering->setDelegate(outcomes);
    answering->send();
    EXPECT_EQ(outcomes->events, (std::vector<std::string>{"response"}));
    EXPECT_EQ(outcomes->response, canned);
    EXPECT_EQ(outcomes->sendingWhenTold, (std::vector<bool>{false}));
    // It tests `sending`, not a connection: answered, it may be sent again.
    EXPECT_EQ(answering->send(nullptr), canned);

    const auto failure = makeURLError(NSURLErrorTimedOut, "http://example.invalid/");
    const auto failing = QMHTTPTestClient::create(nullptr, canned, nullptr, failure);
    const auto told = std::make_shared<Outcomes>();
    failing->setDelegate(told);
    ErrorRef error;
    EXPECT_FALSE(failing->send(&error));
    EXPECT_EQ(error, failure);
    EXPECT_EQ(told->events, (std::vector<std::string>{"failure"}));
    EXPECT_EQ(told->error, failure);

    // No canned response: nothing, and no error either.
    ErrorRef none;
    EXPECT_FALSE(QMHTTPTestClient::client()->send(&none));
    EXPECT_FALSE(none);
}

}  // namespace
