#include "QMFoundation/REST/NSProcessInfo+QMSystemInfo.h"

#include "Platform/System/ProcessInfo.h"

// The platform's process information always answers the version here, so
// there is no fallback to reading a version file.
const std::string& operatingSystemVersionString()
{
    static const std::string version = [] {
        const auto parts = platform::ProcessInfo::operatingSystemVersion();
        return std::to_string(parts.majorVersion) + "." + std::to_string(parts.minorVersion) + "."
               + std::to_string(parts.patchVersion);
    }();
    return version;
}
