// HexDigest: the message digests behind the MD5 and SHA categories, as
// lower-case hexadecimal text. Internal to the strings library.
#pragma once

#include <cstddef>
#include <string>

enum class HexDigestAlgorithm { MD5, SHA1, SHA256 };

std::string hexDigest(HexDigestAlgorithm algorithm, const void* bytes, std::size_t length);
