// Exception: the platform's exception (a name, a reason and user information)
// and the assertion handler that turns programming errors into one.
//
// Assertions name the source file as the design does, through a constant that
// each asserting source file defines:
//
//   namespace { constexpr const char* kAssertionSourceFile = "ZarvoAskpass/ZarvoAskpass"; }
//   ...
//   PLATFORM_PARAMETER_ASSERT(!arguments.empty(), "arguments");
//
// raises "NSInternalInconsistencyException" with the reason
// "Invalid parameter not satisfying: arguments".
#pragma once

#include "Platform/Foundation/Value.h"

#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

inline constexpr std::string_view NSInternalInconsistencyException = "NSInternalInconsistencyException";
inline constexpr std::string_view NSInvalidArgumentException = "NSInvalidArgumentException";
inline constexpr std::string_view NSRangeException = "NSRangeException";
inline constexpr std::string_view NSGenericException = "NSGenericException";
inline constexpr std::string_view NSUndefinedKeyException = "NSUndefinedKeyException";

class Exception : public std::exception {
public:
    Exception(std::string_view name, std::string reason, Dictionary userInfo = {});

    [[noreturn]] static void raise(std::string_view name, std::string reason, Dictionary userInfo = {});

    const std::string& name() const { return name_; }
    const std::string& reason() const { return reason_; }
    const Dictionary& userInfo() const { return userInfo_; }
    const char* what() const noexcept override { return reason_.c_str(); }

    // The frames of the thread that raised it, innermost first. Only `raise`
    // records them; an exception that was only constructed has none.
    const std::vector<std::string>& callStackSymbols() const { return callStackSymbols_; }

private:
    std::string name_;
    std::string reason_;
    Dictionary userInfo_;
    std::vector<std::string> callStackSymbols_;
};

// Where an assertion failed and what it said.
struct AssertionFailure {
    std::string method;
    std::string file;
    int line = 0;
    std::string description;
    // The object whose method failed, as it describes itself; empty where the
    // failure is not about one object.
    std::string object = {};
};

// The one assertion handler of the process. Every failed assertion passes
// through `handleFailure`, which tells the observer (if any) and raises
// "NSInternalInconsistencyException" with the description as its reason.
class AssertionHandler {
public:
    using Observer = std::function<void(const AssertionFailure&)>;

    // Replaces the observer; returns the previous one. Tests use it to see
    // the method, file and line of a failure.
    static Observer setObserver(Observer observer);

    [[noreturn]] static void handleFailure(AssertionFailure failure);
    // "Invalid parameter not satisfying: <condition>"
    [[noreturn]] static void handleParameterFailure(std::string method, std::string file, int line,
                                                    std::string_view condition);
};

// Prints the platform's report of an uncaught exception on standard error
// before the process aborts:
// "*** Terminating app due to uncaught exception 'NAME', reason: 'REASON'".
void installUncaughtExceptionReporter();

}  // namespace platform

#define PLATFORM_PARAMETER_ASSERT(condition, conditionText)                                                  \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            ::platform::AssertionHandler::handleParameterFailure(__func__, kAssertionSourceFile, __LINE__,   \
                                                                 conditionText);                             \
        }                                                                                                    \
    } while (false)

// For assertions whose line applications already know and match on: the
// line is given, not taken from where the check happens to sit.
#define PLATFORM_PARAMETER_ASSERT_AT_LINE(condition, conditionText, line)                                    \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            ::platform::AssertionHandler::handleParameterFailure(__func__, kAssertionSourceFile, line,       \
                                                                 conditionText);                             \
        }                                                                                                    \
    } while (false)

#define PLATFORM_ASSERT(condition, descriptionText)                                                          \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            ::platform::AssertionHandler::handleFailure({__func__, kAssertionSourceFile, __LINE__,           \
                                                         descriptionText});                                  \
        }                                                                                                    \
    } while (false)
