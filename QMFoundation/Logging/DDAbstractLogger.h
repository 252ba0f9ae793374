// DDAbstractLogger: the base of the concrete loggers. It owns the logger's
// serial queue and its formatter; a subclass only writes (`logMessage`) and,
// where it holds anything, flushes.
//
// Contract:
// - The logger queue is made on first use, labelled with `loggerName`, and
//   carries the logger itself as a queue-specific key, so the logger can ask
//   whether it runs on it.
// - The formatter property goes through the global logging queue and then
//   the logger queue (reads synchronously, writes asynchronously), so a
//   change takes effect between two messages and never during one. Calling
//   it from the global logging queue, or from the logger queue, would
//   deadlock and raises through the assertion handler instead ("Core
//   architecture requirement failure", "MUST access ivar directly, NOT via
//   self.* syntax."). Code that runs on the logger queue reads `formatter_`.
// - Subclasses expose their own properties the same way, with the helpers
//   below.
#pragma once

#include "QMFoundation/Logging/DDLog.h"
#include "QMFoundation/Logging/DDLogger.h"

#include "Platform/Dispatch/DispatchQueue.h"

#include <functional>
#include <mutex>
#include <string>

class DDAbstractLogger : public DDLogger {
public:
    // Does nothing; concrete loggers write.
    void logMessage(const DDLogMessage& logMessage) override;

    DDLogFormatterRef logFormatter() const override;
    void setLogFormatter(DDLogFormatterRef formatter) override;

    platform::DispatchQueueRef loggerQueue() const override;
    // The class name, unless a subclass names itself.
    std::string loggerName() const override;

    bool isOnGlobalLoggingQueue() const;
    bool isOnInternalLoggerQueue() const;

protected:
    DDAbstractLogger() = default;

    // The assertions of the property accessors, naming `method` of this
    // logger in `sourceFile` at `line`.
    void checkNotOnGlobalLoggingQueue(const char* method, const char* sourceFile, int line) const;
    void checkNotOnInternalLoggerQueue(const char* method, const char* sourceFile, int line) const;

    // Runs `block` on the logger queue from inside the global logging queue
    // and waits for it: how a property is read.
    template <typename Block>
    void syncThroughQueues(Block&& block) const
    {
        const platform::DispatchQueueRef ownQueue = loggerQueue();
        DDLog::loggingQueue()->sync([&] { ownQueue->sync(block); });
    }
    // Submits `block` to the global logging queue, which submits it to the
    // logger queue: how a property is changed.
    void asyncThroughQueues(std::function<void()> block) const;

    // On the logger queue: the text to write for `logMessage`, the
    // formatter's line when there is a formatter (kept in `line`) or else the
    // message's own text; null when the formatter drops the message.
    const std::string* textToWrite(const DDLogMessage& logMessage, std::string& line) const;

    // Read and written only on the logger queue.
    DDLogFormatterRef formatter_;

private:
    mutable std::once_flag queueMade_;
    mutable platform::DispatchQueueRef loggerQueue_;
};
