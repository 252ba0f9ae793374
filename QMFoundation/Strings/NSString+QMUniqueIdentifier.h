// NSString(QMUniqueIdentifier): fresh random identifiers.
#pragma once

#include <string>

// A new random (version 4) UUID in the canonical 36-character form with
// upper-case digits, "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
std::string uniqueIdentifier();
// Same as `uniqueIdentifier()`.
std::string stringWithUUID();
