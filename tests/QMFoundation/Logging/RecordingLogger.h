// For the logging tests: a logger that keeps what it is given (the text, or
// the formatter's line when it has one) and where it ran, and a fixture that
// starts and ends each test with no logger registered.
#pragma once

#include "QMFoundation/Logging/DDAbstractLogger.h"
#include "QMFoundation/Logging/DDLog.h"
#include "QMFoundation/Logging/DDLogMessage.h"

#include "Platform/Foundation/Object.h"
#include "tests/Support/Signal.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace logtest {

class RecordingLogger : public DDAbstractLogger {
public:
    static std::shared_ptr<RecordingLogger> create(std::string name = "test.recording")
    {
        return platform::makeObject<RecordingLogger>(std::move(name));
    }

    void logMessage(const DDLogMessage& message) override
    {
        std::string text = message.logMsg();
        if (formatter_) {
            auto line = formatter_->formatLogMessage(message);
            if (!line) {
                return;
            }
            text = *line;
        }
        if (beforeWrite) {
            beforeWrite(message);
        }
        {
            std::lock_guard lock(mutex_);
            lines_.push_back(std::move(text));
            flags_.push_back(message.logFlag());
            onOwnQueue_.push_back(isOnInternalLoggerQueue() && !isOnGlobalLoggingQueue());
        }
        written.raise();
    }
    void didAddLogger() override
    {
        addedOnOwnQueue = isOnInternalLoggerQueue();
        added.raise();
    }
    void willRemoveLogger() override { removed.raise(); }
    void flush() override { flushed.raise(); }
    std::string loggerName() const override { return name_; }

    std::vector<std::string> lines() const
    {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    std::vector<int> flags() const
    {
        std::lock_guard lock(mutex_);
        return flags_;
    }
    bool allOnOwnQueue() const
    {
        std::lock_guard lock(mutex_);
        for (bool own : onOwnQueue_) {
            if (!own) {
                return false;
            }
        }
        return true;
    }

    // Set before the logger is registered; runs on its queue before a write.
    std::function<void(const DDLogMessage&)> beforeWrite;
    testsupport::Signal written;
    testsupport::Signal added;
    testsupport::Signal removed;
    testsupport::Signal flushed;
    bool addedOnOwnQueue = false;  // read after `added` is raised

private:
    template <class> friend struct platform::ObjectAllocator;
    explicit RecordingLogger(std::string name) : name_(std::move(name)) {}

    const std::string name_;
    mutable std::mutex mutex_;  // guards the three lists
    std::vector<std::string> lines_;
    std::vector<int> flags_;
    std::vector<bool> onOwnQueue_;
};

class LoggingTest : public testing::Test {
protected:
    void SetUp() override { removeAllLoggers(); }
    void TearDown() override { removeAllLoggers(); }
    static void removeAllLoggers()
    {
        DDLog::removeAllLoggers();
        DDLog::flushLog();
    }
};

}  // namespace logtest
