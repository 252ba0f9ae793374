// NSString(QMVersionStringComparator): version comparison on any string; see
// QMVersionStringComparator for the order.
#pragma once

#include "QMFoundation/Comparison/QMVersionStringComparator.h"

platform::ComparisonResult compareToOtherVersionString(std::string_view version, std::string_view otherVersion);
bool isGreaterThanOtherVersionString(std::string_view version, std::string_view otherVersion);
bool isGreaterThanOrEqualToOtherVersionString(std::string_view version, std::string_view otherVersion);
bool isLessThanOtherVersionString(std::string_view version, std::string_view otherVersion);
bool isLessThanOrEqualToOtherVersionString(std::string_view version, std::string_view otherVersion);
