// Equality fingerprints: a 64-bit summary of a value such that equal values
// (by the value's own equality) always have equal fingerprints. Comparing
// fingerprints first lets a linear scan skip most unequal elements without
// the full comparison; equal fingerprints still need it.
//
// Numbers fingerprint by their double value, as mixed comparisons do, so 1,
// 1.0 and true agree; collections and objects only by kind and size, since
// their equality may look through elements or be overridden.
#pragma once

#include "Platform/Foundation/Value.h"

#include <cstdint>
#include <vector>

std::uint64_t equalityFingerprint(const platform::Value& value);
std::vector<std::uint64_t> equalityFingerprints(const platform::Array& values);
