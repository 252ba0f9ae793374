// NSArray(XOKeyPath): an array of key paths as the collection of key paths
// that the observation centre works with.
#pragma once

#include "Platform/Foundation/Value.h"

// The array itself, not a set made of it: the centre enumerates it as it
// stands, so a key path given twice is observed twice.
const platform::Array& xo_keyPathsAsSetOfStrings(const platform::Array& keyPaths);
