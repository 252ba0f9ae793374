#include "Platform/Foundation/Error.h"

#include <cstring>

namespace platform {
namespace {

std::optional<std::string> stringEntry(const Dictionary& userInfo, std::string_view key)
{
    const auto* value = userInfo.find(key);
    if (value == nullptr || value->string() == nullptr) {
        return std::nullopt;
    }
    return *value->string();
}

}  // namespace

Error::Error(std::string domain, std::int64_t code, Dictionary userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo))
{
}

ErrorRef Error::create(std::string domain, std::int64_t code, Dictionary userInfo)
{
    return makeObject<Error>(std::move(domain), code, std::move(userInfo));
}

ErrorRef Error::posix(int code, std::string_view context)
{
    std::string description = std::strerror(code);
    if (!context.empty()) {
        description = std::string(context) + ": " + description;
    }
    return create(std::string(NSPOSIXErrorDomain), code, Dictionary{{std::string(NSLocalizedDescriptionKey), description}});
}

std::string Error::localizedDescription() const
{
    if (auto text = stringEntry(userInfo_, NSLocalizedDescriptionKey)) {
        return *text;
    }
    return "The operation couldn\u2019t be completed. (" + domain_ + " error " + std::to_string(code_) + ".)";
}

std::optional<std::string> Error::localizedFailureReason() const
{
    return stringEntry(userInfo_, NSLocalizedFailureReasonErrorKey);
}

std::optional<std::string> Error::localizedRecoverySuggestion() const
{
    return stringEntry(userInfo_, NSLocalizedRecoverySuggestionErrorKey);
}

std::string Error::description() const
{
    return "Error Domain=" + domain_ + " Code=" + std::to_string(code_) + " \"" + localizedDescription()
        + "\" UserInfo=" + Value(userInfo_).description();
}

bool Error::isEqual(const Object& other) const
{
    const auto* error = dynamic_cast<const Error*>(&other);
    return error != nullptr && error->domain_ == domain_ && error->code_ == code_ && error->userInfo_ == userInfo_;
}

}  // namespace platform
