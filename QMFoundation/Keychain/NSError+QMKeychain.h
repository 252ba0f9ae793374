// NSError(QMKeychain): keychain-services statuses as error objects.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Security/SecBase.h"

#include <string_view>

inline constexpr std::string_view QMKeychainErrorDomain = "QMKeychainErrorDomain";

// An error in QMKeychainErrorDomain whose code is the status. The keychain's
// message for the status is both the localized description and the failure
// reason; a status without a message leaves the user information empty.
platform::ErrorRef keychainErrorFromOSStatus(platform::OSStatus status);
