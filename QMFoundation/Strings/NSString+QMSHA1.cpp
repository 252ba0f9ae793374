#include "QMFoundation/Strings/NSString+QMSHA1.h"

#include "QMFoundation/Strings/HexDigest.h"

std::string SHA1String(std::string_view string)
{
    return hexDigest(HexDigestAlgorithm::SHA1, string.data(), string.size());
}

std::string SHA256String(std::string_view string)
{
    return hexDigest(HexDigestAlgorithm::SHA256, string.data(), string.size());
}
