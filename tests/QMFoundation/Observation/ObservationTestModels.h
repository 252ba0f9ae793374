// Objects that the observation centre's tests observe and observe with.
#pragma once

#include "Platform/Foundation/Object.h"

#include <atomic>
#include <string>
#include <vector>

namespace observation_tests {

class Person : public platform::Object {
public:
    explicit Person(std::string initialName = "Ada") : name(std::move(initialName)) {}

    std::string name;
    std::int64_t age = 36;
    platform::Array items;

    const platform::PropertyTable& propertyTable() const override
    {
        static const auto table = platform::PropertyTable::extending<Person>(platform::Object::propertyTable(), {
            {"name", [](const Person& p) { return platform::Value(p.name); },
             [](Person& p, const platform::Value& v) { p.name = v.string() ? *v.string() : ""; }},
            {"age", [](const Person& p) { return platform::Value(p.age); },
             [](Person& p, const platform::Value& v) { p.age = v.integerValue().value_or(0); }},
            {"items", [](const Person& p) { return platform::Value(p.items); }},
        });
        return table;
    }
};

// Classes of their own, so that whether automatic removal was installed for
// them depends on one test only.
class ManualPerson : public Person {};
class LatePerson : public Person {};
class ManualWatcher : public platform::Object {};

class Watcher : public platform::Object {
public:
    struct Call {
        std::string selector;
        std::string keyPath;
        const platform::Object* object;
        platform::Dictionary change;
        platform::Value userInfo;
    };

    std::vector<Call> calls;
    std::atomic<int> deliveries = 0;

    void targetDidChange(const std::string& keyPath, const platform::ObjectRef& object,
                         const platform::Dictionary& change, const platform::Value& userInfo)
    {
        calls.push_back({"targetDidChange", keyPath, object.get(), change, userInfo});
    }

    void otherTargetDidChange(const std::string& keyPath, const platform::ObjectRef& object,
                              const platform::Dictionary& change, const platform::Value& userInfo)
    {
        calls.push_back({"otherTargetDidChange", keyPath, object.get(), change, userInfo});
    }
};

}  // namespace observation_tests
