#include "Platform/System/ProcessInfo.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fstream>
#include <iterator>
#include <sys/utsname.h>
#include <unistd.h>

extern char** environ;

namespace platform {
namespace {

std::size_t atLeastOne(long count)
{
    return count > 0 ? static_cast<std::size_t>(count) : 1;
}

std::vector<std::string> readArguments()
{
    // The kernel's view, so it needs nothing from `main`.
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    const std::string all((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::vector<std::string> arguments;
    std::size_t start = 0;
    while (start < all.size()) {
        const std::size_t end = std::min(all.find('\0', start), all.size());
        arguments.emplace_back(all, start, end - start);
        start = end + 1;
    }
    return arguments;
}

}  // namespace

std::string ProcessInfo::processName()
{
    // glibc keeps the last component of argv[0] from before `main` ran.
    return program_invocation_short_name;
}

int ProcessInfo::processIdentifier()
{
    return static_cast<int>(::getpid());
}

const std::vector<std::string>& ProcessInfo::arguments()
{
    static const std::vector<std::string> arguments = readArguments();
    return arguments;
}

Dictionary ProcessInfo::environment()
{
    Dictionary variables;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view definition(*entry);
        const auto separator = definition.find('=');
        if (separator == std::string_view::npos) {
            continue;
        }
        const auto name = definition.substr(0, separator);
        if (!variables.contains(name)) {
            variables.set(name, Value(definition.substr(separator + 1)));
        }
    }
    return variables;
}

std::string ProcessInfo::hostName()
{
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof name - 1) != 0) {
        return {};
    }
    return name;
}

std::size_t ProcessInfo::processorCount()
{
    return atLeastOne(::sysconf(_SC_NPROCESSORS_CONF));
}

std::size_t ProcessInfo::activeProcessorCount()
{
    return atLeastOne(::sysconf(_SC_NPROCESSORS_ONLN));
}

OperatingSystemVersion ProcessInfo::operatingSystemVersion()
{
    return {10, 10, 0};
}

std::string ProcessInfo::kernelRelease()
{
    utsname names{};
    if (::uname(&names) != 0) {
        return {};
    }
    return names.release;
}

}  // namespace platform
