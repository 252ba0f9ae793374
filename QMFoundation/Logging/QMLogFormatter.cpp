#include "QMFoundation/Logging/QMLogFormatter.h"

#include "QMFoundation/Logging/DDLogMessage.h"

#include <cmath>
#include <string_view>

namespace {

constexpr std::string_view kTimestampPattern = "yyyy-MM-dd HH:mm:ss:SSSS";
// The pattern's fraction: the milliseconds and a 0.
constexpr std::size_t kFractionDigits = 4;

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
    return QMLogFormatterRef(new QMLogFormatter());
}

QMLogFormatter::QMLogFormatter() : dateFormatter_(platform::DateFormatter::create())
{
    dateFormatter_->setDateFormat(std::string(kTimestampPattern));
}

void QMLogFormatter::appendTimestamp(platform::Date date, std::string& line)
{
    const auto milliseconds = platform::DateFormatter::printedMilliseconds(date);
    if (!milliseconds) {
        return;  // a date no formatter prints
    }
    const auto whole = static_cast<std::int64_t>(std::floor(*milliseconds));
    const std::int64_t second = whole >= 0 ? whole / 1000 : -((-whole + 999) / 1000);
    const auto millisecond = static_cast<int>(whole - second * 1000);
    {
        std::lock_guard lock(secondLock_);
        if (second != keptSecond_) {
            // Time zone offsets change on whole seconds, so the text before
            // the fraction is the same for the whole second.
            std::string text = dateFormatter_->stringFromDate(platform::Date(static_cast<double>(second)));
            if (text.size() < kFractionDigits) {
                line += dateFormatter_->stringFromDate(date);
                return;
            }
            text.resize(text.size() - kFractionDigits);
            keptSecondText_ = std::move(text);
            keptSecond_ = second;
        }
        line += keptSecondText_;
    }
    const char digits[kFractionDigits] = {static_cast<char>('0' + millisecond / 100),
                                          static_cast<char>('0' + millisecond / 10 % 10),
                                          static_cast<char>('0' + millisecond % 10), '0'};
    line.append(digits, kFractionDigits);
}

std::string QMLogFormatter::timestampText(platform::Date date)
{
    std::string text;
    appendTimestamp(date, text);
    return text;
}

std::optional<std::string> QMLogFormatter::formatLogMessage(const DDLogMessage& logMessage)
{
    const auto fileName = logMessage.fileName();
    const char* function = logMessage.function();
    const std::string_view method = function != nullptr ? std::string_view(function) : std::string_view("(null)");
    const std::string line = std::to_string(logMessage.lineNumber());

    std::string text;
    text.reserve(64 + logMessage.queueLabel().size() + method.size() + logMessage.logMsg().size());
    text += levelWord(logMessage.logFlag());
    appendTimestamp(logMessage.timestamp(), text);
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
