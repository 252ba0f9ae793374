#include "Platform/Foundation/Thread.h"

#include <atomic>
#include <optional>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace platform {
namespace {

// The kernel's limit, 16 bytes with the terminating NUL.
constexpr std::size_t kKernelNameLength = 15;

std::string kernelNameFor(std::string_view name)
{
    name = name.substr(0, name.find('\0'));
    if (name.size() <= kKernelNameLength) {
        return std::string(name);
    }
    std::size_t length = kKernelNameLength;
    // Back off to the start of the character the limit cuts through, so what
    // ps shows stays valid UTF-8.
    while (length > 0 && (static_cast<unsigned char>(name[length]) & 0xC0) == 0x80) {
        --length;
    }
    return std::string(name.substr(0, length));
}

std::string kernelName()
{
    char buffer[kKernelNameLength + 1] = {};
    if (::pthread_getname_np(::pthread_self(), buffer, sizeof buffer) != 0) {
        return {};
    }
    return buffer;
}

// The whole name given to setName, which the kernel cannot hold.
thread_local std::optional<std::string> givenName;
// What nameAsLastSeen answers until the next setName.
thread_local std::optional<std::string> seenName;

// The process id, asked of the kernel once and again in a forked child: the
// C library no longer keeps it, and the main-thread test that needs it sits
// on hot paths (every queue-specific look-up off a queue, every log line).
std::atomic<pid_t> knownProcessID{0};

pid_t processID()
{
    pid_t pid = knownProcessID.load(std::memory_order_relaxed);
    if (pid == 0) {
        static const bool forgottenInChildren = [] {
            return ::pthread_atfork(nullptr, nullptr, [] { knownProcessID.store(0, std::memory_order_relaxed); }) == 0;
        }();
        pid = ::getpid();
        if (forgottenInChildren) {
            knownProcessID.store(pid, std::memory_order_relaxed);
        }
    }
    return pid;
}

}  // namespace

std::uint64_t Thread::currentThreadID()
{
    // Cached: the number never changes for a thread and the call sits on hot paths.
    thread_local const auto id = static_cast<std::uint64_t>(::gettid());
    return id;
}

bool Thread::isMainThread()
{
    // On Linux the first thread's number is the process id.
    return currentThreadID() == static_cast<std::uint64_t>(processID());
}

std::string Thread::name()
{
    std::string current = kernelName();
    // Another library (or a debugger) may have renamed the thread since.
    if (givenName && kernelNameFor(*givenName) == current) {
        return *givenName;
    }
    return current;
}

const std::string& Thread::nameAsLastSeen()
{
    if (!seenName) {
        seenName = name();
    }
    return *seenName;
}

void Thread::setName(std::string_view name)
{
    seenName.reset();
    givenName = std::string(name);
    // Cannot fail: the name fits and names the calling thread.
    ::pthread_setname_np(::pthread_self(), kernelNameFor(name).c_str());
}

}  // namespace platform
