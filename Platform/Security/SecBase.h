// SecBase: status codes of the keychain services and their message texts.
//
// Every keychain operation answers a signed 32-bit status; 0 is success.
// The values are the platform's, so callers and error objects compare them
// with the numbers users look up.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace platform {

using OSStatus = std::int32_t;

inline constexpr OSStatus errSecSuccess = 0;
inline constexpr OSStatus errSecUnimplemented = -4;
inline constexpr OSStatus errSecDiskFull = -34;
inline constexpr OSStatus errSecIO = -36;
inline constexpr OSStatus errSecParam = -50;
inline constexpr OSStatus errSecWrPerm = -61;
inline constexpr OSStatus errSecAllocate = -108;
inline constexpr OSStatus errSecNotAvailable = -25291;
inline constexpr OSStatus errSecReadOnly = -25292;
inline constexpr OSStatus errSecAuthFailed = -25293;
inline constexpr OSStatus errSecNoSuchKeychain = -25294;
inline constexpr OSStatus errSecInvalidKeychain = -25295;
inline constexpr OSStatus errSecDuplicateKeychain = -25296;
inline constexpr OSStatus errSecDuplicateItem = -25299;
inline constexpr OSStatus errSecItemNotFound = -25300;
inline constexpr OSStatus errSecNoSuchAttr = -25303;
inline constexpr OSStatus errSecNoSuchClass = -25306;
inline constexpr OSStatus errSecInteractionNotAllowed = -25308;
inline constexpr OSStatus errSecDecode = -26275;
// This system's own: the keychain file could be read or replaced by another
// user (see SecKeychain.h). The platform has no such status.
inline constexpr OSStatus errSecUnprotectedKeychain = -25398;

// The message for a status, in this system's words; nothing for a status the
// keychain layer never answers. The second argument is reserved and ignored.
std::optional<std::string> SecCopyErrorMessageString(OSStatus status, void* reserved = nullptr);

// A four-character code ("htps") as the 32-bit number the keychain stores:
// the first character in the most significant byte.
constexpr std::uint32_t fourCharCode(const char (&code)[5])
{
    return (static_cast<std::uint32_t>(static_cast<unsigned char>(code[0])) << 24) |
           (static_cast<std::uint32_t>(static_cast<unsigned char>(code[1])) << 16) |
           (static_cast<std::uint32_t>(static_cast<unsigned char>(code[2])) << 8) |
           static_cast<std::uint32_t>(static_cast<unsigned char>(code[3]));
}

// "htps" for the number of "htps"; nothing when a byte is not printable
// ASCII.
std::optional<std::string> fourCharCodeString(std::uint32_t code);

}  // namespace platform
