// The price of asking the calling thread's name, which a log message records
// every time. The baseline is the bare kernel read that the answer needs in
// any case (pthread_getname_np on the calling thread); variants run in
// alternating rounds so they see the same machine; medians are reported.
//
//   thread_name [ITERATIONS]
#include "Platform/Foundation/Thread.h"

#include "bench/BenchmarkSupport.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

namespace {

double nanosecondsPerCall(long iterations, const std::function<std::size_t()>& body, std::size_t& sink)
{
    const auto start = std::chrono::steady_clock::now();
    for (long index = 0; index < iterations; ++index) {
        sink += body();
    }
    const auto elapsed = std::chrono::steady_clock::now() - start;
    return std::chrono::duration<double, std::nano>(elapsed).count() / static_cast<double>(iterations);
}

}  // namespace

int main(int argc, char** argv)
{
    const long iterations = argc > 1 ? std::atol(argv[1]) : 200000;
    std::size_t sink = 0;
    // On a thread of its own, so the names set here stay with it.
    std::thread([&] {
        struct Variant {
            const char* name;
            std::function<std::size_t()> body;
            std::vector<double> samples;
        };
        std::vector<Variant> variants{
            {"baseline: pthread_getname_np",
             [] {
                 char buffer[16];
                 pthread_getname_np(pthread_self(), buffer, sizeof buffer);
                 return static_cast<std::size_t>(buffer[0]);
             },
             {}},
            {"Thread::name, short name", [] { return platform::Thread::name().size(); }, {}},
            {"Thread::name, name longer than the kernel keeps", [] { return platform::Thread::name().size(); }, {}},
        };
        for (int round = 0; round < 7; ++round) {
            for (std::size_t index = 0; index < variants.size(); ++index) {
                platform::Thread::setName(index == 2 ? "cocoa.velmora.fileLogger" : "worker");
                variants[index].samples.push_back(nanosecondsPerCall(iterations, variants[index].body, sink));
            }
        }
        const double baseline = bench::median(variants.front().samples);
        for (auto& variant : variants) {
            const double value = bench::median(variant.samples);
            std::printf("%-50s %8.1f ns/call  %5.2fx baseline\n", variant.name, value, value / baseline);
        }
    }).join();
    return sink > 0 ? 0 : 1;
}
