// The observation centre, its helper and its notification record.
#include "QMFoundation/Observation/XOKVONotificationCenter.h"

#include "ObservationTestModels.h"

#include <gtest/gtest.h>

using namespace platform;
using namespace observation_tests;

namespace {

using Notifications = std::vector<std::shared_ptr<XOKVONotification>>;

XOKVONotificationBlock recordInto(Notifications& notifications)
{
    return [&notifications](const std::shared_ptr<XOKVONotification>& notification) {
        notifications.push_back(notification);
    };
}

XOKVONotificationCenter& center()
{
    return *XOKVONotificationCenter::defaultCenter();
}

constexpr auto kNewOld = NSKeyValueObservingOptionNew | NSKeyValueObservingOptionOld;

TEST(XOKVONotificationCenter, ABlockReceivesTheNotificationRecord)
{
    auto person = makeObject<Person>();
    auto watcher = makeObject<Watcher>();
    Notifications received;
    const auto token = center().addObserver(watcher, person, "name", kNewOld, recordInto(received));
    EXPECT_TRUE(token->isValid());

    person->setValueForKey("Grace", "name");
    ASSERT_EQ(received.size(), 1u);
    const auto& notification = *received[0];
    EXPECT_EQ(notification.observer(), watcher);
    EXPECT_EQ(notification.target(), person);
    EXPECT_EQ(notification.keyPath(), "name");
    EXPECT_EQ(notification.kind(), 1u);
    EXPECT_EQ(notification.oldValue(), Value("Ada"));
    EXPECT_EQ(notification.newValue(), Value("Grace"));
    EXPECT_FALSE(notification.isPrior());
    EXPECT_FALSE(notification.indexes());
}

TEST(XOKVONotificationCenter, ASelectorIsSentToTheObserverWithTheUserInformation)
{
    auto person = makeObject<Person>();
    auto watcher = makeObject<Watcher>();
    const Dictionary userInfo{{"purpose", "test"}};
    center().addObserver(watcher, person, "age", &Watcher::targetDidChange, userInfo, NSKeyValueObservingOptionNew);

    person->setValueForKey(37, "age");
    ASSERT_EQ(watcher->calls.size(), 1u);
    EXPECT_EQ(watcher->calls[0].selector, "targetDidChange");
    EXPECT_EQ(watcher->calls[0].keyPath, "age");
    EXPECT_EQ(watcher->calls[0].object, person.get());
    EXPECT_EQ(watcher->calls[0].change, (Dictionary{{NSKeyValueChangeKindKey, 1}, {NSKeyValueChangeNewKey, 37}}));
    EXPECT_EQ(watcher->calls[0].userInfo, Value(userInfo));
}

TEST(XOKVONotificationCenter, ASelectorTheObserverLacksRaises)
{
    auto person = makeObject<Person>();
    auto notAWatcher = makeObject<Person>("observer");
    center().addObserver(notAWatcher, person, "age", &Watcher::targetDidChange, {}, 0);
    try {
        person->setValueForKey(1, "age");
        FAIL() << "expected an exception";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), NSInvalidArgumentException);
    }
}

TEST(XOKVONotificationCenter, InitialAndPriorNotificationsReachTheBlock)
{
    auto person = makeObject<Person>();
    auto watcher = makeObject<Watcher>();
    Notifications received;
    center().addObserver(watcher, person, "name",
                         kNewOld | NSKeyValueObservingOptionInitial | NSKeyValueObservingOptionPrior,
                         recordInto(received));
    ASSERT_EQ(received.size(), 1u);  // during registration, with the observer already known
    EXPECT_EQ(received[0]->observer(), watcher);
    EXPECT_EQ(received[0]->newValue(), Value("Ada"));

    person->setValueForKey("Grace", "name");
    ASSERT_EQ(received.size(), 3u);
    EXPECT_TRUE(received[1]->isPrior());
    EXPECT_EQ(received[1]->oldValue(), Value("Ada"));
    EXPECT_TRUE(received[1]->newValue().isNothing());
    EXPECT_FALSE(received[2]->isPrior());
}

TEST(XOKVONotificationCenter, ElementChangesCarryKindAndIndexes)
{
    auto person = makeObject<Person>();
    Notifications received;
    center().addObserver(nullptr, person, "items", NSKeyValueObservingOptionNew, recordInto(received));
    person->willChange(KeyValueChange::Insertion, {0, 2}, "items");
    person->items = {"a", "b", "c"};
    person->didChange(KeyValueChange::Insertion, {0, 2}, "items");
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0]->kind(), static_cast<std::size_t>(KeyValueChange::Insertion));
    EXPECT_EQ(received[0]->indexes(), (std::set<std::size_t>{0, 2}));
    EXPECT_EQ(received[0]->newValue(), Value(Array{"a", "c"}));
    EXPECT_EQ(received[0]->observer(), nullptr);
}

TEST(XOKVONotificationCenter, KeyPathsMayBeAnArrayAndAreComparedAsSetsOnRemoval)
{
    auto person = makeObject<Person>();
    auto watcher = makeObject<Watcher>();
    Notifications received;
    const auto token = center().addObserver(watcher, person, Array{"name", "age"}, 0, recordInto(received));
    person->setValueForKey("Grace", "name");
    person->setValueForKey(1, "age");
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0]->keyPath(), "name");
    EXPECT_EQ(received[1]->keyPath(), "age");

    center().removeObserver(watcher, person, "name");
    EXPECT_TRUE(token->isValid());
    center().removeObserver(watcher, person, Array{"age", "name", "age"});
    EXPECT_FALSE(token->isValid());
    EXPECT_EQ(person->observationCount(), 0u);
}

TEST(XOKVONotificationCenter, AnArrayOfKeyPathsIsTakenAsItStands)
{
    auto person = makeObject<Person>();
    Notifications received;
    const auto token = center().addObserver(nullptr, person, Array{"name", "name"}, 0, recordInto(received));
    person->setValueForKey("Grace", "name");
    EXPECT_EQ(received.size(), 2u);
    token->remove();
    EXPECT_EQ(person->observationCount(), 0u);
}

TEST(XOKVONotificationCenter, AnythingButStringsAsKeyPathsIsRefused)
{
    auto person = makeObject<Person>();
    for (const auto& keyPath : {Value(5), Value(Array{"name", 3}), Value(Set{"name"})}) {
        try {
            center().addObserver(nullptr, person, keyPath, 0, [](const auto&) {});
            ADD_FAILURE() << keyPath.description();
        } catch (const Exception& exception) {
            EXPECT_EQ(exception.name(), NSInvalidArgumentException);
        }
    }
    EXPECT_EQ(person->observationCount(), 0u);
}

TEST(XOKVONotificationCenter, AnArrayTargetObservesEachElement)
{
    auto a = makeObject<Person>("a");
    auto b = makeObject<Person>("b");
    auto c = makeObject<Person>("c");
    auto watcher = makeObject<Watcher>();
    Notifications received;
    const auto token = center().addObserver(watcher, Array{a, b, c}, "name", NSKeyValueObservingOptionNew,
                                            recordInto(received));
    b->setValueForKey("B", "name");
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0]->target(), b);
    EXPECT_EQ(received[0]->newValue(), Value("B"));

    // Another array value with the same objects is the same target; an
    // element alone or the objects in another order are not.
    center().removeObserver(watcher, b);
    center().removeObserver(watcher, Array{c, b, a});
    EXPECT_TRUE(token->isValid());
    center().removeObserver(watcher, Array{a, b, c});
    EXPECT_FALSE(token->isValid());
    EXPECT_EQ(a->observationCount() + b->observationCount() + c->observationCount(), 0u);
}

TEST(XOKVONotificationCenter, RemovingWithOnlyATargetRemovesEveryObserverOfIt)
{
    auto person = makeObject<Person>();
    auto other = makeObject<Person>();
    auto first = makeObject<Watcher>();
    auto second = makeObject<Watcher>();
    const auto one = center().addObserver(first, person, "name", &Watcher::targetDidChange, {}, 0);
    const auto two = center().addObserver(second, person, "age", 0, [](const auto&) {});
    const auto elsewhere = center().addObserver(first, other, "name", &Watcher::targetDidChange, {}, 0);

    center().removeObserver(nullptr, person);
    EXPECT_FALSE(one->isValid());
    EXPECT_FALSE(two->isValid());
    EXPECT_TRUE(elsewhere->isValid());
    person->setValueForKey("Grace", "name");
    EXPECT_TRUE(first->calls.empty());
}

TEST(XOKVONotificationCenter, RemovingBySelectorLeavesTheOtherSelectors)
{
    auto person = makeObject<Person>();
    auto watcher = makeObject<Watcher>();
    const auto one = center().addObserver(watcher, person, "name", &Watcher::targetDidChange, {}, 0);
    const auto two = center().addObserver(watcher, person, "name", &Watcher::otherTargetDidChange, {}, 0);
    const auto block = center().addObserver(watcher, person, "name", 0, [](const auto&) {});

    center().removeObserver(watcher, person, "name", &Watcher::otherTargetDidChange);
    EXPECT_TRUE(one->isValid());
    EXPECT_FALSE(two->isValid());
    EXPECT_TRUE(block->isValid());
    person->setValueForKey("Grace", "name");
    ASSERT_EQ(watcher->calls.size(), 1u);
    EXPECT_EQ(watcher->calls[0].selector, "targetDidChange");
}

TEST(XOKVONotificationCenter, RemovingNeedsAnObserverOrATarget)
{
    std::optional<AssertionFailure> seen;
    const auto previous = AssertionHandler::setObserver([&](const AssertionFailure& failure) { seen = failure; });
    try {
        center().removeObserver(nullptr, {});
        ADD_FAILURE() << "expected an exception";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), NSInternalInconsistencyException);
        EXPECT_EQ(exception.reason(), "Invalid parameter not satisfying: observer || target");
    }
    AssertionHandler::setObserver(previous);
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->file, "QMFoundation/XOKVONotificationCenter");
}

TEST(XOKVONotificationCenter, TokensMayBeRemovedDuringDeliveryAndTwice)
{
    auto person = makeObject<Person>();
    auto watcher = makeObject<Watcher>();
    std::shared_ptr<XOKVOObservation> first;
    std::shared_ptr<XOKVOObservation> second;
    int firstCalls = 0;
    int secondCalls = 0;
    first = center().addObserver(watcher, person, "name", 0, [&](const auto&) {
        ++firstCalls;
        second->remove();
        center().removeObservation(first);
    });
    second = center().addObserver(watcher, person, "name", 0, [&](const auto&) { ++secondCalls; });

    person->setValueForKey("Grace", "name");
    person->setValueForKey("Ada", "name");
    EXPECT_EQ(firstCalls, 1);
    EXPECT_EQ(secondCalls, 0);
    EXPECT_FALSE(first->isValid());
    first->remove();
    center().removeObservation(second);
    EXPECT_EQ(person->observationCount(), 0u);
}

TEST(XOKVONotificationCenter, DestroyingTheObserverFirstEndsItsObservations)
{
    auto person = makeObject<Person>();
    auto watcher = makeObject<Watcher>();
    int calls = 0;
    const auto token = center().addObserver(watcher, person, "name", 0, [&](const auto&) { ++calls; });
    const auto bySelector = center().addObserver(watcher, person, "age", &Watcher::targetDidChange, {}, 0);
    watcher.reset();

    EXPECT_FALSE(token->isValid());
    EXPECT_FALSE(bySelector->isValid());
    EXPECT_EQ(person->observationCount(), 0u);
    person->setValueForKey("Grace", "name");
    person->setValueForKey(1, "age");
    EXPECT_EQ(calls, 0);
}

TEST(XOKVONotificationCenter, DestroyingTheTargetFirstEndsItsObservations)
{
    auto person = makeObject<Person>();
    auto watcher = makeObject<Watcher>();
    std::weak_ptr<XOKVOObservation> helper =
        center().addObserver(watcher, person, "name", &Watcher::targetDidChange, {}, 0);
    const auto kept = center().addObserver(watcher, person, "age", 0, [](const auto&) {});
    EXPECT_FALSE(helper.expired());  // the helper sets hold it, not the token

    person.reset();
    EXPECT_FALSE(kept->isValid());
    EXPECT_TRUE(helper.expired());  // gone from the watcher's set too
}

TEST(XOKVONotificationCenter, AnArrayTargetGoesWithAnyOfItsObjects)
{
    auto a = makeObject<Person>("a");
    auto b = makeObject<Person>("b");
    auto watcher = makeObject<Watcher>();
    const auto token = center().addObserver(watcher, Array{a, b}, "name", 0, [](const auto&) {});
    b.reset();
    EXPECT_FALSE(token->isValid());
    EXPECT_EQ(a->observationCount(), 0u);
}

TEST(XOKVONotificationCenter, WithTheUnregisterManuallyBitTheCallerRemovesTheToken)
{
    auto person = makeObject<ManualPerson>();
    auto watcher = makeObject<ManualWatcher>();
    int calls = 0;
    const auto options = NSKeyValueObservingOptionNew | XOKVONotificationOptionUnregisterManually;
    const auto byTarget = center().addObserver(watcher, person, "name", options, [&](const auto& notification) {
        ++calls;
        EXPECT_EQ(notification->newValue(), Value("Grace"));
    });
    auto second = makeObject<ManualPerson>();
    const auto byObserver = center().addObserver(watcher, second, "name", options, [&](const auto&) { ++calls; });
    person->setValueForKey("Grace", "name");
    EXPECT_EQ(calls, 1);

    // Neither the target's going nor the observer's removes anything...
    person.reset();
    EXPECT_TRUE(byTarget->isValid());
    watcher.reset();
    EXPECT_TRUE(byObserver->isValid());
    EXPECT_EQ(second->observationCount(), 1u);
    // ...but an observer that is gone is not called.
    second->setValueForKey("Grace", "name");
    EXPECT_EQ(calls, 1);

    byTarget->remove();
    byObserver->remove();
    EXPECT_FALSE(byTarget->isValid());
    EXPECT_FALSE(byObserver->isValid());
    EXPECT_EQ(second->observationCount(), 0u);
}

TEST(XOKVONotificationCenter, AutomaticRemovalAddedLaterCoversOlderInstancesOfTheClass)
{
    auto older = makeObject<LatePerson>();
    const auto manual = center().addObserver(nullptr, older, "name", XOKVONotificationOptionUnregisterManually,
                                             [](const auto&) {});
    auto newer = makeObject<LatePerson>();
    const auto automatic = center().addObserver(nullptr, newer, "name", 0, [](const auto&) {});

    older.reset();
    EXPECT_FALSE(manual->isValid());
    newer.reset();
    EXPECT_FALSE(automatic->isValid());
}

TEST(XOKVONotificationCenter, TheHelperPassesOnNotificationsOfOtherContexts)
{
    auto person = makeObject<Person>();
    const auto token = center().addObserver(nullptr, person, "name", 0, [](const auto&) {});
    const auto helper = std::dynamic_pointer_cast<Object>(token);
    ASSERT_TRUE(helper);
    int otherContext = 0;
    person->addObserver(helper, "age", 0, &otherContext);
    try {
        person->setValueForKey(1, "age");
        ADD_FAILURE() << "expected the root class to refuse it";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), NSInternalInconsistencyException);
    }
}

}  // namespace
