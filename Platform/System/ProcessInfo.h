// ProcessInfo: what a process knows about itself and the machine it runs on.
//
// Every function may be called from any thread at any time. Values fixed for
// the life of the process (arguments, name, operating-system version) are
// read once; the others are read anew on each call.
//
// The operating-system version. The design asks it of the platform to decide
// how much the platform's own interfaces can do (the REST operation accepts an
// untrusted server without evaluating it on "10.8" and before). Here it is the
// level of the interfaces that Platform/ provides, not anything about Linux:
// 10.10.0, the first level whose process information answers
// `operatingSystemVersion` at all, which this one does. The kernel's release
// is `kernelRelease`, for display only.
#pragma once

#include "Platform/Foundation/Value.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace platform {

struct OperatingSystemVersion {
    std::int64_t majorVersion = 0;
    std::int64_t minorVersion = 0;
    std::int64_t patchVersion = 0;
};

class ProcessInfo {
public:
    // The program's file name, without its folder, as it was started.
    static std::string processName();
    static int processIdentifier();
    // The arguments the process was started with, the program first, bytes
    // as given (not checked for UTF-8). Read once, on the first call, from the
    // kernel's view of the argument strings: a program that rewrites its argv
    // strings in place before then would change what is read.
    static const std::vector<std::string>& arguments();
    // The environment now. When a variable is defined twice the first
    // definition counts, as getenv sees it; entries without "=" are left out.
    static Dictionary environment();
    // The kernel's name for the host (no name service is asked, so it never
    // waits on the network).
    static std::string hostName();
    // The processors the system is configured with, and those online now.
    // Both are at least 1.
    static std::size_t processorCount();
    static std::size_t activeProcessorCount();
    // See the banner.
    static OperatingSystemVersion operatingSystemVersion();
    // The running kernel's release ("6.1.0-13-amd64").
    static std::string kernelRelease();
};

}  // namespace platform
