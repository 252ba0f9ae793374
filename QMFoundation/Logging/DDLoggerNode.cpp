#include "QMFoundation/Logging/DDLoggerNode.h"

#include <utility>

DDLoggerNode::DDLoggerNode(DDLoggerRef logger, platform::DispatchQueueRef loggerQueue, int logLevel)
    : logger_(std::move(logger)), loggerQueue_(std::move(loggerQueue)), logLevel_(logLevel)
{
}

DDLoggerNodeRef DDLoggerNode::nodeWithLogger(DDLoggerRef logger, platform::DispatchQueueRef loggerQueue, int logLevel)
{
    return platform::makeObject<DDLoggerNode>(std::move(logger), std::move(loggerQueue), logLevel);
}
