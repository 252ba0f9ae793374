// Thread: what the runtime needs to know about the calling thread.
//
// Every function here is about the calling thread and may be called from any
// thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace platform {

class Thread {
public:
    // True on the process's first thread, the one that runs `main` and serves
    // the main run loop and the main queues.
    static bool isMainThread();
    // The kernel's number for the calling thread (the number `ps -L` shows).
    static std::uint64_t currentThreadID();

    // The calling thread's name: the whole name last given to `setName` on
    // this thread, unless the thread was renamed since by other means (then,
    // as for a thread never named here, the name the kernel keeps: at most 15
    // bytes, and for a thread nobody named the name it inherited from the
    // thread that started it, usually the process's name).
    static std::string name();
    // `name` as it was when last asked here, read anew only after `setName`:
    // no system call, for hot paths such as log lines. A rename by other
    // means than `setName` is not seen.
    static const std::string& nameAsLastSeen();
    // Names the calling thread. The kernel keeps only the first 15 bytes (cut
    // before a character that would not fit whole, and at a NUL byte), and
    // that is what ps and debuggers show; `name` answers the whole name.
    static void setName(std::string_view name);
};

}  // namespace platform
