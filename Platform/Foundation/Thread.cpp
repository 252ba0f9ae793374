#include "Platform/Foundation/Thread.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace platform {

std::uint64_t Thread::currentThreadID()
{
    // Cached: the number never changes for a thread and the call sits on hot paths.
    thread_local const auto id = static_cast<std::uint64_t>(::gettid());
    return id;
}

bool Thread::isMainThread()
{
    // On Linux the first thread's number is the process id.
    return currentThreadID() == static_cast<std::uint64_t>(::getpid());
}

}  // namespace platform
