// DDLogger, DDLogFormatter: what the dispatch core asks of a logger and of a
// formatter, and the log flags they share.
//
// A logger is registered with DDLog (DDLog.h), which then calls it on the
// logger's own serial queue, one message at a time, in the order the messages
// reached the core. Most loggers derive from DDAbstractLogger, which provides
// that queue and the formatter property.
//
// Optional methods have empty default bodies; the core calls them all the
// same, so a logger only overrides what it needs.
#pragma once

#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/Foundation/Object.h"

#include <memory>
#include <optional>
#include <string>

class DDLogMessage;
class DDLogger;
class DDLogFormatter;
using DDLoggerRef = std::shared_ptr<DDLogger>;
using DDLogFormatterRef = std::shared_ptr<DDLogFormatter>;

// Flags: each statement carries one. A level combines flags; a logger takes
// a message when the flag, as a number, is not greater than its level.
inline constexpr int DDLogFlagError = 1;
inline constexpr int DDLogFlagWarning = 2;
inline constexpr int DDLogFlagInfo = 4;
inline constexpr int DDLogFlagDebug = 8;
inline constexpr int DDLogFlagVerbose = 16;
inline constexpr int DDLogLevelAll = 31;

// Turns a message into the text a logger writes. Called on the queue of the
// logger that holds it; a formatter shared by several loggers is called from
// several queues at once and must cope.
class DDLogFormatter : public platform::Object {
public:
    // The line, or nothing to drop the message.
    virtual std::optional<std::string> formatLogMessage(const DDLogMessage& logMessage) = 0;

    // Told on the logger's queue when a logger takes or gives up this formatter.
    virtual void didAddToLogger(const DDLoggerRef& logger) { static_cast<void>(logger); }
    virtual void willRemoveFromLogger(const DDLoggerRef& logger) { static_cast<void>(logger); }
};

class DDLogger : public platform::Object {
public:
    // Called on the logger's queue. The message lives only for the call: a
    // logger that keeps it keeps a copy.
    virtual void logMessage(const DDLogMessage& logMessage) = 0;

    virtual DDLogFormatterRef logFormatter() const = 0;
    virtual void setLogFormatter(DDLogFormatterRef formatter) = 0;

    // Called on the logger's queue after registration and before removal.
    virtual void didAddLogger() {}
    virtual void willRemoveLogger() {}
    // Writes out whatever the logger still holds; called on its queue by
    // DDLog::flushLog.
    virtual void flush() {}
    // The queue the core calls the logger on; without one the core makes a
    // serial queue labelled with `loggerName` for each registration.
    virtual platform::DispatchQueueRef loggerQueue() const { return nullptr; }
    // Empty: no name.
    virtual std::string loggerName() const { return {}; }

protected:
    DDLogger() = default;
};
