// Sequential small GET requests to a local keep-alive nginx: one
// URLConnection per request on this thread's run loop, against one reused
// libcurl easy handle (the baseline), in alternating rounds.
#include "Platform/Foundation/RunLoop.h"
#include "Platform/URLLoading/URLConnection.h"

#include "bench/BenchmarkSupport.h"
#include "bench/LocalNginx.h"

#include <curl/curl.h>


#include <chrono>
#include <cstdio>
#include <string>

using namespace platform;

namespace {

constexpr int kRequestsPerRound = 100;
constexpr int kRounds = 20;

class Counter final : public URLConnectionDelegate {
public:
    void connectionDidFinishLoading(const URLConnectionRef&) override { done = true; }
    void connectionDidFailWithError(const URLConnectionRef&, const ErrorRef&) override
    {
        std::fprintf(stderr, "a load failed\n");
        std::exit(2);
    }
    bool done = false;
};

double perRequest(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count() / kRequestsPerRound;
}

double connectionRound(const URLRequestRef& request)
{
    const auto loop = RunLoop::currentRunLoop();
    const auto start = std::chrono::steady_clock::now();
    for (int index = 0; index < kRequestsPerRound; ++index) {
        const auto counter = std::make_shared<Counter>();
        URLConnection::create(request, counter);
        while (!counter->done && loop->runModeBeforeDate(NSDefaultRunLoopMode, Date::now().dateByAddingTimeInterval(10))) {
        }
    }
    return perRequest(start);
}

std::size_t discard(char*, std::size_t size, std::size_t count, void*)
{
    return size * count;
}

double easyHandleRound(CURL* easy)
{
    const auto start = std::chrono::steady_clock::now();
    for (int index = 0; index < kRequestsPerRound; ++index) {
        if (curl_easy_perform(easy) != CURLE_OK) {
            std::exit(2);
        }
    }
    return perRequest(start);
}

}  // namespace

int main()
{
    unsetenv("http_proxy");
    const bench::LocalNginx server;
    const auto request = URLRequest::create(*URL::fromString(server.url()));
    CURL* easy = curl_easy_init();
    curl_easy_setopt(easy, CURLOPT_URL, server.url().c_str());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &discard);

    const auto [connection, baseline] = bench::pairedMedians([&] { return connectionRound(request); },
                                                             [&] { return easyHandleRound(easy); }, kRounds, 2);
    curl_easy_cleanup(easy);
    std::printf("%d sequential GETs each, median per request:\n", kRounds * kRequestsPerRound);
    std::printf("  URLConnection on the run loop  %7.1f us\n", connection);
    std::printf("  reused easy handle (baseline)  %7.1f us\n", baseline);
    std::printf("  ratio                          %7.2f\n", connection / baseline);
    return 0;
}
