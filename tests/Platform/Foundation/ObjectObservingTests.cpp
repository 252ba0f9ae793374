// Key-value observing, associated objects and destruction hooks of the root
// object.
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/Object.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>

using namespace platform;

namespace {

class Person : public Object {
public:
    std::string first = "Ada";
    std::string last = "Lovelace";
    Array items;
    std::int64_t manual = 0;
    std::shared_ptr<Person> partner;

    const PropertyTable& propertyTable() const override
    {
        static const auto table = PropertyTable::extending<Person>(Object::propertyTable(), {
            {"first", [](const Person& p) { return Value(p.first); },
             [](Person& p, const Value& v) { p.first = v.string() ? *v.string() : ""; }},
            {"last", [](const Person& p) { return Value(p.last); },
             [](Person& p, const Value& v) { p.last = v.string() ? *v.string() : ""; }},
            {"fullName", [](const Person& p) { return Value(p.first + " " + p.last); }},
            {"greeting", [](const Person& p) { return Value("Hello, " + p.first + " " + p.last); }},
            {"items", [](const Person& p) { return Value(p.items); },
             [](Person& p, const Value& v) { p.items = v.array() ? *v.array() : Array{}; }},
            {"manual", [](const Person& p) { return Value(p.manual); },
             [](Person& p, const Value& v) { p.manual = v.integerValue().value_or(0); }},
            {"failing", [](const Person&) { return Value(); },
             [](Person&, const Value&) { throw std::runtime_error("refused"); }},
            {"nothing", [](const Person&) { return Value(); }, [](Person&, const Value&) {}},
            {"partner", [](const Person& p) { return Value(p.partner); },
             [](Person& p, const Value& v) { p.partner = v.objectAs<Person>(); }},
            {"partnerName", [](const Person& p) { return p.partner ? p.partner->valueForKey("fullName") : Value(); }},
        });
        return table;
    }

    std::vector<std::string> keyPathsForValuesAffectingValueForKey(std::string_view key) const override
    {
        if (key == "fullName") {
            return {"first", "last"};
        }
        if (key == "greeting") {
            return {"fullName"};
        }
        if (key == "partnerName") {
            return {"partner.fullName"};
        }
        return {};
    }

    bool automaticallyNotifiesObserversForKey(std::string_view key) const override { return key != "manual"; }

    void setManual(std::int64_t value)
    {
        willChangeValueForKey("manual");
        manual = value;
        didChangeValueForKey("manual");
    }
};

struct Notice {
    std::string keyPath;
    const Object* object;
    Dictionary change;
    void* context;
};

class Recorder : public Object {
public:
    std::vector<Notice> notices;
    std::function<void(const Notice&)> onNotice;

    void observeValueForKeyPath(const std::string& keyPath, const ObjectRef& object, const Dictionary& change,
                                void* context) override
    {
        const Notice notice{keyPath, object.get(), change, context};
        notices.push_back(notice);
        if (onNotice) {
            onNotice(notice);
        }
    }

    std::vector<std::string> keyPaths() const
    {
        std::vector<std::string> paths;
        for (const auto& notice : notices) {
            paths.push_back(notice.keyPath);
        }
        return paths;
    }
};

constexpr auto kNewOld = NSKeyValueObservingOptionNew | NSKeyValueObservingOptionOld;

TEST(KeyValueObserving, SettingThroughKeyValueCodingNotifiesWithTheValuesAsked)
{
    auto person = makeObject<Person>();
    auto both = makeObject<Recorder>();
    auto bare = makeObject<Recorder>();
    int context = 0;
    person->addObserver(both, "first", kNewOld, &context);
    person->addObserver(bare, "first");

    person->setValueForKey("Grace", "first");
    person->setValueForKey("Hopper", "last");  // not observed by either

    ASSERT_EQ(both->notices.size(), 1u);
    EXPECT_EQ(both->notices[0].keyPath, "first");
    EXPECT_EQ(both->notices[0].object, person.get());
    EXPECT_EQ(both->notices[0].context, &context);
    EXPECT_EQ(both->notices[0].change, (Dictionary{{NSKeyValueChangeKindKey, 1}, {NSKeyValueChangeOldKey, "Ada"},
                                                   {NSKeyValueChangeNewKey, "Grace"}}));
    ASSERT_EQ(bare->notices.size(), 1u);
    EXPECT_EQ(bare->notices[0].change, (Dictionary{{NSKeyValueChangeKindKey, 1}}));
}

TEST(KeyValueObserving, NothingIsCarriedAsTheNullObject)
{
    auto person = makeObject<Person>();
    auto recorder = makeObject<Recorder>();
    person->addObserver(recorder, "nothing", kNewOld);
    person->setValueForKey(Value(), "nothing");
    ASSERT_EQ(recorder->notices.size(), 1u);
    EXPECT_TRUE(recorder->notices[0].change.get(NSKeyValueChangeOldKey).isNull());
    EXPECT_TRUE(recorder->notices[0].change.get(NSKeyValueChangeNewKey).isNull());
}

TEST(KeyValueObserving, InitialAndPriorNotificationsComeAtRegistrationAndBeforeTheChange)
{
    auto person = makeObject<Person>();
    auto recorder = makeObject<Recorder>();
    person->addObserver(recorder, "first",
                        kNewOld | NSKeyValueObservingOptionInitial | NSKeyValueObservingOptionPrior);
    ASSERT_EQ(recorder->notices.size(), 1u);
    EXPECT_EQ(recorder->notices[0].change, (Dictionary{{NSKeyValueChangeKindKey, 1}, {NSKeyValueChangeNewKey, "Ada"}}));

    // The prior notification sees the object before the write.
    std::string firstDuringPrior;
    recorder->onNotice = [&](const Notice& notice) {
        if (notice.change.contains(NSKeyValueChangeNotificationIsPriorKey)) {
            firstDuringPrior = person->first;
        }
    };
    person->setValueForKey("Grace", "first");
    ASSERT_EQ(recorder->notices.size(), 3u);
    EXPECT_EQ(recorder->notices[1].change, (Dictionary{{NSKeyValueChangeKindKey, 1}, {NSKeyValueChangeOldKey, "Ada"},
                                                       {NSKeyValueChangeNotificationIsPriorKey, true}}));
    EXPECT_EQ(firstDuringPrior, "Ada");
    EXPECT_EQ(recorder->notices[2].change, (Dictionary{{NSKeyValueChangeKindKey, 1}, {NSKeyValueChangeOldKey, "Ada"},
                                                       {NSKeyValueChangeNewKey, "Grace"}}));

    // Initial without New carries the kind only.
    auto bare = makeObject<Recorder>();
    person->addObserver(bare, "last", NSKeyValueObservingOptionInitial);
    ASSERT_EQ(bare->notices.size(), 1u);
    EXPECT_EQ(bare->notices[0].change, (Dictionary{{NSKeyValueChangeKindKey, 1}}));
}

TEST(KeyValueObserving, DependentKeysAreNotifiedTransitivelyAfterTheKeyItself)
{
    auto person = makeObject<Person>();
    auto recorder = makeObject<Recorder>();
    person->addObserver(recorder, "greeting", kNewOld);
    person->addObserver(recorder, "fullName", kNewOld);
    person->addObserver(recorder, "first");

    person->setValueForKey("Grace", "first");
    EXPECT_EQ(recorder->keyPaths(), (std::vector<std::string>{"first", "greeting", "fullName"}));
    EXPECT_EQ(recorder->notices[1].change.get(NSKeyValueChangeOldKey), Value("Hello, Ada Lovelace"));
    EXPECT_EQ(recorder->notices[1].change.get(NSKeyValueChangeNewKey), Value("Hello, Grace Lovelace"));
    EXPECT_EQ(recorder->notices[2].change.get(NSKeyValueChangeNewKey), Value("Grace Lovelace"));

    recorder->notices.clear();
    person->setValueForKey(Array{}, "items");  // nothing depends on it
    EXPECT_TRUE(recorder->notices.empty());
}

// "partnerName" depends on "partner.fullName": it changes with the partner,
// and with the names of whoever is the partner at the time (fullName in turn
// depends on them), and with no one else's.
TEST(KeyValueObserving, ADependencyThroughARelationshipFollowsItsCurrentObject)
{
    auto person = makeObject<Person>();
    auto grace = makeObject<Person>();
    grace->first = "Grace";
    grace->last = "Hopper";
    auto alan = makeObject<Person>();
    alan->first = "Alan";
    alan->last = "Turing";
    auto recorder = makeObject<Recorder>();
    person->addObserver(recorder, "partnerName", kNewOld);
    const auto changes = [&] {
        std::vector<std::string> seen;
        for (const auto& notice : recorder->notices) {
            EXPECT_EQ(notice.object, person.get());
            seen.push_back(notice.keyPath + ": " + notice.change.get(NSKeyValueChangeOldKey).description() + " -> "
                           + notice.change.get(NSKeyValueChangeNewKey).description());
        }
        recorder->notices.clear();
        return seen;
    };

    person->setValueForKey(Value(grace), "partner");
    grace->setValueForKey("Amazing", "first");
    grace->setValueForKey("Grace", "first");
    EXPECT_EQ(changes(), (std::vector<std::string>{"partnerName: <null> -> Grace Hopper",
                                                   "partnerName: Grace Hopper -> Amazing Hopper",
                                                   "partnerName: Amazing Hopper -> Grace Hopper"}));

    // The former partner's changes no longer count; the new one's do.
    person->setValueForKey(Value(alan), "partner");
    grace->setValueForKey("Ada", "first");
    alan->setValueForKey("Alonzo", "first");
    EXPECT_EQ(changes(), (std::vector<std::string>{"partnerName: Grace Hopper -> Alan Turing",
                                                   "partnerName: Alan Turing -> Alonzo Turing"}));
    EXPECT_EQ(grace->observationCount(), 0u);

    // With no one observing the dependent key, nothing is left on the partner.
    person->removeObserver(*recorder, "partnerName");
    EXPECT_EQ(alan->observationCount(), 0u);
    alan->setValueForKey("Alan", "first");
    EXPECT_TRUE(changes().empty());
}

TEST(KeyValueObserving, RemovalMatchesObserverKeyAndContextAndTakesTheMostRecent)
{
    auto person = makeObject<Person>();
    auto recorder = makeObject<Recorder>();
    int one = 0;
    int two = 0;
    person->addObserver(recorder, "first", 0, &one);
    person->addObserver(recorder, "first", 0, &two);
    person->addObserver(recorder, "first", 0, &one);

    person->removeObserver(*recorder, "first", &one);
    person->setValueForKey("Grace", "first");
    ASSERT_EQ(recorder->notices.size(), 2u);
    EXPECT_EQ(recorder->notices[0].context, &one);
    EXPECT_EQ(recorder->notices[1].context, &two);

    person->removeObserver(*recorder, "first");  // any context: the most recent, `two`
    recorder->notices.clear();
    person->setValueForKey("Ada", "first");
    ASSERT_EQ(recorder->notices.size(), 1u);
    EXPECT_EQ(recorder->notices[0].context, &one);

    person->removeObserver(*recorder, "first");
    EXPECT_EQ(person->observationCount(), 0u);
    EXPECT_THROW(person->removeObserver(*recorder, "first"), Exception);
    try {
        person->removeObserver(*recorder, "last");
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), NSRangeException);
    }
}

TEST(KeyValueObserving, ObserversMayRemoveAndAddObserversWhileBeingNotified)
{
    auto person = makeObject<Person>();
    auto first = makeObject<Recorder>();
    auto second = makeObject<Recorder>();
    auto third = makeObject<Recorder>();
    auto late = makeObject<Recorder>();
    person->addObserver(first, "first");
    person->addObserver(second, "first");
    person->addObserver(third, "first");
    first->onNotice = [&](const Notice&) {
        person->removeObserver(*second, "first");
        person->removeObserver(*first, "first");
        person->addObserver(late, "first");
    };

    person->setValueForKey("Grace", "first");
    EXPECT_EQ(first->notices.size(), 1u);
    EXPECT_TRUE(second->notices.empty());  // removed before its turn
    EXPECT_EQ(third->notices.size(), 1u);
    EXPECT_TRUE(late->notices.empty());  // joined after the change began

    person->setValueForKey("Ada", "first");
    EXPECT_EQ(first->notices.size(), 1u);
    EXPECT_EQ(third->notices.size(), 2u);
    EXPECT_EQ(late->notices.size(), 1u);
}

TEST(KeyValueObserving, AnObserverThatIsGoneIsSkippedAndForgotten)
{
    auto person = makeObject<Person>();
    auto kept = makeObject<Recorder>();
    auto dropped = makeObject<Recorder>();
    person->addObserver(dropped, "first");
    person->addObserver(kept, "first");
    dropped.reset();

    person->setValueForKey("Grace", "first");
    EXPECT_EQ(kept->notices.size(), 1u);
    EXPECT_EQ(person->observationCount(), 1u);
}

TEST(KeyValueObserving, ChangesMadeByObserversNestInsideTheOuterChange)
{
    auto person = makeObject<Person>();
    auto recorder = makeObject<Recorder>();
    person->addObserver(recorder, "first", kNewOld);
    person->addObserver(recorder, "last", kNewOld);
    recorder->onNotice = [&](const Notice& notice) {
        if (notice.keyPath == "first") {
            person->setValueForKey("Hopper", "last");
        }
    };

    // An outer manual pair around a write of the same key.
    person->willChangeValueForKey("first");
    person->setValueForKey("Grace", "first");
    person->didChangeValueForKey("first");

    ASSERT_EQ(recorder->keyPaths(), (std::vector<std::string>{"first", "last", "first", "last"}));
    EXPECT_EQ(recorder->notices[0].change.get(NSKeyValueChangeNewKey), Value("Grace"));
    EXPECT_EQ(recorder->notices[1].change.get(NSKeyValueChangeNewKey), Value("Hopper"));
    EXPECT_EQ(recorder->notices[2].change.get(NSKeyValueChangeOldKey), Value("Ada"));  // the outer pair's old value
    // The second "last" write finds "Hopper" already there.
    EXPECT_EQ(recorder->notices[3].change.get(NSKeyValueChangeOldKey), Value("Hopper"));

    recorder->notices.clear();
    person->didChangeValueForKey("first");  // unpaired
    EXPECT_TRUE(recorder->notices.empty());
}

TEST(KeyValueObserving, AWriteThatThrowsNotifiesNothingAndLeavesNoPendingChange)
{
    auto person = makeObject<Person>();
    auto recorder = makeObject<Recorder>();
    person->addObserver(recorder, "failing");
    person->addObserver(recorder, "first");
    EXPECT_THROW(person->setValueForKey(1, "failing"), std::runtime_error);
    EXPECT_TRUE(recorder->notices.empty());

    // A stale "will" left behind would pair with this unpaired "did".
    person->didChangeValueForKey("failing");
    EXPECT_TRUE(recorder->notices.empty());
    person->willChangeValueForKey("failing");
    person->didChangeValueForKey("failing");
    EXPECT_EQ(recorder->keyPaths(), (std::vector<std::string>{"failing"}));
}

TEST(KeyValueObserving, AClassThatNotifiesItselfIsNotNotifiedTwice)
{
    auto person = makeObject<Person>();
    auto recorder = makeObject<Recorder>();
    person->addObserver(recorder, "manual", NSKeyValueObservingOptionNew);
    person->setValueForKey(5, "manual");
    EXPECT_TRUE(recorder->notices.empty());
    person->setManual(7);
    ASSERT_EQ(recorder->notices.size(), 1u);
    EXPECT_EQ(recorder->notices[0].change.get(NSKeyValueChangeNewKey), Value(7));
}

TEST(KeyValueObserving, ElementChangesCarryKindIndexesAndTheElements)
{
    auto person = makeObject<Person>();
    person->items = {"a", "b", "c"};
    auto recorder = makeObject<Recorder>();
    person->addObserver(recorder, "items", kNewOld | NSKeyValueObservingOptionPrior);

    person->willChange(KeyValueChange::Insertion, {1, 3}, "items");
    person->items = {"a", "x", "b", "y", "c"};
    person->didChange(KeyValueChange::Insertion, {1, 3}, "items");

    person->willChange(KeyValueChange::Removal, {0}, "items");
    person->items.erase(person->items.begin());
    person->didChange(KeyValueChange::Removal, {0}, "items");

    ASSERT_EQ(recorder->notices.size(), 4u);
    EXPECT_EQ(recorder->notices[0].change, (Dictionary{{NSKeyValueChangeKindKey, 2},
                                                       {NSKeyValueChangeIndexesKey, Array{1, 3}},
                                                       {NSKeyValueChangeNotificationIsPriorKey, true}}));
    EXPECT_EQ(recorder->notices[1].change, (Dictionary{{NSKeyValueChangeKindKey, 2},
                                                       {NSKeyValueChangeIndexesKey, Array{1, 3}},
                                                       {NSKeyValueChangeNewKey, Array{"x", "y"}}}));
    EXPECT_EQ(recorder->notices[3].change, (Dictionary{{NSKeyValueChangeKindKey, 3},
                                                       {NSKeyValueChangeIndexesKey, Array{0}},
                                                       {NSKeyValueChangeOldKey, Array{"a"}}}));
}

TEST(KeyValueObserving, ObservingTheObjectsOfAnArrayObservesEachElement)
{
    auto a = makeObject<Person>();
    auto b = makeObject<Person>();
    auto c = makeObject<Person>();
    const Array people{a, b, c};
    auto recorder = makeObject<Recorder>();
    addObserverToObjectsAtIndexes(people, {0, 1, 2}, recorder, "first", NSKeyValueObservingOptionNew);

    b->setValueForKey("Grace", "first");
    ASSERT_EQ(recorder->notices.size(), 1u);
    EXPECT_EQ(recorder->notices[0].object, b.get());

    removeObserverFromObjectsAtIndexes(people, {0, 2}, *recorder, "first");
    a->setValueForKey("x", "first");
    c->setValueForKey("x", "first");
    b->setValueForKey("x", "first");
    EXPECT_EQ(recorder->notices.size(), 2u);

    // Bad arrays are refused before anything is registered.
    const Array mixed{a, "text"};
    EXPECT_THROW(addObserverToObjectsAtIndexes(mixed, {0, 1}, recorder, "last"), Exception);
    EXPECT_THROW(addObserverToObjectsAtIndexes(people, {0, 3}, recorder, "last"), Exception);
    EXPECT_EQ(a->observationCount(), 0u);
}

TEST(KeyValueObserving, TheRootClassRefusesNotificationsItDoesNotHandle)
{
    auto person = makeObject<Person>();
    auto plain = makeObject<Person>();  // does not override observeValueForKeyPath
    person->addObserver(plain, "first");
    try {
        person->setValueForKey("Grace", "first");
        FAIL() << "expected an exception";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), NSInternalInconsistencyException);
    }
    // The failed delivery did not leave the change pending.
    person->removeObserver(*plain, "first");
    auto recorder = makeObject<Recorder>();
    person->addObserver(recorder, "first");
    person->setValueForKey("Ada", "first");
    EXPECT_EQ(recorder->notices.size(), 1u);
}

TEST(AssociatedObjects, AreHeldStronglyUntilClearedOrTheOwnerGoes)
{
    auto owner = makeObject<Person>();
    auto value = makeObject<Person>();
    std::weak_ptr<Person> watch = value;
    owner->setAssociatedObject("friend", value);
    value.reset();
    EXPECT_FALSE(watch.expired());
    EXPECT_EQ(owner->associatedObject("friend").object().get(), watch.lock().get());
    EXPECT_TRUE(owner->associatedObject("stranger").isNothing());

    owner->setAssociatedObject("friend", Value());
    EXPECT_TRUE(watch.expired());
    EXPECT_TRUE(owner->associatedObject("friend").isNothing());

    auto another = makeObject<Person>();
    watch = another;
    owner->setAssociatedObject("friend", another);
    another.reset();
    owner.reset();
    EXPECT_TRUE(watch.expired());
}

TEST(AssociatedObjects, GetOrMakeMakesOneValueForRacingThreads)
{
    auto owner = makeObject<Person>();
    std::atomic<int> made = 0;
    std::latch start(2);
    ObjectRef seen[2];
    auto race = [&](int slot) {
        start.arrive_and_wait();
        seen[slot] = owner->associatedObject("set", [&] {
                             ++made;
                             return Value(makeObject<Person>());
                         }).object();
    };
    std::thread left(race, 0);
    std::thread right(race, 1);
    left.join();
    right.join();
    EXPECT_EQ(made.load(), 1);
    EXPECT_EQ(seen[0], seen[1]);
}

TEST(DestructionHooks, RunOnceInOrderBeforeTheAssociationsAreReleased)
{
    std::vector<std::string> ran;
    auto owner = makeObject<Person>();
    std::weak_ptr<Object> weakOwner = owner;
    owner->setAssociatedObject("kept", "still here");
    owner->setDestructionHook("one", [&](Object& object) {
        ran.push_back("one:" + *object.associatedObject("kept").string());
        EXPECT_TRUE(weakOwner.expired());  // nobody can reach the object any more
    });
    owner->setDestructionHook("two", [&](Object&) { ran.push_back("two"); });
    owner->setDestructionHook("one", [&](Object& object) {  // replaces, keeps its place
        ran.push_back("one again:" + *object.associatedObject("kept").string());
    });
    owner.reset();
    EXPECT_EQ(ran, (std::vector<std::string>{"one again:still here", "two"}));
}

TEST(DestructionHooks, SeeTheWholeObjectWhenMadeByMakeObject)
{
    std::vector<std::string> seen;
    auto made = makeObject<Person>();
    std::weak_ptr<Person> weakMade = made;
    made->setDestructionHook("name", [&](Object& object) {
        seen.push_back(object.valueForKey("fullName").description());
        EXPECT_TRUE(weakMade.expired());
    });
    made.reset();  // the weak reference keeps only the memory: the object goes now
    EXPECT_EQ(seen, std::vector<std::string>{"Ada Lovelace"});  // once, while whole
}

TEST(DestructionHooks, SeeOnlyTheRootPartOfAnObjectMadeOtherwise)
{
    std::string seen;
    {
        Person onTheStack;
        onTheStack.setDestructionHook("name", [&](Object& object) { seen = object.className(); });
    }
    // From ~Object only the root part is left.
    EXPECT_EQ(seen, "Object");
}

// An observer that counts the calls it takes after its destructor began.
class GuardedObserver : public Object {
public:
    explicit GuardedObserver(std::atomic<int>& callsAfterDeath) : callsAfterDeath_(callsAfterDeath) {}
    ~GuardedObserver() override { dead_.store(true); }

    void observeValueForKeyPath(const std::string&, const ObjectRef&, const Dictionary&, void*) override
    {
        if (dead_.load()) {
            ++callsAfterDeath_;
        }
    }

private:
    std::atomic<bool> dead_{false};
    std::atomic<int>& callsAfterDeath_;
};

TEST(KeyValueObservingThreads, ObserversComeAndGoWhileAnotherThreadChangesTheObject)
{
    auto person = makeObject<Person>();
    std::atomic<int> callsAfterDeath = 0;
    std::atomic<bool> stop = false;
    std::atomic<int> writes = 0;
    std::thread writer([&] {
        while (!stop.load()) {
            person->setValueForKey(std::to_string(writes.fetch_add(1)), "first");
        }
    });
    // Keep observers coming and going until the writer has been busy for a while.
    for (int round = 0; round < 300 || writes.load() < 2000; ++round) {
        auto observer = makeObject<GuardedObserver>(callsAfterDeath);
        person->addObserver(observer, "first", kNewOld);
        person->addObserver(observer, "fullName");
        if (round % 2 == 0) {
            person->removeObserver(*observer, "first");
        }
        observer.reset();  // the rest goes with the observer
    }
    stop.store(true);
    writer.join();
    EXPECT_EQ(callsAfterDeath.load(), 0);
    person->setValueForKey("x", "first");
    EXPECT_EQ(person->observationCount(), 0u);
}

// A dependency through a relationship while the related objects change on
// another thread and the relationship changes here: the path is followed
// anew under way, observers that went are never called, and nothing is left
// on the related objects once the last observer has gone. (No old or new
// values are asked for: the test's objects are not themselves thread-safe.)
TEST(KeyValueObservingThreads, ARelationshipChangesHereWhileItsObjectsChangeOnAnotherThread)
{
    auto person = makeObject<Person>();
    const std::vector<std::shared_ptr<Person>> partners{makeObject<Person>(), makeObject<Person>()};
    std::atomic<int> callsAfterDeath = 0;
    std::atomic<bool> stop = false;
    std::atomic<int> writes = 0;
    std::thread namer([&] {
        while (!stop.load()) {
            const int write = writes.fetch_add(1);
            partners[write % 2]->setValueForKey(std::to_string(write), "first");
        }
    });
    for (int round = 0; round < 300 || writes.load() < 2000; ++round) {
        auto observer = makeObject<GuardedObserver>(callsAfterDeath);
        person->addObserver(observer, "partnerName");
        person->setValueForKey(Value(partners[round % 2]), "partner");
        person->removeObserver(*observer, "partnerName");
    }
    stop.store(true);
    namer.join();
    EXPECT_EQ(callsAfterDeath.load(), 0);
    for (const auto& partner : partners) {
        EXPECT_EQ(partner->observationCount(), 0u);
    }
}

}  // namespace
