#include "QMFoundation/Logging/DDAbstractLogger.h"

#include "QMFoundation/Logging/DDLogMessage.h"

#include "Platform/Foundation/Exception.h"

#include <utility>

namespace {
// The property accessors' failures name the core's source, which the
// loggers built on it share.
constexpr const char* kAssertionSourceFile = "DDLog";
}  // namespace

void DDAbstractLogger::logMessage(const DDLogMessage& logMessage)
{
    static_cast<void>(logMessage);
}

const std::string* DDAbstractLogger::textToWrite(const DDLogMessage& logMessage, std::string& line) const
{
    if (!formatter_) {
        return &logMessage.logMsg();
    }
    auto formatted = formatter_->formatLogMessage(logMessage);
    if (!formatted) {
        return nullptr;
    }
    line = std::move(*formatted);
    return &line;
}

platform::DispatchQueueRef DDAbstractLogger::loggerQueue() const
{
    // Made here rather than in the constructor, where `loggerName` would not
    // yet answer for the subclass.
    std::call_once(queueMade_, [this] {
        loggerQueue_ = platform::DispatchQueue::create(loggerName());
        auto* self = const_cast<DDAbstractLogger*>(this);
        loggerQueue_->setSpecific(self, self);
    });
    return loggerQueue_;
}

std::string DDAbstractLogger::loggerName() const
{
    return className();
}

bool DDAbstractLogger::isOnGlobalLoggingQueue() const
{
    return DDLog::isOnLoggingQueue();
}

bool DDAbstractLogger::isOnInternalLoggerQueue() const
{
    return platform::DispatchQueue::getSpecific(this) != nullptr;
}

void DDAbstractLogger::checkNotOnGlobalLoggingQueue(const char* method, const char* sourceFile, int line) const
{
    if (isOnGlobalLoggingQueue()) {
        platform::AssertionHandler::handleFailure(
            {method, sourceFile, line, "Core architecture requirement failure", description()});
    }
}

void DDAbstractLogger::checkNotOnInternalLoggerQueue(const char* method, const char* sourceFile, int line) const
{
    if (isOnInternalLoggerQueue()) {
        platform::AssertionHandler::handleFailure(
            {method, sourceFile, line, "MUST access ivar directly, NOT via self.* syntax.", description()});
    }
}

void DDAbstractLogger::asyncThroughQueues(std::function<void()> block) const
{
    DDLog::loggingQueue()->async(
        [ownQueue = loggerQueue(), block = std::move(block)]() mutable { ownQueue->async(std::move(block)); });
}

DDLogFormatterRef DDAbstractLogger::logFormatter() const
{
    checkNotOnGlobalLoggingQueue(__func__, kAssertionSourceFile, __LINE__);
    checkNotOnInternalLoggerQueue(__func__, kAssertionSourceFile, __LINE__);
    DDLogFormatterRef result;
    syncThroughQueues([&] { result = formatter_; });
    return result;
}

void DDAbstractLogger::setLogFormatter(DDLogFormatterRef formatter)
{
    checkNotOnGlobalLoggingQueue(__func__, kAssertionSourceFile, __LINE__);
    checkNotOnInternalLoggerQueue(__func__, kAssertionSourceFile, __LINE__);
    auto self = std::static_pointer_cast<DDAbstractLogger>(const_cast<DDAbstractLogger*>(this)->shared_from_this());
    asyncThroughQueues([self, formatter = std::move(formatter)] {
        if (formatter == self->formatter_) {
            return;
        }
        if (self->formatter_) {
            self->formatter_->willRemoveFromLogger(self);
        }
        self->formatter_ = formatter;
        if (formatter) {
            formatter->didAddToLogger(self);
        }
    });
}
