// ToolOutput: everything zarvo-keychain writes: items, complaints and the
// exit status that goes with each outcome.
//
// A complaint about the command line is an error in kToolErrorDomain; the
// code that finds it does not print it, the subcommand does (`complain`).
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Security/SecBase.h"

#include <cstdio>
#include <string>
#include <string_view>

namespace keychaintool {

struct Command;

inline constexpr std::string_view kProgram = "zarvo-keychain";

inline constexpr std::string_view kToolErrorDomain = "ZarvoKeychainToolErrorDomain";
enum ToolErrorCode : std::int64_t {
    // The command line is wrong in its shape (an unknown option, a missing
    // one); the user is pointed at the command's --help.
    kToolErrorUsage = 1,
    // An option's value cannot be used (a URL without a host, a port out of
    // range); the one line says why, and --help would not add to it.
    kToolErrorBadValue = 2,
};

// Put a complaint about the command line, described by `message`, into
// `error` (when given one) and return false, for `return refuse(...)`.
[[nodiscard]] bool refuse(std::string message, platform::ErrorRef* error);
[[nodiscard]] bool refuseValue(std::string message, platform::ErrorRef* error);

void print(FILE* stream, std::string_view text);

// "zarvo-keychain: command: message" on standard error.
void fail(const Command& command, std::string_view message);

// Writes the complaint in `error` and returns the exit status for it,
// kExitUsage for both kinds.
[[nodiscard]] int complain(const Command& command, const platform::ErrorRef& error);
[[nodiscard]] int usageError(const Command& command, std::string_view message);

// The exit status for a keychain status (see ToolExit).
[[nodiscard]] int exitForStatus(platform::OSStatus status);
// Writes the keychain's message for a failed status; returns its exit status.
[[nodiscard]] int report(const Command& command, platform::OSStatus status);

// An item's keychain, class and attributes, one to a line, on standard
// output; its password too when `withSecret` is set.
void printItem(const platform::Dictionary& item, bool withSecret);

}  // namespace keychaintool
