#include "Platform/Security/SecBase.h"

namespace platform {

std::optional<std::string> SecCopyErrorMessageString(OSStatus status, void*)
{
    switch (status) {
    case errSecSuccess:
        return "The operation completed without error.";
    case errSecUnimplemented:
        return "This keychain operation is not available.";
    case errSecDiskFull:
        return "The keychain could not be written because the disk is full.";
    case errSecIO:
        return "Reading or writing the keychain file failed.";
    case errSecParam:
        return "A value passed to the keychain is missing or of the wrong kind.";
    case errSecWrPerm:
        return "Permission to use the keychain file was denied.";
    case errSecAllocate:
        return "The keychain ran out of memory.";
    case errSecNotAvailable:
        return "The keychain is busy: another program held it for too long.";
    case errSecReadOnly:
        return "The keychain file can be read but not written.";
    case errSecAuthFailed:
        return "The keychain password is not correct.";
    case errSecNoSuchKeychain:
        return "There is no keychain at that location.";
    case errSecInvalidKeychain:
        return "The file is not a keychain, or the keychain is damaged.";
    case errSecDuplicateKeychain:
        return "A keychain or another file already exists at that location.";
    case errSecDuplicateItem:
        return "The keychain already holds an item with the same account, server or service, and other key attributes.";
    case errSecItemNotFound:
        return "No item in the keychain matches the search.";
    case errSecNoSuchAttr:
        return "An attribute does not belong to this kind of keychain item.";
    case errSecNoSuchClass:
        return "The kind of keychain item is not known.";
    case errSecInteractionNotAllowed:
        return "The keychain is locked; unlock it with its password first.";
    case errSecDecode:
        return "A secret stored in the keychain cannot be read; it is damaged or was not stored by this keychain.";
    case errSecUnprotectedKeychain:
        return "The keychain file is not private: another user could read or replace it.";
    default:
        return std::nullopt;
    }
}

std::optional<std::string> fourCharCodeString(std::uint32_t code)
{
    std::string text(4, ' ');
    for (int index = 0; index < 4; ++index) {
        const auto byte = static_cast<char>((code >> (24 - 8 * index)) & 0xff);
        if (byte < 0x20 || byte > 0x7e) {
            return std::nullopt;
        }
        text[static_cast<std::size_t>(index)] = byte;
    }
    return text;
}

}  // namespace platform
