// NSStringToNSURLTransformer: text to a URL and a URL back to its
// text. Text that is not a URL, and anything that is not text, give nothing.
//
// Registered by name, for models that name it; stateless, so one instance
// may serve several threads.
#pragma once

#include "Platform/Runtime/ValueTransformer.h"

#include <memory>

class NSStringToNSURLTransformer final : public platform::ValueTransformer {
public:
    static std::shared_ptr<NSStringToNSURLTransformer> create();

    const platform::Class* transformedValueClass() const override;
    platform::Value transformedValue(const platform::Value& value) const override;
    platform::Value reverseTransformedValue(const platform::Value& value) const override;

    std::string className() const override { return "NSStringToNSURLTransformer"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    NSStringToNSURLTransformer() = default;
};
