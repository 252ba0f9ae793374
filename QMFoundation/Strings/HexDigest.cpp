#include "QMFoundation/Strings/HexDigest.h"

#include <openssl/evp.h>

#include <memory>
#include <stdexcept>

namespace {

const EVP_MD* messageDigest(HexDigestAlgorithm algorithm)
{
    switch (algorithm) {
    case HexDigestAlgorithm::MD5:
        return EVP_md5();
    case HexDigestAlgorithm::SHA1:
        return EVP_sha1();
    case HexDigestAlgorithm::SHA256:
        return EVP_sha256();
    }
    return nullptr;
}

}  // namespace

std::string hexDigest(HexDigestAlgorithm algorithm, const void* bytes, std::size_t length)
{
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    // These digests only fail when the library cannot allocate, which is out
    // of memory in all but name.
    if (!context || EVP_DigestInit_ex(context.get(), messageDigest(algorithm), nullptr) != 1
        || EVP_DigestUpdate(context.get(), bytes, length) != 1
        || EVP_DigestFinal_ex(context.get(), digest, &digestLength) != 1) {
        throw std::bad_alloc();
    }
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(digestLength * 2);
    for (unsigned int index = 0; index < digestLength; ++index) {
        text += digits[digest[index] >> 4];
        text += digits[digest[index] & 0x0F];
    }
    return text;
}
