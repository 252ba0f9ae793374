#include "QMFoundation/Strings/NSString+QMMD5.h"

#include "QMFoundation/Strings/HexDigest.h"

#include <cstdint>

std::string MD5String(std::string_view string)
{
    // The byte count travels as 32 bits, as for data.
    return hexDigest(HexDigestAlgorithm::MD5, string.data(), static_cast<std::uint32_t>(string.size()));
}

std::string md5(std::string_view string)
{
    return MD5String(string);
}
