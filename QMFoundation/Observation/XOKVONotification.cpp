#include "QMFoundation/Observation/XOKVONotification.h"

#include <utility>

std::shared_ptr<XOKVONotification> XOKVONotification::create(platform::ObjectRef observer, platform::ObjectRef target,
                                                             std::string keyPath, platform::Dictionary change)
{
    return platform::makeObject<XOKVONotification>(std::move(observer), std::move(target), std::move(keyPath),
                                                   std::move(change));
}

XOKVONotification::XOKVONotification(platform::ObjectRef observer, platform::ObjectRef target, std::string keyPath,
                                     platform::Dictionary change)
    : observer_(std::move(observer)), target_(std::move(target)), keyPath_(std::move(keyPath)), change_(std::move(change))
{
}

std::size_t XOKVONotification::kind() const
{
    const auto kind = change_.get(platform::NSKeyValueChangeKindKey).integerValue().value_or(0);
    return kind < 0 ? 0 : static_cast<std::size_t>(kind);
}

platform::Value XOKVONotification::oldValue() const
{
    return change_.get(platform::NSKeyValueChangeOldKey);
}

platform::Value XOKVONotification::newValue() const
{
    return change_.get(platform::NSKeyValueChangeNewKey);
}

std::optional<std::set<std::size_t>> XOKVONotification::indexes() const
{
    const auto* entries = change_.get(platform::NSKeyValueChangeIndexesKey).array();
    if (entries == nullptr) {
        return std::nullopt;
    }
    std::set<std::size_t> indexes;
    for (const auto& entry : *entries) {
        if (const auto index = entry.integerValue(); index && *index >= 0) {
            indexes.insert(static_cast<std::size_t>(*index));
        }
    }
    return indexes;
}

bool XOKVONotification::isPrior() const
{
    return change_.get(platform::NSKeyValueChangeNotificationIsPriorKey).boolValue().value_or(false);
}

std::string XOKVONotification::description() const
{
    return "<" + className() + ": " + addressString() + "> keyPath: " + keyPath_ + ", target: "
           + (target_ ? target_->description() : std::string("(null)")) + ", change: " + platform::Value(change_).description();
}
