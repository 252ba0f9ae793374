// Error: the platform's error record (a domain, a code and user information)
// and the out-parameter through which fallible operations report one.
//
//   std::optional<std::string> read(const URL& url, ErrorRef* error = nullptr);
//
//   ErrorRef error;
//   if (!read(url, &error)) log(error->localizedDescription());
//
// An operation writes the slot only when it is given one.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

// User-information keys, with the platform's names and values.
inline constexpr std::string_view NSLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view NSLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";
inline constexpr std::string_view NSLocalizedRecoverySuggestionErrorKey = "NSLocalizedRecoverySuggestion";
inline constexpr std::string_view NSUnderlyingErrorKey = "NSUnderlyingError";
inline constexpr std::string_view NSFilePathErrorKey = "NSFilePath";

inline constexpr std::string_view NSCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr std::string_view NSPOSIXErrorDomain = "NSPOSIXErrorDomain";

class Error final : public Object {
public:
    static ErrorRef create(std::string domain, std::int64_t code, Dictionary userInfo = {});
    // An error in the POSIX domain for `errno`-style code, with the system's
    // message as its description.
    static ErrorRef posix(int code, std::string_view context = {});

    const std::string& domain() const { return domain_; }
    std::int64_t code() const { return code_; }
    const Dictionary& userInfo() const { return userInfo_; }

    // The description from the user information, or the platform's generic
    // text naming domain and code.
    std::string localizedDescription() const;
    std::optional<std::string> localizedFailureReason() const;
    std::optional<std::string> localizedRecoverySuggestion() const;

    std::string className() const override { return "NSError"; }
    // "Error Domain=D Code=C \"description\" UserInfo={...}"
    std::string description() const override;
    bool isEqual(const Object& other) const override;

private:
    template <class> friend struct ObjectAllocator;
    Error(std::string domain, std::int64_t code, Dictionary userInfo);

    std::string domain_;
    std::int64_t code_;
    Dictionary userInfo_;
};

// Writes `error` into the caller's slot, if the caller gave one.
inline void setError(ErrorRef* slot, ErrorRef error)
{
    if (slot != nullptr) {
        *slot = std::move(error);
    }
}

}  // namespace platform
