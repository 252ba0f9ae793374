// The price of key-value observing on writes through key-value coding. The
// baseline looks the property up and calls its setter, which is all that
// setValueForKey did before objects could be observed. Variants run in
// alternating rounds so they see the same machine; medians are reported.
//
//   object_observing [ITERATIONS]
#include "Platform/Foundation/Object.h"

#include "bench/BenchmarkSupport.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

class Counter : public platform::Object {
public:
    std::int64_t count = 0;

    const platform::PropertyTable& propertyTable() const override
    {
        static const auto table = platform::PropertyTable::extending<Counter>(platform::Object::propertyTable(), {
            {"count", [](const Counter& counter) { return platform::Value(counter.count); },
             [](Counter& counter, const platform::Value& value) { counter.count = value.integerValue().value_or(0); }},
        });
        return table;
    }
};

class Listener : public platform::Object {
public:
    std::int64_t heard = 0;
    void observeValueForKeyPath(const std::string&, const platform::ObjectRef&, const platform::Dictionary&,
                                void*) override
    {
        ++heard;
    }
};

double nanosecondsPerCall(long iterations, const std::function<void(long)>& body)
{
    const auto start = std::chrono::steady_clock::now();
    for (long index = 0; index < iterations; ++index) {
        body(index);
    }
    const auto elapsed = std::chrono::steady_clock::now() - start;
    return std::chrono::duration<double, std::nano>(elapsed).count() / static_cast<double>(iterations);
}

}  // namespace

int main(int argc, char** argv)
{
    const long iterations = argc > 1 ? std::atol(argv[1]) : 1000000;

    auto direct = platform::makeObject<Counter>();
    auto neverObserved = platform::makeObject<Counter>();
    auto onceObserved = platform::makeObject<Counter>();
    auto observed = platform::makeObject<Counter>();
    auto listener = platform::makeObject<Listener>();
    onceObserved->addObserver(listener, "count");
    onceObserved->removeObserver(*listener, "count");
    observed->addObserver(listener, "count", platform::NSKeyValueObservingOptionNew | platform::NSKeyValueObservingOptionOld);

    struct Variant {
        const char* name;
        std::function<void(long)> body;
        std::vector<double> samples;
    };
    std::vector<Variant> variants{
        {"baseline: look up and call the setter",
         [&](long index) { direct->propertyTable().find("count")->set(*direct, platform::Value(index)); }, {}},
        {"setValueForKey, never observed", [&](long index) { neverObserved->setValueForKey(index, "count"); }, {}},
        {"setValueForKey, observed once, no observer now",
         [&](long index) { onceObserved->setValueForKey(index, "count"); }, {}},
        {"setValueForKey, one observer (new and old)", [&](long index) { observed->setValueForKey(index, "count"); }, {}},
    };
    for (int round = 0; round < 7; ++round) {
        for (auto& variant : variants) {
            variant.samples.push_back(nanosecondsPerCall(iterations, variant.body));
        }
    }

    const double baseline = bench::median(variants.front().samples);
    for (auto& variant : variants) {
        const double value = bench::median(variant.samples);
        std::printf("%-50s %8.1f ns/call  %5.2fx baseline\n", variant.name, value, value / baseline);
    }
    return listener->heard > 0 ? 0 : 1;
}
