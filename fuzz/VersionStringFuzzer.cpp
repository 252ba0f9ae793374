// Two version strings (split at the first NUL byte): comparing must be
// antisymmetric and reflexive, and the parts must put the string back together.
#include "QMFoundation/Comparison/QMVersionStringComparator.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    const std::string_view input(reinterpret_cast<const char*>(bytes), size);
    const auto separator = input.find('\0');
    const auto version = input.substr(0, separator);
    const auto otherVersion = separator == std::string_view::npos ? std::string_view() : input.substr(separator + 1);

    const auto forward = static_cast<int>(QMVersionStringComparator::compareVersion(version, otherVersion));
    const auto backward = static_cast<int>(QMVersionStringComparator::compareVersion(otherVersion, version));
    if (forward != -backward || QMVersionStringComparator::compareVersion(version, version) != platform::ComparisonResult::OrderedSame) {
        std::abort();
    }
    std::string joined;
    for (const auto& part : QMVersionStringComparator::splitVersionString(version)) {
        if (part.empty()) {
            std::abort();
        }
        joined += part;
    }
    if (joined != version) {
        std::abort();
    }
    return 0;
}
