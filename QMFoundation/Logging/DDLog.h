// DDLog: the process-wide hub every log statement passes through. It makes a
// DDLogMessage of a statement, queues it on one serial logging queue, and
// hands it to every registered logger whose level admits it, each on the
// logger's own queue.
//
//   DDLog::addLogger(DDTTYLogger::sharedInstance());
//   if (level & DDLogFlagInfo) {
//       DDLog::log(true, level, DDLogFlagInfo, 0, __FILE__, __func__, __LINE__, {}, "copied %zu files", count);
//   }
//   DDLog::flushLog();
//
// Contract:
// - Every operation may be called from any thread except the logging queue
//   itself (flushLog and synchronous logging from there would wait on
//   themselves; the queue raises instead).
// - Registration changes, messages and flushes take effect in the order they
//   reached the logging queue; a logger registered after a message was
//   queued does not get it, one removed after does.
// - Each logger gets messages in that order, one at a time. A logger takes a
//   message when the message's flag, as a signed number, is not greater than
//   the level it was added with: a numeric test, not a bit test, so level 5
//   admits Warning (2) as well as Info (4).
// - At most 1000 messages are in the pipeline (queued and not yet written by
//   every logger). A producer that finds 1000 waits, even when it logs
//   asynchronously, until the pipeline has drained to 750: producers are
//   slowed, messages are never dropped.
// - With two or more configured processors the loggers write one message in
//   parallel; the next message starts when all have finished.
// - Synchronous logging returns after every admitting logger has written.
// - When the process exits normally (return from main, exit()) every logger
//   is flushed, after the messages queued before.
// - The same logger may be registered several times; each registration gets
//   the messages on its own, and removal removes the first.
#pragma once

#include "QMFoundation/Logging/DDLogMessage.h"
#include "QMFoundation/Logging/DDLogger.h"

#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Runtime/Class.h"

#include <cstdarg>
#include <string>
#include <string_view>
#include <vector>

class DDLog {
public:
    DDLog() = delete;

    // Labelled "cocoa.velmora".
    static const platform::DispatchQueueRef& loggingQueue();
    // Whether the calling code runs on the logging queue (its identity key is
    // set on the current queue).
    static bool isOnLoggingQueue();

    static void addLogger(DDLoggerRef logger) { addLogger(std::move(logger), DDLogLevelAll); }
    static void addLogger(DDLoggerRef logger, int logLevel);
    static void removeLogger(const DDLoggerRef& logger);
    static void removeAllLoggers();

    // Formats printf-style and queues the message. No level test happens
    // here: the caller tests its own level first. A null format does nothing.
    // `file` and `function` are kept as pointers and must live as long as the
    // process.
    [[gnu::format(printf, 9, 10)]] static void log(bool asynchronous, int level, int flag, int context,
                                                   const char* file, const char* function, int line,
                                                   const platform::Value& tag, const char* format, ...);
    [[gnu::format(printf, 9, 0)]] static void log(bool asynchronous, int level, int flag, int context,
                                                  const char* file, const char* function, int line,
                                                  const platform::Value& tag, const char* format, va_list args);

    static void queueLogMessage(DDLogMessage logMessage, bool asynchronously);

    // Returns when every logger has flushed whatever was queued before.
    static void flushLog();
    // What the process's end calls; flushes.
    static void applicationWillTerminate(const platform::Value& notification);

    // Per-class levels, for the classes of the runtime's registry that have
    // the class operations "ddLogLevel" (int()) and "ddSetLogLevel:" (void(int)).
    static bool isRegisteredClass(const platform::Class& cls);
    static std::vector<const platform::Class*> registeredClasses();
    static std::vector<std::string> registeredClassNames();
    // -1 (every bit set) for a class that is not registered, or none.
    static int logLevelForClass(const platform::Class* cls);
    static int logLevelForClassWithName(std::string_view className);
    // Ignored for a class that is not registered.
    static void setLogLevel(int logLevel, const platform::Class* forClass);
    static void setLogLevel(int logLevel, std::string_view forClassWithName);
};
