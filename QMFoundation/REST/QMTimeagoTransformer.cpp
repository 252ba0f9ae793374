#include "QMFoundation/REST/QMTimeagoTransformer.h"

#include "Platform/DateFormatting/DateFormatter.h"

using platform::DateFormatter;
using platform::Value;

PLATFORM_CLASS_REGISTRATION(QMTimeagoTransformer) =
    platform::ClassDescription("QMTimeagoTransformer")
        .superclass("NSValueTransformer")
        .factory([] { return platform::ObjectRef(QMTimeagoTransformer::create()); });

namespace {
const platform::DateFormatterRef& relativeDateFormatter()
{
    static const platform::DateFormatterRef formatter = [] {
        auto made = DateFormatter::create();
        made->setDateStyle(DateFormatter::Style::Long);
        made->setTimeStyle(DateFormatter::Style::None);
        made->setDoesRelativeDateFormatting(true);
        return made;
    }();
    return formatter;
}
}  // namespace

std::shared_ptr<QMTimeagoTransformer> QMTimeagoTransformer::create()
{
    return platform::makeObject<QMTimeagoTransformer>();
}

const platform::Class* QMTimeagoTransformer::transformedValueClass() const
{
    return platform::classFromString("NSString");
}

Value QMTimeagoTransformer::transformedValue(const Value& value) const
{
    const auto* date = value.date();
    return Value(date != nullptr ? relativeDateFormatter()->stringFromDate(*date) : std::string());
}
