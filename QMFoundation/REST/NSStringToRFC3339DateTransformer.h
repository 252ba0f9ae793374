// NSStringToRFC3339DateTransformer: text in the RFC 3339 shape to a date
// and back (NSDate+RFC3339.h). Anything that is not text gives nothing, and
// reversing anything that is not a date gives nothing.
//
// Registered by name, for models that name it; stateless, so one instance
// may serve several threads.
#pragma once

#include "Platform/Runtime/ValueTransformer.h"

#include <memory>

class NSStringToRFC3339DateTransformer final : public platform::ValueTransformer {
public:
    static std::shared_ptr<NSStringToRFC3339DateTransformer> create();

    const platform::Class* transformedValueClass() const override;
    platform::Value transformedValue(const platform::Value& value) const override;
    platform::Value reverseTransformedValue(const platform::Value& value) const override;

    std::string className() const override { return "NSStringToRFC3339DateTransformer"; }

private:
    NSStringToRFC3339DateTransformer() = default;
};
