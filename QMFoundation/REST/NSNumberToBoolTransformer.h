// NSNumberToBoolTransformer: a number to the boolean of its value.
// Only numbers are read: anything else, text such as "1" and nothing
// included, gives NO, both ways.
//
// Registered by name, for models that name it; stateless, so one instance
// may serve several threads.
#pragma once

#include "Platform/Runtime/ValueTransformer.h"

#include <memory>

class NSNumberToBoolTransformer final : public platform::ValueTransformer {
public:
    static std::shared_ptr<NSNumberToBoolTransformer> create();

    const platform::Class* transformedValueClass() const override;
    platform::Value transformedValue(const platform::Value& value) const override;
    platform::Value reverseTransformedValue(const platform::Value& value) const override;

    std::string className() const override { return "NSNumberToBoolTransformer"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    NSNumberToBoolTransformer() = default;
};
