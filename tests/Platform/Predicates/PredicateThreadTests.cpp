#include "Platform/Predicates/Predicate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using namespace platform;

// A predicate is immutable and evaluated from any thread; the only shared
// state behind it is the cache of compiled patterns, which threads fill,
// read and (past its size) clear at the same time here.
TEST(PredicateThreads, OnePredicateEvaluatesOnManyThreadsAlike)
{
    const auto shared = predicateWithFormat("name MATCHES[cd] 'a.*' AND name BEGINSWITH[cd] 'Á'");
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            for (int round = 0; round < 300; ++round) {
                const Value row = Dictionary{{"name", round % 2 ? "Ábel" : "bob"}};
                if (shared->evaluateWithObject(row) != (round % 2 == 1)) {
                    ++mismatches;
                }
                // Patterns of this thread alone push the cache past its limit.
                const auto own = predicateWithFormat("name MATCHES %@", {"x" + std::to_string(thread * 1000 + round)});
                if (own->evaluateWithObject(Dictionary{{"name", "x" + std::to_string(thread * 1000 + round)}}) != true) {
                    ++mismatches;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mismatches.load(), 0);
}
