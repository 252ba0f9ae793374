// NSString(QMSHA1): SHA digests of a string's UTF-8 bytes, as lower-case
// hexadecimal text.
#pragma once

#include <string>
#include <string_view>

// 40 hexadecimal digits.
std::string SHA1String(std::string_view string);
// 64 hexadecimal digits.
std::string SHA256String(std::string_view string);
