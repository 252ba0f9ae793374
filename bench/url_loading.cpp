// Sequential small GET requests to a local keep-alive nginx: one
// URLConnection per request on this thread's run loop, against one reused
// libcurl easy handle (the baseline), in alternating rounds.
#include "Platform/Foundation/RunLoop.h"
#include "Platform/URLLoading/URLConnection.h"

#include "bench/BenchmarkSupport.h"

#include <curl/curl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

using namespace platform;

namespace {

constexpr int kRequestsPerRound = 100;
constexpr int kRounds = 20;

int freePort()
{
    int port = 0;
    close(bench::bindLoopbackSocket(port));
    return port;
}

bool accepts(int port)
{
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool connected = connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    return connected;
}

// nginx in a scratch prefix, answering every request with six bytes.
class Nginx {
public:
    Nginx() : port_(freePort())
    {
        char pattern[] = "/tmp/zarvo-bench-nginx-XXXXXX";
        prefix_ = mkdtemp(pattern);
        std::ofstream(prefix_ + "/nginx.conf")
            << "worker_processes 1;\nerror_log stderr error;\npid " << prefix_ << "/nginx.pid;\n"
            << "events { worker_connections 64; }\n"
            << "http { access_log off; keepalive_requests 1000000;\n"
            << "  server { listen 127.0.0.1:" << port_ << "; location / { return 200 \"hello\\n\"; } } }\n";
        const std::string configuration = prefix_ + "/nginx.conf";
        char* const argv[] = {const_cast<char*>("nginx"), const_cast<char*>("-p"), prefix_.data(), const_cast<char*>("-c"),
                              const_cast<char*>(configuration.c_str()), const_cast<char*>("-g"),
                              const_cast<char*>("daemon off;"), nullptr};
        if (posix_spawnp(&child_, "nginx", nullptr, nullptr, argv, environ) != 0) {
            std::fprintf(stderr, "nginx is not installed (Debian's nginx-light)\n");
            std::exit(2);
        }
        for (int attempt = 0; attempt < 500 && !accepts(port_); ++attempt) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ~Nginx()
    {
        kill(child_, SIGQUIT);
        waitpid(child_, nullptr, 0);
        std::filesystem::remove_all(prefix_);
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }

private:
    int port_;
    std::string prefix_;
    pid_t child_ = -1;
};

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
    const Nginx server;
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
