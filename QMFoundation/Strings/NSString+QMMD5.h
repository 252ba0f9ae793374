// NSString(QMMD5): the MD5 digest of a string's UTF-8 bytes, as 32
// lower-case hexadecimal digits. For checksums and cache keys, not security.
#pragma once

#include <string>
#include <string_view>

std::string MD5String(std::string_view string);
// Same as `MD5String(string)`.
std::string md5(std::string_view string);
