#include "QMFoundation/Logging/DDLogFileFormatterDefault.h"

#include "QMFoundation/Logging/DDLogMessage.h"

DDLogFileFormatterDefaultRef DDLogFileFormatterDefault::create(platform::DateFormatterRef dateFormatter)
{
    if (!dateFormatter) {
        dateFormatter = platform::DateFormatter::create();
        dateFormatter->setDateFormat("yyyy/MM/dd HH:mm:ss:SSS");
    }
    return DDLogFileFormatterDefaultRef(new DDLogFileFormatterDefault(std::move(dateFormatter)));
}

std::optional<std::string> DDLogFileFormatterDefault::formatLogMessage(const DDLogMessage& logMessage)
{
    std::string line = dateFormatter_->stringFromDate(logMessage.timestamp());
    line.reserve(line.size() + 2 + logMessage.logMsg().size());
    line += "  ";
    line += logMessage.logMsg();
    return line;
}
