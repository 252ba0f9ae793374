// What the REST operation's caller pays while it waits: a call to a local
// server that answers after 50 ms, through `execute` (the caller sleeps on
// its run loop until the finishing step signals it), against the same
// operation waited for by polling `isFinished` around a run loop that holds
// nothing (the loop as the design writes it, which returns at once and so
// spins). Thread CPU time and wall time of the calling thread per call.
#include "QMFoundation/REST/QMRESTAPIRequestOperation.h"

#include "bench/BenchmarkSupport.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kCalls = 20;
constexpr auto kServerDelay = std::chrono::milliseconds(50);

// Answers each request on a connection after kServerDelay, keeping the
// connection open.
class SlowServer {
public:
    SlowServer()
    {
        listener_ = bench::bindLoopbackSocket(port_);
        listen(listener_, 16);
        acceptor_ = std::thread([this] { acceptLoop(); });
    }
    ~SlowServer()
    {
        shutdown(listener_, SHUT_RDWR);  // wakes the accepting thread
        acceptor_.join();
        close(listener_);
        // The client keeps its connections for reuse: end them from here.
        for (const int connection : connections_) {
            shutdown(connection, SHUT_RDWR);
        }
        for (auto& worker : workers_) {
            worker.join();
        }
        for (const int connection : connections_) {
            close(connection);
        }
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }

private:
    void acceptLoop()
    {
        for (;;) {
            const int connection = accept(listener_, nullptr, nullptr);
            if (connection < 0) {
                return;
            }
            connections_.push_back(connection);  // only this thread adds, and it has ended before they are read
            workers_.emplace_back([connection] { serve(connection); });
        }
    }
    static void serve(int connection)
    {
        std::string pending;
        char buffer[4096];
        for (;;) {
            const auto read = recv(connection, buffer, sizeof buffer, 0);
            if (read <= 0) {
                break;
            }
            pending.append(buffer, static_cast<std::size_t>(read));
            while (pending.find("\r\n\r\n") != std::string::npos) {
                pending.erase(0, pending.find("\r\n\r\n") + 4);
                std::this_thread::sleep_for(kServerDelay);
                const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
                send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
            }
        }
    }

    int listener_ = -1;
    int port_ = 0;
    std::thread acceptor_;
    std::vector<std::thread> workers_;
    std::vector<int> connections_;
};

double threadCPUMilliseconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

struct Sample {
    double cpu;
    double wall;
};

template <typename Wait>
Sample measure(const std::string& url, Wait wait)
{
    const auto operation = QMRESTAPIRequestOperation::create(*platform::URL::fromString(url));
    const double cpuBefore = threadCPUMilliseconds();
    const auto wallBefore = std::chrono::steady_clock::now();
    wait(*operation);
    const std::chrono::duration<double, std::milli> wall = std::chrono::steady_clock::now() - wallBefore;
    if (operation->error() || !operation->responseData()) {
        std::fprintf(stderr, "a call failed\n");
        std::exit(1);
    }
    return {threadCPUMilliseconds() - cpuBefore, wall.count()};
}

}  // namespace

int main()
{
    // libcurl would send even 127.0.0.1 through a proxy named here.
    for (const char* variable : {"http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"}) {
        unsetenv(variable);
    }
    SlowServer server;
    std::vector<double> signalledCPU, signalledWall, pollingCPU, pollingWall;
    for (int call = 0; call < kCalls; ++call) {
        const auto signalled = measure(server.url(), [](QMRESTAPIRequestOperation& operation) {
            static_cast<void>(operation.execute());
        });
        signalledCPU.push_back(signalled.cpu);
        signalledWall.push_back(signalled.wall);
        const auto polling = measure(server.url(), [](QMRESTAPIRequestOperation& operation) {
            operation.connection()->start();
            const auto loop = platform::RunLoop::currentRunLoop();
            const auto limit = platform::Date::now().dateByAddingTimeInterval(1e9);
            while (!operation.isFinished()) {
                loop->runModeBeforeDate(platform::NSDefaultRunLoopMode, limit);
            }
        });
        pollingCPU.push_back(polling.cpu);
        pollingWall.push_back(polling.wall);
    }
    std::printf("calls answered after %lld ms, %d of each, alternated; medians per call on the calling thread\n",
                static_cast<long long>(kServerDelay.count()), kCalls);
    std::printf("  execute (signalled wait): %.3f ms CPU, %.1f ms wall\n", bench::median(signalledCPU),
                bench::median(signalledWall));
    std::printf("  polling isFinished:       %.3f ms CPU, %.1f ms wall\n", bench::median(pollingCPU),
                bench::median(pollingWall));
    std::printf("  wall ratio execute/polling: %.3f\n", bench::median(signalledWall) / bench::median(pollingWall));
    return 0;
}
