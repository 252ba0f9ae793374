// NSError(QMCommon): the contains-error test and a description for debugging.
#pragma once

#include "Platform/Foundation/Error.h"

#include <string>

// True exactly when the code is positive. Status-style errors with negative
// codes (keychain statuses) and code 0 count as no error.
bool containsError(const platform::Error& error);

// Domain, code, localized description, failure reason and user information,
// one per line:
//   <NSError 0x...> {
//   	Domain: ...
//   	Code: ...
//   	Description: ...
//   	Reason: ...
//   	UserInfo: ...
//   }
std::string fullDescription(const platform::Error& error);
