// NSStringToISO8601DateTransformer: text in the ISO 8601 shape to a date
// and back (NSDate+ISO8601.h). Anything that is not text gives nothing, and
// reversing anything that is not a date gives nothing.
//
// Registered by name, for models that name it; stateless, so one instance
// may serve several threads.
#pragma once

#include "Platform/Runtime/ValueTransformer.h"

#include <memory>

class NSStringToISO8601DateTransformer final : public platform::ValueTransformer {
public:
    static std::shared_ptr<NSStringToISO8601DateTransformer> create();

    const platform::Class* transformedValueClass() const override;
    platform::Value transformedValue(const platform::Value& value) const override;
    platform::Value reverseTransformedValue(const platform::Value& value) const override;

    std::string className() const override { return "NSStringToISO8601DateTransformer"; }

private:
    NSStringToISO8601DateTransformer() = default;
};
