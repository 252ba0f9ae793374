#include "QMFoundation/Objects/NSOperationQueue+QMPerformBlock.h"

#include "Platform/Foundation/Operation.h"

void performBlock(platform::OperationQueue& queue, std::function<void()> block)
{
    queue.addOperationWithBlock(std::move(block));
}

void performBlockAndWait(platform::OperationQueue& queue, std::function<void()> block)
{
    const auto operation = platform::BlockOperation::create(std::move(block));
    queue.addOperation(operation);
    operation->waitUntilFinished();
}
