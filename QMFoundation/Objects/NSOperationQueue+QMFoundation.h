// NSOperationQueue(QMFoundation): new operation queues with a given width.
#pragma once

#include "Platform/Foundation/OperationQueue.h"

#include <cstdint>

// A new queue that runs one operation at a time, in the order they were added.
platform::OperationQueueRef serialQueue();

// A new queue that runs at most `count` operations at once
// (`NSOperationQueueDefaultMaxConcurrentOperationCount` for the default).
platform::OperationQueueRef queueWithMaxConcurrentOperationCount(std::int64_t count);
