#include "QMFoundation/Logging/QMLogFormatter.h"

#include "QMFoundation/Logging/DDLogMessage.h"

#include <string_view>

namespace {

constexpr std::string_view kTimestampPattern = "yyyy-MM-dd HH:mm:ss:SSSS";

std::string_view levelWord(int flag)
{
    switch (flag) {
    case DDLogFlagError:
        return "Error:   ";
    case DDLogFlagWarning:
        return "Warning: ";
    case DDLogFlagInfo:
        return "Info:    ";
    default:
        return "         ";
    }
}

}  // namespace

QMLogFormatterRef QMLogFormatter::create()
{
    return platform::makeObject<QMLogFormatter>();
}

QMLogFormatter::QMLogFormatter() : timestamp_(std::string(kTimestampPattern)) {}

std::optional<std::string> QMLogFormatter::formatLogMessage(const DDLogMessage& logMessage)
{
    const auto fileName = logMessage.fileName();
    const char* function = logMessage.function();
    const std::string_view method = function != nullptr ? std::string_view(function) : std::string_view("(null)");
    const std::string line = std::to_string(logMessage.lineNumber());

    std::string text;
    text.reserve(64 + logMessage.queueLabel().size() + method.size() + logMessage.logMsg().size());
    text += levelWord(logMessage.logFlag());
    timestamp_.append(logMessage.timestamp(), text);
    text += '(';
    text += logMessage.queueLabel();
    text += ") [";
    text += fileName ? *fileName : std::string_view("(null)");
    text += ' ';
    text += method;
    text += '/';
    text += line;
    text += "] ";
    text += logMessage.logMsg();
    return text;
}
