#include "Platform/Runtime/ValueTransformer.h"

#include "Platform/Foundation/Exception.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

using platform::ClassDescription;
using platform::Value;
using platform::ValueTransformer;
using platform::ValueTransformerRef;

namespace {

std::atomic<int> doublersMade{0};

// Doubles integers, halves them back.
class ZRTDoublingTransformer : public ValueTransformer {
public:
    static std::shared_ptr<ZRTDoublingTransformer> create()
    {
        doublersMade.fetch_add(1);
        return platform::makeObject<ZRTDoublingTransformer>();
    }
    const platform::Class* transformedValueClass() const override { return platform::classFromString("NSNumber"); }
    Value transformedValue(const Value& value) const override
    {
        const auto number = value.integerValue();
        return number ? Value(*number * 2) : Value();
    }
    Value reverseTransformedValue(const Value& value) const override
    {
        const auto number = value.integerValue();
        return number ? Value(*number / 2) : Value();
    }
    std::string className() const override { return "ZRTDoublingTransformer"; }
};

// One way only; reversal is left to the base class.
class ZRTOneWayTransformer : public ValueTransformer {
public:
    static std::shared_ptr<ZRTOneWayTransformer> create()
    {
        return platform::makeObject<ZRTOneWayTransformer>();
    }
    bool allowsReverseTransformation() const override { return false; }
    Value transformedValue(const Value& value) const override { return Value(value.description()); }
    std::string className() const override { return "ZRTOneWayTransformer"; }
};

class ZRTNotATransformer : public platform::Object {};

}  // namespace

PLATFORM_CLASS_REGISTRATION(ZRTDoublingTransformer) = ClassDescription("ZRTDoublingTransformer")
                                                          .superclass("NSValueTransformer")
                                                          .factory([] { return ZRTDoublingTransformer::create(); });
PLATFORM_CLASS_REGISTRATION(ZRTOneWayTransformer) = ClassDescription("ZRTOneWayTransformer")
                                                        .superclass("NSValueTransformer")
                                                        .factory([] { return ZRTOneWayTransformer::create(); });
PLATFORM_CLASS_REGISTRATION(ZRTNotATransformer) =
    ClassDescription("ZRTNotATransformer").superclass("NSObject").factory([] {
        return platform::makeObject<ZRTNotATransformer>();
    });

TEST(ValueTransformerBase, IsTheIdentityBothWays)
{
    const auto identity = ValueTransformer::create();
    EXPECT_EQ(identity->transformedValue(Value("x")), Value("x"));
    EXPECT_TRUE(identity->allowsReverseTransformation());
    EXPECT_EQ(identity->reverseTransformedValue(Value(5)), Value(5));
    EXPECT_TRUE(identity->transformedValue(Value()).isNothing());
    ASSERT_NE(identity->transformedValueClass(), nullptr);
    EXPECT_EQ(identity->transformedValueClass()->name(), "NSObject");
}

TEST(ValueTransformerBase, SubclassesAreFoundAsTransformerClasses)
{
    const auto doubler = ZRTDoublingTransformer::create();
    const platform::Class* cls = platform::classOf(*doubler);
    ASSERT_NE(cls, nullptr);
    EXPECT_TRUE(cls->isSubclassOfClass(*platform::classFromString("NSValueTransformer")));
    EXPECT_EQ(doubler->transformedValueClass()->name(), "NSNumber");
}

TEST(ValueTransformerBase, ReversingAOneWayTransformerRaises)
{
    const auto oneWay = ZRTOneWayTransformer::create();
    EXPECT_EQ(oneWay->transformedValue(Value(3)), Value("3"));
    try {
        oneWay->reverseTransformedValue(Value("3"));
        FAIL() << "reversal was allowed";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), platform::NSInvalidArgumentException);
    }
}

TEST(ValueTransformerByClassName, MakesAFreshTransformerEachTime)
{
    const auto first = ValueTransformer::transformerOfClassNamed("ZRTDoublingTransformer");
    const auto second = ValueTransformer::transformerOfClassNamed("ZRTDoublingTransformer");
    ASSERT_NE(first, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(first->transformedValue(Value(21)), Value(42));
    EXPECT_EQ(first->reverseTransformedValue(Value(42)), Value(21));
}

TEST(ValueTransformerByClassName, GivesNothingForOtherNames)
{
    EXPECT_EQ(ValueTransformer::transformerOfClassNamed("ZRTNoSuchTransformer"), nullptr);
    EXPECT_EQ(ValueTransformer::transformerOfClassNamed("ZRTNotATransformer"), nullptr);
    EXPECT_EQ(ValueTransformer::transformerOfClassNamed("NSString"), nullptr) << "a class that cannot be made";
    EXPECT_EQ(ValueTransformer::transformerOfClassNamed(""), nullptr);
}

TEST(ValueTransformerRegistry, KeepsWhatIsSetUnderAName)
{
    const auto oneWay = ZRTOneWayTransformer::create();
    ValueTransformer::setValueTransformer(oneWay, "ZRTShowing");
    EXPECT_EQ(ValueTransformer::valueTransformerForName("ZRTShowing"), oneWay);

    const auto identity = ValueTransformer::create();
    ValueTransformer::setValueTransformer(identity, "ZRTShowing");
    EXPECT_EQ(ValueTransformer::valueTransformerForName("ZRTShowing"), identity);

    ValueTransformer::setValueTransformer(nullptr, "ZRTShowing");
    EXPECT_EQ(ValueTransformer::valueTransformerForName("ZRTShowing"), nullptr);
}

TEST(ValueTransformerRegistry, AClassNameYieldsOneKeptInstanceUntilReplaced)
{
    const auto found = ValueTransformer::valueTransformerForName("ZRTOneWayTransformer");
    ASSERT_NE(found, nullptr);
    EXPECT_FALSE(found->allowsReverseTransformation());
    EXPECT_EQ(ValueTransformer::valueTransformerForName("ZRTOneWayTransformer"), found);

    // An explicit setting wins over the class of the same name...
    const auto identity = ValueTransformer::create();
    ValueTransformer::setValueTransformer(identity, "ZRTOneWayTransformer");
    EXPECT_EQ(ValueTransformer::valueTransformerForName("ZRTOneWayTransformer"), identity);
    // ...and removing it lets the class answer again, with a new instance.
    ValueTransformer::setValueTransformer(nullptr, "ZRTOneWayTransformer");
    const auto again = ValueTransformer::valueTransformerForName("ZRTOneWayTransformer");
    ASSERT_NE(again, nullptr);
    EXPECT_NE(again, found);
    EXPECT_NE(again, identity);
}

TEST(ValueTransformerRegistry, NamesOfOtherClassesFindNothing)
{
    EXPECT_EQ(ValueTransformer::valueTransformerForName("ZRTNotATransformer"), nullptr);
    EXPECT_EQ(ValueTransformer::valueTransformerForName("ZRTNoSuchTransformer"), nullptr);
}

TEST(ValueTransformerRegistry, ConcurrentFirstLookUpsAgreeOnOneInstance)
{
    ValueTransformer::setValueTransformer(nullptr, "ZRTDoublingTransformer");
    constexpr int kThreads = 4;
    std::vector<ValueTransformerRef> seen(kThreads);
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            // Everyone starts together, so the first look-ups race.
            ready.fetch_add(1);
            while (ready.load() < kThreads) {
                std::this_thread::yield();
            }
            seen[static_cast<std::size_t>(thread)] = ValueTransformer::valueTransformerForName("ZRTDoublingTransformer");
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_NE(seen.front(), nullptr);
    for (const auto& transformer : seen) {
        EXPECT_EQ(transformer, seen.front());
    }
    EXPECT_EQ(seen.front()->transformedValue(Value(2)), Value(4));
}
