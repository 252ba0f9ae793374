// DDLoggerNode: DDLog's record of one registration: the logger, the queue it
// is called on and the level it takes messages up to. Made and read only on
// the logging queue.
#pragma once

#include "QMFoundation/Logging/DDLogger.h"

#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/Foundation/Object.h"

#include <memory>

class DDLoggerNode;
using DDLoggerNodeRef = std::shared_ptr<DDLoggerNode>;

class DDLoggerNode final : public platform::Object {
public:
    // A missing queue leaves the field empty.
    static DDLoggerNodeRef nodeWithLogger(DDLoggerRef logger, platform::DispatchQueueRef loggerQueue, int logLevel);

    const DDLoggerRef& logger() const { return logger_; }
    const platform::DispatchQueueRef& loggerQueue() const { return loggerQueue_; }
    int logLevel() const { return logLevel_; }

private:
    template <class> friend struct platform::ObjectAllocator;
    DDLoggerNode(DDLoggerRef logger, platform::DispatchQueueRef loggerQueue, int logLevel);

    const DDLoggerRef logger_;
    const platform::DispatchQueueRef loggerQueue_;
    const int logLevel_;
};
