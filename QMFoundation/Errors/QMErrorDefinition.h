// QMErrorDefinition: one entry of an error table, read from a definition
// dictionary with the keys "code", "name", "description", "failure_reason",
// "description_keys" and "failure_reason_keys".
//
//   auto definition = QMErrorDefinition::errorDefinitionWithDefinition(Dictionary{
//       {"code", 7}, {"name", "QuotaExceeded"},
//       {"description", "Quota of %@ exceeded."}, {"description_keys", Array{"quota"}}});
//   definition->localizedDescription(Dictionary{{"quota", "2 GB"}});  // "Quota of 2 GB exceeded."
//
// Immutable after creation; may be read from any thread.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

class QMErrorDefinition;
using QMErrorDefinitionRef = std::shared_ptr<QMErrorDefinition>;

class QMErrorDefinition : public platform::Object {
public:
    // Nothing for `definition` is a programming error ("errorDefinition").
    static QMErrorDefinitionRef errorDefinitionWithDefinition(std::optional<platform::Dictionary> definition);

    const platform::Dictionary& definition() const { return definition_; }

    // The entry under "code" as a signed integer; 0 when absent or not a number.
    std::int64_t code() const;
    std::optional<std::string> name() const;
    std::optional<std::string> descriptionFormat() const;
    std::optional<std::string> failureReasonFormat() const;
    std::optional<platform::Array> descriptionKeys() const;
    std::optional<platform::Array> failureReasonKeys() const;

    std::optional<std::string> localizedDescription(const platform::Dictionary& userInfo) const;
    std::optional<std::string> localizedFailureReason(const platform::Dictionary& userInfo) const;

    // `message` with the user-information values under `expectedKeys`
    // substituted in order. Without keys, or when any key has no value, the
    // message comes back unformatted: a half-filled message would be worse
    // than the raw one. Nothing for `message` gives nothing.
    std::optional<std::string> localizeMessage(const std::optional<std::string>& message,
                                               const std::optional<platform::Array>& expectedKeys,
                                               const platform::Dictionary& userInfo) const;

    std::string className() const override { return "QMErrorDefinition"; }
    const platform::PropertyTable& propertyTable() const override;

private:
    template <class> friend struct platform::ObjectAllocator;
    explicit QMErrorDefinition(platform::Dictionary definition) : definition_(std::move(definition)) {}

    std::optional<std::string> stringEntry(std::string_view key) const;
    std::optional<platform::Array> arrayEntry(std::string_view key) const;

    platform::Dictionary definition_;
};
