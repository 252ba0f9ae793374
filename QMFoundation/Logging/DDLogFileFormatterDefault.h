// DDLogFileFormatterDefault: the file logger's own line: the timestamp, two
// blanks, the message ("2014/03/07 09:15:02:041  copied 3 files").
//
// The default timestamp is "yyyy/MM/dd HH:mm:ss:SSS" in local time; its text
// up to the fraction is made once per second and kept, so its formatter's
// settings are fixed. Another date formatter may be given; it stays the
// caller's to change, so it formats every line in full. Safe to share between
// loggers: the date formatter may be used from several threads at once.
#pragma once

#include "QMFoundation/Logging/DDLogger.h"
#include "QMFoundation/Logging/internal/KeptSecondTimestamp.h"

#include "Platform/DateFormatting/DateFormatter.h"

#include <memory>
#include <optional>
#include <string>

class DDLogFileFormatterDefault;
using DDLogFileFormatterDefaultRef = std::shared_ptr<DDLogFileFormatterDefault>;

class DDLogFileFormatterDefault : public DDLogFormatter {
public:
    // Nothing: the default timestamp.
    static DDLogFileFormatterDefaultRef create(platform::DateFormatterRef dateFormatter = nullptr);

    std::shared_ptr<const platform::DateFormatter> dateFormatter() const;

    std::optional<std::string> formatLogMessage(const DDLogMessage& logMessage) override;

    std::string className() const override { return "DDLogFileFormatterDefault"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    explicit DDLogFileFormatterDefault(platform::DateFormatterRef dateFormatter);

    // One of the two: the caller's formatter, or the default timestamp.
    const platform::DateFormatterRef givenFormatter_;
    const std::unique_ptr<qmlogging::internal::KeptSecondTimestamp> defaultTimestamp_;
};
