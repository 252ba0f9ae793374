// NSException(QMCommon): a description of an exception for debugging.
#pragma once

#include "Platform/Foundation/Exception.h"

#include <string>

// Class, address, name, reason, user information and, when the exception was
// raised (not just made) and so knows its stack, the call stack:
//   NSException <0x...> {
//   		name: ...
//   		reason: ...
//   		userInfo: ...
//   		callStack: (...)
//   	}
// An exception raised without user information shows "(null)" there.
std::string fullDescription(const platform::Exception& exception);
