// QMLogFormatter: the library's own line format:
//
//   Info:    2014-03-07 09:15:02:0410(cocoa.velmora.worker) [QMLogger setupLogging/48] Console logging enabled.
//
// the level word padded to nine characters (chosen by the flag's equality
// with Error, Warning or Info; anything else is nine blanks), the local
// timestamp "yyyy-MM-dd HH:mm:ss:SSSS" (milliseconds and a 0), the queue
// label in round brackets, then "[file method/line]" and the message. A
// missing file or method prints "(null)". No line end is added; loggers add
// their own. Every message gets a line, none is dropped.
//
// Safe to share between loggers on different queues. The text up to the
// fraction is computed once per second of log time and kept, so a line costs
// a few appends (bench/logging measures it).
#pragma once

#include "QMFoundation/Logging/DDLogger.h"
#include "QMFoundation/Logging/internal/KeptSecondTimestamp.h"

#include "Platform/DateFormatting/DateFormatter.h"

#include <memory>
#include <optional>
#include <string>

class QMLogFormatter;
using QMLogFormatterRef = std::shared_ptr<QMLogFormatter>;

class QMLogFormatter : public DDLogFormatter {
public:
    static QMLogFormatterRef create();

    // The timestamp's formatter. Its settings are fixed: the kept text of the
    // current second relies on them.
    std::shared_ptr<const platform::DateFormatter> dateFormatter() const { return timestamp_.dateFormatter(); }

    std::optional<std::string> formatLogMessage(const DDLogMessage& logMessage) override;

    std::string className() const override { return "QMLogFormatter"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    QMLogFormatter();

    qmlogging::internal::KeptSecondTimestamp timestamp_;
};
