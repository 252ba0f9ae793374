// _XOKVONotificationHelper: one observation made through the key-value
// observation centre. It is the platform observer of the target's key paths
// and forwards each change to the observer's selector or to the block.
//
// Ownership: the helper is held by the helper sets of the objects that take
// part (the observer's and the target's, under the association key
// "XOKVONotificationCenter_helpers") and by whoever keeps the token. It holds
// the observer and the target weakly, so it never keeps them alive, and it
// never calls an observer that is being destroyed.
//
// Threads: notifications arrive on the thread that changes the target and
// the selector or block runs there. Removal may happen on any thread; a call
// already under way on another thread finishes, none starts afterwards.
#pragma once

#include "QMFoundation/Observation/XOKVOObservation.h"

#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class _XOKVONotificationHelper : public platform::Object, public XOKVOObservation {
public:
    static constexpr std::string_view associationKey = "XOKVONotificationCenter_helpers";

    // Makes the helper and registers it: observes each key path on the target
    // (on every element when the target is an array), then joins the helper
    // sets of the observer and of the target. `options` lose the centre's
    // own bit on the way.
    static std::shared_ptr<_XOKVONotificationHelper> create(const platform::ObjectRef& observer,
                                                            const platform::Value& target,
                                                            std::vector<std::string> keyPaths,
                                                            std::optional<XOKVOSelector> selector,
                                                            platform::Value userInfo, XOKVONotificationBlock block,
                                                            platform::KeyValueObservingOptions options);

    // The helpers an object takes part in, as observer or as target.
    static std::vector<std::shared_ptr<_XOKVONotificationHelper>> helpersOf(const platform::Object& object);

    bool isValid() const override;
    // Deregisters: ends the platform observations, leaves both helper sets,
    // and forgets observer, target and key paths.
    void remove() override;

    // Whether the observation matches every criterion that is given (nothing
    // stands for "any"): the same observer, the same target (an array target
    // matches an array of the same objects in the same order), the same set
    // of key paths, the same selector.
    bool matches(const platform::Object* observer, const platform::Value& target,
                 const std::optional<std::set<std::string>>& keyPaths,
                 const std::optional<XOKVOSelector>& selector) const;

    void observeValueForKeyPath(const std::string& keyPath, const platform::ObjectRef& object,
                                const platform::Dictionary& change, void* context) override;

private:
    _XOKVONotificationHelper(const platform::ObjectRef& observer, const platform::Value& target,
                             std::vector<std::string> keyPaths, std::optional<XOKVOSelector> selector,
                             platform::Value userInfo, XOKVONotificationBlock block,
                             platform::KeyValueObservingOptions options);

    void registerObservations(const platform::Value& target);
    void joinHelperSet(platform::Object& object);
    void leaveHelperSet(platform::Object& object);

    mutable std::mutex mutex_;  // guards every field below
    bool removed_ = false;
    bool hasTarget_ = false;
    std::weak_ptr<platform::Object> observer_;
    const platform::Object* observerIdentity_ = nullptr;  // compared, never dereferenced
    bool targetIsArray_ = false;
    std::vector<std::weak_ptr<platform::Object>> targets_;
    std::vector<const platform::Object*> targetIdentities_;
    std::optional<XOKVOSelector> selector_;
    platform::Value userInfo_;
    std::shared_ptr<const XOKVONotificationBlock> block_;
    std::vector<std::string> keyPaths_;
    platform::KeyValueObservingOptions options_ = 0;
    // The platform registrations made, to undo exactly those.
    std::vector<std::pair<std::weak_ptr<platform::Object>, std::string>> registrations_;
};
