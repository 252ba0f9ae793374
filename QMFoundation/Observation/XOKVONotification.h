// XOKVONotification: the record a block observer receives for one change: who
// observes, what changed, under which key path, and the platform's change
// dictionary with typed accessors.
#pragma once

#include "Platform/Foundation/Object.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <string>

class XOKVONotification : public platform::Object {
public:
    static std::shared_ptr<XOKVONotification> create(platform::ObjectRef observer, platform::ObjectRef target,
                                                     std::string keyPath, platform::Dictionary change);

    // Nothing for an observation made without an observer.
    const platform::ObjectRef& observer() const { return observer_; }
    // The object whose value changed (for an observed array, the element).
    const platform::ObjectRef& target() const { return target_; }
    const std::string& keyPath() const { return keyPath_; }
    const platform::Dictionary& change() const { return change_; }

    // The change kind (platform::KeyValueChange as a number); 0 when absent.
    std::size_t kind() const;
    // The entries as the change dictionary holds them: nothing when the
    // observer did not ask for them, the null object for a value that was nothing.
    platform::Value oldValue() const;
    platform::Value newValue() const;
    // The changed element indexes of an insertion, removal or replacement.
    std::optional<std::set<std::size_t>> indexes() const;
    bool isPrior() const;

    std::string description() const override;

private:
    template <class> friend struct platform::ObjectAllocator;
    XOKVONotification(platform::ObjectRef observer, platform::ObjectRef target, std::string keyPath,
                      platform::Dictionary change);

    platform::ObjectRef observer_;
    platform::ObjectRef target_;
    std::string keyPath_;
    platform::Dictionary change_;
};
