#include "QMFoundation/Objects/NSOperationQueue+QMFoundation.h"

platform::OperationQueueRef serialQueue()
{
    return queueWithMaxConcurrentOperationCount(1);
}

platform::OperationQueueRef queueWithMaxConcurrentOperationCount(std::int64_t count)
{
    auto queue = platform::OperationQueue::create();
    queue->setMaxConcurrentOperationCount(count);
    return queue;
}
