// The bound on messages in flight: a full pipeline puts producers to sleep
// until it has drained to the wake-up mark, and never lets more through.
#include "QMFoundation/Logging/internal/MessageBound.h"

#include "tests/Support/ThreadState.h"

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

using qmlogging::internal::MessageBound;

namespace {

TEST(MessageBound, AFullPipelineWakesItsProducerOnlyOnceDrainedToTheMark)
{
    MessageBound bound(4, 1);
    for (int place = 0; place < 4; ++place) {
        bound.take();
    }
    std::atomic<pid_t> producerThread{0};
    std::atomic<bool> tookFifth{false};
    std::thread producer([&] {
        producerThread = static_cast<pid_t>(::syscall(SYS_gettid));
        bound.take();
        tookFifth = true;
    });
    // Counted as a sleeper, and asleep: waiting for the wake-up.
    while (bound.sleepers() == 0) {
        std::this_thread::yield();
    }
    testsupport::waitUntilAsleep(producerThread);

    // Two places free, the mark not reached: a wake-up would have made the
    // producer runnable before giveBack returned.
    bound.giveBack();
    bound.giveBack();
    EXPECT_EQ(testsupport::threadState(producerThread), "S");
    EXPECT_FALSE(tookFifth.load());
    EXPECT_EQ(bound.taken(), 2);

    bound.giveBack();  // down to the mark
    producer.join();
    EXPECT_TRUE(tookFifth.load());
    EXPECT_EQ(bound.taken(), 2);
}

TEST(MessageBound, ManyProducersNeverHaveMoreThanTheLimitInFlightAndAllGetThrough)
{
    constexpr long kLimit = 16;
    constexpr int kProducers = 4;
    constexpr int kEach = 20000;
    MessageBound bound(kLimit, kLimit / 2);
    std::atomic<long> inPipeline{0};
    std::atomic<long> mostInPipeline{0};
    std::atomic<long> handedOver{0};

    std::vector<std::thread> producers;
    for (int producer = 0; producer < kProducers; ++producer) {
        producers.emplace_back([&] {
            for (int index = 0; index < kEach; ++index) {
                bound.take();
                const long now = inPipeline.fetch_add(1) + 1;
                long most = mostInPipeline.load();
                while (now > most && !mostInPipeline.compare_exchange_weak(most, now)) {
                }
                handedOver.fetch_add(1, std::memory_order_release);
            }
        });
    }
    // The consumer gives back one place per message handed over, as the
    // logging queue does once the loggers have written it.
    long consumed = 0;
    while (consumed < kProducers * kEach) {
        if (handedOver.load(std::memory_order_acquire) > consumed) {
            ++consumed;
            inPipeline.fetch_sub(1);
            bound.giveBack();
        } else {
            std::this_thread::yield();
        }
    }
    for (auto& producer : producers) {
        producer.join();
    }
    EXPECT_LE(mostInPipeline.load(), kLimit);
    EXPECT_EQ(bound.taken(), 0);
}

}  // namespace
