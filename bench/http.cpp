// The HTTP client and the API operations against plain libcurl, on a local
// keep-alive nginx:
// 1. 2,000 sequential GETs through QMHTTPClient `send:`, a new client per
//    request as the operations use it, against one reused libcurl easy
//    handle, in alternating rounds: the ratio of the medians per request.
// 2. 2,000 QMHTTPAPIRequestOperations run from 8 threads (an operation
//    queue of width 8) against libcurl's multi interface with 8 transfers at
//    a time on reused handles: the ratio of the throughputs. Beside them, the
//    same requests from 8 threads that each block in `curl_easy_perform` on
//    a reused handle: what a blocking `start` costs with no layer of ours,
//    the floor for the operations.
#include "Platform/Foundation/OperationQueue.h"
#include "QMFoundation/Networking/QMHTTPAPIRequestOperation.h"
#include "QMFoundation/Networking/QMHTTPClient.h"

#include "bench/BenchmarkSupport.h"
#include "bench/LocalNginx.h"

#include <curl/curl.h>

#include <sys/resource.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

using namespace platform;

namespace {

constexpr int kRequestsPerRound = 100;
constexpr int kRounds = 20;
constexpr int kConcurrentRequests = 2000;
constexpr int kWidth = 8;
constexpr int kConcurrentRounds = 15;

using Clock = std::chrono::steady_clock;

double microsecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// User and system CPU time of the whole process, in microseconds. On a
// shared machine the throughput swings with the neighbours' load; the CPU
// each request costs us swings much less, so it is printed beside it.
double processCPUMicroseconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto micros = [](const timeval& time) { return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec); };
    return micros(usage.ru_utime) + micros(usage.ru_stime);
}

// CPU microseconds per request of each side's rounds, summed.
double operationsCPU = 0;
double multiCPU = 0;
double blockingCPU = 0;

std::size_t discard(char*, std::size_t size, std::size_t count, void*)
{
    return size * count;
}

CURL* easyHandle(const std::string& url)
{
    CURL* easy = curl_easy_init();
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &discard);
    return easy;
}

// One handle for each transfer in flight; `quiet` ones run without signals,
// as the transport's handles do (a blocking transfer otherwise sets and
// restores SIGPIPE's handler nine times).
std::array<CURL*, kWidth> easyHandles(const std::string& url, bool quiet)
{
    std::array<CURL*, kWidth> handles{};
    for (auto& handle : handles) {
        handle = easyHandle(url);
        curl_easy_setopt(handle, CURLOPT_NOSIGNAL, quiet ? 1L : 0L);
    }
    return handles;
}

double clientRound(const URL& url)
{
    const auto start = Clock::now();
    for (int index = 0; index < kRequestsPerRound; ++index) {
        ErrorRef error;
        const auto response = QMHTTPClient::clientWithRequest(QMHTTPRequest::requestWithURL(url))->send(&error);
        if (!response || response->status() != 200) {
            std::fprintf(stderr, "a request failed\n");
            std::exit(2);
        }
    }
    return microsecondsSince(start) / kRequestsPerRound;
}

double easyHandleRound(CURL* easy)
{
    const auto start = Clock::now();
    for (int index = 0; index < kRequestsPerRound; ++index) {
        if (curl_easy_perform(easy) != CURLE_OK) {
            std::exit(2);
        }
    }
    return microsecondsSince(start) / kRequestsPerRound;
}

// Requests per second.
double operationsRound(const URL& base)
{
    const auto queue = OperationQueue::create();
    queue->setMaxConcurrentOperationCount(kWidth);
    std::vector<QMHTTPAPIRequestOperationRef> operations;
    operations.reserve(kConcurrentRequests);
    for (int index = 0; index < kConcurrentRequests; ++index) {
        operations.push_back(QMHTTPAPIRequestOperation::create(base, "item", std::string("GET")));
    }
    const double cpu = processCPUMicroseconds();
    const auto start = Clock::now();
    for (const auto& operation : operations) {
        queue->addOperation(operation);
    }
    queue->waitUntilAllOperationsAreFinished();
    const double elapsed = microsecondsSince(start);
    operationsCPU += (processCPUMicroseconds() - cpu) / kConcurrentRequests;
    for (const auto& operation : operations) {
        if (operation->error()) {
            std::fprintf(stderr, "an operation failed\n");
            std::exit(2);
        }
    }
    return kConcurrentRequests / (elapsed / 1e6);
}

// Requests per second, `kWidth` transfers in flight, each handle reused.
double multiRound(CURLM* multi, const std::array<CURL*, kWidth>& handles)
{
    int started = 0;
    int finished = 0;
    const double cpu = processCPUMicroseconds();
    const auto start = Clock::now();
    for (CURL* easy : handles) {
        curl_multi_add_handle(multi, easy);
        ++started;
    }
    while (finished < kConcurrentRequests) {
        int running = 0;
        curl_multi_perform(multi, &running);
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
            if (message->msg != CURLMSG_DONE) {
                continue;
            }
            if (message->data.result != CURLE_OK) {
                std::exit(2);
            }
            CURL* easy = message->easy_handle;
            curl_multi_remove_handle(multi, easy);
            ++finished;
            if (started < kConcurrentRequests) {
                curl_multi_add_handle(multi, easy);
                ++started;
            }
        }
        if (finished < kConcurrentRequests) {
            curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        }
    }
    const double elapsed = microsecondsSince(start);
    multiCPU += (processCPUMicroseconds() - cpu) / kConcurrentRequests;
    return kConcurrentRequests / (elapsed / 1e6);
}

// Requests per second, `kWidth` threads each blocking in libcurl on a handle
// of its own.
double blockingThreadsRound(const std::array<CURL*, kWidth>& handles)
{
    const double cpu = processCPUMicroseconds();
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    threads.reserve(kWidth);
    for (CURL* easy : handles) {
        threads.emplace_back([easy] {
            for (int index = 0; index < kConcurrentRequests / kWidth; ++index) {
                if (curl_easy_perform(easy) != CURLE_OK) {
                    std::exit(2);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const double elapsed = microsecondsSince(start);
    blockingCPU += (processCPUMicroseconds() - cpu) / kConcurrentRequests;
    return kConcurrentRequests / (elapsed / 1e6);
}

}  // namespace

int main(int argc, char** argv)
{
    // "concurrent": only the second comparison, for profiling.
    const bool concurrentOnly = argc > 1 && std::string(argv[1]) == "concurrent";
    unsetenv("http_proxy");
    const bench::LocalNginx server;
    const auto url = *URL::fromString(server.url() + "item");

    if (!concurrentOnly) {
    CURL* easy = easyHandle(url.absoluteString());
    const auto [client, baseline] = bench::pairedMedians([&] { return clientRound(url); },
                                                         [&] { return easyHandleRound(easy); }, kRounds, 2);
    curl_easy_cleanup(easy);
    std::printf("%d sequential GETs each, median per request:\n", kRounds * kRequestsPerRound);
    std::printf("  QMHTTPClient send:, new client each  %7.1f us\n", client);
    std::printf("  reused easy handle (baseline)        %7.1f us\n", baseline);
    std::printf("  ratio                                %7.2f  (target <= 1.2)\n", client / baseline);
    }

    // The base URL without a trailing slash: the operation's path joining
    // gives "http:/127.0.0.1:PORT/item", as applications' calls do.
    const auto base = *URL::fromString(server.url().substr(0, server.url().size() - 1));
    CURLM* multi = curl_multi_init();
    const auto handles = easyHandles(url.absoluteString(), false);
    const auto [operations, multiBaseline] = bench::pairedMedians([&] { return operationsRound(base); },
                                                                  [&] { return multiRound(multi, handles); },
                                                                  kConcurrentRounds, 1);
    // The floor, paired with the baseline again so that both ratios come from
    // rounds run side by side.
    const auto quietHandles = easyHandles(url.absoluteString(), true);
    const auto [blocking, blockingBaseline] = bench::pairedMedians([&] { return blockingThreadsRound(quietHandles); },
                                                                   [&] { return multiRound(multi, handles); },
                                                                   kConcurrentRounds, 1);
    for (const auto& each : {handles, quietHandles}) {
        for (CURL* handle : each) {
            curl_easy_cleanup(handle);
        }
    }
    curl_multi_cleanup(multi);
    std::printf("%d GETs, %d at a time, median throughput:\n", kConcurrentRequests, kWidth);
    std::printf("  QMHTTPAPIRequestOperation on a queue of %d  %8.0f requests/s\n", kWidth, operations);
    std::printf("  libcurl multi, %d transfers (baseline)      %8.0f requests/s\n", kWidth, multiBaseline);
    std::printf("  ratio                                      %8.2f  (target >= 0.8)\n", operations / multiBaseline);
    std::printf("  floor: %d threads blocking in libcurl      %8.0f requests/s, ratio %.2f to its own baseline rounds\n",
                kWidth, blocking, blocking / blockingBaseline);
    const int rounds = kConcurrentRounds + 1;  // the warm-up round is counted too
    std::printf("  CPU of this process per request: operations %.1f us, floor %.1f us, multi %.1f us\n",
                operationsCPU / rounds, blockingCPU / rounds, multiCPU / (2 * rounds));
    return 0;
}
