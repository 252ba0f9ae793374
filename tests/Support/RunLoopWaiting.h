// Runs the main run loop until a condition holds, for tests whose events
// arrive on the main queue or the main thread's run loop. Gives up after
// 30 seconds, so that a test that never sees its event fails instead of
// hanging; the loop wakes for each event, so no time is lost polling.
#pragma once

#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/RunLoop.h"

namespace testsupport {

template <typename Done>
void runMainLoopUntil(Done done)
{
    const auto loop = platform::RunLoop::mainRunLoop();
    const platform::Date limit = platform::Date::now().dateByAddingTimeInterval(30);
    while (!done() && platform::Date::now() < limit) {
        loop->runModeBeforeDate(platform::NSDefaultRunLoopMode, platform::Date::now().dateByAddingTimeInterval(0.05));
    }
}

}  // namespace testsupport
