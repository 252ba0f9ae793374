// Server trust: two https servers of the test's own, each with a self-signed
// certificate made for the test, which the system therefore does not trust.
#include "Platform/Security/SecTrust.h"
#include "Platform/URLLoading/URLConnection.h"
#include "Platform/URLLoading/URLError.h"

#include "Platform/Foundation/OperationQueue.h"
#include "Platform/Foundation/RunLoop.h"
#include "tests/Support/EchoServer.h"
#include "tests/Support/HTTPTestServer.h"
#include "tests/Support/RunProgram.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

using namespace platform;

namespace {

// Answers trust challenges the way an application that keeps per-server
// exceptions does: a cookie it was given is applied before the evaluation;
// without one, a server the user trusts gets its exceptions recorded.
class TrustDecider final : public URLConnectionDelegate {
public:
    enum class Policy { Evaluate, Cancel, Default };

    bool handlesAuthenticationChallenges() const override { return true; }
    void connectionWillSendRequestForAuthenticationChallenge(const URLConnectionRef&,
                                                             const URLAuthenticationChallengeRef& challenge) override
    {
        ++challenges;
        const auto& space = challenge->protectionSpace();
        host = space.host();
        const auto& sender = challenge->sender();
        if (policy == Policy::Cancel) {
            sender->cancelAuthenticationChallenge(challenge);
            return;
        }
        if (policy == Policy::Default || (!trustsServer && !cookie)) {
            sender->performDefaultHandlingForAuthenticationChallenge(challenge);
            return;
        }
        const auto& trust = space.serverTrust();
        if (cookie) {
            SecTrustSetExceptions(trust, cookie);
        } else {
            cookie = SecTrustCopyExceptions(trust);
        }
        if (SecTrustEvaluate(trust, nullptr) == errSecSuccess) {
            sender->useCredential(URLCredential::credentialForTrust(trust), challenge);
        } else {
            sender->performDefaultHandlingForAuthenticationChallenge(challenge);
        }
    }
    void connectionDidFinishLoading(const URLConnectionRef&) override
    {
        finished = true;
        done = true;
    }
    void connectionDidFailWithError(const URLConnectionRef&, const ErrorRef& failure) override
    {
        error = failure;
        done = true;
    }

    // Set last, so everything else is there to read once it is (the delegate
    // may run on a queue's thread).
    bool ended() const { return done.load(); }
    std::atomic<bool> done{false};

    Policy policy = Policy::Evaluate;
    bool trustsServer = false;
    std::optional<Data> cookie;
    int challenges = 0;
    std::string host;
    bool finished = false;
    ErrorRef error;
};

// A delegate that does not answer challenges (the system decides) and
// records how the load ended.
struct Outcome final : URLConnectionDelegate {
    void connectionDidFinishLoading(const URLConnectionRef&) override { finished = true; }
    void connectionDidFailWithError(const URLConnectionRef&, const ErrorRef& failure) override { error = failure; }
    bool ended() const { return finished || error; }
    bool finished = false;
    ErrorRef error;
};

class ServerTrustTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char* variable : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
            unsetenv(variable);
        }
    }

    static std::string url(const testsupport::LocalServer& server, const std::string& host = "127.0.0.1")
    {
        return "https://" + host + ":" + std::to_string(server.port()) + "/echo";
    }

    static void load(const std::string& url, const std::shared_ptr<URLConnectionDelegate>& delegate,
                     const std::function<bool()>& ended, OperationQueueRef queue = nullptr)
    {
        const auto connection = URLConnection::create(URLRequest::create(*URL::fromString(url)), delegate, false);
        connection->setDelegateQueue(queue);
        connection->start();
        const auto loop = RunLoop::currentRunLoop();
        const Date limit = Date::now().dateByAddingTimeInterval(30);
        while (!ended() && Date::now() < limit) {
            if (queue) {
                queue->waitUntilAllOperationsAreFinished();
            } else if (!loop->runModeBeforeDate(NSDefaultRunLoopMode, limit)) {
                break;
            }
        }
    }

    std::shared_ptr<TrustDecider> loadWith(const std::string& address, TrustDecider::Policy policy, bool trustsServer,
                                           std::optional<Data> cookie, OperationQueueRef queue = nullptr)
    {
        auto decider = std::make_shared<TrustDecider>();
        decider->policy = policy;
        decider->trustsServer = trustsServer;
        decider->cookie = std::move(cookie);
        load(address, decider, [&] { return decider->ended(); }, std::move(queue));
        return decider;
    }

    testsupport::TemporaryDirectory firstCertificate_;
    testsupport::TemporaryDirectory secondCertificate_;
    std::unique_ptr<testsupport::LocalServer> first_ = testsupport::startHTTPSTestServer(firstCertificate_);
    std::unique_ptr<testsupport::LocalServer> second_ = testsupport::startHTTPSTestServer(secondCertificate_);
};

TEST_F(ServerTrustTest, AnUntrustedServerIsRefusedUnlessTheDelegateSaysOtherwise)
{
    const auto silent = std::make_shared<Outcome>();
    load(url(*first_), silent, [&] { return silent->error != nullptr; });
    ASSERT_TRUE(silent->error);
    EXPECT_EQ(silent->error->code(), NSURLErrorServerCertificateUntrusted);

    const auto byDefault = loadWith(url(*first_), TrustDecider::Policy::Default, true, std::nullopt);
    ASSERT_TRUE(byDefault->error);
    EXPECT_EQ(byDefault->error->code(), NSURLErrorServerCertificateUntrusted);
    EXPECT_EQ(byDefault->challenges, 1);
    EXPECT_EQ(byDefault->host, "127.0.0.1");

    const auto cancelled = loadWith(url(*first_), TrustDecider::Policy::Cancel, true, std::nullopt);
    ASSERT_TRUE(cancelled->error);
    EXPECT_EQ(cancelled->error->code(), NSURLErrorUserCancelledAuthentication);
}

TEST_F(ServerTrustTest, ACookieRecordedForOneServerAdmitsThatServerAndNoOther)
{
    const auto trusted = loadWith(url(*first_), TrustDecider::Policy::Evaluate, true, std::nullopt);
    EXPECT_TRUE(trusted->finished);
    ASSERT_TRUE(trusted->cookie);

    // The cookie alone, with no word from the user, admits the same server...
    const auto again = loadWith(url(*first_), TrustDecider::Policy::Evaluate, false, trusted->cookie);
    EXPECT_TRUE(again->finished);
    EXPECT_EQ(again->challenges, 1);  // asked again: no connection or session was kept for it

    // ...and the same certificate on another port: a server is known by its
    // key, and a certificate names no port.
    const testsupport::LocalServer samePair{{"python3", testsupport::sourceFile("tests/Platform/URLLoading/http_test_server.py"),
                                             firstCertificate_.path() + "/cert.pem", firstCertificate_.path() + "/key.pem"}};
    const auto moved = loadWith(url(samePair), TrustDecider::Policy::Evaluate, false, trusted->cookie);
    EXPECT_TRUE(moved->finished);

    // But not another server, even one the user would trust, on the same
    // address and another port,
    const auto other = loadWith(url(*second_), TrustDecider::Policy::Evaluate, true, trusted->cookie);
    ASSERT_TRUE(other->error);
    EXPECT_EQ(other->error->code(), NSURLErrorServerCertificateUntrusted);
    // nor the same server reached under another name.
    const auto renamed = loadWith(url(*first_, "localhost"), TrustDecider::Policy::Evaluate, false, trusted->cookie);
    ASSERT_TRUE(renamed->error);
    EXPECT_EQ(renamed->host, "localhost");
}

// The next load on the thread takes the easy handle of a challenged one: it
// must come with the system's check again, and no connection of the
// challenged load.
TEST_F(ServerTrustTest, AChallengedLoadLeavesNothingToTheNextOnItsThread)
{
    const auto trusted = loadWith(url(*first_), TrustDecider::Policy::Evaluate, true, std::nullopt);
    EXPECT_TRUE(trusted->finished);

    const auto unasked = std::make_shared<Outcome>();
    load(url(*first_), unasked, [&] { return unasked->ended(); });
    ASSERT_TRUE(unasked->error);
    EXPECT_EQ(unasked->error->code(), NSURLErrorServerCertificateUntrusted);

    // Plain http on the same handle afterwards.
    testsupport::clearProxyVariables();
    const testsupport::LocalServer clear{testsupport::echoServerCommand()};
    const auto plain = std::make_shared<Outcome>();
    load("http://127.0.0.1:" + std::to_string(clear.port()) + "/echo", plain, [&] { return plain->ended(); });
    EXPECT_TRUE(plain->finished);
    EXPECT_FALSE(plain->error);
}

// What was asked over https never follows a redirect into the clear.
TEST_F(ServerTrustTest, AnHTTPSLoadDoesNotFollowARedirectToPlainHTTP)
{
    const auto clear = "http://127.0.0.1:" + std::to_string(second_->port()) + "/echo";
    const auto address = "https://127.0.0.1:" + std::to_string(first_->port()) + "/redirect?to=" + clear;
    const auto redirected = loadWith(address, TrustDecider::Policy::Evaluate, true, std::nullopt);
    ASSERT_TRUE(redirected->error);
    EXPECT_EQ(redirected->error->code(), NSURLErrorUnsupportedURL);
    EXPECT_FALSE(redirected->finished);
}

TEST_F(ServerTrustTest, ChallengesReachADelegateQueueToo)
{
    const auto queue = OperationQueue::create();
    queue->setMaxConcurrentOperationCount(1);
    const auto trusted = loadWith(url(*first_), TrustDecider::Policy::Evaluate, true, std::nullopt, queue);
    EXPECT_TRUE(trusted->finished);
    EXPECT_EQ(trusted->challenges, 1);
    const auto refused = loadWith(url(*second_), TrustDecider::Policy::Evaluate, false, trusted->cookie, queue);
    ASSERT_TRUE(refused->error);
    EXPECT_EQ(refused->error->code(), NSURLErrorServerCertificateUntrusted);
}

// The evaluation itself, without a handshake.
TEST_F(ServerTrustTest, ForeignOrMismatchedCookiesMatchNothing)
{
    const auto convert = [](const std::string& directory) {
        const auto result = testsupport::runProgram("/usr/bin/openssl", {"x509", "-in", directory + "/cert.pem", "-outform", "DER"},
                                                    {{"PATH", "/usr/bin:/bin"}});
        return Data(result.standardOutput.begin(), result.standardOutput.end());
    };
    const auto certificate = convert(firstCertificate_.path());
    ASSERT_FALSE(certificate.empty());
    const auto trust = SecTrustCreateWithCertificates({certificate}, "127.0.0.1");
    SecTrustResultType result = kSecTrustResultInvalid;
    EXPECT_EQ(SecTrustEvaluate(trust, &result), errSecSuccess);
    EXPECT_EQ(result, kSecTrustResultRecoverableTrustFailure);

    const auto cookie = SecTrustCopyExceptions(trust);
    ASSERT_TRUE(cookie);
    EXPECT_TRUE(SecTrustSetExceptions(trust, cookie));
    EXPECT_EQ(SecTrustEvaluate(trust, &result), errSecSuccess);
    EXPECT_EQ(result, kSecTrustResultProceed);

    const Data foreign{'n', 'o', 't', ' ', 'o', 'u', 'r', 's'};
    EXPECT_FALSE(SecTrustSetExceptions(trust, foreign));
    EXPECT_EQ(SecTrustEvaluate(trust, &result), errSecNotTrusted);
    EXPECT_EQ(SecTrustEvaluate(trust, nullptr), errSecNotTrusted);

    const auto elsewhere = SecTrustCreateWithCertificates({certificate}, "localhost");
    SecTrustSetExceptions(elsewhere, cookie);
    EXPECT_EQ(SecTrustEvaluate(elsewhere, nullptr), errSecNotTrusted);

    const auto garbage = SecTrustCreateWithCertificates({Data{0x30, 0x03, 0x02, 0x01, 0x01}}, "127.0.0.1");
    EXPECT_FALSE(SecTrustCopyExceptions(garbage));
    EXPECT_EQ(SecTrustEvaluate(garbage, &result), errSecSuccess);
    EXPECT_EQ(result, kSecTrustResultRecoverableTrustFailure);
    EXPECT_FALSE(SecTrustCreateWithCertificates({}, "127.0.0.1"));
}

// The CPU time this thread has used, in seconds.
double threadCPUTime()
{
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
         + static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// A delegate may run its loop while it decides about a server (as a dialog
// would). Meanwhile the transport cannot be re-entered, so it must stop
// watching what it cannot serve rather than spin on it, and pick every load
// up again once the answer is in.
TEST_F(ServerTrustTest, ALoopRunWhileAChallengeWaitsStaysIdle)
{
    // A listener of the test's own, so that the test decides when the other
    // load's answer arrives: while the challenge waits.
    int port = 0;
    const int listener = testsupport::bindLoopbackSocket(port);
    ASSERT_EQ(listen(listener, 4), 0);
    const auto plainURL = "http://127.0.0.1:" + std::to_string(port) + "/";

    struct Plain final : URLConnectionDelegate {
        void connectionDidReceiveData(const URLConnectionRef&, const Data& data) override { text.append(data.begin(), data.end()); }
        void connectionDidFinishLoading(const URLConnectionRef&) override { finished = true; }
        void connectionDidFailWithError(const URLConnectionRef&, const ErrorRef&) override { failed = true; }
        std::string text;
        bool finished = false;
        bool failed = false;
    };
    struct Deliberating final : URLConnectionDelegate {
        bool handlesAuthenticationChallenges() const override { return true; }
        void connectionWillSendRequestForAuthenticationChallenge(const URLConnectionRef&,
                                                                 const URLAuthenticationChallengeRef& challenge) override
        {
            pollfd waiting{listener, POLLIN, 0};
            if (poll(&waiting, 1, 10000) == 1) {
                answering = accept(listener, nullptr, nullptr);
                constexpr std::string_view answer = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nlate";
                EXPECT_EQ(write(answering, answer.data(), answer.size()), static_cast<ssize_t>(answer.size()));
            }
            // Started and cancelled while the transport is busy deciding.
            const auto meanwhile = URLConnection::create(URLRequest::create(*URL::fromString(plainURL)), unheard);

            // The window is what is measured, not a wait for something to happen.
            const auto loop = RunLoop::currentRunLoop();
            const Date end = Date::now().dateByAddingTimeInterval(0.5);
            const auto started = std::chrono::steady_clock::now();
            const double cpuBefore = threadCPUTime();
            while (Date::now() < end) {
                loop->runModeBeforeDate(NSDefaultRunLoopMode, end);
            }
            cpu = threadCPUTime() - cpuBefore;
            wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
            meanwhile->cancel();

            const auto& trust = challenge->protectionSpace().serverTrust();
            challenge->sender()->useCredential(URLCredential::credentialForTrust(trust), challenge);
        }
        void connectionDidFinishLoading(const URLConnectionRef&) override { finished = true; }
        void connectionDidFailWithError(const URLConnectionRef&, const ErrorRef&) override { failed = true; }

        int listener = -1;
        int answering = -1;
        std::string plainURL;
        std::shared_ptr<Plain> unheard = std::make_shared<Plain>();
        double cpu = 0;
        double wall = 0;
        bool finished = false;
        bool failed = false;
    };

    const auto plain = std::make_shared<Plain>();
    URLConnection::create(URLRequest::create(*URL::fromString(plainURL)), plain);
    const auto deliberating = std::make_shared<Deliberating>();
    deliberating->listener = listener;
    deliberating->plainURL = plainURL;
    URLConnection::create(URLRequest::create(*URL::fromString(url(*first_))), deliberating);

    const auto loop = RunLoop::currentRunLoop();
    const Date limit = Date::now().dateByAddingTimeInterval(30);
    while (!((plain->finished || plain->failed) && (deliberating->finished || deliberating->failed)) && Date::now() < limit
           && loop->runModeBeforeDate(NSDefaultRunLoopMode, limit)) {
    }
    EXPECT_GT(deliberating->wall, 0.4);
    EXPECT_LT(deliberating->cpu, 0.2 * deliberating->wall) << "cpu " << deliberating->cpu << " s in " << deliberating->wall << " s";
    EXPECT_TRUE(deliberating->finished);
    EXPECT_TRUE(plain->finished);
    EXPECT_EQ(plain->text, "late");
    EXPECT_FALSE(deliberating->unheard->finished || deliberating->unheard->failed);
    close(deliberating->answering);
    close(listener);
}

}  // namespace
