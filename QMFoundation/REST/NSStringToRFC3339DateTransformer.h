// NSStringToRFC3339DateTransformer: text in the RFC 3339 shape to a date
// and back (NSDate+RFC3339.h). Anything that is not text gives nothing, and
// reversing anything that is not a date gives nothing.
//
// Registered by name, for models that name it; stateless, so one instance
// may serve several threads.
#pragma once

#include "QMFoundation/REST/QMDateStringTransformer.h"

#include <memory>

class NSStringToRFC3339DateTransformer final : public QMDateStringTransformer {
public:
    static std::shared_ptr<NSStringToRFC3339DateTransformer> create();

    std::string className() const override { return "NSStringToRFC3339DateTransformer"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    NSStringToRFC3339DateTransformer();
};
