#include "QMFoundation/Keychain/NSError+QMKeychain.h"

platform::ErrorRef keychainErrorFromOSStatus(platform::OSStatus status)
{
    platform::Dictionary userInfo;
    if (const auto message = platform::SecCopyErrorMessageString(status, nullptr)) {
        userInfo.set(platform::NSLocalizedDescriptionKey, *message);
        userInfo.set(platform::NSLocalizedFailureReasonErrorKey, *message);
    }
    return platform::Error::create(std::string(QMKeychainErrorDomain), status, std::move(userInfo));
}
