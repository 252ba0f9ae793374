#include "QMFoundation/Comparison/QMConcurrentEnumeration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

TEST(ConcurrentEnumeration, VisitsEveryIndexOnceAcrossThreads)
{
    std::vector<std::atomic<int>> visits(10000);
    std::mutex threadsMutex;
    std::set<std::thread::id> threads;
    concurrentlyEnumerate(visits.size(), 100, 4, [&](std::size_t begin, std::size_t end) {
        {
            std::lock_guard lock(threadsMutex);
            threads.insert(std::this_thread::get_id());
        }
        for (auto index = begin; index < end; ++index) {
            visits[index].fetch_add(1);
        }
    });
    for (const auto& count : visits) {
        ASSERT_EQ(count.load(), 1);
    }
    EXPECT_GE(threads.size(), 1u);
    EXPECT_LE(threads.size(), std::min<std::size_t>(4, processorCount()));
}

TEST(ConcurrentEnumeration, KeepsSmallWorkOnTheCallingThread)
{
    const auto caller = std::this_thread::get_id();
    int calls = 0;
    concurrentlyEnumerate(10, 100, 4, [&](std::size_t begin, std::size_t end) {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        EXPECT_EQ(begin, 0u);
        EXPECT_EQ(end, 10u);
        ++calls;
    });
    concurrentlyEnumerate(0, 1, 4, [&](std::size_t, std::size_t) { ++calls; });
    EXPECT_EQ(calls, 1);
}

TEST(ConcurrentEnumeration, HandsTheFirstFailureToTheCaller)
{
    EXPECT_THROW(concurrentlyEnumerate(1000, 10, 4,
                                       [](std::size_t begin, std::size_t) {
                                           if (begin >= 500) {
                                               throw std::runtime_error("chunk failed");
                                           }
                                       }),
                 std::runtime_error);
    // The pool is still usable afterwards.
    std::atomic<std::size_t> sum{0};
    concurrentlyEnumerate(1000, 10, 4, [&](std::size_t begin, std::size_t end) { sum += end - begin; });
    EXPECT_EQ(sum.load(), 1000u);
}

TEST(ConcurrentEnumeration, FindsTheLowestMatchingIndex)
{
    for (const std::size_t concurrency : {1u, 2u, 8u}) {
        EXPECT_EQ(concurrentlyFindFirst(5000, 16, concurrency, [](std::size_t index) { return index % 997 == 996; }), 996u);
        EXPECT_EQ(concurrentlyFindFirst(5000, 16, concurrency, [](std::size_t index) { return index >= 4999; }), 4999u);
        EXPECT_EQ(concurrentlyFindFirst(5000, 16, concurrency, [](std::size_t) { return false; }), 5000u);
    }
}

// Nested enumerations cannot run out of threads: each caller works too.
TEST(ConcurrentEnumeration, RunsEnumerationsInsideEnumerations)
{
    std::atomic<std::size_t> inner{0};
    concurrentlyEnumerate(64, 1, 4, [&](std::size_t begin, std::size_t end) {
        for (auto index = begin; index < end; ++index) {
            concurrentlyEnumerate(64, 1, 4, [&](std::size_t innerBegin, std::size_t innerEnd) { inner += innerEnd - innerBegin; });
        }
    });
    EXPECT_EQ(inner.load(), 64u * 64u);
}

}  // namespace
