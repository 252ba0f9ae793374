// A serial dispatch queue against the usual hand-made one: a worker thread fed
// through a std::mutex + std::condition_variable queue of std::function (the
// worker takes everything queued at once, which is that design at its best).
// Measured: asynchronous submissions per second from one producer until the
// last block has run, and the round trip of a synchronous submission to an
// idle queue (which a serial queue runs on the caller's thread, while the
// baseline must hand it to its worker and back). Variants run in alternating
// rounds, so each round compares the two under the same machine load; the
// medians of the rounds and of the per-round ratios are reported.
//
//   dispatch_queue [SUBMISSIONS] [ROUND_TRIPS]
#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/Dispatch/DispatchSemaphore.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

class MutexQueue {
public:
    MutexQueue() : worker_([this] { run(); }) {}
    ~MutexQueue()
    {
        async(nullptr);
        worker_.join();
    }

    void async(std::function<void()> block)
    {
        {
            std::lock_guard lock(mutex_);
            blocks_.push_back(std::move(block));
        }
        wake_.notify_one();
    }

    // Hands the block to the worker and waits until it has run.
    void sync(const std::function<void()>& block)
    {
        std::mutex doneMutex;
        std::condition_variable doneSignal;
        bool done = false;
        async([&] {
            block();
            std::lock_guard lock(doneMutex);
            done = true;
            doneSignal.notify_one();
        });
        std::unique_lock lock(doneMutex);
        doneSignal.wait(lock, [&] { return done; });
    }

private:
    void run()
    {
        std::deque<std::function<void()>> taken;
        for (;;) {
            {
                std::unique_lock lock(mutex_);
                wake_.wait(lock, [this] { return !blocks_.empty(); });
                taken.swap(blocks_);
            }
            for (auto& block : taken) {
                if (!block) {
                    return;
                }
                block();
            }
            taken.clear();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> blocks_;
    std::thread worker_;
};

double median(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

double seconds(Clock::duration elapsed)
{
    return std::chrono::duration<double>(elapsed).count();
}

template <typename Queue>
double asyncPerSecond(Queue& queue, long submissions, const std::function<void()>& waitForLast)
{
    long counter = 0;
    const auto start = Clock::now();
    for (long index = 0; index < submissions; ++index) {
        queue.async([&counter] { ++counter; });
    }
    waitForLast();
    const auto elapsed = Clock::now() - start;
    if (counter != submissions) {
        std::fprintf(stderr, "lost blocks: %ld of %ld ran\n", counter, submissions);
        std::exit(1);
    }
    return static_cast<double>(submissions) / seconds(elapsed);
}

template <typename Queue>
double roundTripNanoseconds(Queue& queue, long roundTrips)
{
    long counter = 0;
    const auto start = Clock::now();
    for (long index = 0; index < roundTrips; ++index) {
        queue.sync([&counter] { ++counter; });
    }
    return seconds(Clock::now() - start) * 1e9 / static_cast<double>(roundTrips);
}

}  // namespace

int main(int argc, char** argv)
{
    const long submissions = argc > 1 ? std::atol(argv[1]) : 2000000;
    const long roundTrips = argc > 2 ? std::atol(argv[2]) : 200000;
    constexpr int kRounds = 9;

    const auto queue = platform::DispatchQueue::create("bench.serial");
    MutexQueue baseline;
    std::vector<double> queueRate, baselineRate, queueTrip, baselineTrip;
    for (int round = 0; round < kRounds; ++round) {
        const auto done = platform::DispatchSemaphore::create(0);
        queueRate.push_back(asyncPerSecond(*queue, submissions, [&] {
            queue->async([&] { done->signal(); });
            done->wait();
        }));
        baselineRate.push_back(asyncPerSecond(baseline, submissions, [&] { baseline.sync([] {}); }));
        queueTrip.push_back(roundTripNanoseconds(*queue, roundTrips));
        baselineTrip.push_back(roundTripNanoseconds(baseline, roundTrips));
    }

    std::vector<double> rateRatios;
    for (int round = 0; round < kRounds; ++round) {
        rateRatios.push_back(queueRate[static_cast<std::size_t>(round)] / baselineRate[static_cast<std::size_t>(round)]);
    }
    const double trip = median(queueTrip);
    const double baseTrip = median(baselineTrip);
    std::printf("async submissions/s:  serial queue %.3g   mutex+condvar worker %.3g   ratio %.2f (median of rounds %.2f; target >= 1)\n",
                median(queueRate), median(baselineRate), median(queueRate) / median(baselineRate), median(rateRatios));
    std::printf("sync round trip (ns): serial queue %.0f   mutex+condvar worker %.0f   ratio %.0f (baseline / queue)\n",
                trip, baseTrip, baseTrip / trip);
    return 0;
}
