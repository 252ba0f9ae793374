#include "QMFoundation/Strings/NSData+QMMD5.h"

#include "QMFoundation/Strings/HexDigest.h"

#include <cstdint>

std::string MD5String(const platform::Data& data)
{
    return hexDigest(HexDigestAlgorithm::MD5, data.data(), static_cast<std::uint32_t>(data.size()));
}
