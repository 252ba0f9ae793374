// The NSObject(XOKVONotification) operations and the key path categories.
#include "QMFoundation/Observation/NSArray+XOKeyPath.h"
#include "QMFoundation/Observation/NSObject+XOKVONotification.h"
#include "QMFoundation/Observation/NSString+XOKeyPath.h"

#include "ObservationTestModels.h"

#include <gtest/gtest.h>

using namespace platform;
using namespace observation_tests;

namespace {

TEST(XOKeyPath, AStringBecomesASetAndAnArrayStaysItself)
{
    EXPECT_EQ(xo_keyPathsAsSetOfStrings(std::string("name")), (Set{"name"}));
    const Array keyPaths{"name", "name", "age"};
    const auto& same = xo_keyPathsAsSetOfStrings(keyPaths);
    EXPECT_EQ(&same, &keyPaths);
}

TEST(NSObjectXOKVONotification, TheTwoSidesMakeTheSameKindOfObservation)
{
    auto person = makeObject<Person>();
    auto watcher = makeObject<Watcher>();
    std::vector<std::string> heard;
    const auto asTarget = addObserver(person, watcher, "name", &Watcher::targetDidChange, Value("target side"), 0);
    const auto asObserver = observeTarget(watcher, person, "age", 0, [&](const auto& notification) {
        EXPECT_EQ(notification->observer(), watcher);
        heard.push_back(notification->keyPath());
    });
    const auto blockAsTarget = addObserver(person, watcher, "name", 0, [&](const auto& notification) {
        heard.push_back(notification->keyPath());
    });
    const auto selectorAsObserver =
        observeTarget(watcher, person, "age", &Watcher::otherTargetDidChange, Value("observer side"), 0);

    person->setValueForKey("Grace", "name");
    person->setValueForKey(1, "age");
    EXPECT_EQ(heard, (std::vector<std::string>{"name", "age"}));
    ASSERT_EQ(watcher->calls.size(), 2u);
    EXPECT_EQ(watcher->calls[0].userInfo, Value("target side"));
    EXPECT_EQ(watcher->calls[1].userInfo, Value("observer side"));

    // Removal by observer and key path from the target's side, then by
    // target, key path and selector from the observer's.
    removeObserver(person, watcher, "name");
    EXPECT_FALSE(asTarget->isValid());
    EXPECT_FALSE(blockAsTarget->isValid());
    EXPECT_TRUE(asObserver->isValid());
    stopObserving(watcher, person, "age", &Watcher::otherTargetDidChange);
    EXPECT_FALSE(selectorAsObserver->isValid());
    EXPECT_TRUE(asObserver->isValid());
    stopObserving(watcher, person, "age");
    EXPECT_FALSE(asObserver->isValid());
    EXPECT_EQ(person->observationCount(), 0u);
}

TEST(NSObjectXOKVONotification, AnObservationWithoutObserverLastsUntilTheTargetRemovesIt)
{
    auto person = makeObject<Person>();
    int calls = 0;
    const auto token = addObservationKeyPath(person, "name", 0, [&](const auto& notification) {
        EXPECT_EQ(notification->observer(), nullptr);
        ++calls;
    });
    person->setValueForKey("Grace", "name");
    EXPECT_EQ(calls, 1);

    auto stranger = makeObject<Watcher>();
    stopObservingAllTargets(stranger);  // not involved
    EXPECT_TRUE(token->isValid());
    removeAllObservers(person);
    EXPECT_FALSE(token->isValid());
    person->setValueForKey("Ada", "name");
    EXPECT_EQ(calls, 1);
}

TEST(NSObjectXOKVONotification, StoppingAllTargetsLeavesOtherObservers)
{
    auto person = makeObject<Person>();
    auto other = makeObject<Person>();
    auto watcher = makeObject<Watcher>();
    auto bystander = makeObject<Watcher>();
    const auto first = observeTarget(watcher, person, "name", &Watcher::targetDidChange, {}, 0);
    const auto second = observeTarget(watcher, Array{other}, "age", &Watcher::targetDidChange, {}, 0);
    const auto kept = observeTarget(bystander, person, "name", &Watcher::targetDidChange, {}, 0);

    stopObservingAllTargets(watcher);
    EXPECT_FALSE(first->isValid());
    EXPECT_FALSE(second->isValid());
    EXPECT_TRUE(kept->isValid());
    person->setValueForKey("Grace", "name");
    EXPECT_TRUE(watcher->calls.empty());
    EXPECT_EQ(bystander->calls.size(), 1u);
}

}  // namespace
