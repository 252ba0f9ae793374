#include "QMFoundation/Logging/DDLogFileFormatterDefault.h"

#include "QMFoundation/Logging/DDLogMessage.h"

DDLogFileFormatterDefaultRef DDLogFileFormatterDefault::create(platform::DateFormatterRef dateFormatter)
{
    return platform::makeObject<DDLogFileFormatterDefault>(std::move(dateFormatter));
}

DDLogFileFormatterDefault::DDLogFileFormatterDefault(platform::DateFormatterRef dateFormatter)
    : givenFormatter_(std::move(dateFormatter)),
      defaultTimestamp_(givenFormatter_ ? nullptr
                                        : std::make_unique<qmlogging::internal::KeptSecondTimestamp>(
                                              "yyyy/MM/dd HH:mm:ss:SSS"))
{
}

std::shared_ptr<const platform::DateFormatter> DDLogFileFormatterDefault::dateFormatter() const
{
    return givenFormatter_ ? givenFormatter_ : defaultTimestamp_->dateFormatter();
}

std::optional<std::string> DDLogFileFormatterDefault::formatLogMessage(const DDLogMessage& logMessage)
{
    std::string line;
    line.reserve(32 + logMessage.logMsg().size());
    if (givenFormatter_) {
        line += givenFormatter_->stringFromDate(logMessage.timestamp());
    } else {
        defaultTimestamp_->append(logMessage.timestamp(), line);
    }
    line += "  ";
    line += logMessage.logMsg();
    return line;
}
