#include "Platform/Foundation/Thread.h"

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

}  // namespace

std::uint64_t Thread::currentThreadID()
{
    // Cached: the number never changes for a thread and the call sits on hot paths.
    thread_local const auto id = static_cast<std::uint64_t>(::gettid());
    return id;
}

bool Thread::isMainThread()
{
    // On Linux the first thread's number is the process id. Cached like the
    // number: every log message asks (for its queue label), and a system
    // call per message is a fair part of what a message costs its producer.
    thread_local const bool isMain = currentThreadID() == static_cast<std::uint64_t>(::getpid());
    return isMain;
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

void Thread::setName(std::string_view name)
{
    givenName = std::string(name);
    // Cannot fail: the name fits and names the calling thread.
    ::pthread_setname_np(::pthread_self(), kernelNameFor(name).c_str());
}

}  // namespace platform
