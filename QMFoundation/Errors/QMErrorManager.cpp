#include "QMFoundation/Errors/QMErrorManager.h"

#include "Platform/Foundation/Exception.h"

#include <algorithm>

using platform::Array;
using platform::Dictionary;
using platform::Value;

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/QMErrorManager";
}

QMErrorManagerRef QMErrorManager::sharedManager()
{
    static const auto shared = platform::makeObject<QMErrorManager>();
    return shared;
}

QMErrorManagerRef QMErrorManager::manager()
{
    return platform::makeObject<QMErrorManager>();
}

void QMErrorManager::addErrorDefinitions(const std::optional<Array>& errorDefinitions,
                                         const std::optional<std::string>& errorDomain)
{
    PLATFORM_PARAMETER_ASSERT(errorDefinitions.has_value(), "errorDefinitions");
    PLATFORM_PARAMETER_ASSERT(errorDomain.has_value(), "errorDomain");
    for (const auto& element : *errorDefinitions) {
        const auto* definition = element.dictionary();
        addErrorDefinition(definition != nullptr ? std::optional<Dictionary>(*definition) : std::nullopt, errorDomain);
    }
}

void QMErrorManager::addErrorDefinition(const std::optional<Dictionary>& errorDefinition,
                                        const std::optional<std::string>& errorDomain)
{
    PLATFORM_PARAMETER_ASSERT(errorDefinition.has_value(), "errorDefinition");
    PLATFORM_PARAMETER_ASSERT(errorDomain.has_value(), "errorDomain");
    auto definition = QMErrorDefinition::errorDefinitionWithDefinition(*errorDefinition);
    std::lock_guard lock(tableMutex_);
    auto domain = std::find_if(errorDefinitionsByDomain_.begin(), errorDefinitionsByDomain_.end(),
                               [&](const auto& entry) { return entry.first == *errorDomain; });
    if (domain == errorDefinitionsByDomain_.end()) {
        domain = errorDefinitionsByDomain_.emplace(errorDefinitionsByDomain_.end(), *errorDomain,
                                                   std::vector<QMErrorDefinitionRef>{});
    }
    domain->second.push_back(std::move(definition));
}

QMErrorDefinitionRef QMErrorManager::errorDefinitionForDomain(std::string_view domain, std::int64_t code) const
{
    std::lock_guard lock(tableMutex_);
    for (const auto& [name, definitions] : errorDefinitionsByDomain_) {
        if (name != domain) {
            continue;
        }
        for (const auto& definition : definitions) {
            if (definition->code() == code) {
                return definition;
            }
        }
        return nullptr;
    }
    return nullptr;
}

std::vector<std::pair<std::string, std::vector<QMErrorDefinitionRef>>> QMErrorManager::allErrorDefinitionsByDomain() const
{
    std::lock_guard lock(tableMutex_);
    return errorDefinitionsByDomain_;
}

platform::ErrorRef QMErrorManager::errorWithDomain(std::string_view domain, std::int64_t code,
                                                   const std::optional<Dictionary>& userInfo) const
{
    const Dictionary noUserInfo;
    const Dictionary& given = userInfo ? *userInfo : noUserInfo;
    Dictionary entries;
    if (const auto definition = errorDefinitionForDomain(domain, code)) {
        if (auto description = definition->localizedDescription(given)) {
            entries.set(platform::NSLocalizedDescriptionKey, std::move(*description));
        }
        if (auto reason = definition->localizedFailureReason(given)) {
            entries.set(platform::NSLocalizedFailureReasonErrorKey, std::move(*reason));
        }
    }
    for (const auto& [key, value] : given) {
        entries.set(key, value);
    }
    if (!entries.contains(platform::NSLocalizedRecoverySuggestionErrorKey)) {
        if (const auto* reason = entries.find(platform::NSLocalizedFailureReasonErrorKey)) {
            entries.set(platform::NSLocalizedRecoverySuggestionErrorKey, *reason);
        }
    }
    return platform::Error::create(std::string(domain), code, std::move(entries));
}
