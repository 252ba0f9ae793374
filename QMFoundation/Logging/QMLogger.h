// QMLogger: the library's switchboard for logging. One call sends every log
// line to the terminal in the library's own format; file logging can be
// switched on and off.
//
//   QMLogger::setLogLevel(DDLogFlagError | DDLogFlagWarning | DDLogFlagInfo);
//   QMLogger::sharedLogger()->setupLogging();        // once per process
//   QMLogger::sharedLogger()->activateFileLogger();   // ~/.local/state/<process name>/log-XXXXXX.txt
//
// Contract:
// - The level is process-wide and starts at 0, which also keeps the
//   facade's own three messages ("Console logging enabled.", "File logging
//   enabled.", "File logging disabled.") off; they go out as Info when the
//   level has the Info bit.
// - `setupLogging` does its work once per process, whichever instance it is
//   called on: the shared terminal logger, with a QMLogFormatter and colours,
//   registered for every flag.
// - Each `activateFileLogger` registers a new DDFileLogger (daily files, at
//   most 7 archived kept) and remembers it; it does not look for an earlier
//   one, which stays registered and writing. `deactivateFileLogger` removes
//   the remembered one; its own message is queued after the removal, so the
//   file does not get it.
// - May be called from any thread except the logging queues. The facade
//   holds no lock while logging; `fileLogger` is read and written whole.
#pragma once

#include "QMFoundation/Logging/DDFileLogger.h"

#include "Platform/Foundation/Object.h"

#include <memory>
#include <mutex>

class QMLogger;
using QMLoggerRef = std::shared_ptr<QMLogger>;

class QMLogger : public platform::Object {
public:
    static const QMLoggerRef& sharedLogger();
    static QMLoggerRef create();

    static void setLogLevel(int logLevel);
    static int logLevel();

    void setupLogging();
    void activateFileLogger();
    void deactivateFileLogger();

    DDFileLoggerRef fileLogger() const;
    void setFileLogger(DDFileLoggerRef fileLogger);

    std::string className() const override { return "QMLogger"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    QMLogger() = default;

    mutable std::mutex fileLoggerLock_;  // guards `fileLogger_`
    DDFileLoggerRef fileLogger_;
};
