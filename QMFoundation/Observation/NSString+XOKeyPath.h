// NSString(XOKeyPath): one key path as the set of key paths that the
// observation centre works with.
#pragma once

#include "Platform/Foundation/Value.h"

#include <string>

// A set holding the key path.
platform::Set xo_keyPathsAsSetOfStrings(const std::string& keyPath);
