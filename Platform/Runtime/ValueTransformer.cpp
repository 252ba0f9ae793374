#include "Platform/Runtime/ValueTransformer.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/Guarded.h"

#include <map>
#include <string>

namespace platform {
namespace {

using TransformersByName = std::map<std::string, ValueTransformerRef, std::less<>>;

Guarded<TransformersByName>& transformersByName()
{
    static auto* const transformers = new Guarded<TransformersByName>();
    return *transformers;
}

}  // namespace

ValueTransformerRef ValueTransformer::create()
{
    return makeObject<ValueTransformer>();
}

const Class* ValueTransformer::transformedValueClass() const
{
    return classFromString("NSObject");
}

Value ValueTransformer::reverseTransformedValue(const Value& value) const
{
    if (!allowsReverseTransformation()) {
        Exception::raise(NSInvalidArgumentException, className() + " does not allow reverse transformation");
    }
    return transformedValue(value);
}

ValueTransformerRef ValueTransformer::transformerOfClassNamed(std::string_view className)
{
    const Class* cls = classFromString(className);
    return cls != nullptr ? std::dynamic_pointer_cast<ValueTransformer>(cls->makeInstance()) : nullptr;
}

void ValueTransformer::setValueTransformer(ValueTransformerRef transformer, std::string_view name)
{
    ValueTransformerRef replaced;
    transformersByName().with([&](TransformersByName& transformers) {
        auto found = transformers.find(name);
        if (found != transformers.end()) {
            replaced = std::move(found->second);
            transformers.erase(found);
        }
        if (transformer) {
            transformers.emplace(std::string(name), std::move(transformer));
        }
    });
    // `replaced` goes here, outside the lock, in case its destructor looks a
    // transformer up.
}

ValueTransformerRef ValueTransformer::valueTransformerForName(std::string_view name)
{
    auto existing = transformersByName().with([&](const TransformersByName& transformers) -> ValueTransformerRef {
        const auto found = transformers.find(name);
        return found != transformers.end() ? found->second : nullptr;
    });
    if (existing) {
        return existing;
    }
    // Made outside the lock: a factory may itself look transformers up.
    ValueTransformerRef made = transformerOfClassNamed(name);
    if (!made) {
        return nullptr;
    }
    // Two threads may both get here; the first to store wins, so every caller
    // sees the same instance.
    return transformersByName().with([&](TransformersByName& transformers) {
        return transformers.try_emplace(std::string(name), std::move(made)).first->second;
    });
}

}  // namespace platform

PLATFORM_CLASS_REGISTRATION(NSValueTransformer) = platform::ClassDescription("NSValueTransformer")
                                                      .superclass("NSObject")
                                                      .factory([] { return platform::ValueTransformer::create(); });
