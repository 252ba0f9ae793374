// QMOrderedSetToArrayTransformer: an ordered set to the array of its
// elements, and an array back to the ordered set of its distinct elements.
// Anything else gives nothing.
//
// Registered by name, for models that name it; stateless, so one instance
// may serve several threads.
#pragma once

#include "Platform/Runtime/ValueTransformer.h"

#include <memory>

class QMOrderedSetToArrayTransformer final : public platform::ValueTransformer {
public:
    static std::shared_ptr<QMOrderedSetToArrayTransformer> create();

    const platform::Class* transformedValueClass() const override;
    platform::Value transformedValue(const platform::Value& value) const override;
    platform::Value reverseTransformedValue(const platform::Value& value) const override;

    std::string className() const override { return "QMOrderedSetToArrayTransformer"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    QMOrderedSetToArrayTransformer() = default;
};
