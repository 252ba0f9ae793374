// DDLogFileFormatterDefault: the file logger's own line: the timestamp, two
// blanks, the message ("2014/03/07 09:15:02:041  copied 3 files").
//
// The default timestamp is "yyyy/MM/dd HH:mm:ss:SSS" in local time; another
// date formatter may be given. Safe to share between loggers: the date
// formatter may be used from several threads at once.
#pragma once

#include "QMFoundation/Logging/DDLogger.h"

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

    const platform::DateFormatterRef& dateFormatter() const { return dateFormatter_; }

    std::optional<std::string> formatLogMessage(const DDLogMessage& logMessage) override;

    std::string className() const override { return "DDLogFileFormatterDefault"; }

private:
    explicit DDLogFileFormatterDefault(platform::DateFormatterRef dateFormatter)
        : dateFormatter_(std::move(dateFormatter))
    {
    }

    const platform::DateFormatterRef dateFormatter_;
};
