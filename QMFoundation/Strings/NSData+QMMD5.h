// NSData(QMMD5): the MD5 digest of bytes, as 32 lower-case hexadecimal digits.
#pragma once

#include "Platform/Foundation/Value.h"

#include <string>

// The byte count goes to the digest as a 32-bit number, as it always has: of
// data of 4 GiB or more only the length modulo 2^32 is digested.
std::string MD5String(const platform::Data& data);
