#include "QMFoundation/Comparison/NSString+QMVersionStringComparator.h"

using platform::ComparisonResult;

ComparisonResult compareToOtherVersionString(std::string_view version, std::string_view otherVersion)
{
    return QMVersionStringComparator::compareVersion(version, otherVersion);
}

bool isGreaterThanOtherVersionString(std::string_view version, std::string_view otherVersion)
{
    return compareToOtherVersionString(version, otherVersion) == ComparisonResult::OrderedDescending;
}

bool isGreaterThanOrEqualToOtherVersionString(std::string_view version, std::string_view otherVersion)
{
    return compareToOtherVersionString(version, otherVersion) != ComparisonResult::OrderedAscending;
}

bool isLessThanOtherVersionString(std::string_view version, std::string_view otherVersion)
{
    return compareToOtherVersionString(version, otherVersion) == ComparisonResult::OrderedAscending;
}

bool isLessThanOrEqualToOtherVersionString(std::string_view version, std::string_view otherVersion)
{
    return compareToOtherVersionString(version, otherVersion) != ComparisonResult::OrderedDescending;
}
