// QMDateStringTransformer: what the two timestamp transformers share
// (NSStringToRFC3339DateTransformer, NSStringToISO8601DateTransformer).
// Forward, text becomes the date its format reads (nothing when it does not
// read), and anything that is not text gives nothing; reversed, a date
// becomes its text in the format, and anything else gives nothing. A
// subclass names its format by the pair of functions that read and write it.
//
// Stateless, so one instance may serve several threads.
#pragma once

#include "Platform/Foundation/Date.h"
#include "Platform/Runtime/ValueTransformer.h"

#include <optional>
#include <string>
#include <string_view>

class QMDateStringTransformer : public platform::ValueTransformer {
public:
    const platform::Class* transformedValueClass() const override;
    platform::Value transformedValue(const platform::Value& value) const override;
    platform::Value reverseTransformedValue(const platform::Value& value) const override;

protected:
    using DateFromString = std::optional<platform::Date> (*)(std::string_view text);
    using StringFromDate = std::string (*)(platform::Date date);

    QMDateStringTransformer(DateFromString dateFromString, StringFromDate stringFromDate)
        : dateFromString_(dateFromString), stringFromDate_(stringFromDate)
    {
    }

private:
    const DateFromString dateFromString_;
    const StringFromDate stringFromDate_;
};
