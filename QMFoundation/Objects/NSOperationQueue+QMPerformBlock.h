// NSOperationQueue(QMPerformBlock): running a closure on a queue, without or
// with waiting for it.
#pragma once

#include "Platform/Foundation/OperationQueue.h"

#include <functional>

// Adds the block to the queue as an operation and returns at once.
void performBlock(platform::OperationQueue& queue, std::function<void()> block);

// Adds the block as an operation and blocks the calling thread until it has
// run. Called from an operation of the same serial queue it waits for itself
// and never returns, like any wait on one's own queue.
void performBlockAndWait(platform::OperationQueue& queue, std::function<void()> block);
