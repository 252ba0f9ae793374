// A serial dispatch queue against the usual hand-made one: a worker thread fed
// through a std::mutex + std::condition_variable queue of std::function, in
// its textbook form (the worker takes one block per lock) and at its best
// (the worker takes everything queued at once).
// Measured: asynchronous submissions per second from one producer (the time
// the submitting loop takes, and the time until the last block has run), and
// the round trip of a synchronous submission to an
// idle queue (which a serial queue runs on the caller's thread, while the
// baseline must hand it to its worker and back). Variants run in alternating
// rounds, so each round compares the two under the same machine load; the
// medians of the rounds and of the per-round ratios are reported.
//
//   dispatch_queue [SUBMISSIONS] [ROUND_TRIPS]
#include "bench/BenchmarkSupport.h"
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

template <bool TakesAll>
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
                if constexpr (TakesAll) {
                    taken.swap(blocks_);
                } else {
                    taken.push_back(std::move(blocks_.front()));
                    blocks_.pop_front();
                }
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

double seconds(Clock::duration elapsed)
{
    return std::chrono::duration<double>(elapsed).count();
}

struct Rates {
    double submitted;  // submissions per second, as the producer sees them
    double completed;  // blocks per second until the last one has run
};

template <typename Queue>
Rates asyncPerSecond(Queue& queue, long submissions, const std::function<void()>& waitForLast)
{
    long counter = 0;
    const auto start = Clock::now();
    for (long index = 0; index < submissions; ++index) {
        queue.async([&counter] { ++counter; });
    }
    const auto submitted = Clock::now() - start;
    waitForLast();
    const auto completed = Clock::now() - start;
    if (counter != submissions) {
        std::fprintf(stderr, "lost blocks: %ld of %ld ran\n", counter, submissions);
        std::exit(1);
    }
    return {static_cast<double>(submissions) / seconds(submitted), static_cast<double>(submissions) / seconds(completed)};
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
    const long roundTrips = argc > 2 ? std::atol(argv[2]) : 20000;
    constexpr int kRounds = 9;

    const auto queue = platform::DispatchQueue::create("bench.serial");
    MutexQueue<false> textbook;
    MutexQueue<true> batching;
    std::vector<double> queueRate, textbookRate, batchingRate, textbookRatios, batchingRatios;
    std::vector<double> queueTrip, textbookTrip;
    for (int round = 0; round < kRounds; ++round) {
        const auto done = platform::DispatchSemaphore::create(0);
        const Rates ours = asyncPerSecond(*queue, submissions, [&] {
            queue->async([&] { done->signal(); });
            done->wait();
        });
        const Rates plain = asyncPerSecond(textbook, submissions, [&] { textbook.sync([] {}); });
        const Rates best = asyncPerSecond(batching, submissions, [&] { batching.sync([] {}); });
        queueRate.push_back(ours.completed);
        textbookRate.push_back(plain.completed);
        batchingRate.push_back(best.completed);
        textbookRatios.push_back(ours.completed / plain.completed);
        batchingRatios.push_back(ours.completed / best.completed);
        queueTrip.push_back(roundTripNanoseconds(*queue, roundTrips));
        textbookTrip.push_back(roundTripNanoseconds(textbook, roundTrips));
    }

    std::printf("async submissions/s (until the last has run): serial queue %.3g\n", bench::median(queueRate));
    std::printf("  mutex+condvar worker, one block per lock:   %.3g   ratio %.2f (target >= 1)\n", bench::median(textbookRate),
                bench::median(textbookRatios));
    std::printf("  mutex+condvar worker, all blocks per lock:  %.3g   ratio %.2f\n", bench::median(batchingRate),
                bench::median(batchingRatios));
    std::printf("sync round trip (ns): serial queue %.0f   mutex+condvar worker %.0f   ratio %.0f (baseline / queue)\n",
                bench::median(queueTrip), bench::median(textbookTrip), bench::median(textbookTrip) / bench::median(queueTrip));
    std::printf("(ratios are medians of per-round ratios; the variants alternate, %d rounds)\n", kRounds);
    return 0;
}
