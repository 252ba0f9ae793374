#include "Platform/Runtime/Class.h"

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/OrderedSet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

using platform::Class;
using platform::ClassDescription;
using platform::classFromString;
using platform::Value;

// Pulled into the program from a static library by its anchor alone.
PLATFORM_LINK_CLASS(ZRTAnchoredFixture);

namespace {

class ZRTAnimal : public platform::Object {
public:
    static std::shared_ptr<ZRTAnimal> create() { return platform::makeObject<ZRTAnimal>(); }

protected:
    template <class> friend struct platform::ObjectAllocator;
    ZRTAnimal() = default;
};

class ZRTDog : public ZRTAnimal {
public:
    static std::shared_ptr<ZRTDog> create() { return platform::makeObject<ZRTDog>(); }
};

std::atomic<int> levelledClassLevel{7};

}  // namespace

// Registered out of order on purpose: the puppy names a superclass whose
// registration may come later.
PLATFORM_CLASS_REGISTRATION(ZRTPuppy) = ClassDescription("ZRTPuppy").superclass("ZRTDog");
PLATFORM_CLASS_REGISTRATION(ZRTAnimal) = ClassDescription("ZRTAnimal")
                                             .superclass("NSObject")
                                             .factory([] { return ZRTAnimal::create(); })
                                             .classOperation<int()>("legs", [] { return 4; })
                                             .classOperation<std::string()>("sound", [] { return std::string("..."); });
PLATFORM_CLASS_REGISTRATION(ZRTDog) = ClassDescription("ZRTDog")
                                          .superclass("ZRTAnimal")
                                          .factory([] { return ZRTDog::create(); })
                                          .classOperation<std::string()>("sound", [] { return std::string("woof"); });
PLATFORM_CLASS_REGISTRATION(ZRTLevelled) =
    ClassDescription("ZRTLevelled")
        .classOperation<int()>("ddLogLevel", [] { return levelledClassLevel.load(); })
        .classOperation<void(int)>("ddSetLogLevel:", [](int level) { levelledClassLevel = level; });
PLATFORM_CLASS_REGISTRATION(ZRTHalfLevelled) =
    ClassDescription("ZRTHalfLevelled").classOperation<int()>("ddLogLevel", [] { return 1; });

namespace {

const Class& named(std::string_view name)
{
    const Class* cls = classFromString(name);
    if (cls == nullptr) {
        throw std::runtime_error("no class " + std::string(name));
    }
    return *cls;
}

// What the logging core asks of a class before it offers per-class levels.
bool hasLogLevelOperations(const Class& cls)
{
    return cls.operation<int()>("ddLogLevel") != nullptr && cls.operation<void(int)>("ddSetLogLevel:") != nullptr;
}

std::vector<std::string> namesOf(const std::vector<const Class*>& classes)
{
    std::vector<std::string> names;
    for (const Class* cls : classes) {
        names.push_back(cls->name());
    }
    return names;
}

}  // namespace

TEST(ClassLookUp, FindsRegisteredClassesByNameAndNothingElse)
{
    EXPECT_EQ(named("ZRTDog").name(), "ZRTDog");
    EXPECT_EQ(classFromString("ZRTCat"), nullptr);
    EXPECT_EQ(classFromString(""), nullptr);
    // Names are compared exactly.
    EXPECT_EQ(classFromString("zrtdog"), nullptr);
    EXPECT_EQ(classFromString("ZRTDog "), nullptr);
}

TEST(ClassLookUp, ListsEveryClassOnceByName)
{
    const auto names = namesOf(platform::classList());
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
    EXPECT_THAT(names, testing::IsSupersetOf({"NSObject", "NSString", "NSValueTransformer", "ZRTAnimal", "ZRTDog",
                                              "ZRTPuppy", "ZRTLevelled"}));
}

TEST(ClassHierarchy, SuperclassesAreResolvedWhateverTheRegistrationOrder)
{
    EXPECT_EQ(named("ZRTPuppy").superclass(), &named("ZRTDog"));
    EXPECT_EQ(named("ZRTDog").superclass(), &named("ZRTAnimal"));
    EXPECT_EQ(named("ZRTAnimal").superclass(), &named("NSObject"));
    EXPECT_EQ(named("NSObject").superclass(), nullptr);
    // Without a superclass a class is a root of its own.
    EXPECT_EQ(named("ZRTLevelled").superclass(), nullptr);
}

TEST(ClassHierarchy, SubclassTestFollowsTheWholeChainOneWay)
{
    const Class& puppy = named("ZRTPuppy");
    const Class& animal = named("ZRTAnimal");
    EXPECT_TRUE(puppy.isSubclassOfClass(puppy));
    EXPECT_TRUE(puppy.isSubclassOfClass(animal));
    EXPECT_TRUE(puppy.isSubclassOfClass(named("NSObject")));
    EXPECT_FALSE(animal.isSubclassOfClass(puppy));
    EXPECT_FALSE(puppy.isSubclassOfClass(named("ZRTLevelled")));
}

TEST(ClassHierarchy, ASuperclassRegisteredLaterIsFoundThen)
{
    const Class& orphan = platform::registerClass(ClassDescription("ZRTOrphan").superclass("ZRTLateParent"));
    EXPECT_EQ(orphan.superclass(), nullptr);
    const Class& parent = platform::registerClass(ClassDescription("ZRTLateParent"));
    EXPECT_EQ(orphan.superclass(), &parent);
    EXPECT_TRUE(orphan.isSubclassOfClass(parent));
}

TEST(ClassRegistration, RejectsASecondClassOfTheSameName)
{
    const Class& first = platform::registerClass(ClassDescription("ZRTTwice"));
    try {
        platform::registerClass(ClassDescription("ZRTTwice").superclass("ZRTDog"));
        FAIL() << "registering a name twice did not raise";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), platform::NSInternalInconsistencyException);
        EXPECT_THAT(exception.reason(), testing::HasSubstr("ZRTTwice"));
    }
    EXPECT_EQ(classFromString("ZRTTwice"), &first);
    EXPECT_EQ(first.superclass(), nullptr);
}

TEST(ClassRegistration, RejectsSuperclassCycles)
{
    EXPECT_THROW(platform::registerClass(ClassDescription("ZRTSelfParent").superclass("ZRTSelfParent")),
                 platform::Exception);
    EXPECT_EQ(classFromString("ZRTSelfParent"), nullptr);

    platform::registerClass(ClassDescription("ZRTCycleA").superclass("ZRTCycleB"));
    platform::registerClass(ClassDescription("ZRTCycleB").superclass("ZRTCycleC"));
    EXPECT_THROW(platform::registerClass(ClassDescription("ZRTCycleC").superclass("ZRTCycleA")), platform::Exception);
    EXPECT_EQ(classFromString("ZRTCycleC"), nullptr);
    // The chain that was refused stays open-ended, so walking it ends.
    EXPECT_FALSE(named("ZRTCycleA").isSubclassOfClass(named("NSObject")));
}

TEST(ClassInstances, AreMadeByTheClassFoundByName)
{
    const auto dog = named("ZRTDog").makeInstance();
    ASSERT_NE(dog, nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<ZRTDog>(dog), nullptr);
    EXPECT_NE(named("ZRTDog").makeInstance(), dog) << "each call makes a new instance";

    const auto animal = named("ZRTAnimal").makeInstance();
    ASSERT_NE(animal, nullptr);
    EXPECT_EQ(std::dynamic_pointer_cast<ZRTDog>(animal), nullptr);
}

TEST(ClassInstances, AClassWithoutAFactoryMakesNothing)
{
    EXPECT_FALSE(named("ZRTPuppy").canMakeInstance());
    EXPECT_EQ(named("ZRTPuppy").makeInstance(), nullptr);
    EXPECT_EQ(named("NSString").makeInstance(), nullptr);
    EXPECT_TRUE(named("ZRTDog").canMakeInstance());
}

TEST(ClassOperations, AreInheritedAndOverridden)
{
    const auto* legs = named("ZRTPuppy").operation<int()>("legs");
    ASSERT_NE(legs, nullptr);
    EXPECT_EQ((*legs)(), 4);
    EXPECT_EQ((*named("ZRTPuppy").operation<std::string()>("sound"))(), "woof");
    EXPECT_EQ((*named("ZRTAnimal").operation<std::string()>("sound"))(), "...");
    EXPECT_EQ(named("NSObject").operation<int()>("legs"), nullptr);
    EXPECT_FALSE(named("NSObject").respondsToSelector("legs"));
    EXPECT_TRUE(named("ZRTPuppy").respondsToSelector("legs"));
}

TEST(ClassOperations, AreFoundOnlyWithTheirOwnSignature)
{
    const Class& animal = named("ZRTAnimal");
    EXPECT_TRUE(animal.respondsToSelector("legs"));
    EXPECT_EQ(animal.operation<long()>("legs"), nullptr);
    EXPECT_EQ(animal.operation<int(int)>("legs"), nullptr);
    EXPECT_EQ(animal.operation<void()>("legs"), nullptr);
}

TEST(ClassOperations, LogLevelPairIsUsableOnlyWhenBothArePresent)
{
    const Class& levelled = named("ZRTLevelled");
    ASSERT_TRUE(hasLogLevelOperations(levelled));
    EXPECT_FALSE(hasLogLevelOperations(named("ZRTHalfLevelled")));
    EXPECT_FALSE(hasLogLevelOperations(named("ZRTDog")));

    (*levelled.operation<void(int)>("ddSetLogLevel:"))(31);
    EXPECT_EQ((*levelled.operation<int()>("ddLogLevel"))(), 31);

    std::vector<std::string> participating;
    for (const Class* cls : platform::classList()) {
        if (hasLogLevelOperations(*cls)) {
            participating.push_back(cls->name());
        }
    }
    EXPECT_THAT(participating, testing::Contains("ZRTLevelled"));
    EXPECT_THAT(participating, testing::Not(testing::Contains("ZRTHalfLevelled")));
}

TEST(ClassOfValues, ObjectsAnswerTheirRegisteredClass)
{
    const auto dog = ZRTDog::create();
    EXPECT_EQ(platform::classOf(*dog), &named("ZRTDog"));
    EXPECT_TRUE(platform::isKindOfClass(Value(dog), named("ZRTAnimal")));
    EXPECT_FALSE(platform::isKindOfClass(Value(ZRTAnimal::create()), named("ZRTDog")));
    EXPECT_TRUE(platform::isKindOfClass(Value(platform::Error::posix(2)), named("NSError")));

    // No class to fall back on for a class nobody registered.
    class ZRTUnregistered : public platform::Object {};
    const auto unregistered = platform::makeObject<ZRTUnregistered>();
    EXPECT_EQ(platform::classOf(*unregistered), nullptr);
    EXPECT_FALSE(platform::isKindOfClass(Value(unregistered), named("NSObject")));
}

TEST(ClassOfValues, OtherKindsAnswerTheirValueClass)
{
    const std::pair<Value, std::string_view> rows[] = {
        {Value("text"), "NSString"},
        {Value(true), "NSNumber"},
        {Value(3), "NSNumber"},
        {Value(2.5), "NSNumber"},
        {Value::null(), "NSNull"},
        {Value(platform::Array{}), "NSArray"},
        {Value(platform::Dictionary{}), "NSDictionary"},
        {Value(platform::Set{}), "NSSet"},
        {Value(platform::OrderedSet{}), "NSOrderedSet"},
        {Value(platform::Data{1, 2}), "NSData"},
    };
    for (const auto& [value, className] : rows) {
        SCOPED_TRACE(className);
        const Class* cls = platform::classOf(value);
        ASSERT_NE(cls, nullptr);
        EXPECT_EQ(cls->name(), className);
        EXPECT_TRUE(platform::isKindOfClass(value, named("NSObject")));
        EXPECT_FALSE(platform::isKindOfClass(value, named("ZRTAnimal")));
    }
    EXPECT_EQ(platform::classOf(Value()), nullptr);
    EXPECT_FALSE(platform::isKindOfClass(Value(), named("NSObject")));
}

// A registration in a static library counts only if the program links it.
TEST(ClassLinking, ARegistrationIsLinkedByItsAnchorOrAWholeArchive)
{
    EXPECT_NE(classFromString("ZRTAnchoredFixture"), nullptr);
    EXPECT_NE(classFromString("ZRTWholeArchiveFixture"), nullptr);
    // The control: the same kind of file, with nothing naming it, is left out.
    EXPECT_EQ(classFromString("ZRTUnanchoredFixture"), nullptr);
}

TEST(ClassConcurrency, RegistrationsAndLookUpsFromManyThreadsAllTakeEffect)
{
    constexpr int kThreads = 4;
    constexpr int kClassesPerThread = 50;
    std::atomic<bool> stop{false};
    std::atomic<int> lookUps{0};
    std::thread reader([&] {
        while (!stop.load()) {
            // Each look-up walks the list while writers add to it.
            for (const Class* cls : platform::classList()) {
                if (cls->isSubclassOfClass(named("NSObject"))) {
                    lookUps.fetch_add(1);
                }
            }
        }
    });
    std::vector<std::thread> writers;
    for (int thread = 0; thread < kThreads; ++thread) {
        writers.emplace_back([thread] {
            for (int index = 0; index < kClassesPerThread; ++index) {
                const std::string name = "ZRTConcurrent" + std::to_string(thread) + "_" + std::to_string(index);
                // Each class names the one registered before it, so chains grow
                // while other threads resolve them.
                const std::string parent =
                    index == 0 ? "NSObject" : "ZRTConcurrent" + std::to_string(thread) + "_" + std::to_string(index - 1);
                platform::registerClass(ClassDescription(name).superclass(parent));
                EXPECT_TRUE(named(name).isSubclassOfClass(named("NSObject")));
            }
        });
    }
    for (auto& writer : writers) {
        writer.join();
    }
    stop = true;
    reader.join();
    for (int thread = 0; thread < kThreads; ++thread) {
        const std::string last = "ZRTConcurrent" + std::to_string(thread) + "_" + std::to_string(kClassesPerThread - 1);
        EXPECT_TRUE(named(last).isSubclassOfClass(named("ZRTConcurrent" + std::to_string(thread) + "_0")));
    }
    EXPECT_GT(lookUps.load(), 0);
}
