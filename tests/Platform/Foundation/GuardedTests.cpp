#include "Platform/Foundation/Guarded.h"
#include "tests/Support/Signal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using platform::Guarded;
using testsupport::Signal;

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 2000;

}  // namespace

// A read-modify-write is whole only when it runs as one `with`: every
// append from every thread must be there, none lost to another's.
TEST(Guarded, ConcurrentWithCallsLoseNoUpdate)
{
    Guarded<std::vector<int>> seen;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&seen, thread] {
            for (int round = 0; round < kRounds; ++round) {
                seen.with([&](std::vector<int>& values) { values.push_back(thread); });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const Guarded<std::vector<int>>& readOnly = seen;
    EXPECT_EQ(readOnly.with([](const std::vector<int>& values) { return values.size(); }),
              static_cast<std::size_t>(kThreads * kRounds));
    const auto values = seen.get();
    for (int thread = 0; thread < kThreads; ++thread) {
        EXPECT_EQ(std::count(values.begin(), values.end(), thread), kRounds) << "thread " << thread;
    }
}

// Long strings live on the heap, so a copy taken while another thread
// replaces the value would be torn (or read freed memory) without the lock.
TEST(Guarded, GetNeverSeesAHalfWrittenValue)
{
    const std::string shortText(100, 'a');
    const std::string longText(300, 'b');
    Guarded<std::string> text(shortText);
    std::atomic<int> writes{0};
    std::atomic<bool> readerDone{false};
    // The writer keeps going until the reader is through, so every read
    // below races a write.
    std::thread writer([&] {
        while (!readerDone.load()) {
            text.set(writes.fetch_add(1) % 2 == 0 ? longText : shortText);
        }
    });
    while (writes.load() == 0) {
        std::this_thread::yield();
    }
    int torn = 0;
    for (int round = 0; round < kRounds; ++round) {
        const auto copy = text.get();
        torn += (copy == shortText || copy == longText) ? 0 : 1;
    }
    readerDone.store(true);
    writer.join();
    EXPECT_EQ(torn, 0);
}

// A value may hold something whose release reads the same property again
// (a block that captures its owner): `set` lets the old value go only after
// it has let go of the lock. The read is made from another thread so that a
// lock still held fails the test after the time-out instead of hanging it.
TEST(Guarded, ReplacedValueIsReleasedOutsideTheLock)
{
    Guarded<std::shared_ptr<int>> slot;
    std::thread reader;
    Signal read;
    std::shared_ptr<int> seenOnRelease;
    bool readDuringRelease = false;
    slot.set(std::shared_ptr<int>(new int(1), [&](const int* old) {
        reader = std::thread([&] {
            seenOnRelease = slot.get();
            read.raise();
        });
        readDuringRelease = read.wait();
        delete old;
    }));
    slot.set(std::make_shared<int>(2));
    ASSERT_TRUE(reader.joinable()) << "the replaced value was not released";
    reader.join();
    EXPECT_TRUE(readDuringRelease) << "the lock was still held while the old value was released";
    ASSERT_NE(seenOnRelease, nullptr);
    EXPECT_EQ(*seenOnRelease, 2);
}
