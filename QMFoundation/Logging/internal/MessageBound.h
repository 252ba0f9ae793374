// The bound on log messages in flight: at most `limit` places are taken and
// not yet given back. A producer that finds every place taken sleeps until
// the pipeline has drained to `wakeAt` places taken, and then every sleeping
// producer is woken at once.
//
//   MessageBound inFlight(1000, 750);
//   inFlight.take();       // producer: sleeps while 1000 are taken
//   ...
//   inFlight.giveBack();   // consumer, once the message is written
//
// Why not a counting semaphore: with producers faster than the loggers, a
// semaphore hands each freed place to a sleeping producer with a wake-up of
// its own, so every message costs the consumer a futex call and the
// producer a sleep. Here a full pipeline costs one wake-up per
// `limit - wakeAt` messages, and with nobody asleep a place costs one atomic
// operation on either side. Nobody is woken early: a place freed above
// `wakeAt` stays free until the drain reaches `wakeAt` or a producer that
// is still awake takes it. Which sleeper gets which place is not promised.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace qmlogging::internal {

class MessageBound {
public:
    // 0 <= wakeAt < limit.
    MessageBound(long limit, long wakeAt) : limit_(limit), wakeAt_(wakeAt) {}
    MessageBound(const MessageBound&) = delete;
    MessageBound& operator=(const MessageBound&) = delete;

    void take();
    void giveBack();

    long taken() const { return taken_.load(std::memory_order_relaxed); }
    // Producers asleep or about to be.
    int sleepers() const { return sleepers_.load(std::memory_order_relaxed); }

private:
    const long limit_;
    const long wakeAt_;
    std::atomic<long> taken_{0};
    std::atomic<int> sleepers_{0};
    std::mutex mutex_;  // orders a sleeper's last look against the wake-up
    std::condition_variable drained_;
};

}  // namespace qmlogging::internal
