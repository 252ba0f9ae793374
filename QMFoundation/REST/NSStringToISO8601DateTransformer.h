// NSStringToISO8601DateTransformer: text in the ISO 8601 shape to a date
// and back (NSDate+ISO8601.h). Anything that is not text gives nothing, and
// reversing anything that is not a date gives nothing.
//
// Registered by name, for models that name it; stateless, so one instance
// may serve several threads.
#pragma once

#include "QMFoundation/REST/QMDateStringTransformer.h"

#include <memory>

class NSStringToISO8601DateTransformer final : public QMDateStringTransformer {
public:
    static std::shared_ptr<NSStringToISO8601DateTransformer> create();

    std::string className() const override { return "NSStringToISO8601DateTransformer"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    NSStringToISO8601DateTransformer();
};
