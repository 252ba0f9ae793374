// QMTimeagoTransformer: a date to the text a person reads for it:
// the locale's word for today, yesterday and the like near today, else the
// long date of the current locale (ICU's relative date formatting). Anything
// that is not a date gives "". One way only.
//
// Registered by name, for models that name it; stateless, so one instance
// may serve several threads.
#pragma once

#include "Platform/Runtime/ValueTransformer.h"

#include <memory>

class QMTimeagoTransformer final : public platform::ValueTransformer {
public:
    static std::shared_ptr<QMTimeagoTransformer> create();

    const platform::Class* transformedValueClass() const override;
    bool allowsReverseTransformation() const override { return false; }
    platform::Value transformedValue(const platform::Value& value) const override;

    std::string className() const override { return "QMTimeagoTransformer"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    QMTimeagoTransformer() = default;
};
