#include "QMFoundation/Logging/QMLogger.h"

#include "QMFoundation/Logging/DDLog.h"
#include "QMFoundation/Logging/DDTTYLogger.h"
#include "QMFoundation/Logging/QMLogFormatter.h"

#include <atomic>

namespace {

// The facade's own messages name this file, and the lines below, wherever
// the library was built: applications filter on them.
constexpr const char* kSourcePath = "QMFoundation/Logging/QMLogger.cpp";
constexpr int kConsoleEnabledLine = 48;
constexpr int kFileEnabledLine = 57;
constexpr int kFileDisabledLine = 63;

std::atomic<int> processLogLevel{0};

void logOwnMessage(const char* method, int line, const char* message)
{
    const int level = processLogLevel.load(std::memory_order_relaxed);
    if ((level & DDLogFlagInfo) != 0) {
        DDLog::log(true, level, DDLogFlagInfo, 0, kSourcePath, method, line, platform::Value(), "%s", message);
    }
}

}  // namespace

const QMLoggerRef& QMLogger::sharedLogger()
{
    static const QMLoggerRef shared = create();
    return shared;
}

QMLoggerRef QMLogger::create()
{
    return platform::makeObject<QMLogger>();
}

void QMLogger::setLogLevel(int logLevel)
{
    processLogLevel.store(logLevel, std::memory_order_relaxed);
}

int QMLogger::logLevel()
{
    return processLogLevel.load(std::memory_order_relaxed);
}

void QMLogger::setupLogging()
{
    static std::once_flag once;
    std::call_once(once, [] {
        const auto console = DDTTYLogger::sharedInstance();
        console->setLogFormatter(QMLogFormatter::create());
        console->setColorsEnabled(true);
        DDLog::addLogger(console);
        logOwnMessage("setupLogging", kConsoleEnabledLine, "Console logging enabled.");
    });
}

void QMLogger::activateFileLogger()
{
    const auto logger = DDFileLogger::create();
    setFileLogger(logger);
    logger->setRollingFrequency(86400.0);
    logger->logFileManager()->setMaximumNumberOfLogFiles(7);
    DDLog::addLogger(logger);
    logOwnMessage("activateFileLogger", kFileEnabledLine, "File logging enabled.");
}

void QMLogger::deactivateFileLogger()
{
    DDLog::removeLogger(fileLogger());
    setFileLogger(nullptr);
    logOwnMessage("deactivateFileLogger", kFileDisabledLine, "File logging disabled.");
}

DDFileLoggerRef QMLogger::fileLogger() const
{
    std::lock_guard lock(fileLoggerLock_);
    return fileLogger_;
}

void QMLogger::setFileLogger(DDFileLoggerRef fileLogger)
{
    std::lock_guard lock(fileLoggerLock_);
    fileLogger_ = std::move(fileLogger);
}
