// Thread: what the runtime needs to know about the calling thread.
#pragma once

#include <cstdint>

namespace platform {

class Thread {
public:
    // True on the process's first thread, the one that runs `main` and serves
    // the main run loop and the main queues.
    static bool isMainThread();
    // The kernel's number for the calling thread (the number `ps -L` shows).
    static std::uint64_t currentThreadID();
};

}  // namespace platform
